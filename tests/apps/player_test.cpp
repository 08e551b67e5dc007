// The player's process, whole: the real program in a device root, on a terminal or without one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zip.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "apps/orvex/preload.h"
#include "tests/apps/program_run.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

class Player : public ProgramRun {
 public:
  Player(const fs::path& root, bool terminal, const std::vector<std::string>& environment)
      : ProgramRun(ORVEX_PROGRAM, {}, root, terminal, Environment(root, environment)) {}

 private:
  static std::vector<std::string> Environment(const fs::path& root,
                                              std::vector<std::string> environment) {
    environment.push_back("ORVEX_ROOT=" + root.string());
    // The fast exit leaves its threads behind on purpose.
    const char* tsan = std::getenv("TSAN_OPTIONS");
    environment.push_back("TSAN_OPTIONS=" + std::string(tsan != nullptr ? tsan : "") +
                          ":report_thread_leaks=0");
    return environment;
  }
};

class PlayerTest : public testing::Test {
 protected:
  PlayerTest() {
    ::signal(SIGPIPE, SIG_IGN);
    std::string folder = testing::TempDir() + "player-XXXXXX";
    m_root = ::mkdtemp(folder.data());
    EXPECT_EQ(0, std::system((DEVICE_ROOT_TOOL " '" + m_root.string() + "'").c_str()));
  }
  ~PlayerTest() override { fs::remove_all(m_root); }

  // Device files.
  void Write(const std::string& path, const std::string& text) {
    std::ofstream(m_root.string() + path, std::ios::binary | std::ios::trunc) << text;
  }
  std::string Read(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(m_root.string() + path, std::ios::binary).rdbuf();
    return text.str();
  }
  bool Exists(const std::string& path) { return fs::exists(m_root.string() + path); }
  // Direction and level of the amplifier's line and of the digital output's.
  std::string AudioLines() {
    const std::string gpio = "/sys/class/gpio/gpio";
    return Read(gpio + "52/direction") + Read(gpio + "52/value") + Read(gpio + "53/direction") +
           Read(gpio + "53/value");
  }

  void Autorun(const std::string& text) { Write("/storage/sd/autorun.plm", text); }
  Player OnTerminal(const std::vector<std::string>& environment = {}) {
    return Player(m_root, true, environment);
  }
  Player WithoutTerminal(const std::vector<std::string>& environment = {}) {
    return Player(m_root, false, environment);
  }

  fs::path m_root;
};

constexpr char kAudioOpen[] = "out1out0";
constexpr char kAudioMuted[] = "out0out1";

// --- Start ------------------------------------------------------------------------------------

TEST_F(PlayerTest, TheStoppingMarkerRefusesTheStart) {
  // Whatever it is: a link that leads nowhere, too.
  fs::create_symlink("nowhere", m_root / "var/run/orvex.stopping");
  fs::remove(m_root / "dev/watchdog");  // an attempt to open it would end the process
  Player player = WithoutTerminal();
  EXPECT_EQ(43, player.Finish());
  EXPECT_EQ("Orvex application tarsk-9.0.0 starting\n", player.err);
  EXPECT_FALSE(Exists("/var/run/orvex.pid"));
}

TEST_F(PlayerTest, AStartThatFailsLeavesNoPidFile) {
  fs::remove(m_root / "dev/watchdog");
  Player player = WithoutTerminal();
  EXPECT_EQ(1000 + SIGABRT, player.Finish());
  EXPECT_THAT(player.err,
              HasSubstr("Unhandled exception: /dev/watchdog: No such file or directory\n"));
  EXPECT_FALSE(Exists("/var/run/orvex.pid"));
}

TEST_F(PlayerTest, TheVersionIsTrimmedButForFormFeeds) {
  fs::create_directory(m_root / "var/run/orvex.stopping");
  for (const auto& [file, shown] : std::vector<std::pair<std::string, std::string>>{
           {"  8.5.1\r\n", "8.5.1"}, {"\t8.5.1\f", "8.5.1\f"}, {"", ""}}) {
    Write("/etc/orvex-version", file);
    Player player = WithoutTerminal();
    EXPECT_EQ(43, player.Finish());
    EXPECT_EQ("Orvex application tarsk-" + shown + " starting\n", player.err);
  }
}

TEST(StripPreloadTest, RemovesTheAllocatorAlone) {
  constexpr char kNone[] = "(none)";
  for (const auto& [before, left] : std::vector<std::pair<std::string, std::string>>{
           {"/usr/lib/libjemalloc.so.2:/lib/libfoo.so", "/lib/libfoo.so"},
           {"/usr/lib/libjemalloc.so.2", kNone},
           {"/lib/a.so /lib/b.so", "/lib/a.so /lib/b.so"},
           {"/lib/a.so libjemalloc.so  /lib/b.so:", "/lib/a.so:/lib/b.so"},
           {kNone, kNone}}) {
    ::unsetenv("LD_PRELOAD");
    if (before != kNone) ::setenv("LD_PRELOAD", before.c_str(), 1);
    StripPreload("jemalloc");
    const char* after = std::getenv("LD_PRELOAD");
    EXPECT_EQ(left, after != nullptr ? after : kNone);
  }
  ::unsetenv("LD_PRELOAD");
}

// --- The console ------------------------------------------------------------------------------

TEST_F(PlayerTest, ExitEndsThePlayerInOrder) {
  struct Row {
    const char* device_data;
    int status;
  };
  for (const Row& row : {Row{"PS_FORMAT=1\n", 42}, Row{"PS_FORMAT=1\nPS_RESTRICTED=1\n", 41}}) {
    Write("/var/lib/orvex/device-data", row.device_data);
    Autorun("Sub Main()\n  Print \"playing\"\nEnd Sub\n");
    Player player = OnTerminal();
    ASSERT_TRUE(player.Expect("playing"));
    EXPECT_EQ(std::to_string(player.pid()) + "\n", Read("/var/run/orvex.pid"));
    EXPECT_EQ(kAudioOpen, AudioLines());
    EXPECT_EQ("p", Read("/sys/system_monitor/system_status"));
    player.Type("exit\r");
    EXPECT_EQ(row.status, player.Finish());
    EXPECT_THAT(player.err, HasSubstr("Orvex application tarsk-9.0.0 exit\n"));
    EXPECT_EQ(kAudioMuted, AudioLines());
    EXPECT_FALSE(Exists("/var/run/orvex.pid"));
  }
}

TEST_F(PlayerTest, ExitEndsAScriptThatIsStillPlaying) {
  Autorun("Sub Main()\n  Print \"playing\"\n  While True\n  End While\nEnd Sub\n");
  Player player = OnTerminal();
  ASSERT_TRUE(player.Expect("playing"));
  // A line that has gone is no reason to end in another way, or to leave the other one.
  fs::remove_all(m_root / "sys/class/gpio/gpio52");
  player.Type("exit\r");
  EXPECT_EQ(42, player.Finish());
  EXPECT_THAT(player.err, HasSubstr("Failed to drive orvex/audio-mute-gpio: No such file"));
  EXPECT_EQ("out1", AudioLines());
}

// --- SIGTERM ----------------------------------------------------------------------------------

TEST_F(PlayerTest, SigtermEndsThePlayerAtOnceWhateverItDoes) {
  struct Row {
    const char* script;
    bool terminal;
  };
  for (const Row& row : {
           Row{"Sub Main()\n  Print \"playing\"\n  While True\n  End While\nEnd Sub\n", false},
           Row{"Sub Main()\n  Print \"playing\"\n  Sleep(100000)\nEnd Sub\n", true},
           Row{"Sub Main()\n  Print \"playing\"\nEnd Sub\n", true},
       }) {
    Autorun(row.script);
    Player player = row.terminal ? OnTerminal() : WithoutTerminal();
    ASSERT_TRUE(player.Expect("playing"));
    player.Signal(SIGTERM);
    EXPECT_EQ(43, player.Finish());
    const std::string line = "Orvex application tarsk-9.0.0 fast exit\n";
    EXPECT_NE(std::string::npos, player.err.find(line)) << player.err;
    EXPECT_EQ(player.err.find(line), player.err.rfind(line));
    EXPECT_EQ(kAudioMuted, AudioLines());
    EXPECT_FALSE(Exists("/var/run/orvex.pid"));
  }
}

TEST_F(PlayerTest, SigtermEndsAPlayerWhoseLogNobodyReads) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the sanitizer flushes the streams before a process ends at once";
#endif
  Autorun(
      "Sub Main()\n  d = CreateObject(\"koDeviceInfo\")\n  While True\n"
      "    d.HasFeature(\"none\")\n  End While\nEnd Sub\n");
  Player player = WithoutTerminal();
  ASSERT_TRUE(player.ExpectErrorFull());
  player.Signal(SIGTERM);
  ASSERT_TRUE(player.EndsUnread());
  EXPECT_EQ(43, player.Finish());
  EXPECT_EQ(kAudioMuted, AudioLines());
}

TEST_F(PlayerTest, SigtermDuringTheStartIsNotLost) {
  // The pid file is there before the services are; what is sent then must not wait for them.
  Player player = OnTerminal();
  ASSERT_TRUE(player.ExpectError("starting\n"));
  player.Signal(SIGTERM);
  EXPECT_THAT(player.Finish(), testing::AnyOf(43, 1000 + SIGTERM));
  EXPECT_FALSE(Exists("/var/run/orvex.pid"));
}

TEST_F(PlayerTest, SigintEndsAPlayerWithoutAConsoleInOrder) {
  Autorun("Sub Main()\n  Print \"playing\"\n  Sleep(100000)\nEnd Sub\n");
  for (const auto& [command_line, debug] :
       {std::pair("quiet ps.debug=0", false), {"ps.debug", true}}) {
#ifdef __SANITIZE_THREAD__
    // The sanitizer keeps a handler back while the thread waits in a system call of its own.
    if (debug) continue;
#endif
    Write("/proc/cmdline", command_line);
    Player player = WithoutTerminal();
    ASSERT_TRUE(player.Expect("playing"));
    player.Signal(SIGINT);
    EXPECT_EQ(130, player.Finish());
    EXPECT_EQ(debug, player.err.find("SIGINT received\n") != std::string::npos);
    EXPECT_EQ(kAudioMuted, AudioLines());
  }
}

// --- The supervisor ---------------------------------------------------------------------------

TEST_F(PlayerTest, TheBuiltInSupervisorsFailureForcesACrashDump) {
  Autorun("Sub Main()\n  Print \"playing\"\nEnd Sub\n");
  Write("/storage/sys/bootstrap.js", "process.exit(3)\n");
  Player player = WithoutTerminal();
  EXPECT_EQ(41, player.Finish());
  EXPECT_THAT(player.err, HasSubstr("ERROR: Bootstrap failure 'sys:/bootstrap.js': "));
  EXPECT_THAT(player.err, HasSubstr("Forcing crash\n"));
  EXPECT_EQ("4", Read("/sys/class/mem/kmsg/trigger_dump"));
  EXPECT_EQ("", player.out);
}

TEST_F(PlayerTest, AConfiguredSupervisorsFailureLeavesThePresentationToThePlayer) {
  Autorun("Sub Main()\n  Print \"playing\"\nEnd Sub\n");
  Write("/storage/sd/other.js", "process.exit(3)\n");
  Write("/var/lib/orvex/registry.json", R"({"autorun":{"bootstrap":"SD:/other.js"}})");
  Player player = WithoutTerminal();
  EXPECT_EQ(0, player.Finish());
  EXPECT_THAT(player.err, HasSubstr("ERROR: Bootstrap failure 'SD:/other.js': "));
  EXPECT_EQ("playing\n", player.out);
}

TEST_F(PlayerTest, ASupervisorThatEndsEndsThePlayer) {
  Write("/storage/sys/bootstrap.js", "process.exit(0)\n");
  Player player = WithoutTerminal();
  EXPECT_EQ(42, player.Finish());
}

TEST_F(PlayerTest, ASupervisorEndsWithThePlayerAndSoDoesWhatItStarted) {
  struct Row {
    int signal;
    int status;
    const char* line;
  };
  for (const Row& row : {Row{SIGINT, 130, "Orvex application tarsk-9.0.0 exit\n"},
                         Row{SIGTERM, 43, "Orvex application tarsk-9.0.0 fast exit\n"}}) {
    Write("/storage/sys/bootstrap.js",
          "const child = require('child_process').spawn('sleep', ['1000']);\n"
          "console.log(child.pid + ' is up')\n");
    Player player = WithoutTerminal();
    ASSERT_TRUE(player.Expect(" is up"));
    pollfd child = {static_cast<int>(::syscall(SYS_pidfd_open, std::stoi(player.out), 0)), POLLIN,
                    0};
    player.Signal(row.signal);
    EXPECT_EQ(row.status, player.Finish());
    EXPECT_EQ(1, ::poll(&child, 1, 20'000));
    ::close(child.fd);
    EXPECT_THAT(player.err, HasSubstr(row.line));
    // It was asked to end, or did so with the player: no failure.
    EXPECT_THAT(player.err, Not(HasSubstr("Bootstrap failure")));
  }
}

// --- The presentation's end -------------------------------------------------------------------

TEST_F(PlayerTest, WithoutATerminalThePlayerEndsWithTheScriptsResult) {
  struct Row {
    const char* script;
    int status;
    const char* out;
  };
  for (const Row& row : {
           Row{"Sub Main()\n  Print \"done\"\nEnd Sub\n", 0, "done\n"},
           Row{"Sub Main(\n", 1, "Error: Syntax Error. (compile error &h02) in "},
           Row{"Sub Main()\n  Print \"half\"\n  x = invalid.y\nEnd Sub\n", 2, "half\n"},
           Row{"Sub Main()\n  RestartApplication()\nEnd Sub\n", 44, ""},
           Row{"Sub Main()\n  RebootSystem()\nEnd Sub\n", 43, ""},
           Row{"Sub Main()\n  ShutdownSystem()\nEnd Sub\n", 43, ""},
       }) {
    Autorun(row.script);
    Player player = WithoutTerminal();
    EXPECT_EQ(row.status, player.Finish()) << row.script << player.err;
    EXPECT_TRUE(player.out.starts_with(row.out)) << player.out;
    EXPECT_EQ(kAudioMuted, AudioLines());
  }
}

TEST_F(PlayerTest, AnEncryptedPresentationIsPlayedWithTheDevicesKeys) {
  Write("/script", "Sub Main()\n  Print ReadAsciiFile(\"text.txt\")\nEnd Sub\n");
  const std::string make = "cd '" + m_root.string() +
                           "' && keys() { '" DEVICE_KEYS_PROGRAM
                           "' --root . \"$@\"; } && keys create && "
                           "keys encipher OSPS <script >enciphered && "
                           "echo 'open sesame' | keys obfuscate >passphrase";
  ASSERT_EQ(0, std::system(make.c_str()));
  std::string passphrase = Read("/passphrase");
  passphrase.pop_back();
  Write("/var/lib/orvex/registry.json", R"({"security":{"autozipkey":")" + passphrase + "\"}}");

  const std::string script = Read("/enciphered");
  zip_t* zip = zip_open((m_root / "storage/sd/autorun.zip").c_str(), ZIP_CREATE, nullptr);
  ASSERT_NE(nullptr, zip);
  zip_file_add(zip, "autozip.plm", zip_source_buffer(zip, script.data(), script.size(), 0), 0);
  zip_file_add(zip, "text.txt", zip_source_buffer(zip, "unpacked", 8, 0), 0);
  for (zip_uint64_t i = 0; i < 2; ++i) {
    zip_file_set_encryption(zip, i, ZIP_EM_AES_256, "open sesame");
  }
  ASSERT_EQ(0, zip_close(zip));
  Player player = WithoutTerminal();
  EXPECT_EQ(0, player.Finish()) << player.err;
  EXPECT_EQ("unpacked\n", player.out);
  EXPECT_THAT(player.err, Not(HasSubstr("sesame")));
}

TEST_F(PlayerTest, OnATerminalOnceEndsWithTheScriptToo) {
  Autorun("Sub Main()\n  Print \"done\"\nEnd Sub\n");
  Player player = OnTerminal({"ORVEX_ONCE=1"});
  EXPECT_EQ(0, player.Finish()) << player.err;
  EXPECT_THAT(player.out, HasSubstr("done"));
}

TEST_F(PlayerTest, ARestartOfTheApplicationEndsTheConsole) {
  Autorun("Sub Main()\n  RestartApplication()\nEnd Sub\n");
  Player player = OnTerminal();
  EXPECT_EQ(44, player.Finish());
  EXPECT_THAT(player.err, HasSubstr("Orvex application tarsk-9.0.0 exit\n"));
}

// --- Tracing ----------------------------------------------------------------------------------

TEST_F(PlayerTest, ATraceIsWrittenWhenTheEnvironmentAsksForIt) {
  Autorun("Sub Main()\nEnd Sub\n");
  Player player = WithoutTerminal({"ORVEX_TRACE=/var/trace.json"});
  EXPECT_EQ(0, player.Finish());
  const std::string trace = Read("/var/trace.json");
  EXPECT_TRUE(trace.starts_with("[\n{\"ph\":")) << trace;
  EXPECT_TRUE(trace.ends_with("}\n]\n")) << trace;
  EXPECT_THAT(trace, HasSubstr("\"name\":\"presentation\""));
}

}  // namespace
