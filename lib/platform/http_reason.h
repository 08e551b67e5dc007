// The reason phrases of HTTP statuses.
#pragma once

#include <string>

// The phrase of a status code ("Not found"), as this system words it. For a code that has none
// "HTTP {:03} error\n", line break included. Callable from any thread.
std::string HttpReason(int code);
