// plumscript: run, check, disassemble and explore scripts from a command line.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <string>

#include "apps/plumscript/commands.h"
#include "apps/plumscript/exit_status.h"
#include "apps/plumscript/host.h"
#include "apps/plumscript/options.h"
#include "apps/plumscript/output.h"
#include "apps/plumscript/version.h"

namespace {

// A standard descriptor that the caller closed would be given to the first file opened, and what is
// printed would go there.
void OccupyStandardDescriptors() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(fd, F_GETFD) < 0) ::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

int WrongUsage(const std::string& reason) {
  Out().Error("plumscript: " + reason + "\n" + kUsage);
  return kExitUsage;
}

int Dispatch(const Options& options) {
  switch (options.command) {
    case Command::kRun: return RunScript(options.operands);
    case Command::kDebug: return DebugScript(options.operands);
    case Command::kCheck: return CheckScripts(options.operands);
    case Command::kDisasm: return DisassembleScript(options.operands[0]);
    case Command::kRepl: return RunInteractively();
    case Command::kClasses:
      return ListClasses(options.operands.empty() ? nullptr : options.operands[0]);
    case Command::kHelp:
      Out().Write(kUsage);
      Out().Write(kHelp);
      return kExitNormal;
    case Command::kVersion:
      Out().Write(std::string("plumscript ") + kPlumscriptVersion + "\n");
      return kExitNormal;
  }
  return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  OccupyStandardDescriptors();
  Options options;
  std::string error;
  if (!ParseOptions(argc, argv, &options, &error)) return WrongUsage(error);
  if (options.root != nullptr) {
    char root[PATH_MAX];
    struct stat status;
    if (::realpath(options.root, root) == nullptr || ::stat(root, &status) != 0 ||
        !S_ISDIR(status.st_mode)) {
      return WrongUsage(std::string("no such folder: '") + options.root + "'");
    }
    ::setenv("ORVEX_ROOT", root, 1);
  }
  TakeSignals();
  return FinishOutput(Dispatch(options));
}
