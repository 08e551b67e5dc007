// Small things fetched from a server over HTTP: recovery scripts, answers to reports.
//
// The interface only; an implementation is given to whoever fetches
// (lib/platform/url_fetch/curl_url_fetcher.h). What is fetched is held in memory, so every request
// has a limit on its size; what is larger goes to a receiver of its own.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The result of a transfer that was cancelled; its message is "Cancelled".
constexpr int kUrlResultCancelled = -10001;

class UrlFetcher {
 public:
  using Header = std::pair<std::string, std::string>;

  struct Request {
    // http or https; anything else is refused. May hold a user and a password.
    std::string url;
    std::string user_agent;
    // Sent as they are; no line breaks in them (a header that has one is left out).
    std::vector<Header> headers;
    // With a body the request is a POST of a form ("application/x-www-form-urlencoded", unless a
    // header says otherwise), without one a GET.
    std::optional<std::string> post_body;

    // A body that is larger, compressed or not, ends the transfer with libcurl's
    // CURLE_FILESIZE_EXCEEDED, negated.
    size_t max_body = size_t{8} << 20;
    // Gets the body of an answer that is a success, piece by piece on the caller's thread; the
    // response then has none. Returning false ends the transfer with libcurl's CURLE_WRITE_ERROR,
    // negated. Throws nothing.
    std::function<bool(std::string_view)> on_body;
    std::chrono::milliseconds connect_limit = std::chrono::seconds(30);
    // For the whole transfer (0: no limit), and for the time in which nothing at all arrives.
    std::chrono::milliseconds time_limit = std::chrono::minutes(10);
    std::chrono::seconds stall_limit = std::chrono::seconds(60);
  };

  struct Response {
    // The HTTP status of a transfer that finished (after redirections), 0 when it has none, a
    // negated libcurl error for one that failed (one that broke off is never a status), or
    // kUrlResultCancelled.
    int result = 0;
    // The status's phrase or the failure's reason; holds no user name or password of the URL.
    std::string message;
    // Empty unless the status is below 400.
    std::string body;
    std::string content_type;  // as the server sent it; empty when it did not
    // What the server's Retry-After asks for (RFC 9110, 10.2.3), seconds from its answer: a number,
    // or a date, counted from the answer's own Date so that the device's clock does not matter.
    // 0 when there is none, or one in the past.
    int64_t retry_after = 0;

    bool IsSuccess() const { return result >= 200 && result < 300; }
  };

  virtual ~UrlFetcher() = default;

  // Blocks until the transfer has ended; a stop request ends it at once. Throws nothing but
  // std::bad_alloc. May be called by several threads at a time.
  virtual Response Fetch(const Request& request, std::stop_token stop = {}) = 0;
};

// The URL without user name and password, for messages.
std::string UrlWithoutCredentials(std::string_view url);

// The text with every byte but letters, digits and "-._~" as %XX (RFC 3986, 2.3), for the value of
// a form's field.
std::string UrlEncode(std::string_view text);
