// The console channel of scripts and of the debugger, on a line editor.
#pragma once

#include <memory>

#include "lib/platform/line_editor.h"
#include "psiocon.h"

// A console that a script runs on.
class ScriptConsole {
 public:
  virtual ~ScriptConsole() = default;

  // The channel, valid as long as this object. It belongs to the thread of the script that uses it.
  virtual psIo* GetIoConsole() = 0;
};

// What goes out is written at once, each line end as CR LF; a backspace wipes out the character
// before it, and the codes that shift character sets (14, 15) are dropped. Lines come from the
// editor, with the editor's prompt; one that is longer than the buffer is cut. At the end of input
// the channel is closed.
class LineEditorIoConsole : public ScriptConsole {
 public:
  // The console of a channel that GetIoConsole returned; another channel fails an assertion.
  static LineEditorIoConsole* FromIoConsole(psIo* io);
};

std::shared_ptr<LineEditorIoConsole> MakeLineEditorIoConsole(
    std::shared_ptr<lattix::LineEditor> editor);
