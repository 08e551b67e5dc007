// The console channel: columns of a raw console, cells of an emulated one.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "psiocon.h"

namespace {

struct RawConsole {
  std::string bytes;
  int writes = 0;
  psIo io;

  RawConsole() {
    io.host = this;
    io.putc = [](psIo* self, unsigned char ch) {
      static_cast<RawConsole*>(self->host)->bytes += static_cast<char>(ch);
    };
  }
  void takeRuns() {
    io.write = [](psIo* self, const char* text, size_t n) {
      auto* console = static_cast<RawConsole*>(self->host);
      console->bytes.append(text, n);
      ++console->writes;
    };
  }
};

struct ColumnCase {
  const char* text;
  int column;
};
class Columns : public testing::TestWithParam<ColumnCase> {};

TEST_P(Columns, FollowTheBytesWhichArriveUnchanged) {
  const ColumnCase& c = GetParam();
  RawConsole by_byte;
  io_write(&by_byte.io, "ab");
  io_write(&by_byte.io, c.text);
  EXPECT_EQ(io_get_cursor(&by_byte.io), c.column);
  EXPECT_EQ(by_byte.bytes, std::string("ab") + c.text);

  RawConsole by_run;
  by_run.takeRuns();
  io_write(&by_run.io, "ab");
  io_write(&by_run.io, c.text);
  EXPECT_EQ(io_get_cursor(&by_run.io), c.column);
  EXPECT_EQ(by_run.bytes, by_byte.bytes);
}

INSTANTIATE_TEST_SUITE_P(Table, Columns,
                         testing::Values(ColumnCase{"cd", 4}, ColumnCase{"c\rde", 2},
                                         ColumnCase{"c\n", 0}, ColumnCase{"\b\b\b\bx", 1},
                                         ColumnCase{"\x18", 1}, ColumnCase{"\x07\t", 4},
                                         ColumnCase{"\xc0", 2}, ColumnCase{"\xc1", 3},
                                         ColumnCase{"\xff", 65}, ColumnCase{"x\n\xc3\xa9", 4}));

TEST(RawConsole, WithAGeometryLeavesTheCursorAlone) {
  RawConsole console;
  console.takeRuns();
  console.io.io_width = 10;
  console.io.io_height = 2;
  io_set_cursor(&console.io, 99);
  EXPECT_EQ(io_get_cursor(&console.io), 19);
  io_write(&console.io, "text\xc1");
  EXPECT_EQ(console.bytes, "text\xc1");
  EXPECT_EQ(io_get_cursor(&console.io), 19);
  io_set_cursor(&console.io, -1);
  EXPECT_TRUE(io_at_line_start(&console.io));
}

TEST(RawConsole, FormatsTextOfAnyLength) {
  RawConsole console;
  const std::string longer(1000, 'x');
  for (const size_t n : {0u, 78u, 79u, 80u, 81u, 1000u}) {
    console.bytes.clear();
    io_printf(&console.io, "%s%d", longer.substr(0, n).c_str(), 7);
    EXPECT_EQ(console.bytes, longer.substr(0, n) + "7");
  }
}

TEST(RawConsole, WithoutAGeometryTheCursorCannotBeSet) {
  RawConsole console;
  io_write(&console.io, "abc");
  io_set_cursor(&console.io, 1);
  EXPECT_EQ(io_get_cursor(&console.io), 3);
  EXPECT_FALSE(io_at_line_start(&console.io));
  char line[8];
  EXPECT_EQ(io_read_line(&console.io, line, sizeof line, ""), -1);
  io_flush(&console.io);
  io_close(&console.io);
}

// A screen and what its viewer has been told of it.
struct Screen {
  std::string cells;
  std::string shown;
  psIo io;

  Screen(int width, int height) : cells(static_cast<size_t>(width * height), '.'), shown(cells) {
    io.host = this;
    io.io_width = width;
    io.io_height = height;
    io.screen = cells.data();
    io.refresh = [](psIo* self, const char* buffer, int first, int last) {
      auto* screen = static_cast<Screen*>(self->host);
      ASSERT_LE(0, first);
      ASSERT_LT(static_cast<size_t>(last), screen->cells.size());
      for (int i = first; i <= last; ++i) screen->shown[static_cast<size_t>(i)] = buffer[i];
    };
  }
};

struct ScreenCase {
  const char* text;
  const char* cells;  // of a screen of 4 x 3, dots where nothing was written
  int cursor;
};
class Emulation : public testing::TestWithParam<ScreenCase> {};

TEST_P(Emulation, KeepsTheBufferAndItsViewerInStep) {
  const ScreenCase& c = GetParam();
  Screen screen(4, 3);
  io_write(&screen.io, c.text);
  EXPECT_EQ(screen.cells, c.cells);
  EXPECT_EQ(screen.shown, c.cells);
  EXPECT_EQ(io_get_cursor(&screen.io), c.cursor);
}

INSTANTIATE_TEST_SUITE_P(
    Table, Emulation,
    testing::Values(
        ScreenCase{"abcdef", "abcdef......", 6}, ScreenCase{"ab\ncd", "ab..cd  ....", 6},
        ScreenCase{"a\r\nb", "a...    b   ", 9}, ScreenCase{"abc\b\bx", "ax .........", 2},
        ScreenCase{"\b", "............", 0}, ScreenCase{"abcd\x18\x18x", "abxd........", 3},
        ScreenCase{"\x19\x19x", "..x.........", 3},
        ScreenCase{"a\x1a\x1a\x1a\x19x", "a.........x.", 11},
        ScreenCase{"abcdef\x1bx\x1b", "abxdef......", 3},
        ScreenCase{"abcdef\x1dx\x1cy", "ybcdxf......", 1},
        ScreenCase{"abcdef\x1c\x19\x1e", "a   ef......", 1},
        ScreenCase{"abcdef\x1c\x19\x1f", "a           ", 1},
        ScreenCase{"a\300\303b", "a   b.......", 5}, ScreenCase{"a\016b", "ab_.........", 2},
        ScreenCase{"a\016b\017c", "abc.........", 3}, ScreenCase{"a\016\n", "a .._   ....", 4},
        ScreenCase{"ab\016\b", "a_ .........", 1}, ScreenCase{"abcdefghijkl", "abcdefghijkl", 12},
        ScreenCase{"abcdefghijklm", "efghijklm   ", 9},
        ScreenCase{"abcdefghijkl\n", "efghijkl    ", 12},
        ScreenCase{"abcdefgh\377z", "           z", 12}));

TEST(Screen, TheLastPositionScrollsOnlyWhenMoreComes) {
  Screen screen(40, 2);
  io_write(&screen.io, std::string(80, 'a'));
  EXPECT_EQ(screen.shown, std::string(80, 'a'));
  io_putc(&screen.io, 'b');
  EXPECT_EQ(screen.shown, std::string(40, 'a') + 'b' + std::string(39, ' '));
  EXPECT_EQ(io_get_cursor(&screen.io), 41);
}

}  // namespace
