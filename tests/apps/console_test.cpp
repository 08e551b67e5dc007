// The player's console as an operator has it: the real program on a terminal, in a device root.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "tests/apps/console_fixture.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

std::string Content(const fs::path& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

// Regenerate the file by running this test with CONSOLE_HELP_OUT naming it.
TEST_F(ConsoleTest, TheListingAndTheHelpOfEveryCommand) {
  Start();
  std::string all = Ask("?");
  EXPECT_EQ(all, Ask("help"));
  std::istringstream listing(all);
  std::vector<std::string> names = {"licences", "mfgnot"};
  for (std::string line; std::getline(listing, line);) {
    if (line.starts_with(' ')) names.push_back(line.substr(1, line.find(' ', 1) - 1));
  }
  EXPECT_EQ(names.size(), 2u + 3 + 45 - 1 + 7 + 6);
  for (const std::string& name : names)
    all.append("--- ").append(name).append("\n").append(Ask("help " + name));
  if (const char* out = std::getenv("CONSOLE_HELP_OUT")) std::ofstream(out) << all;
  EXPECT_EQ(all, Content(CONSOLE_HELP_FILE));
  EXPECT_EQ(42, Exit());
}

TEST_F(ConsoleTest, CommandsAnswer) {
  Write("/storage/sd/a.txt", "abc");
  Write("/storage/sd/b.plm", "Sub Other()\nEnd Sub\n");
  fs::create_directories(m_root / "storage/sd/d/e");
  Write("/storage/sd/d/e/\x1B \xC2\x9B \xFF \xC3\xA9 \xE2\x82\xAC", "");
  fs::create_directory_symlink("/etc", m_root / "storage/sd/d/link");
  Start();
  const struct {
    const char* command;
    const char* answer;
  } rows[] = {
      {"nothing here", "nothing: command not found\n\n"},
      {"exit now", "usage: exit\n\n"},
      {"clear x", "usage: clear\n\n"},
      {"   ", ""},
      {"mfg wrong", "All tests passed.\n\n"},
      {"srbdump", "srbdump: command not found\n\n"},
      {"serialbaud 9600", "Error: command \"serialbaud\" currently not implemented\n\n"},
      {"date 2024/13/01 00:00:00", "Incorrect time format.\n\n"},
      {"timezone GMT", "Setting time zone to 'GMT'\n\n"},
      {"timezone", "GMT (Greenwich Mean Time)\n\n"},
      {"timezone nowhere", "Invalid time zone.\n\n"},
      {"date 2030/02/03 04:05:06", "\n"},
      {"registry write test key 'a value'", "\n"},
      {"registry read test key", "a value\n\n"},
      {"registry delete test", "\n"},
      {"registry list test", "\n"},
      {"registry write '' k v", "Command \"registry\", generated exception: InvalidName\n\n"},
      {"dir nope:/", "nope:/: Invalid drive specifier.\n\n"},
      {"cd sd:/d/e/..", "\n"},
      {"cd", "SD:/d/\n\n"},
      {"dir e", "? ?? ? \xC3\xA9 \xE2\x82\xAC\n\n"},
      {"cd ../..", "../..: no such directory\n\n"},
      {"hash sha1 ../a.txt", "a9993e364706816aba3e25717850c26c9cd0d89d\n\n"},
      {"hash besha1 ../a.txt", "363e99a96a81064771253eba6cc250789dd8d09c\n\n"},
      {"rwperf ../a.txt sd:/a.txt", "sd:/a.txt: the same file\n\n"},
      {"hash md5 sd:/a.txt", "900150983cd24fb0d6963f7d28e17f72\n\n"},
      {"delete sd:/d/link sd:/d", "\n"},
      {"delete sd:/a.txt", "\n"},
      {"dir sd:/", "b.plm\n\n"},
      {"licenses show ../x", "Invalid package name\n\n"},
      {"licences show none", "Package not available\n\n"},
      {"script sd:/none.plm", "Script not found.\n\n"},
      {"script sd:/b.plm", "Error: No Sub Main()\n\n"},
      {"script debug maybe", "Invalid argument to \"script debug\". Try \"help script\"\n\n"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Ask(row.command), row.answer) << row.command;
  }
  EXPECT_THAT(Ask("date"), HasSubstr("2030/02/03 04:05:"));
  EXPECT_EQ(42, Exit());
  EXPECT_TRUE(fs::exists("/etc/passwd"));
}

// Half a second of silence, 8000 samples of 8 bits a second.
std::string Wave() {
  constexpr char kHeader[] =
      "RIFF\xc4\x0f\0\0WAVEfmt \x10\0\0\0\x01\0\x01\0\x40\x1f\0\0\x40\x1f\0\0\x01\0\x08\0"
      "data\xa0\x0f\0";
  return std::string(kHeader, sizeof kHeader).append(4000, '\x80');
}

TEST_F(ConsoleTest, MediaFilesAreLookedIntoByAProgramOfTheirOwn) {
  Write("/storage/sd/a.wav", Wave());
  Write("/storage/sd/a.txt", "no medium at all");
  Write("/storage/sd/list.m3u8", "#EXTM3U\n#EXTINF:1,\n/etc/passwd\n");
  Start();
  const std::string stream = "Stream 0: audio pcm_u8 8000 Hz 1 channels 64000 bit/s\n";
  const std::string probe = Ask("probe sd:/a.wav");
  EXPECT_THAT(probe, HasSubstr("Container: wav\nDuration: 0.500 s\n"));
  EXPECT_THAT(probe, HasSubstr(stream));
  EXPECT_EQ("Unknown\n\n", Ask("probe sd:/a.txt"));
  EXPECT_THAT(Ask("probe sd:/list.m3u8"), testing::AnyOf("Unknown\n\n", "Probe failed.\n\n"));
  EXPECT_EQ("\n", Ask("analyze sd:/a.wav sd:/report"));
  std::ifstream report(m_root.string() + "/storage/sd/report");
  const std::string text(std::istreambuf_iterator<char>(report), {});
  EXPECT_THAT(text, HasSubstr(stream + "  Packets: "));
  EXPECT_THAT(text, HasSubstr("  Bytes: 4000, largest packet "));
  EXPECT_EQ(42, Exit());
}

TEST_F(ConsoleTest, AnInterruptStopsALongOutputAndTheTypedLine) {
  Write("/usr/share/licenses/orvex/LICENSE", std::string(20'000'000, 'x').append("END OF TEXT"));
  Start();
  player->Type("licenses show orvex\r");
  player->Expect("xxxx");
  player->Type("\x03");
  player->Expect("Command \"licenses\", generated exception: Interrupted");
  player->Expect(kPrompt);
  EXPECT_THAT(player->out, Not(HasSubstr("END OF TEXT")));
  player->Type("reboot");
  player->Expect("reboot");
  player->Type("\x03");
  player->Expect(kPrompt);
  player->Type("script\r");
  player->Expect("Debugger> ");
  player->Type("print 6 * 7:while true:end while\r");
  player->Expect("42\r\r\n");
  player->Type("\x03");
  player->Expect("BREAK (runtime error &hf8)");
  player->Expect("Debugger> ");
  player->Type("exit\r");
  player->Expect(kPrompt);
  EXPECT_EQ(Ask("hash \\\r'md5' nope:/"), "> 'md5' nope:/\nnope:/: Invalid drive specifier.\n\n");
  EXPECT_THAT(Ask("\x10"), HasSubstr("nope:/: Invalid drive specifier."));
  EXPECT_EQ(42, Exit());
}

TEST_F(ConsoleTest, AVanishedTerminalEndsThePlayer) {
  Start();
  player->Type("half a comm");
  player->Expect("half a comm");
  player->EndInput();
  player->CloseOutput();
  EXPECT_EQ(42, player->Finish());
}

// A script reads what nobody's prompt takes, and a second object does not wait for what the first
// has taken; a console that is closed under it ends the process.
TEST_F(ConsoleTest, AScriptReadsLinesUntilTheConsoleIsClosed) {
  Write("/storage/sd/console.plm", R"(Sub Main()
  console = CreateObject("koConsole")
  second = CreateObject("koConsole")
  port = CreateObject("koMessagePort")
  console.SetUserData("mine")
  console.SetLineEventPort(port)
  console.SendLine("ready")
  console.Flush()
  While true
    event = Wait(0, port)
    console.SendLine(event.GetUserData() + " <" + event.GetString() + ">")
    console.Flush()
  End While
End Sub
)");
  ProgramRun script(PLUMSCRIPT_PROGRAM, {"run", "console.plm"}, m_root / "storage/sd", false, {});
  script.Expect("ready\n");
  script.Type("one\ntwo\nha");
  script.Expect("mine <one>\nmine <two>\n");
  script.Type("lf\n");
  script.Expect("mine <half>\n");
  script.EndInput();
  EXPECT_EQ(1000 + SIGABRT, script.Finish());
  EXPECT_THAT(script.err, HasSubstr("Read zero bytes from serial port on fd 0\n"));
}

}  // namespace
