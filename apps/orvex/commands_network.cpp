// What asks the network, and the services that know it. What waits, waits with InterruptWait: the
// operator can end it at any time.
#include "apps/orvex/commands_network.h"

#include <fcntl.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/orvex/command_files.h"
#include "apps/orvex/commands_performance.h"
#include "apps/orvex/host_lookup.h"
#include "apps/orvex/interrupt_wait.h"
#include "lib/hardware/hardware_config.h"
#include "lib/platform/bus/dbus_dispatcher.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/monotonic_time.h"
#include "lib/platform/url_fetch/curl_url_fetcher.h"
#include "lib/scripting/host_files.h"

namespace commands {

namespace {

constexpr int64_t kScanMilliseconds = 20'000;
constexpr char kSupplicant[] = "fi.w1.wpa_supplicant1";
constexpr char kSupplicantInterface[] = "fi.w1.wpa_supplicant1.Interface";
constexpr char kSupplicantNetwork[] = "fi.w1.wpa_supplicant1.BSS";

std::optional<std::string> WirelessInterface() {
  std::vector<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator i(lattix::DevicePath("/sys/class/net"), error), end;
       !error && i != end; i.increment(error)) {
    std::error_code ignored;
    if (std::filesystem::exists(i->path() / "wireless", ignored)) {
      names.push_back(i->path().filename());
    }
  }
  if (names.empty()) return std::nullopt;
  return *std::min_element(names.begin(), names.end());
}

// A network's name is any 32 bytes: those that are no printable ASCII are shown as \xNN.
std::string NetworkName(const std::vector<uint8_t>& bytes) {
  std::string text;
  for (const uint8_t byte : bytes) {
    if (byte >= ' ' && byte < 0x7F && byte != '\\') {
      text += static_cast<char>(byte);
    } else {
      text += fmt::format("\\x{:02x}", byte);
    }
  }
  return text;
}

template <typename Value>
Value Property(sdbus::IProxy& object, const char* name, const char* interface) {
  return object.getProperty(name).onInterface(interface).get<Value>();
}

void Scan(const CommandLine& command, sdbus::IConnection& bus, const std::string& interface) {
  const InterruptWait wait;
  sdbus::ObjectPath path;
  sdbus::createProxy(bus, kSupplicant, "/fi/w1/wpa_supplicant1")
      ->callMethod("GetInterface")
      .onInterface(kSupplicant)
      .withArguments(interface)
      .storeResultsTo(path);
  // The handler runs on the bus's thread, and may still do so when the proxy has gone.
  struct Scanned {
    PollWaker waker;
    std::atomic<bool> done = false;
  };
  const auto scanned = std::make_shared<Scanned>();
  const auto proxy = sdbus::createProxy(bus, kSupplicant, path);
  proxy->uponSignal("ScanDone").onInterface(kSupplicantInterface).call([scanned](bool) {
    if (!scanned->done.exchange(true)) scanned->waker.Wake();
  });
  proxy->finishRegistration();
  proxy->callMethod("Scan")
      .onInterface(kSupplicantInterface)
      .withArguments(
          std::map<std::string, sdbus::Variant>{{"Type", sdbus::Variant(std::string("active"))}});
  pollfd signalled = {scanned->waker.GetReadFd(), POLLIN, 0};
  if (!wait.Poll({&signalled, 1}, lattix::monotonic_time_after_ms(kScanMilliseconds))) {
    throw lattix::ErrnoException(ETIMEDOUT, interface);
  }
  for (const sdbus::ObjectPath& network :
       Property<std::vector<sdbus::ObjectPath>>(*proxy, "BSSs", kSupplicantInterface)) {
    wait.Check();
    try {
      const auto found = sdbus::createProxy(bus, kSupplicant, network);
      const auto name = Property<std::vector<uint8_t>>(*found, "SSID", kSupplicantNetwork);
      const auto frequency = Property<uint16_t>(*found, "Frequency", kSupplicantNetwork);
      const auto signal = Property<int16_t>(*found, "Signal", kSupplicantNetwork);
      command.Print("{:4} dBm {:5} MHz {}", signal, frequency, NetworkName(name));
    } catch (const sdbus::Error&) {  // out of reach meanwhile
    }
  }
}

struct Download {
  UrlFetcher::Response response;
  int write_error = 0;  // an error number, when the file could not take it all
  int64_t bytes = 0;
  int64_t nanoseconds = 0;
};

Download DownloadInto(int file, const std::string& url, const InterruptWait& wait) {
  Download download;
  UrlFetcher::Request request;
  request.url = url;
  request.user_agent = DefaultUserAgent(HardwareConfig::GetInstance().GetModel());
  request.headers = {{"Accept-Encoding", "identity"}};  // the network is measured
  request.max_body = SIZE_MAX;
  request.time_limit = std::chrono::milliseconds(0);
  request.on_body = [&](std::string_view piece) {
    try {
      WriteAll(file, piece);
    } catch (const lattix::ErrnoException& e) {
      download.write_error = e.error();
      return false;
    }
    download.bytes += static_cast<int64_t>(piece.size());
    return true;
  };
  const int64_t start = lattix::get_monotonic_time();
  download.response = CurlUrlFetcher().Fetch(request, wait.stop_token());
  download.nanoseconds = lattix::get_monotonic_time() - start;
  return download;
}

}  // namespace

int NsLookup(const CommandLine& command) {
  if (command.argument_count() != 1) return command.Usage();
  const InterruptWait wait;
  const std::string name(command.argument(1));
  std::string why_not;
  const std::vector<HostAddress> addresses = LookUpHost(name, AF_UNSPEC, wait, &why_not);
  for (const HostAddress& address : addresses) command.Print(" {}", address.Text());
  if (!addresses.empty()) return 0;
  command.Print("{}: {}", name, why_not);
  return 1;
}

// The machine's cache is none of a device root's.
int FlushDns(const CommandLine& command) {
  if (command.argument_count() != 0) return command.Usage();
  if (!lattix::InDeviceRoot()) {
    const std::shared_ptr<sdbus::IConnection> bus = EnsureDBusDispatcher::Connection();
    if (bus == nullptr) throw std::runtime_error("no system bus");
    sdbus::createProxy(*bus, "org.freedesktop.resolve1", "/org/freedesktop/resolve1")
        ->callMethod("FlushCaches")
        .onInterface("org.freedesktop.resolve1.Manager");
  }
  command.Print("DNS cache cleared");
  return 0;
}

int WifiScan(const CommandLine& command) {
  if (command.argument_count() != 0) return command.Usage();
  const std::optional<std::string> interface = WirelessInterface();
  if (!interface) {
    command.Print("WiFi network interface not present");
    return 1;
  }
  command.shell.Puts("Scanning...\r");
  command.shell.Flush();
  const std::shared_ptr<sdbus::IConnection> bus = EnsureDBusDispatcher::Connection();
  if (bus == nullptr) throw std::runtime_error("no system bus");
  try {
    Scan(command, *bus, *interface);
  } catch (const sdbus::Error& e) {
    throw std::runtime_error(Printable(e.getMessage()));
  }
  return 0;
}

int HttpGetPerf(const CommandLine& command) {
  if (command.argument_count() < 1 || command.argument_count() > 2) return command.Usage();
  const bool discard = command.argument_count() == 1;
  const std::string_view destination = discard ? "*NOWHERE*" : command.argument(2);
  const InterruptWait wait;
  const lattix::UniqueFd file =
      discard ? lattix::UniqueFd(::open("/dev/null", O_WRONLY | O_CLOEXEC))
              : OpenArgument(command, destination, O_WRONLY | O_CREAT | O_TRUNC);
  if (!file) return 1;
  struct stat status = {};
  ::fstat(file.Get(), &status);

  const std::string url(command.argument(1));
  const Download download = DownloadInto(file.Get(), url, wait);
  const int result = download.response.result;
  const bool complete = download.write_error == 0 && result > 0 && result < 400;
  if (!complete && S_ISREG(status.st_mode)) {
    host_files::DeleteFile(FilenameMapper::GetInstance(), destination);
  }
  wait.Check();
  if (download.write_error != 0) {
    PrintFileError(command, destination, download.write_error);
  } else if (result <= 0) {
    command.Print("{}: {}", UrlWithoutCredentials(url), Printable(download.response.message));
  } else {
    command.Print("HTTP response: {}", result);
  }
  if (!complete) return 1;
  command.Print("Read file '{}' of {} bytes took {:.3f}s at {}", destination, download.bytes,
                static_cast<double>(download.nanoseconds) / 1e9,
                TransferRate(download.bytes, download.nanoseconds));
  command.Print("Note that this is susceptible to errors introduced by system load.");
  return 0;
}

}  // namespace commands
