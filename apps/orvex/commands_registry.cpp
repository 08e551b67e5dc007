// The registry through the client that the whole player uses, the internal sections included: who
// stands at the console may see everything.
#include "apps/orvex/commands_registry.h"

#include <string>

#include "apps/orvex/interruptible_output.h"
#include "lib/platform/registry_client.h"

namespace commands {

namespace {

void ListSection(const CommandLine& command, const std::string& section) {
  RegistryClient& registry = GetRegistryClient();
  for (const std::string& key : registry.KeyList(section)) {
    command.Print("{}={}", key, registry.Read(section, key));
  }
}

int Read(const CommandLine& command) {
  command.Print("{}", GetRegistryClient().Read(command.argument(2), command.argument(3)));
  return 0;
}

int Write(const CommandLine& command) {
  GetRegistryClient().Write(command.argument(2), command.argument(3), command.argument(4));
  return 0;
}

int Delete(const CommandLine& command) {
  if (command.argument_count() == 3) {
    GetRegistryClient().DeleteKey(command.argument(2), command.argument(3));
  } else {
    GetRegistryClient().DeleteSection(command.argument(2));
  }
  return 0;
}

int List(const CommandLine& command) {
  const InterruptibleOutput output(command.shell);
  ListSection(command, std::string(command.argument(2)));
  return 0;
}

int Dump(const CommandLine& command) {
  const InterruptibleOutput output(command.shell);
  for (const std::string& section : GetRegistryClient().SectionList()) {
    output.Check();
    command.Print("[{}]", section);
    ListSection(command, section);
  }
  return 0;
}

int Json(const CommandLine& command) {
  const InterruptibleOutput output(command.shell);
  output.ShowText(GetRegistryClient().ReadAllJson() + "\n");
  return 0;
}

int Flush(const CommandLine&) {
  GetRegistryClient().Flush();
  return 0;
}

constexpr struct {
  std::string_view name;
  size_t least, most;  // arguments, the sub-command's name included
  int (*run)(const CommandLine&);
} kSubCommands[] = {
    {"read", 3, 3, Read}, {"write", 4, 4, Write}, {"delete", 2, 3, Delete}, {"list", 2, 2, List},
    {"dump", 1, 1, Dump}, {"json", 1, 1, Json},   {"flush", 1, 1, Flush},
};

}  // namespace

int Registry(const CommandLine& command) {
  const size_t count = command.argument_count();
  for (const auto& sub_command : kSubCommands) {
    if (command.argument(1) == sub_command.name && count >= sub_command.least &&
        count <= sub_command.most) {
      return sub_command.run(command);
    }
  }
  return command.Usage();
}

}  // namespace commands
