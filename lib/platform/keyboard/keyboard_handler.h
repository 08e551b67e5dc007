// Keys of attached keyboards as characters.
#pragma once

#include <cstdint>
#include <functional>

#include "lib/platform/always_magic.h"

struct InputEvent {
  uint32_t key_code = 0;    // a KEY_ code of linux/input-event-codes.h
  bool pressed = false;     // false: released
  uint32_t key_symbol = 0;  // what the keyboard's layout makes of it, an xkb symbol; 0: none known
};

// Used from the one thread that reads the keyboards.
class KeyboardHandler : private lattix::AlwaysMagic<1848> {
 public:
  // A Unicode code point.
  using EventSink = std::function<void(char32_t)>;

  // To be set before the first key is pressed. What it throws is logged.
  void SetEventSink(EventSink sink) { m_event_sink = std::move(sink); }

  // Delivers the character of a key that was pressed: that of its symbol, or, where the symbol
  // stands for none, the one that the key's code has on a keyboard of the United States, without
  // modifiers. A key without a character is logged, unless it never has one (Num Lock, a touch).
  void OnKeyPress(const InputEvent& event);

 private:
  EventSink m_event_sink;
};
