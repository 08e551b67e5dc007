// Two ways to a character: the layout's symbol, and a table of key codes for events that come
// without one and for symbols whose code point is no character of its own.
#include "lib/platform/keyboard/keyboard_handler.h"

#include <linux/input-event-codes.h>
#include <xkbcommon/xkbcommon.h>

#include <algorithm>
#include <iterator>

#include "lib/platform/assertion.h"
#include "lib/platform/log.h"

namespace {

struct Key {
  uint32_t code;
  char32_t character;
};

// Sorted by code.
constexpr Key kKeys[] = {
    {KEY_ESC, 27},         {KEY_1, '1'},           {KEY_2, '2'},
    {KEY_3, '3'},          {KEY_4, '4'},           {KEY_5, '5'},
    {KEY_6, '6'},          {KEY_7, '7'},           {KEY_8, '8'},
    {KEY_9, '9'},          {KEY_0, '0'},           {KEY_MINUS, '-'},
    {KEY_EQUAL, '='},      {KEY_BACKSPACE, 8},     {KEY_TAB, 9},
    {KEY_Q, 'q'},          {KEY_W, 'w'},           {KEY_E, 'e'},
    {KEY_R, 'r'},          {KEY_T, 't'},           {KEY_Y, 'y'},
    {KEY_U, 'u'},          {KEY_I, 'i'},           {KEY_O, 'o'},
    {KEY_P, 'p'},          {KEY_LEFTBRACE, '['},   {KEY_RIGHTBRACE, ']'},
    {KEY_ENTER, 13},       {KEY_A, 'a'},           {KEY_S, 's'},
    {KEY_D, 'd'},          {KEY_F, 'f'},           {KEY_G, 'g'},
    {KEY_H, 'h'},          {KEY_J, 'j'},           {KEY_K, 'k'},
    {KEY_L, 'l'},          {KEY_SEMICOLON, ';'},   {KEY_APOSTROPHE, '\''},
    {KEY_GRAVE, '`'},      {KEY_BACKSLASH, '\\'},  {KEY_Z, 'z'},
    {KEY_X, 'x'},          {KEY_C, 'c'},           {KEY_V, 'v'},
    {KEY_B, 'b'},          {KEY_N, 'n'},           {KEY_M, 'm'},
    {KEY_COMMA, ','},      {KEY_DOT, '.'},         {KEY_SLASH, '/'},
    {KEY_KPASTERISK, '*'}, {KEY_SPACE, ' '},       {KEY_KP7, '7'},
    {KEY_KP8, '8'},        {KEY_KP9, '9'},         {KEY_KPMINUS, '-'},
    {KEY_KP4, '4'},        {KEY_KP5, '5'},         {KEY_KP6, '6'},
    {KEY_KPPLUS, '+'},     {KEY_KP1, '1'},         {KEY_KP2, '2'},
    {KEY_KP3, '3'},        {KEY_KP0, '0'},         {KEY_KPDOT, '.'},
    {KEY_102ND, '\\'},     {KEY_KPENTER, 13},      {KEY_KPSLASH, '/'},
    {KEY_LINEFEED, 10},    {KEY_DELETE, 127},      {KEY_KPEQUAL, '='},
    {KEY_KPCOMMA, ','},    {KEY_KPLEFTPAREN, '('}, {KEY_KPRIGHTPAREN, ')'},
};
static_assert(std::ranges::is_sorted(kKeys, {}, &Key::code));

// 0 for a key that has no character.
char32_t CharacterOf(uint32_t code) {
  const Key* const found = std::ranges::lower_bound(kKeys, code, {}, &Key::code);
  return found != std::end(kKeys) && found->code == code ? found->character : 0;
}

// Where the conversion of symbols puts what is a key and no character.
bool IsPrivate(uint32_t code_point) {
  return (code_point >= 0x8000 && code_point <= 0x80FF) ||
         (code_point >= 0x10000 && code_point <= 0x100FF) ||
         (code_point >= 0xC0000 && code_point <= 0xC0FFF);
}

}  // namespace

void KeyboardHandler::OnKeyPress(const InputEvent& event) {
  CheckMagic(this);
  if (!event.pressed) return;
  char32_t character = 0;
  if (event.key_symbol != 0) {
    character = xkb_keysym_to_utf32(event.key_symbol);
    if (IsPrivate(character)) {
      lattix::Log("Not mapping keycode {} to Unicode {:08x}\n", event.key_code,
                  static_cast<uint32_t>(character));
      character = 0;
    }
  }
  if (character == 0) character = CharacterOf(event.key_code);
  if (character == 0) {
    if (event.key_code != KEY_NUMLOCK && event.key_code != BTN_TOUCH) {
      lattix::Log("No mapping for key {}\n", event.key_code);
    }
    return;
  }
  LATTIX_ASSERT(m_event_sink);
  try {
    m_event_sink(character);
  } catch (...) {
    lattix::LogThrown("KeyboardHandler");
  }
}
