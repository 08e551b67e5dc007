// Tells the renderer how short of memory the device is.
#pragma once

#include "lib/javascript/html_renderer_launcher.h"

// The launcher outlives the monitor's periodic poll.
class MemoryPressureGRPCClient final : public MemoryPressureMonitor::Listener {
 public:
  explicit MemoryPressureGRPCClient(HtmlRendererLauncher& launcher) : m_launcher(launcher) {}

  void OnMemoryPressure(MemoryPressure level) override { m_launcher.OnMemoryPressure(level); }

 private:
  HtmlRendererLauncher& m_launcher;
};
