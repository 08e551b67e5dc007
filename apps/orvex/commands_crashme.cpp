// Ways to die, for testing what watches over the player: its supervisor, its crash reports, the
// watchdogs. Each way in the table below does not return.
//
// Some take the whole device with them. In a device root the machine is not ours: those say what a
// device would do and end the process alone, memory is exhausted within a limit set for the
// process, and no core file is left.
#include <fcntl.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <latch>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "apps/orvex/command_numbers.h"
#include "apps/orvex/commands_mfg.h"
#include "lib/platform/assertion.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"
#include "lib/platform/spawn_process.h"
#include "lib/platform/watched_scope.h"

namespace commands {

namespace {

constexpr char kLoadModule[] = "/sbin/modprobe";
constexpr unsigned kThreads = 16;
constexpr size_t kPieceKiB = 1024;
// What a process in a root may take before memory counts as exhausted.
constexpr rlim_t kRootMemory = rlim_t{256} << 20;
// When the watchdog notices the loop that nothing else would end, where another processor still
// runs its thread; it then gives up after as long again.
constexpr std::chrono::seconds kStarvationLimit{10};

// Keeps the compiler from seeing what comes of the mistakes below.
volatile uintptr_t g_null = 0;
volatile size_t g_too_much = 256;

[[noreturn]] void DieInstead(std::string_view device) {
  lattix::Log("crashme: a device {}; in a device root only the process ends\n", device);
  std::abort();
}

void WriteToNull(const CommandLine&) { *reinterpret_cast<volatile int*>(g_null) = 1; }

void Throw() { throw std::runtime_error("self-inflicted exception"); }

void ThrowUncaught(const CommandLine&) noexcept { Throw(); }

void ThrowOnThread(const CommandLine& command) {
  std::thread([&command] { ThrowUncaught(command); }).join();
}

// All at the same moment: whoever reports the crash must cope with the others.
void CrashThreads(const CommandLine& command) {
  std::latch together(kThreads);
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      together.arrive_and_wait();
      WriteToNull(command);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// This file is compiled with a guard between the arrays of a function and its return address.
__attribute__((noinline)) void SmashStack(const CommandLine&) {
  volatile char room[16];
  volatile char* const beyond = room;
  for (size_t i = 0; i < g_too_much; ++i) beyond[i] = 'x';
}

__attribute__((noinline)) size_t Deeper(size_t depth) {
  volatile char frame[1024];
  frame[depth % sizeof frame] = 1;
  if (g_null != 0) return depth;
  return Deeper(depth + 1) + static_cast<size_t>(frame[0]);
}

void OverflowStack(const CommandLine&) { lattix::Log("{}\n", Deeper(0)); }

void ExecuteInvalid(const CommandLine&) { __builtin_trap(); }

void FailAssertion(const CommandLine&) {
  LATTIX_ASSERT_TEXT(g_null != 0, "self-inflicted assertion");
}

// The C library's own, which other libraries in the process use.
void FailLibraryAssertion(const CommandLine&) {
  __assert_fail("self-inflicted", __FILE__, __LINE__, __func__);
}

void PanicKernel(const CommandLine&) {
  if (lattix::InDeviceRoot()) DieInstead("loads a module that panics the kernel");
  // The kernel's own test of its crash dumps.
  SpawnProcess load(kLoadModule, {"lkdtm", "cpoint_name=DIRECT", "cpoint_type=PANIC"});
  load.Execute(0);
  const int status = load.Wait();
  throw std::runtime_error(fmt::format("{} ended with {}", kLoadModule, status));
}

void Starve(const CommandLine& command, int policy) {
  command.Print("Setting scheduler policy {}", policy);
  command.shell.Flush();
  if (lattix::InDeviceRoot()) DieInstead("loops for ever at a real-time priority");
  const watchdog::EarlyWarningWatchedScope watched("crashme", kStarvationLimit,
                                                   [] { lattix::Log("Watchdog early warning\n"); });
  const sched_param priority = {sched_get_priority_max(policy)};
  if (sched_setscheduler(0, policy, &priority) != 0) {
    throw lattix::ErrnoException(errno, "sched_setscheduler");
  }
  command.Print("Entering infinite loop");
  command.shell.Flush();
  for (;;) std::atomic_signal_fence(std::memory_order_seq_cst);
}

void StarveRoundRobin(const CommandLine& command) { Starve(command, SCHED_RR); }
void StarveFifo(const CommandLine& command) { Starve(command, SCHED_FIFO); }

// The address space that the process has, in bytes.
rlim_t AddressSpace() {
  char text[64] = "";
  const lattix::UniqueFd fd(open("/proc/self/statm", O_RDONLY | O_CLOEXEC));
  const ssize_t n = fd ? read(fd.Get(), text, sizeof text) : -1;
  rlim_t pages = 0;
  if (n > 0) std::from_chars(text, text + n, pages);
  return pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

void ExhaustMemory(const CommandLine& command, size_t piece_kib) noexcept {
  if (lattix::InDeviceRoot()) {
    rlimit limit = {};
    getrlimit(RLIMIT_AS, &limit);
    limit.rlim_cur = std::min(limit.rlim_max, AddressSpace() + kRootMemory);
    setrlimit(RLIMIT_AS, &limit);
  }
  std::vector<std::unique_ptr<char[]>> pieces;
  for (size_t total_kib = piece_kib;; total_kib += piece_kib) {
    pieces.push_back(std::make_unique_for_overwrite<char[]>(piece_kib * 1024));
    std::memset(pieces.back().get(), 'x', piece_kib * 1024);  // only now it takes memory
    command.Print("Allocated {}KiB, {}MiB in total", piece_kib, total_kib / 1024);
    command.shell.Flush();
  }
}

struct Way {
  std::string_view name;
  void (*die)(const CommandLine&);
};

constexpr Way kWays[] = {
    {"threads", CrashThreads},
    {"stacksmash", SmashStack},
    {"terminate", [](const CommandLine&) { std::terminate(); }},
    {"direct", ExecuteInvalid},
    {"exception", ThrowUncaught},
    {"thread", ThrowOnThread},
    {"kernel", PanicKernel},
    {"realtime", StarveRoundRobin},
    {"fifo", StarveFifo},
    // Nobody in the process learns of it.
    {"really", [](const CommandLine&) { kill(getpid(), SIGKILL); }},
    {"deeply", OverflowStack},
    {"assert2", FailLibraryAssertion},
    {"assert", FailAssertion},
    {"ptr", WriteToNull},
    {"abort", [](const CommandLine&) { std::abort(); }},
    {"raise", [](const CommandLine&) { raise(SIGSEGV); }},
    {"memory", [](const CommandLine& command) { ExhaustMemory(command, kPieceKiB); }},
};

int Usage(const CommandLine& command) {
  std::string names;
  for (const Way& way : kWays) names.append(way.name).append(" | ");
  command.Print("Usage: {} {}<KiB to allocate at a time>", command.name(), names);
  return 1;
}

}  // namespace

int CrashMe(const CommandLine& command) {
  if (command.argument_count() != 1) return Usage(command);
  const std::string_view name = command.argument(1);
  const auto way = std::ranges::find(kWays, name, &Way::name);
  const uint64_t piece_kib = ParseNumber(name, UINT32_MAX, 10).value_or(0);
  if (way == std::end(kWays) && piece_kib == 0) return Usage(command);
  if (lattix::InDeviceRoot()) {
    const rlimit no_core = {};
    setrlimit(RLIMIT_CORE, &no_core);
  }
  command.Print("self-inflicted crashme {}", name);
  command.shell.Flush();
  if (piece_kib > 0) {
    ExhaustMemory(command, piece_kib);
  } else {
    way->die(command);
  }
  return 0;
}

}  // namespace commands
