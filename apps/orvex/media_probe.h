// What a media file is, as the program orvex-media-probe tells, which lies beside the player's.
#pragma once

#include <string>

struct MediaProbe {
  enum class Outcome { kRecognised, kUnknown, kFailed };

  Outcome outcome = Outcome::kFailed;
  // Recognised: lines on the container and each stream, each with its newline. Failed: the reason.
  std::string text;
};

// Reads as much of the file as it takes to know its streams. The descriptor must be of a plain
// file; its position is left alone. Blocks until the program has ended, on the shell's thread.
// Throws lattix::ErrnoException when the program cannot be started, and, when Ctrl-C or the loss of
// the terminal ends it, what InterruptWait::Check does.
MediaProbe ProbeMedia(int fd);
// Reads all of it, and adds to each stream how many packets it has, how large and how regular they
// are.
MediaProbe AnalyzeMedia(int fd);
