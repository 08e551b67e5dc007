// The channel's hooks find their object through the channel's host pointer, which is checked at
// every call: channels are reached from hooks and debug sessions that may outlive a run.
#include "lib/scripting/console_on_line_editor.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "lib/platform/always_magic.h"

namespace {

class LineEditorIoConsoleImpl final : public LineEditorIoConsole {
 public:
  explicit LineEditorIoConsoleImpl(std::shared_ptr<lattix::LineEditor> editor)
      : m_editor(std::move(editor)) {
    m_io.putc = [](psIo* io, unsigned char ch) {
      const char byte = static_cast<char>(ch);
      Of(io)->Write(&byte, 1);
    };
    m_io.write = [](psIo* io, const char* text, size_t n) { Of(io)->Write(text, n); };
    m_io.read_line = [](psIo* io, char* buffer, size_t size, const char*) {
      return Of(io)->ReadLine(buffer, size);
    };
    m_io.host = this;
  }

  psIo* GetIoConsole() override { return &m_io; }

  static LineEditorIoConsoleImpl* Of(psIo* io) {
    lattix::CheckPointer(io->host);
    auto* const self = static_cast<LineEditorIoConsoleImpl*>(io->host);
    Magic::CheckMagic(&self->m_magic);
    return self;
  }

 private:
  using Magic = lattix::AlwaysMagic<469913630>;

  // In one piece, so that a line stays together whatever else writes to the terminal.
  void Write(const char* text, size_t n) {
    std::string out;
    out.reserve(n + 16);
    for (const char c : std::string_view(text, n)) {
      switch (c) {
        case '\n': out += "\r\n"; break;
        case '\b': out += "\b \b"; break;
        case 14:
        case 15: break;
        default: out += c; break;
      }
    }
    if (!out.empty()) m_editor->Write(out.data(), out.size());
  }

  int ReadLine(char* buffer, size_t size) {
    if (size == 0) return 0;
    buffer[0] = '\0';
    std::string line;
    if (!m_editor->ReadLine(&line)) return -1;
    m_io.cursor = 0;  // the editor has moved on to the next line
    const size_t n = std::min(line.size(), size - 1);
    std::memcpy(buffer, line.data(), n);
    buffer[n] = '\0';
    return static_cast<int>(n);
  }

  Magic m_magic;
  psIo m_io;
  const std::shared_ptr<lattix::LineEditor> m_editor;
};

}  // namespace

LineEditorIoConsole* LineEditorIoConsole::FromIoConsole(psIo* io) {
  return LineEditorIoConsoleImpl::Of(io);
}

std::shared_ptr<LineEditorIoConsole> MakeLineEditorIoConsole(
    std::shared_ptr<lattix::LineEditor> editor) {
  return std::make_shared<LineEditorIoConsoleImpl>(std::move(editor));
}
