// orvex-registryd: the registry service.
//
// Serves the store of the device root on the system bus, at the address in DBUS_SYSTEM_BUS_ADDRESS
// or the bus's usual place, until SIGTERM or SIGINT (status 0) or until the bus goes away (status
// 1, for whoever supervises it to start it anew). The bus starts it on demand; see
// org.orvex.Registry1.service here.
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "apps/registryd/registry_service.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"
#include "lib/platform/registry_bus/registry_bus_names.h"
#include "lib/platform/registry_store.h"
#include "lib/platform/unique_fd.h"

using lattix::ErrnoException;
using lattix::Log;

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 64;

constexpr char kUsage[] = "usage: orvex-registryd [--help | --version]\n";

// The signals that end the service, as a descriptor.
lattix::UniqueFd TakeSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  const int error = ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  if (error != 0) throw ErrnoException(error, "pthread_sigmask");
  lattix::UniqueFd fd(::signalfd(-1, &signals, SFD_CLOEXEC));
  if (!fd) throw ErrnoException(errno, "signalfd");
  return fd;
}

void ServeUntilSignal(sdbus::IConnection& bus, int signals) {
  for (;;) {
    while (bus.processPendingRequest()) {
    }
    const sdbus::IConnection::PollData wanted = bus.getEventLoopPollData();
    pollfd fds[] = {{wanted.fd, wanted.events, 0}, {signals, POLLIN, 0}};
    if (::poll(fds, 2, wanted.getPollTimeout()) < 0 && errno != EINTR) {
      throw ErrnoException(errno, "poll");
    }
    if (fds[1].revents != 0) return;
  }
}

int Serve() {
  if (!lattix::MayUseSystemBus()) {
    Log("orvex-registryd: in a device root DBUS_SYSTEM_BUS_ADDRESS has to name the bus\n");
    return kExitFailure;
  }
  try {
    const lattix::UniqueFd signals = TakeSignals();
    RegistryStore store;
    const auto bus = sdbus::createSystemBusConnection();
    const RegistryService service(*bus, store);
    // Last, or the first calls would find no object.
    bus->requestName(registry_bus::kServiceName);
    Log("Registry service: serving {}\n", kRegistryStorePath);
    ServeUntilSignal(*bus, signals.Get());
    return EXIT_SUCCESS;
  } catch (const sdbus::Error& e) {
    Log("orvex-registryd: {}\n", e.getMessage());
  } catch (const ErrnoException& e) {
    Log("orvex-registryd: {}: {}\n", e.context(), e.what());
  }
  return kExitFailure;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
    std::fputs(kUsage, stdout);
    return EXIT_SUCCESS;
  }
  if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
    std::puts("orvex-registryd " ORVEX_VERSION);
    return EXIT_SUCCESS;
  }
  if (argc != 1) {
    std::fputs(kUsage, stderr);
    return kExitUsage;
  }
  return Serve();
}
