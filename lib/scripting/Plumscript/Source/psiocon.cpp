// The console channel: column tracking for raw consoles, and a small terminal for those that show a
// buffer of cells.
//
// With a geometry the cursor lies in 0..cells; the value `cells` means that the last cell has been
// written and the next byte scrolls first, so a full screen stays up until there is more to show.
// Bytes 8, 14, 15, 24..31 and 192..255 are controls, the others are cells.
#include "psiocon.h"

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "ps_assert.h"

namespace {

int cellCount(const psIo* io) { return io->io_width * io->io_height; }

void refreshCells(psIo* io, int first, int last) {
  if (io->refresh != nullptr && io->screen != nullptr) io->refresh(io, io->screen, first, last);
}

void setCell(psIo* io, char ch) {
  if (io->screen == nullptr) return;
  io->screen[io->cursor] = ch;
  refreshCells(io, io->cursor, io->cursor);
}

void blankCells(psIo* io, int first, int last) {
  if (io->screen == nullptr || first > last) return;
  std::memset(io->screen + first, ' ', static_cast<size_t>(last - first + 1));
  refreshCells(io, first, last);
}

// The glyph stands in the cell itself, so taking it away leaves a blank.
void hideGlyph(psIo* io) {
  if (io->cursor_visible && io->cursor < cellCount(io)) setCell(io, ' ');
}
void showGlyph(psIo* io) {
  if (io->cursor_visible && io->cursor < cellCount(io)) setCell(io, '_');
}

void moveCursor(psIo* io, int cursor) {
  hideGlyph(io);
  io->cursor = cursor;
}

void scrollWhenFull(psIo* io) {
  const int cells = cellCount(io);
  psAssert(io->cursor <= io->io_width * io->io_height);
  if (io->cursor != cells) return;
  const int last_row = cells - io->io_width;
  if (io->screen != nullptr) {
    std::memmove(io->screen, io->screen + io->io_width, static_cast<size_t>(last_row));
    std::memset(io->screen + last_row, ' ', static_cast<size_t>(io->io_width));
  }
  io->cursor = last_row;
  refreshCells(io, 0, cells - 1);
}

// The column after a byte on a console without geometry.
int columnAfter(int column, unsigned char ch) {
  if (ch == '\r' || ch == '\n') return 0;
  if (ch == 8 || ch == 24) return column > 0 ? column - 1 : 0;
  const int step = ch < 192 ? 1 : ch - 192;
  return column <= INT_MAX - step ? column + step : INT_MAX;
}

void emulate(psIo* io, unsigned char ch) {
  const int cells = cellCount(io);
  const int row_start = io->cursor - io->cursor % io->io_width;
  const int row_end = row_start + io->io_width - 1;
  switch (ch) {
    case '\r':
    case '\n':
      moveCursor(io, row_end + 1);
      if (io->cursor < cells) blankCells(io, io->cursor, io->cursor + io->io_width - 1);
      break;
    case 8:
      if (io->cursor > 0) {
        moveCursor(io, io->cursor - 1);
        setCell(io, ' ');
      }
      break;
    case 14: io->cursor_visible = true; break;
    case 15:
      io->cursor_visible = false;
      setCell(io, ' ');
      break;
    case 24:
      if (io->cursor > 0) moveCursor(io, io->cursor - 1);
      break;
    case 25:
      if (io->cursor < cells - 1) moveCursor(io, io->cursor + 1);
      break;
    case 26:
      if (io->cursor + io->io_width < cells) moveCursor(io, io->cursor + io->io_width);
      break;
    case 27:
      if (io->cursor >= io->io_width) moveCursor(io, io->cursor - io->io_width);
      break;
    case 28: moveCursor(io, 0); break;
    case 29: moveCursor(io, row_start); break;
    case 30: blankCells(io, io->cursor, row_end); break;
    case 31: blankCells(io, io->cursor, cells - 1); break;
    default:
      if (ch < 192) {
        setCell(io, static_cast<char>(ch));
        ++io->cursor;
      } else {
        for (int n = ch - 192; n > 0; --n) io_putc(io, ' ');
      }
      break;
  }
  showGlyph(io);
  psAssert(io->cursor <= io->io_width * io->io_height);
}

}  // namespace

void io_putc(psIo* io, unsigned char ch) {
  const bool geometry = io_has_geometry(io);
  if (geometry) scrollWhenFull(io);
  if (io->putc != nullptr) {
    // Bytes above 191 reach a raw console as they are: there they are parts of UTF-8 sequences.
    if (!geometry) io->cursor = columnAfter(io->cursor, ch);
    io->putc(io, ch);
  } else if (geometry) {
    emulate(io, ch);
  }
}

void io_write(psIo* io, psText text) {
  if (text.empty()) return;
  if (io->putc == nullptr || io->write == nullptr) {
    for (char c : text) io_putc(io, static_cast<unsigned char>(c));
    return;
  }
  if (io_has_geometry(io)) {
    scrollWhenFull(io);
  } else {
    // What stands before the last line end does not matter for the column.
    const size_t line_end = text.find_last_of(psText("\r\n", 2));
    int column = line_end == psText::npos ? io->cursor : 0;
    for (char c : text.substr(line_end == psText::npos ? 0 : line_end + 1)) {
      column = columnAfter(column, static_cast<unsigned char>(c));
    }
    io->cursor = column;
  }
  io->write(io, text.data(), text.size());
}

void io_printf(psIo* io, const char* format, ...) {
  std::string buffer(80, '\0');
  for (;;) {
    va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(buffer.data(), buffer.size(), format, args);
    va_end(args);
    if (n < 0) return;
    if (static_cast<size_t>(n) < buffer.size()) {
      io_write(io, psText(buffer.data(), static_cast<size_t>(n)));
      return;
    }
    buffer.resize(static_cast<size_t>(n) + 1);
  }
}

int io_read_line(psIo* io, char* buffer, size_t size, const char* prompt) {
  if (io->read_line == nullptr) return -1;
  return io->read_line(io, buffer, size, prompt);
}

void io_set_cursor(psIo* io, int cursor) {
  if (!io_has_geometry(io)) return;
  const bool emulated = io->putc == nullptr;
  if (emulated) hideGlyph(io);
  io->cursor = std::clamp(cursor, 0, cellCount(io) - 1);
  if (emulated) showGlyph(io);
}

int io_get_cursor(const psIo* io) { return io->cursor; }

bool io_at_line_start(const psIo* io) {
  return io->io_width > 0 ? io->cursor % io->io_width == 0 : io->cursor == 0;
}

void io_flush(psIo* io) {
  if (io->flush != nullptr) io->flush(io);
}

void io_close(psIo* io) {
  if (io->close != nullptr) io->close(io);
}
