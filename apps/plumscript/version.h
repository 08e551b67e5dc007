// The version of the command line tool; the project's, which the build defines.
#pragma once

inline constexpr char kPlumscriptVersion[] = ORVEX_VERSION;
