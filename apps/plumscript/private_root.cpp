// The root holds little: the storages that every device has, the folders that services write to,
// and a link from SD: to the script's own folder. Removing it removes the link, never what it leads
// to.
#include "apps/plumscript/private_root.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "apps/plumscript/output.h"
#include "apps/plumscript/version.h"

namespace {

// Nothing can lie below a file.
constexpr char kNoRoot[] = "/dev/null/orvex";
constexpr const char* kFolders[] = {"/dev",
                                    "/etc",
                                    "/proc",
                                    "/proc/device-tree",
                                    "/proc/device-tree/orvex",
                                    "/storage",
                                    "/storage/sys",
                                    "/storage/tmp",
                                    "/var",
                                    "/var/run",
                                    "/var/lib",
                                    "/var/lib/orvex"};
// Folders inside one another that removal follows: one descriptor each, and a bounded stack.
constexpr int kMaxDepth = 200;

char g_path[PATH_MAX];
std::atomic<bool> g_made{false};
std::string g_folder;

int g_top = -1;        // the root, while it is being removed
unsigned g_moved = 0;  // folders moved up to it

// Takes a folder that lies too deep to follow up to the root, whose next pass removes it. A name
// that a script has taken in the meantime only costs another pass.
bool MoveUp(int at, const char* name) {
  char moved[] = ".deep-00000000";
  unsigned n = g_moved++;
  for (int i = static_cast<int>(sizeof moved) - 2; i > 5; --i, n >>= 4) {
    moved[i] = "0123456789abcdef"[n & 15];
  }
  return ::renameat(at, name, g_top, moved) == 0;
}

// Whether the entry has gone from where it was. Only async-signal-safe calls.
bool RemoveTree(int at, const char* name, int depth) {
  if (::unlinkat(at, name, 0) == 0) return true;
  if (depth == kMaxDepth) return MoveUp(at, name);
  const int fd = ::openat(at, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return false;
  if (depth == 0) g_top = fd;
  bool gone = false;
  // Some file systems skip entries when others are removed during a pass, so passes are repeated
  // until the folder goes or a pass removes nothing more.
  for (bool progress = true; progress && !gone;) {
    progress = false;
    alignas(dirent64) char entries[1024];
    long n;
    while ((n = ::syscall(SYS_getdents64, fd, entries, sizeof(entries))) > 0) {
      for (long i = 0; i < n;) {
        const auto* entry = reinterpret_cast<const dirent64*>(entries + i);
        i += entry->d_reclen;
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
          progress |= RemoveTree(fd, entry->d_name, depth + 1);
        }
      }
    }
    gone = ::unlinkat(at, name, AT_REMOVEDIR) == 0;
    ::lseek(fd, 0, SEEK_SET);
  }
  ::close(fd);
  return gone;
}

struct File {
  const char* path;
  std::string_view content;
};
// What makes the root a unit: objects that describe it, and the kernel's log.
constexpr File kFiles[] = {
    {"/etc/orvex-version", kPlumscriptVersion},
    {"/proc/boardid", "desktop orvex-desktop\n"},
    // With the NUL that ends a property.
    {"/proc/device-tree/orvex/boot-version", {kPlumscriptVersion, sizeof kPlumscriptVersion}},
    {"/var/lib/orvex/device-data",
     // HDMI, two-channel audio, Ethernet, USB, GPIO, SVC button, RTC, SDHC.
     "PS_FORMAT=1\nPS_HWFLAGS=4b39\nPS_OEM_ID=Orvex\nPS_OEM_MODEL=Desktop\n"
     "PS_SERIAL=DESKTOP00001\nPS_HWREV=1\n"},
    {"/dev/kmsg", ""},
};

bool WriteFile(const std::string& path, std::string_view content) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const bool written = ::write(fd, content.data(), content.size()) == ssize_t(content.size());
  return ::close(fd) == 0 && written;
}

bool LayOut(const std::string& root) {
  for (const char* folder : kFolders) {
    if (::mkdir((root + folder).c_str(), 0755) != 0) return false;
  }
  if (::symlink(g_folder.c_str(), (root + "/storage/sd").c_str()) != 0) return false;
  for (const File& file : kFiles) {
    if (!WriteFile(root + file.path, file.content)) return false;
  }
  return true;
}

}  // namespace

void SetPrivateRootFolder(const std::string& folder) {
  g_folder = folder;
  if (!g_made) return;
  const std::string link = std::string(g_path) + "/storage/sd";
  ::unlink(link.c_str());
  if (::symlink(folder.c_str(), link.c_str()) != 0) {
    Out().Error("plumscript: " + link + ": " + std::strerror(errno) + "\n");
  }
}

std::string MakePrivateRoot() {
  const char* temporary = std::getenv("TMPDIR");
  std::string root = temporary != nullptr && temporary[0] == '/' ? temporary : "/tmp";
  root += "/plumscript-XXXXXX";
  bool made = root.size() < sizeof(g_path);
  if (!made) errno = ENAMETOOLONG;
  if (made) {
    // A signal between making the folder and noting its name would leave it behind.
    sigset_t all, before;
    ::sigfillset(&all);
    ::sigprocmask(SIG_BLOCK, &all, &before);
    if (::mkdtemp(root.data()) != nullptr) {
      std::memcpy(g_path, root.c_str(), root.size() + 1);
      g_made = true;
    } else {
      made = false;
    }
    ::sigprocmask(SIG_SETMASK, &before, nullptr);
  }
  if (made && LayOut(root)) return root;
  Out().Error("plumscript: cannot make a device root " + root + ": " + std::strerror(errno) + "\n");
  return kNoRoot;
}

void RemovePrivateRoot() {
  if (g_made.exchange(false)) RemoveTree(AT_FDCWD, g_path, 0);
}
