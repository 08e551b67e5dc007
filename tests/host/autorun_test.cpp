#include "lib/scripting/script_autorun.h"

#include <poll.h>
#include <zip.h>

#include <algorithm>
#include <thread>

#include "lib/scripting/autorun_storages.h"
#include "tests/host/host_test.h"

namespace {

using Result = ScriptInterpreter::ScriptResult;
using namespace std::chrono_literals;

// --- The storages -----------------------------------------------------------------------------

struct ScanRow {
  const char* name;
  std::vector<const char*> files;  // below "/storage/"; a folder when it ends in '/'
  AutorunStorages::Options options;
  const char* script;  // of the best storage; null: there is none
  const char* status;  // a part of the list
};

AutorunStorages::Options Options(bool external_only, bool diagnostic, bool has_flash) {
  AutorunStorages::Options options;
  options.external_only = external_only;
  options.diagnostic = diagnostic;
  options.has_flash = has_flash;
  return options;
}

const ScanRow kScans[] = {
    {"Nothing",
     {},
     {},
     nullptr,
     "FIRST=unmounted;FLASH=unmounted;USB1=unmounted;SD=unmounted;SD2=unmounted;SSD=unmounted;"
     "BOOT=unmounted;LAST=unmounted;SYS=none;"},
    {"TheTablesOrder",
     {"ssd/autorun.plm", "sd/autorun.bas", "boot/autorun.plm"},
     {},
     "SD:/autorun.bas",
     "FIRST=autorun;"},
    {"ArchiveBesideScript",
     {"sd/autorun.plm", "sd/autorun.zip"},
     {},
     "SD:/autorun.zip",
     "SD=autorun;"},
    {"FolderOfThatName", {"sd/autorun.plm/"}, {}, nullptr, "SD=storage;"},
    {"Default",
     {"sys/default-autorun.plm", "sd/"},
     {},
     "SYS:/default-autorun.plm",
     "SD=storage;SD2=unmounted;SSD=unmounted;BOOT=unmounted;LAST=unmounted;SYS=autorun;"},
    {"FlashIsNotFitted",
     {"flash/autorun.plm", "sd/autorun.plm"},
     {},
     "SD:/autorun.plm",
     "FLASH=unmounted;"},
    {"Flash",
     {"flash/autorun.plm", "sd/autorun.plm"},
     Options(false, false, true),
     "FLASH:/autorun.plm",
     "FLASH=autorun;"},
    {"ExternalOnly",
     {"flash/autorun.plm", "ssd/autorun.plm", "sys/default-autorun.plm", "sd2/autorun.plm"},
     Options(true, false, true),
     "SD2:/autorun.plm",
     "SSD=unmounted;"},
    {"StorageNamedFirst",
     {"first/autorun.plm", "usb1/autorun.plm"},
     {},
     "FIRST:/autorun.plm",
     "USB1=autorun;"},
    {"DiagnosticIsOff", {"sd/diagnostic.plm"}, {}, nullptr, "SD=storage;"},
    {"DiagnosticFirst",
     {"usb1/autorun.plm", "sd/diagnostic.plm"},
     Options(false, true, false),
     "SD:/diagnostic.plm",
     "SD=diagnostic;"},
    {"AutotestBeforeAll",
     {"usb1/diagnostic.plm", "sd/autotest.plm"},
     Options(false, true, false),
     "SD:/autotest.plm",
     "SD=autotest;"},
};

class StorageScan : public HostTest, public testing::WithParamInterface<ScanRow> {};

TEST_P(StorageScan, ChoosesTheScript) {
  const ScanRow& row = GetParam();
  for (const std::string file : row.files) {
    file.ends_with('/') ? Insert(file) : Script(file, "sub main()\nend sub\n");
  }
  AutorunStorages storages(row.options);
  storages.Scan(globals.GetFilenameMapper());
  EXPECT_NE(storages.GetStatusList().find(row.status), std::string::npos)
      << storages.GetStatusList();
  const int best = storages.Best();
  ASSERT_EQ(best >= 0, row.script != nullptr);
  if (best >= 0) {
    EXPECT_EQ(storages.GetScriptPath(best), row.script);
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, StorageScan, testing::ValuesIn(kScans),
                         [](const auto& info) { return info.param.name; });

using StoragesTest = HostTest;

TEST_F(StoragesTest, ABadOneIsSkippedUntilItsMediumIsTakenOut) {
  for (const char* script : {"usb1/autorun.plm", "sd/autorun.plm"}) Script(script, "'\n");
  const FilenameMapper& mapper = globals.GetFilenameMapper();
  AutorunStorages storages({});
  storages.Scan(mapper);
  const int usb = storages.Best();
  storages.MarkAutorunBad(usb, AutorunStatus::kLoadError);
  storages.Scan(mapper);
  EXPECT_EQ(storages.GetScriptPath(storages.Best()), "SD:/autorun.plm");
  EXPECT_NE(storages.GetStatusList().find("USB1=autorun-load-error;"), std::string::npos);
  Remove("usb1");
  storages.Scan(mapper);
  Script("usb1/autorun.plm", "'\n");
  storages.Scan(mapper);
  EXPECT_EQ(storages.Best(), usb);
}

TEST_F(StoragesTest, ACheckedOrCorruptOneIsNotUsed) {
  Script("sd/autorun.plm", "'\n");
  std::filesystem::create_directories(root.path() + "/var/run");
  StorageWatch watch;
  AutorunStorages storages({});
  for (const auto& [told, status] :
       {std::pair{"checking\n", "SD=checking;"}, std::pair{"corrupt\n", "SD=error;"}}) {
    root.Write("/var/run/storage/sd", told);
    pollfd changed = {watch.GetFd(), POLLIN, 0};
    EXPECT_EQ(::poll(&changed, 1, 0), 1);
    EXPECT_TRUE(watch.Acknowledge());
    storages.Scan(globals.GetFilenameMapper());
    EXPECT_NE(storages.GetStatusList().find(status), std::string::npos);
    EXPECT_EQ(storages.Best(), -1);
    EXPECT_EQ(storages.AnyChecking(), told == std::string("checking\n"));
  }
}

using AutorunStatusDeathTest = ThreadedDeathTest;

TEST_F(AutorunStatusDeathTest, AStatusNobodyKnowsIsABrokenInvariant) {
  EXPECT_DEATH(GetStatusText(static_cast<AutorunStatus>(7)), "Unknown status 7\n");
  EXPECT_DEATH(GetScriptName(AutorunStatus::kStorage), "script != nullptr");
}

// --- The invoker ------------------------------------------------------------------------------

class TestSplash final : public AutorunSplash {
 public:
  void Show(std::span<const std::string> lines, double) override {
    m_changes.Change([&] {
      m_shown.clear();
      for (const std::string& line : lines) m_shown += line + "\n";
    });
  }
  void Hide() override {}
  bool Await(const std::string& line) {
    return m_changes.Await([&] { return m_shown.find(line) != std::string::npos; });
  }

 private:
  Changes m_changes;
  std::string m_shown;
};

// Takes what is logged while it lasts.
class Logged {
 public:
  Logged() { testing::internal::CaptureStderr(); }
  ~Logged() {
    if (!m_taken) Text();
  }
  const std::string& Text() {
    if (!std::exchange(m_taken, true)) m_text = testing::internal::GetCapturedStderr();
    return m_text;
  }
  bool Has(const std::string& line) { return Text().find(line) != std::string::npos; }

 private:
  bool m_taken = false;
  std::string m_text;
};

constexpr char kPrints[] = "sub main()\nprint \"ran\"\nend sub\n";
constexpr char kEndless[] = "sub main()\nprint \"on\"\nwhile true\nend while\nend sub\n";
constexpr char kFails[] = "sub main()\nx = 1 / 0\nend sub\n";
constexpr char kDoesNotLoad[] = "sub main()\nprint (\nend sub\n";

class InvokerTest : public HostTest {
 protected:
  InvokerTest() {
    options.console = console.io();
    options.splash = &splash;
    options.default_autorun_wait = 50ms;
    options.debug_choice = 20ms;
    options.override_wait = 20s;
  }

  Result Invoke() { return CreateAutoScriptInvoker(options)->Invoke(); }
  // With a server that answers so.
  void Recovery(TestFetcher::Answer answer) {
    Settings(R"({"networking": {"recovery_url": "http://localhost/"}})");
    fetcher.emplace(std::move(answer));
    options.fetcher = &*fetcher;
  }

  TestConsole console;
  TestSplash splash;
  std::optional<TestFetcher> fetcher;
  AutoScriptInvokerOptions options;
};

TEST_F(InvokerTest, ReturnsWhatTheScriptAskedFor) {
  const std::pair<const char*, Result> rows[] = {
      {"print 1", Result::kNormal},
      {"RestartApplication()", Result::kRestartApplication},
      {"RebootSystem()", Result::kReboot},
      {"ShutdownSystem()", Result::kShutdown},
  };
  for (const auto& [statement, result] : rows) {
    Script("sd/autorun.plm", std::string("sub main()\n") + statement + "\nend sub\n");
    EXPECT_EQ(Invoke(), result) << statement;
  }
}

TEST_F(InvokerTest, OneThatFailsIsMarkedReportedAndEndsInAReboot) {
  const struct {
    const char* script;
    const char* status;
    const char* report;
  } rows[] = {
      {kDoesNotLoad, "autorun-load-error", "ScriptLoadError: Syntax Error. (compile error &h02)"},
      {kFails, "autorun-runtime-error", "ScriptRuntimeError: Divide by Zero."},
  };
  for (const auto& row : rows) {
    Script("sd/autorun.plm", row.script);
    Logged log;
    EXPECT_EQ(Invoke(), Result::kReboot);
    EXPECT_TRUE(log.Has(std::string("Marking autorun on SD:/ as ") + row.status + "\n"));
    EXPECT_TRUE(log.Has(row.report)) << log.Text();
    EXPECT_TRUE(log.Has("ScriptName: SD:/autorun.plm\n"));
    EXPECT_TRUE(log.Has("Load or runtime error in autorun. Forcing recovery.\n"));
    EXPECT_TRUE(log.Has(
        "Network recovery is not possible. Script debugging is not enabled. Force reboot.\n"));
  }
  options.first_run_only = true;
  EXPECT_EQ(Invoke(), Result::kRuntimeError);
}

TEST_F(InvokerTest, WithDebuggingTheFailureIsLeftToTheOperator) {
  Settings(R"({"plumscript": {"debug": "1"}})");
  Script("sd/autorun.plm", kDoesNotLoad);
  Logged log;
  EXPECT_EQ(Invoke(), Result::kLoadError);
  EXPECT_TRUE(log.Has("Autorun debugging enabled.\n"));
  EXPECT_TRUE(log.Has("Press SVC to debug.\n"));
}

TEST_F(InvokerTest, ARestartLooksAtTheStoragesAnew) {
  Script("sd/autorun.plm",
         "sub main()\nprint \"first\"\nCopyFile(\"autorun2.plm\", \"USB1:/autorun.plm\")\n"
         "RestartScript()\nend sub\n");
  Script("sd/autorun2.plm", kPrints);
  Insert("usb1");
  EXPECT_EQ(Invoke(), Result::kNormal);
  EXPECT_EQ(console.text(), "first\nran\n");
}

TEST_F(InvokerTest, WaitsForAStorageAndRunsWhatIsCopiedThere) {
  const auto invoker = CreateAutoScriptInvoker(options);
  EXPECT_THROW(CreateAutoScriptInvoker(options), std::runtime_error);
  Changes changes;
  std::optional<Result> ended;
  invoker->Start([&](Result result) { changes.Change([&] { ended = result; }); });
  EXPECT_TRUE(splash.Await("Usable storage device not found\nPlease insert storage device\n"));
  EXPECT_TRUE(console.AwaitText("No usable autorun script found yet\n"));
  Insert("usb1");
  Script("usb1/autorun.plm", kPrints);
  EXPECT_TRUE(changes.Await([&] { return ended.has_value(); }));
  EXPECT_EQ(ended, Result::kNormal);
  EXPECT_TRUE(console.text().ends_with("ran\n"));
  EXPECT_TRUE(invoker->Stop());
  // Again, with nothing to find.
  Remove("usb1");
  ended.reset();
  invoker->Start([&](Result result) { changes.Change([&] { ended = result; }); });
  EXPECT_TRUE(invoker->Stop());
  EXPECT_EQ(ended, Result::kNormal);
}

TEST_F(InvokerTest, TheDefaultAutorunWaitsForSomethingBetter) {
  Script("sys/default-autorun.plm", kPrints);
  options.default_autorun_wait = 300ms;
  const auto start = std::chrono::steady_clock::now();
  Logged log;
  EXPECT_EQ(Invoke(), Result::kNormal);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms);
  EXPECT_TRUE(log.Has("Not accepting default autorun yet. Still waiting for something better.\n"));
  EXPECT_TRUE(log.Has("Accepting default autorun\n"));
  EXPECT_EQ(console.text(), "ran\n");
}

TEST_F(InvokerTest, AnEndlessScriptIsStoppedOrInterrupted) {
  Script("sd/autorun.plm", kEndless);
  Settings(R"({"plumscript": {"interruptible": "yes"}})");
  options.first_run_only = true;
  Changes changes;
  std::optional<Result> ended;
  const auto end = [&](Result result) { changes.Change([&] { ended = result; }); };
  {
    const auto invoker = CreateAutoScriptInvoker(options);
    invoker->Start(end);
    EXPECT_TRUE(console.AwaitText("on\n"));
    invoker->Interrupt();
    EXPECT_TRUE(changes.Await([&] { return ended.has_value(); }));
    EXPECT_EQ(ended, Result::kRuntimeError);
  }
  TestConsole second;
  options.console = second.io();
  const auto invoker = CreateAutoScriptInvoker(options);
  invoker->Start(end);
  EXPECT_TRUE(second.AwaitText("on\n"));
  EXPECT_TRUE(invoker->Stop());
  EXPECT_FALSE(invoker->IsRunning());
  EXPECT_EQ(ended, Result::kNormal);
}

TEST_F(InvokerTest, AnArchiveIsUnpackedAndItsScriptRun) {
  Insert("sd");
  const std::string archive = root.path() + "/storage/sd/autorun.zip";
  zip_t* zip = zip_open(archive.c_str(), ZIP_CREATE, nullptr);
  ASSERT_NE(zip, nullptr);
  const std::string script = "sub main()\nprint ReadAsciiFile(\"text.txt\")\nend sub\n";
  zip_file_add(zip, "autozip.plm", zip_source_buffer(zip, script.data(), script.size(), 0), 0);
  zip_file_add(zip, "text.txt", zip_source_buffer(zip, "unpacked", 8, 0), 0);
  ASSERT_EQ(zip_close(zip), 0);
  EXPECT_EQ(Invoke(), Result::kNormal);
  EXPECT_EQ(console.text(), "unpacked\n");

  Script("sd/autorun.zip", "no archive");
  Logged log;
  EXPECT_EQ(Invoke(), Result::kReboot);
  EXPECT_TRUE(log.Has("Marking autorun on SD:/ as autorun-load-error\n"));
  EXPECT_TRUE(log.Has("ScriptLoadError: "));
}

// --- Recovery ---------------------------------------------------------------------------------

TEST_F(InvokerTest, AnOverrideRunsInsteadOfTheAutorun) {
  Script("sd/autorun.plm", kFails);
  Recovery([](const auto&) { return TestFetcher::Status(200, kPrints); });
  EXPECT_EQ(Invoke(), Result::kNormal);
  EXPECT_EQ(console.text(), "ran\n");

  Recovery([](const auto&) { return TestFetcher::Status(200, kDoesNotLoad); });
  Logged log;
  EXPECT_EQ(Invoke(), Result::kReboot);
  EXPECT_TRUE(log.Has("Override recovery script failed.\n"));
}

TEST_F(InvokerTest, AnOverrideMayTakeTheAutorunAway) {
  Script("sd/autorun.plm", "sub main()\nprint \"not me\"\nend sub\n");
  Script("sys/default-autorun.plm", kPrints);
  Recovery([](const auto&) {
    return TestFetcher::Status(
        200, "sub main()\nDeleteFile(\"SD:/autorun.plm\")\nRestartScript()\nend sub\n");
  });
  EXPECT_EQ(Invoke(), Result::kNormal);
  EXPECT_EQ(console.text(), "ran\n");
}

TEST_F(InvokerTest, TheMediaAreLookedAtAgainAfterTheOverride) {
  Script("sd/autorun.plm", "sub main()\nprint \"not me\"\nend sub\n");
  Recovery([this](const auto&) {
    Remove("sd");
    Script("usb1/autorun.plm", kPrints);
    return TestFetcher::Status(404);
  });
  EXPECT_EQ(Invoke(), Result::kNormal);
  EXPECT_EQ(console.text(), "ran\n");
}

TEST_F(InvokerTest, WithoutAnOverrideTheAutorunRuns) {
  Script("sd/autorun.plm", kPrints);
  Recovery([](const auto&) { return TestFetcher::Status(404); });
  EXPECT_EQ(Invoke(), Result::kNormal);
  // Nor does a server that is down hold it up for ever.
  options.override_wait = 20ms;
  Recovery([](const auto&) { return TestFetcher::Status(-7); });
  EXPECT_EQ(Invoke(), Result::kNormal);
  EXPECT_EQ(console.text(), "ran\nran\n");
}

TEST_F(InvokerTest, AFailureIsReportedAndRecoveredFrom) {
  Script("sd/autorun.plm", kFails);
  // It is not what the other medium is for.
  Script("ssd/autorun.plm", "sub main()\nprint \"other\"\nend sub\n");
  // A script that repairs the storage.
  const std::string repair =
      "sub main()\nCopyFile(\"SD:/good.plm\", \"SD:/autorun.plm\")\nRestartScript()\nend sub\n";
  Script("sd/good.plm", kPrints);
  int asked = 0;
  Recovery([&](const UrlFetcher::Request& request) {
    if (request.post_body) return TestFetcher::Status(200);
    return ++asked == 1 ? TestFetcher::Status(204) : TestFetcher::Status(200, repair);
  });
  Logged log;
  EXPECT_EQ(Invoke(), Result::kNormal);
  EXPECT_TRUE(log.Has("Begin last resort recovery due to 2\n")) << log.Text();
  EXPECT_TRUE(log.Has("Running last resort recovery 'tmp:/recovery1.plm'\n"));
  EXPECT_TRUE(console.text().ends_with("ran\n"));
  EXPECT_EQ(console.text().find("other"), std::string::npos);
  const auto requests = fetcher->requests();
  const auto report =
      std::ranges::find_if(requests, [](auto& r) { return r.post_body.has_value(); });
  ASSERT_NE(report, requests.end());
  EXPECT_TRUE(report->post_body->starts_with("ErrorType=ScriptRuntimeError&ErrorString=Divide%20"));
}

TEST_F(InvokerTest, AScriptFromTheServerTakesARunningOnesPlace) {
  Script("sd/autorun.plm", kEndless);
  options.override_wait = 20ms;
  int asked = 0;
  Recovery([&](const auto&) {
    if (++asked == 1) return TestFetcher::Status(-7);  // asks again after two seconds
    EXPECT_TRUE(console.AwaitText("on\n"));
    return TestFetcher::Status(200, kPrints);
  });
  EXPECT_EQ(Invoke(), Result::kNormal);
  EXPECT_EQ(console.text(), "on\nran\n");
}

TEST_F(InvokerTest, WithoutAnyStorageTheServerIsAsked) {
  Recovery([](const auto&) { return TestFetcher::Status(200, kPrints); });
  Logged log;
  EXPECT_EQ(Invoke(), Result::kNormal);
  EXPECT_TRUE(log.Has("WaitForStorages fall back to network recovery (no storage)\n"));
  EXPECT_TRUE(log.Has("No autorun. Forcing recovery.\nLastResortRecovery\n"));
  EXPECT_TRUE(log.Has("Begin last resort recovery due to 3\n"));
  EXPECT_TRUE(console.text().ends_with("ran\n"));
}

TEST_F(InvokerTest, EveryLastResortAsksTheServerAnew) {
  int asked = 0;
  Recovery([&](const auto&) {
    return TestFetcher::Status(
        200, ++asked == 1 ? "sub main()\nprint \"first\"\nRestartScript()\nend sub\n" : kPrints);
  });
  Logged log;
  EXPECT_EQ(Invoke(), Result::kNormal);
  EXPECT_EQ(asked, 2);
  EXPECT_TRUE(console.text().ends_with("ran\n"));
}

TEST_F(InvokerTest, AFailureThatNobodyDebugsIsReported) {
  Settings(R"({"networking": {"recovery_url": "http://localhost/"},
               "plumscript": {"interruptible": "1"}})");
  fetcher.emplace([](const UrlFetcher::Request& request) {
    return TestFetcher::Status(request.post_body ? 200 : 404);
  });
  options.fetcher = &*fetcher;
  TestConsole readable(std::deque<std::string>{});
  options.console = readable.io();
  Script("sd/autorun.plm", kFails);
  Script("tmp/recover2.plm", kPrints);
  const auto invoker = CreateAutoScriptInvoker(options);
  std::thread stop([&] {
    EXPECT_TRUE(splash.Await("Attempting Network Recovery\n"));
    invoker->Stop();
  });
  invoker->Invoke();
  stop.join();
  const auto requests = fetcher->requests();
  EXPECT_TRUE(std::ranges::any_of(requests, [](auto& r) { return r.post_body.has_value(); }));
}

TEST_F(InvokerTest, AnAutorunThatComesMeanwhileIsBetterThanRecovery) {
  Recovery([](const auto&) { return TestFetcher::Status(404); });
  const auto invoker = CreateAutoScriptInvoker(options);
  Changes changes;
  std::optional<Result> ended;
  invoker->Start([&](Result result) { changes.Change([&] { ended = result; }); });
  EXPECT_TRUE(splash.Await("Attempting Network Recovery\n"));
  Script("sd/autorun.plm", kPrints);
  EXPECT_TRUE(changes.Await([&] { return ended.has_value(); }));
  EXPECT_TRUE(console.text().ends_with("ran\n"));
}

}  // namespace
