// Commands on playback and on the compositor.
#pragma once

#include "apps/orvex/command_line.h"

namespace commands {

int AudioPlay(const CommandLine& command);
int VideoPlay(const CommandLine& command);
int Cursor(const CommandLine& command);
int SceneGraph(const CommandLine& command);
int DrmLog(const CommandLine& command);
int VsyncTiming(const CommandLine& command);
int Bvn(const CommandLine& command);

}  // namespace commands
