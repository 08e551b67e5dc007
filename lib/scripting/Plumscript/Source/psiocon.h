// The console channel: where PRINT, Pos, the debugger and the runtime's own messages write.
//
// A channel has either a raw output hook (a terminal, a pipe), or a screen of width x height cells
// that it keeps in a buffer and reports changes of. Without a geometry the cursor is the column;
// with one it is the cell index (row x width + column).
//
// A channel belongs to the thread of the script that uses it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "typedvals.h"

struct psIo {
  void (*putc)(psIo* io, unsigned char ch) = nullptr;  // raw output; null: screen emulation
  // Writes many raw bytes at once; null: putc for each.
  void (*write)(psIo* io, const char* text, size_t n) = nullptr;
  // Reads a line of at most size - 1 bytes, without its line end. Returns the length, 0 for nothing
  // read (try again), -1 when the console is closed.
  int (*read_line)(psIo* io, char* buffer, size_t size, const char* prompt) = nullptr;
  void (*report)(psIo* io) = nullptr;
  void (*close)(psIo* io) = nullptr;
  void (*flush)(psIo* io) = nullptr;

  int io_width = 0;
  int io_height = 0;
  int cursor = 0;
  // The cells first..last of the buffer have changed.
  void (*refresh)(psIo* io, const char* buffer, int first, int last) = nullptr;
  bool cursor_visible = false;
  char* screen = nullptr;  // io_width x io_height bytes, owned by whoever made the channel

  void* host = nullptr;  // the host's own
};

inline bool io_has_geometry(const psIo* io) { return io->io_width > 0 && io->io_height > 0; }

void io_putc(psIo* io, unsigned char ch);
void io_write(psIo* io, psText text);
void io_printf(psIo* io, const char* format, ...) __attribute__((format(printf, 2, 3)));
int io_read_line(psIo* io, char* buffer, size_t size, const char* prompt);
void io_set_cursor(psIo* io, int cursor);  // clamped; ignored without geometry
int io_get_cursor(const psIo* io);
bool io_at_line_start(const psIo* io);
void io_flush(psIo* io);
void io_close(psIo* io);
