// The board's temperature.
#pragma once

#include <optional>

// Degrees Celsius of the system on chip; none when the board has no sensor or it cannot be read.
// Blocks for a moment; any thread.
//
// The sensor is the thermal zone ("/sys/class/thermal/thermal_zoneN") whose type is "soc-thermal",
// or failing that "cpu-thermal"; on a board with neither, the zone of the lowest number.
std::optional<double> ReadBoardTemperature();
