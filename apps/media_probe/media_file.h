// What a media file is, told by its container: no codec is run to play it.
#pragma once

#include <string>

struct MediaReport {
  // Also the exit status of the program.
  enum Outcome { kRecognised = 0, kUnknown = 1, kFailed = 2 };

  Outcome outcome = kFailed;
  // Recognised: lines on the container and each stream, each with its newline. Else the reason.
  std::string text;
};

// Reads as much as it takes to know the streams. The descriptor must be of a plain file, is read
// from its beginning, and stays the caller's. Blocks; throws std::bad_alloc.
MediaReport ProbeMediaFile(int fd);
// Reads all of it, and adds to each stream how many packets it has, how large and how regular they
// are.
MediaReport AnalyzeMediaFile(int fd);
