// Telling the operator, on the console and over the network, that a script failed.
#pragma once

#include <stop_token>
#include <string>

#include "lib/platform/url_fetcher.h"
#include "lib/scripting/filename_mapper.h"

struct ScriptFailure {
  enum class Kind {
    kLoadError,    // "ScriptLoadError"
    kRuntimeError  // "ScriptRuntimeError"
  };
  Kind kind = Kind::kRuntimeError;
  // The first error's text; white space around it does not matter. Without one there is nothing to
  // report.
  std::string error;
  std::string script;  // the drive-style name
  // The run's failure goes to the debugger: the network hears nothing of it.
  bool for_debugger = false;
};

// Whether a crash dump waits to be collected; reports say so ("CrashDump=yes").
bool HasCrashDump();

// Prints the report's local lines, and posts it to the recovery server if there is one (url not
// empty); prints what came of it. `with_crash_dump` is HasCrashDump() at the start of the run.
// Blocks until the server has answered, a minute at most, or a stop is requested. Throws nothing
// but std::bad_alloc. Any thread.
void MaybeReportErrorToNetwork(UrlFetcher& fetcher, const std::string& url,
                               const std::string& user_agent, const FilenameMapper& mapper,
                               const ScriptFailure& failure, bool with_crash_dump,
                               std::stop_token stop = {});

// The form that is posted: fields "ErrorType", "ErrorString", "ScriptFile" and "ScriptHash", and
// "CrashDump" when there is one, each followed by '&'. The hash is the script's SHA-1 in
// hexadecimal.
std::string ErrorReportForm(const ScriptFailure& failure, const std::string& hash,
                            bool with_crash_dump);
