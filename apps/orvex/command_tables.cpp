// One row a command: its name, what runs it, its line in the listing, its help. All there is to
// know about a command without reading its function; the listing and the help come from here.
//
// Operators' tools and documents know the texts, so they stay as they are, with their spelling.
#include "apps/orvex/command_tables.h"

#include "apps/orvex/command_line.h"
#include "apps/orvex/commands_content.h"
#include "apps/orvex/commands_device.h"
#include "apps/orvex/commands_display.h"
#include "apps/orvex/commands_files.h"
#include "apps/orvex/commands_ifconfig.h"
#include "apps/orvex/commands_licenses.h"
#include "apps/orvex/commands_lowlevel.h"
#include "apps/orvex/commands_media.h"
#include "apps/orvex/commands_mfg.h"
#include "apps/orvex/commands_network.h"
#include "apps/orvex/commands_performance.h"
#include "apps/orvex/commands_registry.h"
#include "apps/orvex/commands_system.h"

namespace {

namespace c = commands;

// clang-format off

constexpr ShellCommand kGeneral[] = {
    {"exit", Run<c::Exit>, "Exit from the shell", nullptr},
    {"dir", Run<c::Dir>, "lists the contents of a storage directory", Help<"Usage: {} <path>\n">},
    {"readperf", Run<c::ReadPerf>, "measure the performance of reading a file", Help<"Usage: {} <filename>\n">},
    {"writeperf", Run<c::WritePerf>, "measure the performance of writing a file", Help<"Usage: {} <filename>\n">},
    {"rwperf", Run<c::ReadWritePerf>, "measure simultaneous read and write performance",
     Help<"Usage: {} <filename_to_read> <filename_to_write> [target rate in kB/sec for writing]\n">},
    {"audioplay", Run<c::AudioPlay>, "play some audio",
     Help<"Usage: {} <filename> | pause | resume | loop | noloop | mapping x | digital x | volume x | output x | mode x | input <sample-rate>\n">},
    {"script", Run<c::Script>, "start the Plumscript interpreter",
     Help<"Usage: script [<script-filename> {{<arguments...>}}]\n"
          "       script debug on\n"
          "       script debug off\n">},
    {"serialbaud", Run<c::NotImplemented>, "Set the serial baud rate", nullptr},
    {"mfg", Run<c::Mfg>, "Mfg test", nullptr},
    {"reboot", Run<c::Reboot>, "Reboot system", nullptr},
    {"shutdown", Run<c::Shutdown>, "Shut the system down", nullptr},
    {"suspend", Run<c::Suspend>, "Suspend the system", nullptr},
    {"date", Run<c::Date>, "Display or set the date in ISO-8601 basic format",
     Help<"Usage:\n"
          "  date                       Display the current date and time.\n"
          "  date YYYY/MM/DD hh:mm:ss   Set the date and time.">},
    {"timezone", Run<c::TimeZone>, "Display or set the time zone",
     Help<"Usage: {0}          display current time zone\n"
          "       {0} list     list valid time zones\n"
          "       {0} <zone>   set time zone">},
    {"chdir", Run<c::ChangeDirectory>, "Change the current directory", nullptr},
    {"delete", Run<c::Delete>, "Delete files or directories recursively", Help<"Usage: delete <filenames>...">},
    {"cd", Run<c::ChangeDirectory>, "Change the current directory", nullptr},
    {"version", Run<c::Version>, "Display version information", nullptr},
    {"licenses", Run<c::Licenses>, "Display license information", c::LicensesHelp},
    {"licences", Run<c::Licenses>, ShellCommand::kHidden, c::LicensesHelp},  // another spelling
    {"registry", Run<c::Registry>, "Access device registry",
     Help<"Usage:\n"
          "  {0} read <section> <key>\n"
          "  {0} write <section> <key> <value>\n"
          "  {0} delete <section> [<key>]\n"
          "  {0} list <section>\n"
          "  {0} dump\n"
          "  {0} json\n"
          "  {0} flush">},
    {"uptime", Run<c::Uptime>, "Device uptime information", nullptr},
    {"writebootfile", Run<c::WriteBootFile>, "Write a boot file to flash", nullptr},
    {"erasebootfile", Run<c::EraseBootFile>, "Erase a boot file in flash", nullptr},
    {"id", Run<c::Id>, "Display device identification information", nullptr},
    {"file", Run<c::File>, "Trys to figure a file type", Help<"Usage: file filename">},
    {"hash", Run<c::Hash>, "Cryptographically hash a file",
     Help<"Usage: hash <algorithm> <filename>\n"
          "  where <algorithm> is one of:\n"
          "     md5\n"
          "     sha1\n"
          "     sha224\n"
          "     sha256\n"
          "     sha384\n"
          "     sha512\n"
          "     besha1">},
    {"factoryreset", Run<c::FactoryReset>, "Reset system to factory defaults", Help<"Usage: factoryreset confirm\n">},
    {"format", Run<c::Format>, "Format drive",
     Help<"Usage: format <drive> [<filesystem>]\n"
          "  Format a storage device. Valid filesystems are:\n"
          "     vfat, ext3, ext4\n">},
    {"eject", Run<c::Eject>, "Eject drive",
     Help<"Usage: eject <drive>\n"
          "  Safely unmount and eject the medium from a storage device.">},
    {"log", Run<c::Log>, "Show system log",
     Help<"Usage: log\n"
          "  Show the most recent entries in the system log.">},
    {"unsetrtc", Run<c::UnsetRtc>, "Ensure the RTC is unset",
     Help<"Usage: unsetrtc\n"
          "  Ensure that the real time clock is marked as unset.\n"
          "  Note that something such as the network time client may\n"
          "  immediately set it again and this does not modify the\n"
          "  system clock so the best thing to do is to reboot\n"
          "  immediately.">},
    {"probe", Run<c::Probe>, "Probe a file", Help<"Usage: probe filename">},
    {"analyze", Run<c::Analyze>, "Analyze a file", Help<"Usage: analyze input_filename output_filename">},
    {"scenegraph", Run<c::SceneGraph>, "Get current weston scene-graph output", nullptr},
    {"drmlog", Run<c::DrmLog>, "Get 1 second of DRM logging from weston and save it to the filename provided", nullptr},
    {"vsynctiming", Run<c::VsyncTiming>, "Get current VSYNC timings", nullptr},
    {"ptpstatus", Run<c::PtpStatus>, "Show PTP status", nullptr},
    {"usblist", Run<c::UsbList>, "Show list of discovered USB devices", Help<"Usage: usblist">},
    {"bvn", Run<c::Bvn>, "Dump BVN status for debugging", Help<"Usage: bvn [all]">},
    {"node", Run<c::Node>, "Invoke Node.js interpreter", Help<"Usage: node [options] path-to-script [arguments...]">},
    {"cursor", Run<c::Cursor>, "Turn mouse cursor on or off", Help<"Usage: cursor on|off">},
    {"mmchealth", Run<c::MmcHealth>, "Report MMC health", nullptr},
    {"extensions", Run<c::Extensions>, "List and uninstall extensions",
     Help<"Usage:\n"
          " extensions list\n"
          "   List the currently-installed extensions\n"
          " extensions remove <name>\n"
          "   Uninstall a currently-installed extension">},
    {"cacerts", Run<c::CaCerts>, "Work with root CA certificates", Help<"Usage: cacerts list">},
};
static_assert(std::size(kGeneral) == 45);

constexpr FixedText kPingHelp =
    "Usage:\n"
    "  ping [option] host-name-or-address\n"
    "    Send echo request to host and await response.\n"
    "\n"
    "Options:\n"
    "  -4\n"
    "    Ping IPv4 address only\n"
    "  -6\n"
    "    Ping IPv6 address only\n"
    "Notes:\n"
    "  If a host name has both A and AAAA DNS records then either the IPv4 or IPv6\n"
    "  address will be used. Use the above options to restrict the address used.";

constexpr ShellCommand kNetwork[] = {
    {"ping", Run<c::Ping>, "Send echo request to remote host and wait for reply", Help<kPingHelp>},
    {"ifconfig", Run<c::IfConfig>, "Configure network interface", c::IfConfigHelp},
    {"wifiscan", Run<c::WifiScan>, "Scan for WiFi networks", Help<"Usage: wifiscan">},
    {"httpgetperf", Run<c::HttpGetPerf>, "measure the performance of retrieving a URL",
     Help<"Usage: httpgetperf url [destination-file]\n"
          "   if no destination is specified then the downloaded content is discarded.">},
    {"nslookup", Run<c::NsLookup>, "Look up a hostname in DNS", Help<"Usage: nslookup <hostname>">},
    {"flushdns", Run<c::FlushDns>, "Flush DNS cache",
     Help<"Usage: flushdns\n"
          "\n"
          "Clears the local DNS cache">},
    {"mii", Run<c::Mii>, "Low level Ethernet diagnostics",
     Help<"Usage:\n"
          "  mii [:INTERFACE] dump\n"
          "    Show all registers of the Ethernet PHY.\n"
          "  mii [:INTERFACE] read <register>\n"
          "    Show a register.\n"
          "  mii [:INTERFACE] write <register> <value>\n"
          "    Write a register. Numbers are decimal, or hexadecimal with 0x in front.">},
};
static_assert(std::size(kNetwork) == 7);

constexpr FixedText kVideoPlayHelp =
    "Usage: {} <filename> | pause | resume | stop | stopclear | play | loop | noloop | viewmode x | rect x y w h\n"
    "                     | mapping x | span x | digital x | volume x | output | mode x | stream x\n"
    "                     | spdifmute | spdifunmute\n"
    "                     | capture <input> <standard>\n"
    "                     | rotate <0|1> | image <filename>\n"
    "                     | params <name> <value> | params -";

constexpr ShellCommand kDisplay[] = {
    {"videoplay", Run<c::VideoPlay>, "play some video", Help<kVideoPlayHelp>},
    {"imageplay", Run<c::ImagePlay>, "display an image",
     Help<"Usage: imageplay [<filename> [<mode> [<transition> [<xpos> [<ypos> [<multi-width> [<multi-height> [<multi-x> [<multi-y>]]]]]]]]]">},
    {"htmlplay", Run<c::HtmlPlay>, "play some html",
     Help<"Usage: htmlplay [chronode] <url>\n"
          "Usage: htmlplay params ...">},
    {"videomode", Run<c::VideoMode>, "changes the current video mode", nullptr},
    {"edid", Run<c::Edid>, "Read EDID from attached monitor", Help<"Usage: edid hdmi">},
    {"powersave", Run<c::PowerSave>, "control the VGA monitor power save", nullptr},
};
static_assert(std::size(kDisplay) == 6);

constexpr ShellCommand kManufacturing[] = {
    {"disturb", Run<c::Disturb>, "Try and break the storage...", nullptr},
    {"fileverify", Run<c::FileVerify>, "Create a test file and verify that we can read it reliably with O_DIRECT and non-O_DIRECT", nullptr},
    {"crashme", Run<c::CrashMe>, "Deliberately cause the Orvex binary to die horribly", nullptr},
    {"dropcache", Run<c::DropCache>, "Drop file cache", nullptr},
    {"srbdump", Run<c::SrbDump>, "Dump the raw SRB", nullptr},
    {"srbdecode", Run<c::SrbDecode>, "Decode the SRB", nullptr},
    {"srbuserset", Run<c::SrbUserSet>, "Set the SRB",
     Help<"{0} oem_id oem_model manufacturer_id serial_number ethernet_mac hardware_revision hardware_config_bitfield [wifi_mac]\n"
          "Where hardware_revision is 1=REVA, 5=REVE. The hardware config bitfield is the\n"
          "only number in hex.\n"
          "Example: {0} Orvex Player 1 P0A000000001 02:00:00:00:00:01 1 4b39">},
    {"srberase", Run<c::SrbErase>, "Erase the SRB", Help<"Usage: srberase confirm\n">},
    {"devicedata", Run<c::DeviceDataCommand>, "Show device data", nullptr},
    {"drmkeys", Run<c::DrmKeys>, "Show DRM key status", nullptr},
    {"hwflags", Run<c::HwFlags>, "Decode hardware flags", nullptr},
    {"resettobareboard", Run<c::ResetToBareBoard>, "Reset board to safe mode only", Help<"Usage: resettobareboard confirm\n">},
    {"blessings", Run<c::Blessings>, "List or remove blessings",
     Help<"Usage: {0}              list the blessings of the player\n"
          "       {0} remove-all   remove all of them">},
    {"temperature", Run<c::Temperature>, "Show current temperature", nullptr},
};
static_assert(std::size(kManufacturing) == 14);

constexpr ShellCommand kLowLevel[] = {
    {"memdump", Run<c::MemDump>, "Dump some memory", nullptr},
    {"i2c", Run<c::I2c>, "Poke/peek an i2c register", nullptr},
    {"$", Run<c::SystemShell>, "Pass through Linux shell command", nullptr},
    {"usbtestmode", Run<c::UsbTestMode>, "Put USB port into test mode",
     Help<"Usage: {} <port> <test>\n"
          "  Tests are: 0=none, 1=J, 2=K, 3=SE0_NAK, 4=packet, 5=force enable">},
    {"usb3testmode", Run<c::Usb3TestMode>, "Put USB3.0 port into test mode",
     Help<"Usage: {} <bus> <port> <test>\n"
          "  Tests are: 0=none, 1=J, 2=K, 3=SE0_NAK, 4=packet, 5=force enable">},
    {"usbhubtestmode", Run<c::UsbHubTestMode>, "Put attached USB hub into test mode",
     Help<"Usage: {} <bus> <device> <port> <test>\n"
          "  Tests are: 0=none, 1=J, 2=K, 3=SE0_NAK, 4=packet, 5=force enable">},
    {"ethtestmode", Run<c::EthTestMode>, "Put Gigabit Ethernet port into test mode",
     Help<"Usage: {} [:INTERFACE] <mode>\n"
          "  Modes are: 0=none, 1=transmit waveform, 2=transmit jitter (master),\n"
          "  3=transmit jitter (slave), 4=transmit distortion">},
};
static_assert(std::size(kLowLevel) == 7);

// clang-format on

}  // namespace

std::span<const ShellCommand> GeneralCommands() { return kGeneral; }
std::span<const ShellCommand> NetworkCommands() { return kNetwork; }
std::span<const ShellCommand> DisplayCommands() { return kDisplay; }
std::span<const ShellCommand> ManufacturingCommands() { return kManufacturing; }
std::span<const ShellCommand> LowLevelCommands() { return kLowLevel; }
