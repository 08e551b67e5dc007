// What every implementation and caller of the interface needs; no network in here.
#include "lib/platform/url_fetcher.h"

#include <algorithm>

std::string UrlWithoutCredentials(std::string_view url) {
  const size_t scheme = url.find("://");
  const size_t start = scheme == std::string_view::npos ? 0 : scheme + 3;
  // A password may hold an unescaped '@': the last one of the authority ends it.
  const size_t end = std::min(url.find_first_of("/?#", start), url.size());
  const size_t at = url.substr(0, end).rfind('@');
  if (at == std::string_view::npos || at < start) return std::string(url);
  return std::string(url.substr(0, start)).append(url.substr(at + 1));
}

std::string UrlEncode(std::string_view text) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string encoded;
  encoded.reserve(text.size());
  for (const char c : text) {
    const bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                       c == '-' || c == '.' || c == '_' || c == '~';
    if (plain) {
      encoded += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      encoded += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
  }
  return encoded;
}
