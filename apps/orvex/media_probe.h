// What a media file is, told by its container: no codec is run to play it.
#pragma once

#include <functional>
#include <string>

struct MediaProbe {
  // Polled while the file is read; true ends it with an error.
  using Interrupted = std::function<bool()>;

  enum class Outcome { kRecognised, kUnknown, kFailed };

  Outcome outcome = Outcome::kFailed;
  // Recognised: lines on the container and each stream, each with its newline. Failed: the reason.
  std::string text;
};

// Reads as much as it takes to know the streams. The descriptor must be of a plain file, is read
// from its beginning, and stays the caller's. Blocks; any thread.
MediaProbe ProbeMedia(int fd, const MediaProbe::Interrupted& interrupted);
// Reads all of it, and adds to each stream how many packets it has, how large and how regular they
// are.
MediaProbe AnalyzeMedia(int fd, const MediaProbe::Interrupted& interrupted);
