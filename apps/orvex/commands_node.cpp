// The JavaScript runtime for the operator: a child that owns the terminal until it ends, so Ctrl-C
// and line editing are its own. A script is a file on a drive or a URL; one from a URL is fetched
// into a file of its own first and removed afterwards.
//
// On a device the runtime runs as the user "nodejs", so that a script is no way around the rights
// that operators' scripts have.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "apps/orvex/command_files.h"
#include "apps/orvex/commands_device.h"
#include "apps/orvex/console_terminal.h"
#include "apps/orvex/interrupt_wait.h"
#include "lib/hardware/hardware_config.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/spawn_process.h"
#include "lib/platform/unique_fd.h"
#include "lib/platform/url_fetch/curl_url_fetcher.h"
#include "lib/scripting/filename_mapper.h"

namespace commands {

namespace {

constexpr char kRuntime[] = "/bin/node";
constexpr char kUser[] = "nodejs";
constexpr char kFolder[] = "/tmp/node";  // fetched scripts
constexpr char kHistory[] = "/tmp/node_history";

// A device has the runtime; a root may leave it to the machine.
std::string RuntimeProgram() {
  std::string program = lattix::DevicePath(kRuntime);
  if (lattix::InDeviceRoot() && access(program.c_str(), X_OK) != 0) return "node";
  return program;
}

// Options whose value is the next word.
bool TakesValue(std::string_view option) {
  constexpr std::string_view kOptions[] = {
      "-r", "--require", "--import", "-C", "--conditions", "--loader", "--experimental-loader"};
  return std::ranges::find(kOptions, option) != std::end(kOptions);
}

// The number of the word that names the script; 0 when there is none.
size_t FindScript(const CommandLine& command) {
  for (size_t i = command.argument(1) == "inspect" ? 2 : 1; i < command.words.size(); ++i) {
    const std::string_view word = command.words[i];
    if (word == "-e" || word == "--eval" || word == "-p" || word == "--print" || word == "-pe") {
      return 0;
    }
    if (TakesValue(word)) {
      ++i;
    } else if (!word.starts_with('-')) {
      return i;
    } else if (word == "--") {
      return i + 1 < command.words.size() ? i + 1 : 0;
    }
  }
  return 0;
}

bool IsUrl(std::string_view name) {
  return name.starts_with("http://") || name.starts_with("https://");
}

// A script that was fetched, as long as it is needed.
class FetchedScript {
 public:
  FetchedScript() = default;
  ~FetchedScript() {
    if (!m_path.empty()) unlink(m_path.c_str());
  }
  FetchedScript(const FetchedScript&) = delete;
  FetchedScript& operator=(const FetchedScript&) = delete;

  // Writes the script; throws lattix::ErrnoException.
  void Write(std::string_view text, std::string_view suffix) {
    const std::string folder = lattix::DevicePath(kFolder);
    if (mkdir(lattix::DevicePath("/tmp").c_str(), 01777) != 0 && errno != EEXIST) {
      throw lattix::ErrnoException(errno, "/tmp");
    }
    if (mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
      throw lattix::ErrnoException(errno, kFolder);
    }
    // Others may write to /tmp as well: a folder that they made, or a link, is not used.
    struct stat status = {};
    if (lstat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) ||
        status.st_uid != geteuid()) {
      throw lattix::ErrnoException(EACCES, kFolder);
    }
    std::string path = folder + "/script-XXXXXX" + std::string(suffix);
    const lattix::UniqueFd fd(mkostemps(path.data(), static_cast<int>(suffix.size()), O_CLOEXEC));
    if (!fd) throw lattix::ErrnoException(errno, kFolder);
    m_path = path;
    fchmod(fd.Get(), 0644);  // the runtime runs as somebody else
    WriteAll(fd.Get(), text);
  }
  const std::string& path() const { return m_path; }

 private:
  std::string m_path;  // native
};

// What the runtime tells the kind of a module by.
std::string_view Suffix(std::string_view url) {
  url = url.substr(0, url.find_first_of("?#"));
  return url.ends_with(".mjs") ? ".mjs" : url.ends_with(".cjs") ? ".cjs" : ".js";
}

bool Fetch(const CommandLine& command, std::string_view url, FetchedScript* script) {
  UrlFetcher::Request request;
  request.url = url;
  request.user_agent = DefaultUserAgent(HardwareConfig::GetInstance().GetModel());
  const InterruptWait wait;
  const UrlFetcher::Response response = CurlUrlFetcher().Fetch(request, wait.stop_token());
  if (!response.IsSuccess()) {
    command.Print("Failed to fetch {}, status {}", UrlWithoutCredentials(url), response.result);
    return false;
  }
  script->Write(response.body, Suffix(url));
  return true;
}

}  // namespace

int Node(const CommandLine& command) {
  std::vector<std::string> arguments(command.words.begin() + 1, command.words.end());
  FetchedScript fetched;
  if (const size_t script = FindScript(command); script > 0) {
    const std::string_view name = command.words[script];
    std::string& argument = arguments[script - 1];
    std::string path;
    if (IsUrl(name)) {
      if (!Fetch(command, name, &fetched)) return 1;
      argument = fetched.path();
    } else {
      if (!MapArgument(command, name, &path)) return 1;
      const lattix::UniqueFd fd = OpenBeneathDrive(path, O_RDONLY, 0);
      if (!fd) {
        PrintFileError(command, name, errno);
        return 1;
      }
      argument = lattix::DevicePath(path);
    }
  }
  // Its first word chooses the runtime's debugger, whose own words follow.
  const bool inspect = !arguments.empty() && arguments[0] == "inspect";
  arguments.insert(arguments.begin() + (inspect ? 1 : 0), "--expose-gc");

  SpawnProcess node(RuntimeProgram(), std::move(arguments));
  node.AddEnvironment("NODE_REPL_HISTORY", lattix::DevicePath(kHistory));
  unsigned flags = SpawnProcess::kForeground;
  if (!lattix::InDeviceRoot() && geteuid() == 0) {
    node.SetUser(kUser);
    flags |= SpawnProcess::kDropPrivileges;
  }
  const ProgramTerminal terminal;
  node.Execute(flags);
  try {
    return node.Wait() == 0 ? 0 : 1;
  } catch (const SpawnProcess::ChildWasKilledBySignal& e) {
    if (e.signal() != SIGINT) throw;
    return 1;  // the operator's own Ctrl-C
  }
}

}  // namespace commands
