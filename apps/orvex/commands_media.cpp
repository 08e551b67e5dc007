// Playback from the console, and the compositor's state. A player without the facility answers in
// one line, after it has checked what was typed.
#include "apps/orvex/commands_media.h"

#include <span>

namespace commands {

namespace {

int Unavailable(const CommandLine& command) {
  command.Print("{}: playback is not available on this player", command.name());
  return 1;
}

int NoCompositor(const CommandLine& command) {
  command.Print("{}: no compositor is running on this player", command.name());
  return 1;
}

int ShowUsage(const CommandLine& command) { return command.Usage(); }

int Mapping(const CommandLine& command) {
  if (command.argument_count() == 2) return Unavailable(command);
  command.Print("\n\nusage: {} mapping stereo_output[0..2]", command.name());
  return 1;
}

int Span(const CommandLine& command) {
  if (command.argument_count() == 2) return Unavailable(command);
  command.Print("\n\nusage: {} span mapping_span[1..3]", command.name());
  return 1;
}

int Digital(const CommandLine& command) {
  const std::string_view output = command.argument(2);
  if (command.argument_count() == 2 && (output == "hdmi" || output == "spdif")) {
    return Unavailable(command);
  }
  command.Print("\n\nusage: {} digital hdmi|spdif", command.name());
  return 1;
}

int Volume(const CommandLine& command) {
  if (command.argument_count() == 3) return Unavailable(command);
  command.Print("\n\nusage: {} volume channel_mask_in_hex percentage_level", command.name());
  return 1;
}

// The last one, without a name, plays the file that the argument names.
struct SubCommand {
  const char* name;
  int (*run)(const CommandLine&);
};

constexpr SubCommand kAudio[] = {
    {"pause", Unavailable},  {"stop", Unavailable},   {"resume", Unavailable},
    {"loop", Unavailable},   {"noloop", Unavailable}, {"mapping", Mapping},
    {"span", Span},          {"digital", Digital},    {"volume", Volume},
    {"output", Unavailable}, {"mode", Unavailable},   {"input", Unavailable},
    {"help", ShowUsage},     {nullptr, Unavailable},
};

constexpr SubCommand kVideo[] = {
    {"pause", Unavailable},
    {"rect", Unavailable},
    {"resume", Unavailable},
    {"play", Unavailable},
    {"stop", Unavailable},
    {"stopclear", Unavailable},
    {"image", Unavailable},
    {"loop", Unavailable},
    {"noloop", Unavailable},
    {"mapping", Mapping},
    {"span", Span},
    {"digital", Digital},
    {"volume", Volume},
    {"output", Unavailable},
    {"mode", Unavailable},
    {"stream", Unavailable},
    {"viewmode", Unavailable},
    {"spdifmute", Unavailable},
    {"spdifunmute", Unavailable},
    {"capture", Unavailable},
    {"rotate", Unavailable},
    {"params", Unavailable},
    {"help", ShowUsage},
    {nullptr, Unavailable},
};

int Dispatch(const CommandLine& command, std::span<const SubCommand> table) {
  if (command.argument_count() == 0) return command.Usage();
  for (const SubCommand& row : table) {
    if (row.name == nullptr || command.argument(1) == row.name) return row.run(command);
  }
  return 1;
}

}  // namespace

int AudioPlay(const CommandLine& command) { return Dispatch(command, kAudio); }
int VideoPlay(const CommandLine& command) { return Dispatch(command, kVideo); }

int Cursor(const CommandLine& command) {
  if (command.argument_count() != 1) {
    command.Print("Wrong arguments");
    return 1;
  }
  if (command.argument(1) != "on" && command.argument(1) != "off") {
    command.Print("Invalid argument");
    return 1;
  }
  return NoCompositor(command);
}

int SceneGraph(const CommandLine& command) { return NoCompositor(command); }

int DrmLog(const CommandLine& command) {
  if (command.argument_count() == 1) return NoCompositor(command);
  command.Print("Usage: {} <filename>", command.name());
  return 1;
}

int VsyncTiming(const CommandLine& command) {
  command.Print("VSYNC alignment is disabled");
  return 0;
}

int Bvn(const CommandLine& command) {
  if (command.argument_count() > 1 ||
      (command.argument_count() == 1 && command.argument(1) != "all")) {
    return command.Usage();
  }
  return Unavailable(command);
}

}  // namespace commands
