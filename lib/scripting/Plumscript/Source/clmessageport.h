// koMessagePort: where events wait for the script.
//
// Native code posts from any thread through psIfMessagePort (psc.h), which the port's class gives
// under the interface name "ifMessagePort". Everything else belongs to the script's thread.
#pragma once

#include <cstdint>

#include "psc.h"

// Messages that native code may leave waiting. A script that far behind does not catch up, and its
// memory is better spent on what it is doing. What a script posts itself does not count: it is
// bounded by the script's own memory.
constexpr int32_t kPsMaxWaitingEvents = 100'000;
