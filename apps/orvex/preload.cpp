#include "apps/orvex/preload.h"

#include <cstdlib>
#include <string>

void StripPreload(std::string_view name) {
  const char* variable = std::getenv("LD_PRELOAD");
  if (variable == nullptr) return;
  const std::string libraries = variable;
  if (libraries.find(name) == std::string::npos) return;

  std::string kept;
  for (size_t at = 0; at < libraries.size();) {
    const size_t end = std::min(libraries.find_first_of(": ", at), libraries.size());
    const std::string_view library = std::string_view(libraries).substr(at, end - at);
    if (!library.empty() && library.find(name) == std::string_view::npos) {
      if (!kept.empty()) kept += ':';
      kept += library;
    }
    at = end + 1;
  }
  if (kept.empty()) {
    ::unsetenv("LD_PRELOAD");
  } else {
    ::setenv("LD_PRELOAD", kept.c_str(), 1);
  }
}
