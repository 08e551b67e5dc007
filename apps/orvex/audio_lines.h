// The board's two lines of the audio output, outputs of GPIOs that the device tree names.
#pragma once

// As they are while the player runs. Throws std::exception when the device tree does not name a
// line, or it cannot be driven.
void OpenAudioLines();

// As the player leaves them; from any thread, without a lock. A failure is logged and keeps neither
// the other line nor the process's end from coming.
void MuteAudioLines() noexcept;
