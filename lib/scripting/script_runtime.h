// The script runtime of the player: the language core, the native classes and the hooks.
#pragma once

#include "lib/scripting/script_hooks.h"

// The runtime exists as long as an object of this class does: every interpreter has one, and who
// runs scripts one after the other keeps one in between, because starting the runtime registers
// every class. KelvoObjectGlobals must exist from before the first to after the last. No script
// object may be left when the last one goes. Created and destroyed on any thread.
class ScriptRuntime {
 public:
  ScriptRuntime();
  ~ScriptRuntime();
  ScriptRuntime(const ScriptRuntime&) = delete;
  ScriptRuntime& operator=(const ScriptRuntime&) = delete;

  // Who hears of the requests that the script on the calling thread makes: the interpreter that
  // runs it, for as long as the run lasts. Null takes it back.
  class RequestHandler {
   public:
    virtual void OnScriptRequest(ScriptRequest request) = 0;

   protected:
    ~RequestHandler() = default;
  };
  static void SetRequestHandler(RequestHandler* handler);
};
