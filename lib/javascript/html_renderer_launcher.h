// The process that renders pages.
#pragma once

#include <atomic>
#include <memory>

#include "lib/hardware/memory_pressure_monitor.h"

// Starts the renderer when a widget first needs it and ends it again. Members may be called from
// any thread.
class HtmlRendererLauncher {
 public:
  // Ends the renderer.
  virtual ~HtmlRendererLauncher() = default;

  // Ends the renderer at once and starts none any more. Waits for nothing, takes no lock.
  virtual void EndRenderer() = 0;
  // The renderer is to free, or may use again, what it can do without.
  virtual void OnMemoryPressure(MemoryPressure level) = 0;
};

// No renderer is part of this system yet: the launcher never starts one.
std::unique_ptr<HtmlRendererLauncher> CreateHtmlRendererLauncher();

// The process's one launcher, kept where both ways to end the process find it: in order, and at
// once on the signal thread while everything else goes on. Whoever takes it out ends the renderer.
class HtmlRendererSlot {
 public:
  // Puts a launcher in, destroying the one before.
  static void Set(std::unique_ptr<HtmlRendererLauncher> launcher) {
    std::unique_ptr<HtmlRendererLauncher> before(sm_launcher.exchange(launcher.release()));
  }
  // Takes it out; null when it is empty.
  static std::unique_ptr<HtmlRendererLauncher> Take() {
    return std::unique_ptr<HtmlRendererLauncher>(sm_launcher.exchange(nullptr));
  }

 private:
  inline static std::atomic<HtmlRendererLauncher*> sm_launcher{nullptr};
};
