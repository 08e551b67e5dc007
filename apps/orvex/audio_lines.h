// The board's two lines of the audio output.
#pragma once

#include <string>

// Drives one line to a level, as an output. Which GPIO it is, the device tree says; both functions
// throw std::exception when it does not, or when the GPIO cannot be driven. Any thread.
void DriveBoardLine(const std::string& device_tree_property, bool level);

// Both lines as they are while the player runs, and as it leaves them. In this order the amplifier
// is muted before the digital output changes.
inline void OpenAudioLines() {
  DriveBoardLine("orvex/audio-mute-gpio", true);
  DriveBoardLine("orvex/spdif-enable-gpio", false);
}
inline void MuteAudioLines() {
  DriveBoardLine("orvex/audio-mute-gpio", false);
  DriveBoardLine("orvex/spdif-enable-gpio", true);
}
