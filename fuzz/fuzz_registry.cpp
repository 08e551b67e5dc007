// The registry's document: whatever the text, reading it ends in sections or in one of the
// registry's own exceptions, and what was read is written and read again unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "lib/platform/registry_client.h"
#include "lib/platform/registry_document.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Registry::Sections sections;
  try {
    sections = Registry::ParseDocument(std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const Registry::Error&) {
    return 0;
  }
  const std::string document = Registry::FormatDocument(sections);
  if (Registry::ParseDocument(document) != sections) std::abort();
  return 0;
}
