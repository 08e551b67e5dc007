// Runs soak.plm again and again in one process and checks that nothing stays behind:
//
//   soak SCRIPT EVENTS     a run handles a thousand events
//
// After the first runs, which fill what is kept for reuse, neither the resident memory nor the
// instances of scripts nor the open descriptors may grow.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <string>

#include "lib/platform/device_path.h"
#include "lib/scripting/CommonAPI/Include/class_registry.h"
#include "lib/scripting/CommonAPI/Include/object_globals.h"
#include "lib/scripting/Plumscript/Source/ps_heap.h"
#include "lib/scripting/Plumscript/Source/publicapis.h"

namespace {

namespace fs = std::filesystem;

constexpr long kEventsPerRun = 1000;
constexpr long kWarmRuns = 20;
// What an allocator that has been used at random may keep.
constexpr long kMaxGrowthKiB = 2048;

struct Use {
  long resident_kib;
  int instances;        // after what is garbage has been collected
  size_t script_bytes;  // with the free ones that are kept, of which each thread has its own
  long descriptors;
};

// A flush that a run has left under way holds its file open until it is done.
void WaitForFlushes() {
  std::promise<void> done;
  KelvoObjectGlobals::GetInstance().GetFlushQueue().Enqueue([&done] { done.set_value(); });
  done.get_future().wait();
}

Use Measure() {
  WaitForFlushes();
  const pscCollection collection = pscGarbageCollect(scriptDomain());
  std::ifstream statm("/proc/self/statm");
  long size = 0, resident = 0;
  statm >> size >> resident;
  return {resident * (sysconf(_SC_PAGESIZE) / 1024), collection.total - collection.orphaned,
          psHeapUsed(),
          static_cast<long>(std::distance(fs::directory_iterator("/proc/self/fd"), {}))};
}

void Print(const char* when, const Use& use) {
  std::printf("%s: %ld KiB resident, %d script objects in %zu bytes, %ld descriptors\n", when,
              use.resident_kib, use.instances, use.script_bytes, use.descriptors);
}

bool RunOnce(const std::string& script) {
  psProc* process = scriptCreateProcess();
  bool normal = scriptCompileText(process, script, "soak.plm");
  if (normal) {
    normal = scriptRun(process, nullptr, nullptr);
    if (!normal) std::fputs(scriptGetRuntimeErrorText(process).c_str(), stderr);
  }
  scriptDestroyProcess(process);
  return normal;
}

int Soak(const std::string& script, long runs) {
  const auto globals = std::make_unique<KelvoObjectGlobals>();
  scriptInit({});
  KelvoRegisterClasses();
  Use before = {};
  bool normal = true;
  for (long run = 0; run < runs && normal; ++run) {
    if (run == kWarmRuns) before = Measure();
    normal = RunOnce(script);
  }
  const Use after = Measure();
  scriptUninit();
  if (!normal) return 1;
  Print("after the first runs", before);
  Print("at the end", after);
  if (after.instances > before.instances || after.descriptors > before.descriptors) return 1;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  if (after.resident_kib > before.resident_kib + kMaxGrowthKiB) return 1;
#endif
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const long runs = argc == 3 ? std::atol(argv[2]) / kEventsPerRun : 0;
  if (runs <= kWarmRuns) {
    std::fprintf(stderr, "usage: soak SCRIPT EVENTS, which are more than %ld\n",
                 kWarmRuns * kEventsPerRun);
    return 64;
  }
  std::ifstream file(argv[1]);
  const std::string script(std::istreambuf_iterator<char>(file), {});
  std::string root = fs::temp_directory_path() / "orvex-soak-XXXXXX";
  if (mkdtemp(root.data()) == nullptr) return 1;
  lattix::SetDeviceRoot(root);
  for (const char* folder : {"sys", "tmp"}) fs::create_directories(root + "/storage/" + folder);
  const int status = Soak(script, runs);
  fs::remove_all(root);
  return status;
}
