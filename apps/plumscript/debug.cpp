// debug: run with the interactive debugger, whose channel is made here.
//
// Standard output is the script's. The debugger writes to standard error, unless standard output is
// a terminal: there the two share one channel, which so knows the column that either left.
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "apps/plumscript/commands.h"
#include "apps/plumscript/host.h"
#include "apps/plumscript/line_reader.h"
#include "apps/plumscript/output.h"
#include "apps/plumscript/run.h"
#include "lib/scripting/Plumscript/Source/run_debugger.h"

namespace {

class DebugConsole {
 public:
  explicit DebugConsole(Host& host)
      : m_host(host), m_io(Out().terminal() ? host.console() : &m_error) {
    m_error.putc = [](psIo*, unsigned char ch) {
      const char text = static_cast<char>(ch);
      Out().Error({&text, 1});
    };
    m_error.write = [](psIo*, const char* text, size_t n) { Out().Error({text, n}); };
    m_error.flush = [](psIo*) { Out().Flush(); };
    m_io->read_line = [](psIo* io, char* buffer, size_t size, const char* prompt) {
      return static_cast<DebugConsole*>(io->host)->Read(buffer, size, prompt);
    };
    m_io->host = this;
  }
  ~DebugConsole() {
    m_io->read_line = nullptr;
    m_io->host = nullptr;
  }
  DebugConsole(const DebugConsole&) = delete;
  DebugConsole& operator=(const DebugConsole&) = delete;

  psIo* io() { return m_io; }

 private:
  static constexpr size_t kMaxLine = kPsDebugLineSize - 1;

  int Read(char* buffer, size_t size, const char* prompt) {
    if (m_reader->interactive() && !io_at_line_start(m_io)) io_putc(m_io, '\n');
    Out().Flush();
    LineReader::Result result;
    {
      const Host::Pause pause(m_host);
      result = m_reader->Read(prompt, &m_line);
    }
    if (m_reader->interactive()) m_io->cursor = 0;  // the line end that was typed
    switch (result) {
      case LineReader::Result::kEnd: return -1;
      case LineReader::Result::kInterrupted: return 0;
      case LineReader::Result::kTooLong:
        Out().Error("plumscript: a line has at most " + std::to_string(kMaxLine) + " bytes\n");
        return 0;
      case LineReader::Result::kLine: break;
    }
    const size_t n = std::min(m_line.size(), size - 1);
    std::memcpy(buffer, m_line.data(), n);
    buffer[n] = '\0';
    return static_cast<int>(n);
  }

  Host& m_host;
  psIo m_error;
  psIo* m_io;
  const std::unique_ptr<LineReader> m_reader = LineReader::Make(kMaxLine);
  std::string m_line;
};

}  // namespace

int DebugScript(std::span<const char* const> operands) {
  Host host;
  DebugConsole console(host);
  const std::unique_ptr<psDebugSession, void (*)(psDebugSession*)> session(
      DebugCreateSession(nullptr, console.io()), DebugDeleteSession);
  return RunFile(host, operands, session.get());
}
