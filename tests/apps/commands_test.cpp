// Operator's commands on the device's own state, in the real program on a terminal in a device
// root.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "lib/hardware/device_secrets/key_files.h"
#include "lib/platform/certificates/certificate_names.h"
#include "tests/apps/console_fixture.h"

namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class CommandsTest : public ConsoleTest {
 protected:
  CommandsTest() {
    Write("/etc/orvex/keys/unlock", UnlockFile("1234"));
    fs::permissions(m_root / "etc/orvex/keys/unlock", fs::perms::owner_read);
  }

  void Start() {
    ConsoleTest::Start();
    Ask("mfg 1234");
  }
  void Expect(const std::vector<std::pair<std::string, std::string>>& rows) {
    for (const auto& [command, answer] : rows) EXPECT_EQ(Ask(command), answer + "\n") << command;
  }
  fs::path At(const std::string& path) const { return m_root.string() + path; }
  void Write(const std::string& path, const std::string& text) {
    fs::create_directories(At(path).parent_path());
    ConsoleTest::Write(path, text);
  }
  std::string Read(const std::string& path) const {
    std::ostringstream text;
    text << std::ifstream(At(path), std::ios::binary).rdbuf();
    return text.str();
  }
};

TEST_F(CommandsTest, TellWhatTheDeviceIs) {
  Write("/keep/file", "");
  Write("/var/lib/orvex/extensions/plain/sub/file", "");
  fs::create_directory_symlink(At("/keep"), At("/var/lib/orvex/extensions/link"));
  fs::create_directory_symlink(At("/keep"), At("/var/lib/orvex/extensions/plain/link"));
  Start();
  Expect({
      {"id", "Orvex\nModel:     Desktop\nDevice ID: DESKTOP00001\nSecure ID: desktop-secure-id\n"},
      {"id x", "Usage: id\n"},
      {"usblist",
       "usb1 1d6b:0002 HUB Root hub\n"
       "  1-1 05e3:0608 HUB Hub (A)\n"
       "    1-1.2 046d:c31c HID Keyboard (A/2)\n"
       "  1-2 0781:5567 STORAGE Memory stick (B)\n"
       "This list may not contain all connected USB devices\n"},
      {"extensions list", "example 1.0.0\nplain\n"},
      {"extensions remove ../extensions", "Invalid extension name\n"},
      {"extensions remove ..", "Invalid extension name\n"},
      {"extensions remove link", "Extension not installed\n"},
      {"extensions remove plain", "Extension 'plain' removed\n"},
      {"extensions list", "example 1.0.0\n"},
      {"cacerts", "Usage: cacerts list\n"},
      {"temperature", "Temperature 42.500000C\n"},
      {"hwflags",
       "HDMI\nTwo Channel Audio\nEthernet 0\nUSB\nGPIO connector\nSVC button\nRTC\nSDHC\n"},
      {"drmkeys",
       "HDCP 1.4: not present\nHDCP 2.2: not present\nContent decryption: not present\n"},
      {"dropcache",
       "In a device root the machine's cache stays: a device writes 3 to "
       "/proc/sys/vm/drop_caches\n"},
      {"dropcache now", "Usage: dropcache\n"},
      {"devicedata x", "Usage: devicedata\n"},
      {"blessings", "DESKTOP: never leaves the desk\n"},
      {"blessings remove-all",
       "Removing all blessings...\n"
       "Complete. Now remove power or reboot. System may not behave as expected otherwise.\n"},
      {"blessings", "Player is not blessed\n"},
      {"resettobareboard", "Usage: resettobareboard confirm\n"},
      {"resettobareboard confirm",
       "The board starts in safe mode only, from the next reboot on.\n"},
  });
  EXPECT_THAT(Ask("mmchealth"), HasSubstr("Name:        EMMC16\n"));
  EXPECT_THAT(Ask("devicedata"), HasSubstr("Model:             Desktop\n"));
  EXPECT_TRUE(fs::exists(At("/keep/file")));
  EXPECT_TRUE(Read("/dev/disk/mmc0-partlabel/devid").starts_with("SECURE_ID=desktop-secure-id\n"));
  EXPECT_THAT(Read("/dev/disk/mmc0-partlabel/devid"), Not(HasSubstr("BLESSING")));
  EXPECT_THAT(Read("/dev/disk/mmc0-partlabel/kernel"), Not(HasSubstr("kernel")));
  EXPECT_EQ(42, Exit());
}

TEST_F(CommandsTest, ReadAndWriteTheDeviceData) {
  Start();
  EXPECT_THAT(Ask("srbdump"), AllOf(HasSubstr(" PS_FORMAT=\"1\"\n"), Not(HasSubstr("Note"))));
  const std::string usage = Ask("help srbuserset");
  const std::string set = "srbuserset Orvex 'Model 2' 7 SER 02:00:00:00:0a:0B ";
  Expect({
      {"srbuserset a b 1 s 02:00:00:00:00:01 1", usage.substr(0, usage.size() - 1)},
      {"srbuserset a b 1 s 02:00:00:00:00 1 1", "Invalid Ethernet MAC address: '02:00:00:00:00'\n"},
      {"srbuserset a b 1 s 01:00:00:00:00:01 1 1",
       "Invalid Ethernet MAC address: '01:00:00:00:00:01'\n"},
      {set + "1 4b39 02-00-00-00-00-01", "Invalid WiFi MAC address: '02-00-00-00-00-01'\n"},
      {set + "65536 4b39", "Invalid hardware revision: '65536'\n"},
      {set + "5 10000000000000000", "Invalid hardware config bitfield: '10000000000000000'\n"},
      {set + "5 4b39 02:00:00:00:00:02", "SRB successfully written\n"},
      {"srbdecode",
       "                   OEM ID: Orvex\n"
       "                OEM Model: Model 2\n"
       "          Manufacturer ID: 7\n"
       "            Serial Number: SER\n"
       "             Ethernet MAC: 02:00:00:00:0a:0B\n"
       "                 WiFi MAC: 02:00:00:00:00:02\n"
       "        Hardware Revision: 5\n"
       "           Hardware Flags: 0x4b39\n"},
      {set + "5 4b39", "SRB successfully written\n"},
  });
  EXPECT_THAT(Ask("srbdecode"), Not(HasSubstr("WiFi")));
  Expect({
      {"srberase", "Usage: srberase confirm\n"},
      {"srberase confirm", "SRB successfully erased\n"},
      {"srbdump", "Note: SRB is invalid\n"},
      {"srbdecode", "SRB is invalid.\n"},
  });
  EXPECT_EQ(42, Exit());
}

TEST_F(CommandsTest, StorageTestsLeaveNothingBehind) {
  Write("/storage/sd/mine", "mine");
  Start();
  Expect({
      {"fileverify", "Usage: fileverify test_filename [read_size in MBytes] [loop_count]\n"},
      {"fileverify sd:/x 0",
       "Usage: fileverify test_filename [read_size in MBytes] [loop_count]\n"},
      {"fileverify sd:/mine 1", "sd:/mine: File exists\n"},
      {"fileverify nope:/x", "nope:/x: Invalid drive specifier.\n"},
      {"disturb sd:/none 1", "sd:/none: No such file or directory\n"},
  });
  EXPECT_THAT(Ask("fileverify sd:/x 1 2"),
              HasSubstr("Loop 2: non-O_DIRECT read of 1 MiB is good\n"));
  EXPECT_THAT(Ask("disturb sd:/ 2"), HasSubstr("Pass 2: "));
  player->Type("disturb sd:/\r");
  player->Expect("Pass 1: ");
  player->Type("\x03");
  player->Expect("Command \"disturb\", generated exception: Interrupted");
  player->Expect(kPrompt);
  Expect({{"dir sd:/", "mine\n"}});
  EXPECT_EQ(Read("/storage/sd/mine"), "mine");
  EXPECT_EQ(42, Exit());
}

// The runtime is a script here, which shows what it is given and ends by Ctrl-C as a child does.
TEST_F(CommandsTest, NodeGetsItsScriptAndTheTerminal) {
  Write("/bin/node",
        "#!/bin/sh\necho \"$# $* $NODE_REPL_HISTORY\"\n[ $# -gt 1 ] || exec sleep 60\n");
  fs::permissions(At("/bin/node"), fs::perms::owner_all);
  Write("/storage/sd/a.js", "");
  Start();
  const std::string file = At("/storage/sd/a.js"), history = At("/tmp/node_history");
  Expect({
      {"node -r m sd:/a.js sd:/b", "5 --expose-gc -r m " + file + " sd:/b " + history + "\n"},
      {"node inspect sd:/a.js", "3 inspect --expose-gc " + file + " " + history + "\n"},
      {"node -e 1", "3 --expose-gc -e 1 " + history + "\n"},
      {"node sd:/none.js", "sd:/none.js: No such file or directory\n"},
      {"node http://127.0.0.1:1/x.js", "Failed to fetch http://127.0.0.1:1/x.js, status -7\n"},
  });
  player->Type("node\r");
  player->Expect("1 --expose-gc");
  player->Type("\x03");
  player->Expect(kPrompt);
  EXPECT_EQ(42, Exit());
}

struct Crash {
  const char* way;
  int signal;
  const char* says;
};

class CrashMeTest : public CommandsTest, public testing::WithParamInterface<Crash> {};

TEST_P(CrashMeTest, EndsTheProcessAlone) {
  Start();
  player->Type(std::string("crashme ") + GetParam().way + "\r");
  player->Expect(std::string("self-inflicted crashme ") + GetParam().way + "\r\n");
  const int status = player->Finish();
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  EXPECT_NE(status, 0);  // the sanitizer's own report and status
#else
  EXPECT_EQ(status, 1000 + GetParam().signal);
#endif
  EXPECT_THAT(player->out + player->err, HasSubstr(GetParam().says));
}

INSTANTIATE_TEST_SUITE_P(
    Ways, CrashMeTest,
    testing::Values(Crash{"threads", SIGSEGV, ""}, Crash{"stacksmash", SIGABRT, "stack"},
                    Crash{"terminate", SIGABRT, ""}, Crash{"direct", SIGILL, ""},
                    Crash{"exception", SIGABRT, "self-inflicted exception"},
                    Crash{"thread", SIGABRT, "self-inflicted exception"},
                    Crash{"kernel", SIGABRT, "panics the kernel"},
                    Crash{"realtime", SIGABRT, "Setting scheduler policy 2"},
                    Crash{"fifo", SIGABRT, "Setting scheduler policy 1"},
                    Crash{"really", SIGKILL, ""}, Crash{"deeply", SIGSEGV, ""},
                    Crash{"assert2", SIGABRT, "self-inflicted"},
                    Crash{"assert", SIGABRT, "self-inflicted assertion"}, Crash{"ptr", SIGSEGV, ""},
                    Crash{"abort", SIGABRT, ""}, Crash{"raise", SIGSEGV, ""},
                    Crash{"memory", SIGABRT, "Allocated 1024KiB, 2MiB in total"},
                    Crash{"4096", SIGABRT, "Allocated 4096KiB, 8MiB in total"}),
    [](const auto& info) { return std::string(info.param.way); });

TEST(CertificateNames, DamagedCertificatesAreSkipped) {
  const std::string good =
      "-----BEGIN CERTIFICATE-----\n"
      "MIIBqDCCAU6gAwIBAgITISpXyy2QPs4ubNnvg7BNCKggUTAKBggqhkjOPQQDAjAp\n"
      "MRUwEwYDVQQDDAxFeGFtcGxlIFJvb3QxEDAOBgNVBAoMB0V4YW1wbGUwIBcNMjYx\n"
      "MTI1MDE1MzA0WhgPMjEyNjExMDEwMTUzMDRaMCkxFTATBgNVBAMMDEV4YW1wbGUg\n"
      "Um9vdDEQMA4GA1UECgwHRXhhbXBsZTBZMBMGByqGSM49AgEGCCqGSM49AwEHA0IA\n"
      "BIpmugvXL5ZKVDo+PgGn9xqJ8MKEnJT7mTxplU6D6vrblrONsVIgwRrJo6Lpvqfh\n"
      "o6FgOnfRtuV4w1zChqMS2c6jUzBRMB0GA1UdDgQWBBQB8E2dyyL5Lywb2RE01gJP\n"
      "AXzlejAfBgNVHSMEGDAWgBQB8E2dyyL5Lywb2RE01gJPAXzlejAPBgNVHRMBAf8E\n"
      "BTADAQH/MAoGCCqGSM49BAMCA0gAMEUCIDhDKup8cj1nEjgAF4x+LTtkQhlHoGsV\n"
      "hfcLLafFVRHbAiEA6O+4y7VIGyq/g6xsxXLKPxgcBoV/v/49M57L6ik4sj0=\n"
      "-----END CERTIFICATE-----\n";
  const std::string bad = "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n";
  EXPECT_THAT(
      CertificateSubjects("text\n" + bad + good + "# more\n" + good + good.substr(0, 60)),
      testing::ElementsAre("CN = Example Root, O = Example", "CN = Example Root, O = Example"));
}

}  // namespace
