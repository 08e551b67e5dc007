// orvex: the player.
#include "apps/orvex/orvex_shell.h"
#include "lib/hardware/power_manager.h"
#include "lib/platform/async_signals.h"
#include "lib/platform/poll_thread.h"
#include "lib/platform/registry_bus/registry_client_impl.h"
#include "lib/scripting/CommonAPI/Include/object_globals.h"

int main() {
  UseRegistryBus();
  lattix::ConfigureSignals(lattix::kBlockSignals);
  lattix::SignalDispatcher dispatcher;
  PollThread poll_thread;
  PowerManager power_manager;
  KelvoObjectGlobals globals;
  OrvexShell shell;
  return shell.Start();
}
