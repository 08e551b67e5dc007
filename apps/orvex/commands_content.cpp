// What is in a file: its type, its digest, its streams.
#include "apps/orvex/commands_content.h"

#include <fcntl.h>
#include <magic.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>
#include <string>

#include "apps/orvex/command_files.h"
#include "apps/orvex/interruptible_output.h"
#include "apps/orvex/media_probe.h"
#include "lib/platform/digest/file_digest.h"
#include "lib/platform/errno_exception.h"

namespace commands {

namespace {

using Magic = std::unique_ptr<magic_set, void (*)(magic_t)>;

}  // namespace

int File(const CommandLine& command) {
  if (command.argument_count() != 1) return command.Usage();
  const std::string_view name = command.argument(1);
  const lattix::UniqueFd fd = OpenArgument(command, name, O_RDONLY);
  if (!fd) return 1;
  // Loaded for each use: an operator asks seldom, and the table takes megabytes.
  const Magic magic(magic_open(MAGIC_NONE), magic_close);
  if (magic == nullptr) throw std::bad_alloc();
  const char* type = nullptr;
  if (magic_load(magic.get(), nullptr) == 0) type = magic_descriptor(magic.get(), fd.Get());
  if (type == nullptr) {
    const char* const reason = magic_error(magic.get());
    command.Print("{}: {}", name, reason != nullptr ? reason : "unknown type");
    return 1;
  }
  command.Print("{}", type);
  return 0;
}

int Hash(const CommandLine& command) {
  if (command.argument_count() != 2 || !IsDigestAlgorithm(command.argument(1))) {
    return command.Usage();
  }
  const InterruptibleOutput output(command.shell);
  const std::string_view name = command.argument(2);
  const lattix::UniqueFd fd = OpenArgument(command, name, O_RDONLY);
  if (!fd) return 1;
  command.Print("{}", FileDigest(command.argument(1), fd.Get(), [&] { output.Check(); }));
  return 0;
}

int Probe(const CommandLine& command) {
  if (command.argument_count() != 1) return command.Usage();
  const lattix::UniqueFd fd = OpenArgument(command, command.argument(1), O_RDONLY);
  if (!fd) return 1;
  const MediaProbe probe = ProbeMedia(fd.Get());
  switch (probe.outcome) {
    case MediaProbe::Outcome::kRecognised: command.shell.Puts(probe.text.c_str()); return 0;
    case MediaProbe::Outcome::kUnknown: command.Print("Unknown"); return 0;
    default: command.Print("Probe failed."); return 1;
  }
}

int Analyze(const CommandLine& command) {
  if (command.argument_count() != 2) return command.Usage();
  const std::string_view from = command.argument(1);
  const std::string_view to = command.argument(2);
  const lattix::UniqueFd in = OpenArgument(command, from, O_RDONLY);
  if (!in) return 1;
  const MediaProbe probe = AnalyzeMedia(in.Get());
  if (probe.outcome != MediaProbe::Outcome::kRecognised) {
    command.Print("{}: {}", from, probe.text);
    return 1;
  }
  const lattix::UniqueFd out = CreateBeside(command, to, in.Get());
  if (!out) return 1;
  WriteAll(out.Get(), probe.text);
  return 0;
}

}  // namespace commands
