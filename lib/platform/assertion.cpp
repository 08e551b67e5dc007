// The reports that end a process. They are written with stdio directly, not through the log, so
// that a fault in the log or in the allocator cannot hide them.
#include "lib/platform/assertion.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"

namespace lattix {

namespace {

// No object lives in the first page; an address there is a null pointer with an offset added.
constexpr uintptr_t kLowestAddress = 4096;
constexpr uintptr_t kAlignment = 8;

}  // namespace

void AssertionFailed(const char* file, int line, const char* function,
                     const char* expression) noexcept {
  std::fprintf(stderr, "%s(%d): %s: assertion '%s' failed\n", file, line, function, expression);
  std::abort();
}

void InvalidPointer(const void* pointer) noexcept {
  std::fprintf(stderr, "Pointer=%p\n", pointer);
  AssertionFailed(__FILE__, __LINE__, __func__, "Invalid pointer");
}

void CheckPointer(const void* pointer) noexcept {
  const auto address = reinterpret_cast<uintptr_t>(pointer);
  if (address < kLowestAddress || address % kAlignment != 0) InvalidPointer(pointer);
}

void TerminateHandler() noexcept {
  if (const std::exception_ptr current = std::current_exception()) {
    try {
      std::rethrow_exception(current);
    } catch (const ErrnoException& e) {
      // This is all that the log will tell, so it tells what could not be opened, too.
      const char* separator = e.context().empty() ? "" : ": ";
      std::fprintf(stderr, "Unhandled exception: %s%s%s\n", e.context().c_str(), separator,
                   e.what());
    } catch (...) {
      std::fprintf(stderr, "Unhandled exception: %s\n", CurrentExceptionText().c_str());
    }
  } else {
    std::fputs("Terminated without an exception\n", stderr);
  }
  std::abort();
}

}  // namespace lattix
