// Every statistic is a row: where its number stands in which file.
#include "lib/hardware/load_statistics.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <map>

#include "lib/platform/firmware_version.h"

namespace {

struct Statistic {
  const char* name;
  const char* path;
  // The line that begins with this word; empty: the first line, all of whose words are numbers.
  std::string_view line;
  unsigned field;  // which of the line's numbers
  enum Unit { kPlain, kTicks } unit = kPlain;
};

constexpr char kLoad[] = "/proc/loadavg";
constexpr char kUptime[] = "/proc/uptime";
constexpr char kMemory[] = "/proc/meminfo";
constexpr char kStat[] = "/proc/stat";
constexpr auto kTicks = Statistic::kTicks;

constexpr Statistic kStatistics[] = {
    {"load1", kLoad, "", 0},
    {"load5", kLoad, "", 1},
    {"load15", kLoad, "", 2},
    {"tasks_running", kLoad, "", 3},
    {"tasks", kLoad, "", 4},
    {"uptime", kUptime, "", 0},
    {"mem_total", kMemory, "MemTotal:", 0},
    {"mem_free", kMemory, "MemFree:", 0},
    {"mem_available", kMemory, "MemAvailable:", 0},
    {"mem_buffers", kMemory, "Buffers:", 0},
    {"mem_cached", kMemory, "Cached:", 0},
    {"swap_total", kMemory, "SwapTotal:", 0},
    {"swap_free", kMemory, "SwapFree:", 0},
    {"cpu_user", kStat, "cpu", 0, kTicks},
    {"cpu_nice", kStat, "cpu", 1, kTicks},
    {"cpu_system", kStat, "cpu", 2, kTicks},
    {"cpu_idle", kStat, "cpu", 3, kTicks},
    {"cpu_iowait", kStat, "cpu", 4, kTicks},
    {"cpu_irq", kStat, "cpu", 5, kTicks},
    {"cpu_softirq", kStat, "cpu", 6, kTicks},
    {"cpu_steal", kStat, "cpu", 7, kTicks},
    {"context_switches", kStat, "ctxt", 0},
    {"processes_started", kStat, "processes", 0},
};

// The words of a line: "3/120" is two.
std::string_view TakeWord(std::string_view* line) {
  constexpr std::string_view kSeparators = " \t/";
  line->remove_prefix(std::min(line->find_first_not_of(kSeparators), line->size()));
  const std::string_view word = line->substr(0, line->find_first_of(kSeparators));
  line->remove_prefix(word.size());
  return word;
}

std::optional<double> Find(const Statistic& statistic, std::string_view content) {
  while (!content.empty()) {
    std::string_view line = content.substr(0, content.find('\n'));
    content.remove_prefix(std::min(line.size() + 1, content.size()));
    if (!statistic.line.empty() && TakeWord(&line) != statistic.line) continue;
    std::string_view word;
    for (unsigned i = 0; i <= statistic.field; i++) word = TakeWord(&line);
    double number;
    const auto read = std::from_chars(word.data(), word.data() + word.size(), number);
    if (read.ec != std::errc()) return std::nullopt;
    return statistic.unit == kTicks ? number / static_cast<double>(::sysconf(_SC_CLK_TCK)) : number;
  }
  return std::nullopt;
}

}  // namespace

std::vector<std::pair<std::string, double>> ReadLoadStatistics() {
  std::map<std::string_view, std::string> contents;  // each file once
  std::vector<std::pair<std::string, double>> statistics;
  for (const Statistic& statistic : kStatistics) {
    const auto [content, is_new] = contents.try_emplace(statistic.path);
    if (is_new) content->second = lattix::ReadSystemText(statistic.path);
    if (const auto value = Find(statistic, content->second)) {
      statistics.emplace_back(statistic.name, *value);
    }
  }
  return statistics;
}

std::optional<double> ReadLoadStatistic(std::string_view name) {
  const auto found = std::ranges::find(kStatistics, name, &Statistic::name);
  if (found == std::end(kStatistics)) return std::nullopt;
  return Find(*found, lattix::ReadSystemText(found->path));
}
