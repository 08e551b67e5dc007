// How busy the unit is: named numbers from the kernel's files.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// All of them, as (name, value), in the order of docs/objects.md. One whose source cannot be read
// is left out. Any thread.
std::vector<std::pair<std::string, double>> ReadLoadStatistics();

// One of them, for which only its own file is read; none for another name.
std::optional<double> ReadLoadStatistic(std::string_view name);
