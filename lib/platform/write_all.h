// Writing to a descriptor without losing the rest to a signal or a full pipe.
#pragma once

#include <string_view>

namespace lattix {

// Writes everything, waiting as the descriptor does; false with errno set when not all of it could
// be written. Callable from any thread.
bool WriteAll(int fd, std::string_view bytes);

}  // namespace lattix
