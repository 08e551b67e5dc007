// The name of a thread, as ps, top and the kernel's reports show it.
#pragma once

#include <sys/prctl.h>

namespace lattix {

// Names the calling thread; the kernel keeps 15 characters.
inline void SetThreadName(const char* name) { prctl(PR_SET_NAME, name, 0, 0, 0); }

}  // namespace lattix
