// What the registry's tests share: a bus of their own, and what standard error got.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "lib/platform/spawn_process.h"
#include "tests/platform/test_support.h"

// A message bus with its own configuration and socket in a temporary folder, named by
// DBUS_SYSTEM_BUS_ADDRESS while the object lasts.
class PrivateBus {
 public:
  // Whether the bus can start the registry service by itself, for the device root of this moment.
  enum class Service { kNone, kStartable, kBroken };

  explicit PrivateBus(Service service) {
    std::filesystem::create_directory(m_folder + "/services");
    if (service != Service::kNone) {
      std::ofstream(m_folder + "/services/org.orvex.Registry1.service")
          << "[D-BUS Service]\nName=org.orvex.Registry1\nExec="
          << (service == Service::kStartable ? REGISTRYD_PROGRAM : "/bin/false") << "\n";
    }
    // The policy that is shipped has to parse; that it lets root alone in must not stop the tests.
    std::ofstream(m_folder + "/bus.conf")
        << "<busconfig><listen>" << Address() << "</listen><auth>EXTERNAL</auth><servicedir>"
        << m_folder << "/services</servicedir><include>" << REGISTRYD_POLICY << "</include>"
        << "<policy context=\"mandatory\"><allow user=\"*\"/><allow own=\"*\"/>"
        << "<allow send_destination=\"*\"/><allow receive_sender=\"*\"/></policy></busconfig>";
    setenv("DBUS_SYSTEM_BUS_ADDRESS", Address().c_str(), 1);
    Start();
  }
  ~PrivateBus() {
    Stop();
    unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    std::filesystem::remove_all(m_folder);
  }

  void Start() {
    m_daemon.Execute(SpawnProcess::kPipeStdout);
    // It prints its address when it listens.
    char first;
    ASSERT_EQ(1, read(m_daemon.GetStdout(), &first, 1)) << "the bus did not start";
  }
  // The services of a bus end with it.
  void Stop() {
    if (m_daemon.GetPid() != 0) m_daemon.KillAndWait(SIGTERM, std::chrono::seconds(30));
  }

 private:
  std::string Address() const { return "unix:path=" + m_folder + "/socket"; }

  static std::string MakeFolder() {
    std::string folder = testing::TempDir() + "orvex-bus-XXXXXX";
    return mkdtemp(folder.data());
  }

  const std::string m_folder = MakeFolder();
  SpawnProcess m_daemon{DBUS_DAEMON,
                        {"--nofork", "--nopidfile", "--nosyslog", "--print-address=1",
                         "--config-file=" + m_folder + "/bus.conf"}};
};
