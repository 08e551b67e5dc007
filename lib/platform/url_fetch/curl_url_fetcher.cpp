// A transfer is a multi handle with one easy handle on the caller's thread. The multi handle is
// there for its poll, which another thread can wake: a blocking easy transfer would look at a
// cancellation once a second at best.
//
// Rules of this file:
// 1. libcurl calls back on the calling thread only, and no exception may pass through it.
// 2. What ends a transfer early is recorded first (Transfer::stopped, too_large), then reported to
//    libcurl as a failure; the record decides the result.
#include "lib/platform/url_fetch/curl_url_fetcher.h"

#include <curl/curl.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <functional>
#include <memory>
#include <new>

#include "lib/platform/assertion.h"
#include "lib/platform/cascade_time.h"
#include "lib/platform/device_path.h"
#include "lib/platform/firmware_version.h"
#include "lib/platform/http_reason.h"

namespace {

constexpr long kMaxRedirections = 16;
constexpr char kCertificates[] = "/etc/ssl/certs/ca-certificates.crt";
constexpr int kFirstErrorStatus = 400;
// The longest wait that a server may ask for; beyond, it is a mistake or malice.
constexpr int64_t kMaxRetryAfter = int64_t{30} * 24 * 3600;
// The poll wakes up for descriptors, libcurl's own timers and cancellation; this is only its limit.
constexpr int kPollMilliseconds = 60'000;

struct FreeEasy {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct FreeMulti {
  void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
struct FreeList {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using Easy = std::unique_ptr<CURL, FreeEasy>;
using Multi = std::unique_ptr<CURLM, FreeMulti>;
using List = std::unique_ptr<curl_slist, FreeList>;

// In the order in which they must go: the easy handle leaves the multi handle first.
struct Transfer {
  UrlFetcher::Response response;
  size_t room = 0;  // what the body may still grow by
  const std::function<bool(std::string_view)>* on_body = nullptr;
  bool too_large = false;
  bool no_memory = false;
  char error[CURL_ERROR_SIZE] = "";
  List headers;
  Multi multi{curl_multi_init()};
  Easy easy{curl_easy_init()};
  bool added = false;

  Transfer() {
    if (!multi || !easy) throw std::bad_alloc();
  }
  ~Transfer() {
    if (added) curl_multi_remove_handle(multi.get(), easy.get());
  }
};

template <typename Value>
void Set(const Transfer& transfer, CURLoption option, Value value) {
  const CURLcode code = curl_easy_setopt(transfer.easy.get(), option, value);
  if (code == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
  LATTIX_ASSERT(code == CURLE_OK);
}

size_t OnBody(char* data, size_t, size_t size, void* user) {
  auto& transfer = *static_cast<Transfer*>(user);
  if (size > transfer.room) {
    transfer.too_large = true;
    return CURL_WRITEFUNC_ERROR;
  }
  transfer.room -= size;
  if (*transfer.on_body) {
    return (*transfer.on_body)({data, size}) ? size : CURL_WRITEFUNC_ERROR;
  }
  try {
    transfer.response.body.append(data, size);
  } catch (const std::bad_alloc&) {
    transfer.no_memory = true;
    return CURL_WRITEFUNC_ERROR;
  }
  return size;
}

bool IsOneLine(const std::string& text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos;
}

void AddHeader(Transfer& transfer, const std::string& line) {
  curl_slist* longer = curl_slist_append(transfer.headers.get(), line.c_str());
  if (!longer) throw std::bad_alloc();
  (void)transfer.headers.release();
  transfer.headers.reset(longer);
}

// The device's certificates, or in a device root without any those of the machine.
std::string Certificates() {
  const std::string native = lattix::DevicePath(kCertificates);
  return lattix::InDeviceRoot() && ::access(native.c_str(), R_OK) != 0 ? kCertificates : native;
}

void Configure(Transfer& transfer, const UrlFetcher::Request& request) {
  transfer.room = request.max_body;
  transfer.on_body = &request.on_body;
  Set(transfer, CURLOPT_ERRORBUFFER, transfer.error);
  Set(transfer, CURLOPT_NOSIGNAL, 1L);
  // A name server that does not answer must not hold up a cancellation.
  Set(transfer, CURLOPT_QUICK_EXIT, 1L);
  Set(transfer, CURLOPT_URL, request.url.c_str());
  Set(transfer, CURLOPT_PROTOCOLS_STR, "http,https");
  const bool secure = ::strncasecmp(request.url.c_str(), "https:", 6) == 0;
  Set(transfer, CURLOPT_REDIR_PROTOCOLS_STR, secure ? "https" : "http,https");
  Set(transfer, CURLOPT_FOLLOWLOCATION, 1L);
  Set(transfer, CURLOPT_MAXREDIRS, kMaxRedirections);
  Set(transfer, CURLOPT_POSTREDIR, static_cast<long>(CURL_REDIR_POST_ALL));
  Set(transfer, CURLOPT_SSL_VERIFYPEER, 1L);
  Set(transfer, CURLOPT_SSL_VERIFYHOST, 2L);
  Set(transfer, CURLOPT_CAINFO, Certificates().c_str());
  Set(transfer, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_ANYSAFE));
  Set(transfer, CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_ANY));
  Set(transfer, CURLOPT_FAILONERROR, 1L);
  Set(transfer, CURLOPT_ACCEPT_ENCODING, "");
  Set(transfer, CURLOPT_TCP_KEEPALIVE, 1L);
  if (!request.user_agent.empty()) Set(transfer, CURLOPT_USERAGENT, request.user_agent.c_str());

  Set(transfer, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.connect_limit.count()));
  Set(transfer, CURLOPT_TIMEOUT_MS, static_cast<long>(request.time_limit.count()));
  Set(transfer, CURLOPT_LOW_SPEED_LIMIT, 1L);
  Set(transfer, CURLOPT_LOW_SPEED_TIME, static_cast<long>(request.stall_limit.count()));
  Set(transfer, CURLOPT_MAXFILESIZE_LARGE,
      static_cast<curl_off_t>(std::min<size_t>(request.max_body, size_t{1} << 62)));
  Set(transfer, CURLOPT_WRITEFUNCTION, &OnBody);
  Set(transfer, CURLOPT_WRITEDATA, static_cast<void*>(&transfer));

  if (request.post_body) {
    Set(transfer, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.post_body->size()));
    Set(transfer, CURLOPT_POSTFIELDS, request.post_body->data());
    // Without it libcurl waits a second for servers that do not answer an expectation.
    AddHeader(transfer, "Expect:");
  }
  for (const auto& [name, value] : request.headers) {
    if (!name.empty() && IsOneLine(name) && IsOneLine(value)) {
      AddHeader(transfer, value.empty() ? name + ";" : name + ": " + value);
    }
  }
  if (transfer.headers) Set(transfer, CURLOPT_HTTPHEADER, transfer.headers.get());
}

std::string_view HeaderOf(const Transfer& transfer, const char* name) {
  curl_header* header;
  if (curl_easy_header(transfer.easy.get(), name, 0, CURLH_HEADER, -1, &header) != CURLHE_OK) {
    return {};
  }
  return header->value;
}

int64_t RetryAfter(const Transfer& transfer) {
  const std::string_view value = HeaderOf(transfer, "Retry-After");
  if (value.empty()) return 0;
  int64_t seconds = 0;
  const auto [end, error] = std::from_chars(value.begin(), value.end(), seconds);
  if (end != value.end() || error != std::errc()) {
    if (error == std::errc::result_out_of_range) return kMaxRetryAfter;
    const time_t then = curl_getdate(std::string(value).c_str(), nullptr);
    if (then < 0) return 0;
    const time_t sent = curl_getdate(std::string(HeaderOf(transfer, "Date")).c_str(), nullptr);
    const int64_t now = CascadeTime::ReadPresentTimeBase().nanoseconds / 1'000'000'000;
    seconds = then - (sent >= 0 ? sent : now);
  }
  return std::clamp<int64_t>(seconds, 0, kMaxRetryAfter);
}

// Runs the transfer to its end, or to the stop request (CURLE_ABORTED_BY_CALLBACK).
CURLcode Perform(Transfer& transfer, const std::stop_token& stop) {
  CURLM* const multi = transfer.multi.get();
  const std::stop_callback wake(stop, [multi] { curl_multi_wakeup(multi); });
  if (curl_multi_add_handle(multi, transfer.easy.get()) != CURLM_OK) return CURLE_FAILED_INIT;
  transfer.added = true;
  for (;;) {
    if (stop.stop_requested()) return CURLE_ABORTED_BY_CALLBACK;
    int running = 0;
    if (curl_multi_perform(multi, &running) != CURLM_OK) return CURLE_FAILED_INIT;
    int queued = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi, &queued)) {
      if (message->msg == CURLMSG_DONE) return message->data.result;
    }
    if (running == 0) return CURLE_FAILED_INIT;
    if (curl_multi_poll(multi, nullptr, 0, kPollMilliseconds, nullptr) != CURLM_OK) {
      return CURLE_FAILED_INIT;
    }
  }
}

void Conclude(Transfer& transfer, CURLcode code, const std::stop_token& stop) {
  UrlFetcher::Response& response = transfer.response;
  if (transfer.no_memory) throw std::bad_alloc();
  if (transfer.too_large) code = CURLE_FILESIZE_EXCEEDED;
  long status = 0;
  curl_easy_getinfo(transfer.easy.get(), CURLINFO_RESPONSE_CODE, &status);
  if (code == CURLE_OK || code == CURLE_HTTP_RETURNED_ERROR) {
    response.result = static_cast<int>(status);
    response.message = HttpReason(response.result);
    response.content_type = HeaderOf(transfer, "Content-Type");
    response.retry_after = RetryAfter(transfer);
  } else if (code == CURLE_ABORTED_BY_CALLBACK && stop.stop_requested()) {
    response.result = kUrlResultCancelled;
    response.message = "Cancelled";
  } else {
    response.result = -static_cast<int>(code);
    response.message =
        transfer.error[0] && !transfer.too_large ? transfer.error : curl_easy_strerror(code);
  }
  if (response.result <= 0 || response.result >= kFirstErrorStatus) response.body.clear();
}

}  // namespace

CurlUrlFetcher::CurlUrlFetcher() {
  // Never undone: other users of the library in the process would lose it.
  static const CURLcode ready = curl_global_init(CURL_GLOBAL_ALL);
  LATTIX_ASSERT(ready == CURLE_OK);
}

UrlFetcher::Response CurlUrlFetcher::Fetch(const Request& request, std::stop_token stop) {
  Transfer transfer;
  Configure(transfer, request);
  Conclude(transfer, Perform(transfer, stop), stop);
  return std::move(transfer.response);
}

std::string DefaultUserAgent(const std::string& model) {
  return "Orvex/" + lattix::FirmwareVersion() + " (" + model + ")";
}
