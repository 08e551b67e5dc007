// One table, for what transfers report and for what the server sends. Its wording is what scripts
// see as a failure reason and compare with, so it stays as it is even where the standard's differs.
#include "lib/platform/http_reason.h"

#include <fmt/core.h>

#include <algorithm>
#include <iterator>

namespace {

struct Reason {
  int code;
  const char* phrase;
};

// In the order of the codes.
constexpr Reason kReasons[] = {
    {100, "Continue"},
    {101, "Switching protocols"},
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {203, "Non-authoritative information"},
    {204, "No content"},
    {205, "Reset content"},
    {206, "Partial content"},
    {300, "Multiple choices"},
    {301, "Moved permanently"},
    {302, "Found"},
    {303, "See other"},
    {304, "Not modified"},
    {305, "Use proxy"},
    {307, "Temporary redirect"},
    {400, "Bad request"},
    {401, "Not authorized"},
    {402, "Payment required"},
    {403, "Forbidden"},
    {404, "Not found"},
    {405, "Method not allowed"},
    {406, "Not acceptable"},
    {407, "Proxy authentication required"},
    {408, "Request timeout"},
    {409, "Conflict"},
    {411, "Length required"},
    {412, "Precondition failed"},
    {413, "Request entity too large"},
    {414, "Request-URI too long"},
    {415, "Unsupported media type"},
    {417, "Expectation failed"},
    {500, "Internal server error"},
    {501, "Not implemented"},
    {502, "Bad gateway"},
    {503, "Service unavailable"},
    {504, "Gateway timeout"},
    {505, "HTTP version not supported"},
};
static_assert(std::is_sorted(std::begin(kReasons), std::end(kReasons),
                             [](const Reason& a, const Reason& b) { return a.code < b.code; }));

}  // namespace

std::string HttpReason(int code) {
  const Reason* found =
      std::lower_bound(std::begin(kReasons), std::end(kReasons), code,
                       [](const Reason& reason, int wanted) { return reason.code < wanted; });
  if (found != std::end(kReasons) && found->code == code) return found->phrase;
  return fmt::format("HTTP {:03} error\n", code);
}
