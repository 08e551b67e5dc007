// What an operator types about the network and what lies below the drivers: what the screen and the
// registry hold then.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "lib/hardware/device_secrets/key_files.h"
#include "tests/apps/console_fixture.h"
#include "tests/host/http_test_server.h"

namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

class NetworkCommandsTest : public ConsoleTest {
 protected:
  void ProvideKey(const std::string& name, const std::string& content) {
    Write("/etc/orvex/keys/" + name, content);
    fs::permissions(m_root / "etc/orvex/keys" / name, fs::perms::owner_read);
  }
  std::string File(const std::string& path) {
    std::ifstream file(m_root.string() + path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
};

TEST_F(NetworkCommandsTest, SettingsGoToTheRegistry) {
  fs::create_directories(m_root / "sys/class/net/wlan0");
  Start();
  const struct {
    const char* command;
    const char* answer;
    const char* section;
    const char* settings;
  } rows[] = {
      {":0 192.168.42.10/24 192.168.42.1", "", "networking.eth0",
       "address=192.168.42.10\nbroadcast=192.168.42.255\ngateway=192.168.42.1\nmethod=static\n"
       "netmask=255.255.255.0\n"},
      {"10.1.2.3/255.255.0.0/", "", "networking.eth0",
       "address=10.1.2.3\nbroadcast=10.1.255.255\ngateway=\nmethod=static\n"
       "netmask=255.255.0.0\n"},
      {"172.16.0.1", "", "networking.eth0",
       "address=172.16.0.1\nbroadcast=172.16.255.255\ngateway=\nmethod=static\n"
       "netmask=255.255.0.0\n"},
      // A refused form leaves all of it as it was.
      {"192.168.1.0/24", "Invalid IP address: '192.168.1.0'\n", "networking.eth0",
       "address=172.16.0.1\nbroadcast=172.16.255.255\ngateway=\nmethod=static\n"
       "netmask=255.255.0.0\n"},
      {"192.168.1.2/255.0.255.0", "Invalid netmask: '255.0.255.0'\n", nullptr, nullptr},
      {"192.168.1.2/33", "Invalid netmask: '33'\n", nullptr, nullptr},
      {"192.168.1.2/24/10.0.0.1", "Invalid broadcast address: '10.0.0.1'\n", nullptr, nullptr},
      {"224.0.0.1", "Invalid IP address: '224.0.0.1'\n", nullptr, nullptr},
      {"192.168.1.2/24 192.168.2.1", "Invalid gateway address: '192.168.2.1'\n", nullptr, nullptr},
      {":0 reset", "", "networking.eth0", ""},
      {"dns lan 10.0.0.1 fd00::1", "", "networking.eth0",
       "dns_domain=lan\ndns_servers=10.0.0.1 fd00::1\n"},
      {"dns lan", "Incorrect number of arguments to 'ifconfig dns'. Try 'help ifconfig'.\n",
       nullptr, nullptr},
      {"dns lan 10.0.0", "Invalid DNS server address: '10.0.0'\n", nullptr, nullptr},
      {":0 reset", "", nullptr, nullptr},
      {"add-vlan 20", "", nullptr, nullptr},
      {"add-vlan 4094", "", nullptr, nullptr},
      {"add-vlan 5", "", "networking.eth0", "vlans=5 20 4094\n"},
      {"add-vlan 4095", "Invalid VLAN identifier: '4095' (1 to 4094)\n", nullptr, nullptr},
      {"remove-vlan 6", "VLAN 6 is not configured\n", nullptr, nullptr},
      {"remove-vlan 20", "", "networking.eth0", "vlans=5 4094\n"},
      {":0 reset", "", nullptr, nullptr},
      {"mtu 67", "Invalid MTU: '67' (68 to 65535)\n", nullptr, nullptr},
      {"mtu 99999999999999999999", "Invalid MTU: '99999999999999999999' (68 to 65535)\n", nullptr,
       nullptr},
      {"mtu 1400", "", "networking.eth0", "mtu=1400\n"},
      {"metric", "Incorrect number of arguments to 'ifconfig metric'. Try 'help ifconfig'.\n",
       nullptr, nullptr},
      {":x dhcp", "Invalid interface name specified\n", nullptr, nullptr},
      {": dhcp", "Invalid interface name specified\n", nullptr, nullptr},
      {":4 dhcp", "Interface with index 4 is not present\n", nullptr, nullptr},
      {":77 dhcp", "Interface with index 77 is not present\n", nullptr, nullptr},
      {"wifi-ap net 2412", "", "networking.wlan0",
       "wifi_essid=net\nwifi_frequency=2412\nwifi_mode=ap\nwifi_passphrase=\n"},
      {"wifi-ap net 2413x", "Invalid frequency: '2413x'\n", nullptr, nullptr},
      {"wifi net short", "Invalid passphrase (8 to 63 characters, or 64 hexadecimal digits)\n",
       nullptr, nullptr},
      {"hostname -x", "Invalid host name: '-x'\n", nullptr, nullptr},
      {"proxy https://h:1", "Invalid proxy URL: 'https://h:1'\n", nullptr, nullptr},
      {"proxy http://u:secret@h", "Invalid proxy URL: 'http://h'\n", nullptr, nullptr},
      {"time-server time.example.org:12", "", "networking", "time_server=time.example.org:12\n"},
      {"no-ntp", "", "networking", "time_server=\n"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Ask(std::string("ifconfig ") + row.command), std::string(row.answer) + "\n")
        << row.command;
    if (row.section == nullptr) continue;
    EXPECT_EQ(Ask(std::string("registry list ") + row.section), std::string(row.settings) + "\n")
        << row.command;
  }
  fs::create_directories(m_root / "sys/class/net/e\x1Bvil");
  EXPECT_THAT(Ask("ifconfig"), AllOf(HasSubstr("e?vil: \n"), HasSubstr("Settings:\n")));
  EXPECT_THAT(Ask("ifconfig nonsense"), StartsWith("Usage:\n  ifconfig\n"));
  EXPECT_THAT(Ask("ifconfig :0 hostname x"), StartsWith("Usage:\n"));
  EXPECT_THAT(Ask("ifconfig reset"), StartsWith("Usage:\n"));
  EXPECT_EQ(42, Exit());
}

TEST_F(NetworkCommandsTest, NoSecretIsShownOrStored) {
  fs::create_directories(m_root / "sys/class/net/wlan0");
  Start();
  EXPECT_THAT(Ask("ifconfig wifi net open-sesame"), HasSubstr("generated exception: "));
  EXPECT_EQ(Ask("registry list networking.wlan0"), "\n");
  ProvideKey("registry", NewKeyFile());
  EXPECT_EQ(Ask("ifconfig wifi net open-sesame"), "\n");
  EXPECT_EQ(Ask("ifconfig dialup 123 me open-sesame"), "\n");
  EXPECT_EQ(Ask("ifconfig login-password open-sesame"), "\n");
  EXPECT_EQ(Ask("ifconfig proxy http://me:open-sesame@h:3128"), "\n");
  EXPECT_THAT(Ask("ifconfig"),
              AllOf(HasSubstr(":0 eth0: up\n  MAC: 02:00:00:00:00:01\n"),
                    HasSubstr("  WiFi ESSID: net\n  WiFi passphrase: (set)\n"),
                    HasSubstr("  Dial-up password: (set)\n"), HasSubstr("  Proxy: http://h:3128\n"),
                    HasSubstr("  Login password: (set)\n"), Not(HasSubstr("sesame"))));
  EXPECT_THAT(Ask("registry list networking.wlan0"), Not(HasSubstr("sesame")));
  EXPECT_THAT(Ask("registry list networking"),
              AllOf(HasSubstr("proxy=http://me@h:3128\n"), Not(HasSubstr("sesame"))));
  EXPECT_THAT(Ask("registry read networking login_password"), StartsWith("$y$"));
  EXPECT_EQ(42, Exit());
  EXPECT_THAT(player->err, Not(HasSubstr("sesame")));
}

TEST_F(NetworkCommandsTest, TheNetworkIsAskedUntilAnInterrupt) {
  Start();
  EXPECT_THAT(Ask("ping"), StartsWith("Usage:\n  ping"));
  EXPECT_THAT(Ask("ping -4 -6 x"), StartsWith("Usage:\n  ping"));
  EXPECT_EQ(Ask("ping -6 127.0.0.1"), "Looking up host...\nNo addresses found to ping\n\n");
  EXPECT_EQ(Ask("nslookup 127.0.0.1"), " 127.0.0.1\n\n");
  EXPECT_EQ(Ask("nslookup fe80::1"), " fe80::1\n\n");
  EXPECT_EQ(Ask("flushdns"), "DNS cache cleared\n\n");
  EXPECT_EQ(Ask("wifiscan"), "WiFi network interface not present\n\n");
  const std::string pinged = Ask("ping 127.0.0.1");
  if (pinged.find("not permitted") == std::string::npos) {  // the machine may keep it from us
    std::string success = " 127.0.0.1 success\n";
    EXPECT_EQ(pinged, "Looking up host...\nPinging 127.0.0.1...\n" + success + success + success +
                          success + "\n");
    player->Type("ping 127.0.0.1\r");
    player->Expect(" 127.0.0.1 success");
    player->Type("\x03");
    player->Expect("Command \"ping\", generated exception: Interrupted");
    player->Expect(kPrompt);
  }
  EXPECT_EQ(42, Exit());
}

TEST_F(NetworkCommandsTest, ADownloadIsMeasured) {
  HttpTestServer server([](const std::string& request) -> std::string {
    if (request.starts_with("GET /none ")) return Answer("404 Not Found", "no");
    if (request.starts_with("GET /broken "))
      return "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc";
    if (request.starts_with("GET /silent ")) return "";
    return Answer("200 OK", std::string(100'000, 'x'));
  });
  Start();
  EXPECT_EQ(Ask("httpgetperf http://h/ nope:/x"), "nope:/x: Invalid drive specifier.\n\n");
  const char* const result =
      "HTTP response: 200\nRead file '%' of 100000 bytes took [0-9.]+s at [0-9.]+ [kM]B/s\n"
      "Note that this is susceptible to errors introduced by system load.\n\n";
  for (const std::string destination : {"", "SD:/a.bin"}) {
    std::string expected = result;
    expected.replace(expected.find('%'), 1, destination.empty() ? "\\*NOWHERE\\*" : destination);
    EXPECT_THAT(Ask("httpgetperf " + server.Url() + " " + destination), MatchesRegex(expected));
  }
  EXPECT_EQ(File("/storage/sd/a.bin").size(), 100'000u);
  EXPECT_EQ(Ask("httpgetperf " + server.Url("/none") + " sd:/b"), "HTTP response: 404\n\n");
  EXPECT_THAT(Ask("httpgetperf " + server.Url("/broken", "u:secret@") + " sd:/b"),
              AllOf(StartsWith(server.Url("/broken") + ": "), Not(HasSubstr("HTTP response"))));
  while (server.arrived.Wait(1)) {
  }
  player->Type("httpgetperf " + server.Url("/silent") + " sd:/b\r");
  EXPECT_TRUE(server.arrived.Wait(20'000));
  player->Type("\x03");
  player->Expect("Command \"httpgetperf\", generated exception: Interrupted");
  player->Expect(kPrompt);
  EXPECT_EQ(42, Exit());
  EXPECT_FALSE(fs::exists(m_root / "storage/sd/b"));
}

TEST_F(NetworkCommandsTest, DeviceNodesAreAskedWithinTheRoot) {
  ProvideKey("unlock", UnlockFile("1234"));
  Write("/dev/mem", std::string("memory of the device").append(1, '\x1B'));
  Write("/dev/i2c-0", "");
  fs::create_directories(m_root / "dev/bus/usb/001");
  Write("/dev/bus/usb/001/001", "");
  fs::create_directories(m_root / "sys/class/drm/card0-HDMI-A-1");
  Write("/sys/class/drm/card0-HDMI-A-1/edid", std::string(4, '\xFF'));
  Start();
  Ask("mfg 1234");
  const std::string refused = "\", generated exception: Inappropriate ioctl for device\n";
  const struct {
    const char* command;
    std::string answer;
  } rows[] = {
      {"memdump 0 10",
       "00000000: 6d 65 6d 6f 72 79 20 6f 66 20 74 68 65 20 64 65  memory of the de\n"},
      {"memdump 0x10 5", "00000010: 76 69 63 65 1b                                   vice.\n"},
      {"memdump 100 10", "Command \"memdump\", generated exception: Bad address\n"},
      {"memdump 7fffffffffffffff 10", "Usage: memdump <address-in-hex> <length-in-hex>\n"},
      {"memdump 0 fffffff", "Usage: memdump <address-in-hex> <length-in-hex>\n"},
      {"memdump -1 1", "Usage: memdump <address-in-hex> <length-in-hex>\n"},
      {"i2c /dev/i2c-0 0x50 0", "Command \"i2c" + refused},
      {"i2c /dev/i2c-0 0x50 0 256", "Usage: i2c <devnode> <device> <offset> [<value>]\n"},
      {"i2c /dev/../i2c-0 0x50 0", "Usage: i2c <devnode> <device> <offset> [<value>]\n"},
      {"i2c /dev/i2c-0 0x78 0", "Usage: i2c <devnode> <device> <offset> [<value>]\n"},
      {"usbtestmode 1 4", "Command \"usbtestmode" + refused},
      {"usbtestmode 5 4", "Port 5 is out of range\n"},
      {"usbtestmode 1 6", "Test 6 is out of range\n"},
      {"usb3testmode 1 32 1", "Port 32 is out of range\n"},
      {"usb3testmode 2 1 1",
       "Command \"usb3testmode\", generated exception: No such file or directory\n"},
      {"usbhubtestmode 1 1 1 0", "Command \"usbhubtestmode" + refused},
      {"ethtestmode 5", "Test 5 is out of range\n"},
      {"ethtestmode 1", "Command \"ethtestmode\", generated exception: Operation not supported\n"},
      {"mii read 1", "Command \"mii\", generated exception: Operation not supported\n"},
      {"mii :1 dump", "Interface with index 1 is not present\n"},
      {"edid hdmi", "00000000: ff ff ff ff                                      ....\n"},
      {"edid vga", "Usage: edid hdmi\n"},
      {"powersave maybe", "usage: powersave on|off\n"},
      {"videomode a b", "Usage: videomode [<video-mode>]\n"},
      {"imageplay nope:/x", "nope:/x: Invalid drive specifier.\n"},
      {"htmlplay params mouse on", ""},
      {"htmlplay chronode http://h/", "htmlplay: not available on this player\n"},
  };
  for (const auto& row : rows) EXPECT_EQ(Ask(row.command), row.answer + "\n") << row.command;
  EXPECT_THAT(Ask("mii read 32"), StartsWith("Usage:\n  mii"));
  EXPECT_THAT(Ask("usbtestmode x 1"), StartsWith("Usage: usbtestmode"));
  EXPECT_THAT(Ask("htmlplay chronode"), StartsWith("Usage: htmlplay"));
  EXPECT_THAT(Ask("htmlplay params mouse maybe"), StartsWith("Usage: htmlplay"));
  EXPECT_EQ(42, Exit());
}

}  // namespace
