#include "lib/platform/keyboard/keyboard_handler.h"

#include <gtest/gtest.h>
#include <linux/input-event-codes.h>
#include <xkbcommon/xkbcommon-keysyms.h>

#include <stdexcept>
#include <string>

namespace {

struct Row {
  const char* what;
  InputEvent event;
  char32_t character;  // 0: none
  const char* log;
};

constexpr Row kRows[] = {
    {"the symbol counts", {KEY_A, true, XKB_KEY_adiaeresis}, U'\u00E4', ""},
    {"a release", {KEY_A, false, XKB_KEY_a}, 0, ""},
    {"no symbol", {KEY_A, true, 0}, 'a', ""},
    {"a symbol without a character", {KEY_ENTER, true, XKB_KEY_F1}, 13, ""},
    {"a private code point",
     {KEY_KPENTER, true, 0x01008001},
     13,
     "Not mapping keycode 96 to Unicode 00008001\n"},
    {"neither", {KEY_F1, true, XKB_KEY_F1}, 0, "No mapping for key 59\n"},
    {"Num Lock", {KEY_NUMLOCK, true, 0}, 0, ""},
    {"a touch", {BTN_TOUCH, true, 0}, 0, ""},
};

TEST(KeyboardHandler, DeliversTheCharacterOfAKey) {
  for (const Row& row : kRows) {
    KeyboardHandler handler;
    char32_t got = 0;
    handler.SetEventSink([&](char32_t c) { got = c; });
    testing::internal::CaptureStderr();
    handler.OnKeyPress(row.event);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), row.log) << row.what;
    EXPECT_EQ(got, row.character) << row.what;
  }
}

TEST(KeyboardHandler, LogsWhatTheSinkThrows) {
  KeyboardHandler handler;
  handler.SetEventSink([](char32_t) { throw std::runtime_error("full"); });
  testing::internal::CaptureStderr();
  handler.OnKeyPress({KEY_A, true, 0});
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Message 'KeyboardHandler' threw 'full'\n");
}

}  // namespace
