// Files and storages.
#include "apps/orvex/commands_files.h"

namespace commands {

namespace {

int NotAvailable(const CommandLine& command) {
  command.Print("{}: not available on this player", command.name());
  return 1;
}

}  // namespace

int Dir(const CommandLine& command) { return NotAvailable(command); }
int ReadPerf(const CommandLine& command) { return NotAvailable(command); }
int WritePerf(const CommandLine& command) { return NotAvailable(command); }
int ReadWritePerf(const CommandLine& command) { return NotAvailable(command); }
int ChangeDirectory(const CommandLine& command) { return NotAvailable(command); }
int Delete(const CommandLine& command) { return NotAvailable(command); }
int File(const CommandLine& command) { return NotAvailable(command); }
int Hash(const CommandLine& command) { return NotAvailable(command); }
int Probe(const CommandLine& command) { return NotAvailable(command); }
int Analyze(const CommandLine& command) { return NotAvailable(command); }
int WriteBootFile(const CommandLine& command) { return NotAvailable(command); }
int EraseBootFile(const CommandLine& command) { return NotAvailable(command); }
int Format(const CommandLine& command) { return NotAvailable(command); }
int Eject(const CommandLine& command) { return NotAvailable(command); }

}  // namespace commands
