// One thread makes one request after the other. Everything the invoker may change lies under m_lock
// and every change notifies m_changed, which is all the thread ever sleeps on; while it is in a
// transfer the stop token of the thread reaches it. So Stop is never waited for longer than one
// system call.
#include "lib/scripting/network_recovery.h"

#include <strings.h>
#include <unistd.h>

#include <utility>

#include "lib/hardware/device_secrets.h"
#include "lib/platform/device_path.h"
#include "lib/platform/durable_file.h"
#include "lib/platform/log.h"
#include "lib/platform/monotonic_time.h"
#include "lib/platform/registry_client.h"
#include "lib/platform/thread_name.h"
#include "lib/scripting/filename_mapper.h"

using lattix::Log;

namespace {

// Far more than a script that people write; it is held in memory while it comes.
constexpr size_t kMaxScript = size_t{4} << 20;
constexpr mode_t kScriptMode = 0644;

constexpr int kOk = 200;
constexpr int kNoContent = 204;
constexpr int kNotFound = 404;
// What a failure of our own counts as; libcurl's CURLE_OUT_OF_MEMORY.
constexpr int kResultNoMemory = -27;

bool HasPrefixNoCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() &&
         ::strncasecmp(text.data(), prefix.data(), prefix.size()) == 0;
}

bool IsSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

bool StoreScript(const std::string& script) {
  try {
    const std::string path = FilenameMapper::GetInstance().Map(kRecoveryScript);
    Log("Write recovery script to '{}'.\n", kRecoveryScript);
    lattix::ReplaceDeviceFile(path, script, kScriptMode);
    return true;
  } catch (const std::exception& error) {
    Log("Failed to write recovery script to '{}': {}\n", kRecoveryScript, error.what());
    return false;
  }
}

// A script that the server has taken back, or that an earlier run left, must not be run.
void RemoveScript() {
  std::string path;
  if (FilenameMapper::GetInstance().TryMap(kRecoveryScript, &path)) {
    ::unlink(lattix::DevicePath(path).c_str());
  }
}

}  // namespace

const char* GetRecoveryModeText(RecoveryMode mode) {
  switch (mode) {
    case RecoveryMode::kDisabled: return "disabled";
    case RecoveryMode::kOverride: return "override";
    case RecoveryMode::kPeriodic: return "periodic";
    case RecoveryMode::kLastResort: return "last-resort";
    case RecoveryMode::kExit: return "exit";
  }
  return "unknown";
}

std::string RecoveryUrl() { return Registry::Setting("networking", "recovery_url"); }

std::vector<UrlFetcher::Header> RecoveryRequestHeaders(const DeviceIdentity& device,
                                                       std::string_view mode_text) {
  std::vector<UrlFetcher::Header> headers;
  const std::pair<const char*, std::string> fields[] = {
      {"DeviceID", device.serial},
      {"DeviceModel", device.model},
      {"DeviceFWVersion", device.version},
      {"RecoveryMode", std::string(mode_text)},
      {"DestinationScriptFile", std::string(kRecoveryScript)},
  };
  for (const auto& [name, value] : fields) {
    if (!value.empty()) headers.emplace_back(name, value);
  }
  return headers;
}

bool IsValidServerResponse(int status) {
  Log("IsValidServerResponse {}\n", status);
  return status == kOk || status == kNoContent || status == kNotFound;
}

const char* WhyNoScript(const UrlFetcher::Response& response) {
  std::string_view body = response.body;
  if (body.empty()) return "it is empty";
  if (IsEncipheredSource(body)) return nullptr;
  if (HasPrefixNoCase(response.content_type, "text/html") ||
      HasPrefixNoCase(response.content_type, "application/xhtml")) {
    return "it is a web page";
  }
  if (body.starts_with("\xEF\xBB\xBF")) body.remove_prefix(3);
  if (body.find('\0') != std::string_view::npos) return "it is no text";
  if (body.empty()) return "it is empty";
  const char first = body.front();
  if (!IsSpace(first) && (first < 0x21 || first > 0x7e)) return "it is no text";
  while (!body.empty() && IsSpace(body.front())) body.remove_prefix(1);
  if (body.empty()) return "it is empty";
  if (body.front() == '<') return "it is a web page";
  return nullptr;
}

std::chrono::seconds DelayToNextCheck(RecoveryMode mode, bool answered, int64_t retry_after,
                                      unsigned count) {
  constexpr std::chrono::seconds kRarely{7200};
  constexpr std::chrono::seconds kOften{300};
  constexpr unsigned kEarlyResults = 3;
  if (answered) {
    if (retry_after >= 1) return std::chrono::seconds(retry_after);
    return mode == RecoveryMode::kLastResort ? kOften : kRarely;
  }
  switch (mode) {
    case RecoveryMode::kOverride: return std::chrono::seconds(2);
    case RecoveryMode::kLastResort: return std::chrono::seconds(60);
    default: return count < kEarlyResults ? kOften : kRarely;
  }
}

NetworkRecovery::NetworkRecovery(UrlFetcher& fetcher, Options options)
    : m_fetcher(fetcher), m_options(std::move(options)) {}

NetworkRecovery::~NetworkRecovery() { Stop(); }

void NetworkRecovery::Start(RecoveryMode mode) {
  Stop();
  RemoveScript();
  {
    const std::lock_guard lock(m_lock);
    m_mode = mode;
    m_request_now = false;
    m_next_check = 0;
    m_result = {};
  }
  m_thread = std::jthread([this](std::stop_token stop) { Run(std::move(stop)); });
}

void NetworkRecovery::Stop() {
  SetMode(RecoveryMode::kExit);
  if (!m_thread.joinable()) return;
  m_thread.request_stop();
  m_thread.join();
  const std::lock_guard lock(m_lock);
  m_waker = nullptr;
}

RecoveryMode NetworkRecovery::GetMode() const {
  const std::lock_guard lock(m_lock);
  return m_mode;
}

void NetworkRecovery::SetMode(RecoveryMode mode) {
  const std::lock_guard lock(m_lock);
  if (m_mode == RecoveryMode::kExit) return;
  m_mode = mode;
  m_changed.notify_all();
}

void NetworkRecovery::RequestNow() {
  const std::lock_guard lock(m_lock);
  m_request_now = true;
  m_changed.notify_all();
}

void NetworkRecovery::NotifyResult(PollWaker* waker) {
  const std::lock_guard lock(m_lock);
  m_waker = waker;
}

RecoveryResult NetworkRecovery::GetResult() const {
  const std::lock_guard lock(m_lock);
  return m_result;
}

void NetworkRecovery::Run(std::stop_token stop) {
  lattix::SetThreadName("NetRecovery");
  for (;;) {
    const RecoveryMode mode = WaitForRequest();
    if (mode == RecoveryMode::kExit) return;
    Request(mode, stop);
  }
}

RecoveryMode NetworkRecovery::WaitForRequest() {
  std::unique_lock lock(m_lock);
  bool told = false;
  for (;;) {
    if (m_mode == RecoveryMode::kExit) return m_mode;
    if (m_mode == RecoveryMode::kDisabled || !IsPossible()) {
      if (m_options.trace && !std::exchange(told, true)) {
        Log("Network recovery thread is disabled. Waiting for more instructions.\n");
      }
      m_changed.wait(lock);
      continue;
    }
    told = false;
    if (std::exchange(m_request_now, false)) return m_mode;
    if (lattix::get_monotonic_time() >= m_next_check) return m_mode;
    m_changed.wait_until(lock, m_next_check);
  }
}

void NetworkRecovery::Request(RecoveryMode mode, const std::stop_token& stop) {
  UrlFetcher::Response response;
  try {
    UrlFetcher::Request request;
    request.url = m_options.url;
    request.user_agent = m_options.user_agent;
    request.headers = RecoveryRequestHeaders(m_options.device, GetRecoveryModeText(mode));
    request.max_body = kMaxScript;
    Log("Starting network recovery download\n");
    response = m_fetcher.Fetch(request, stop);
    Log("Finished network recovery download\n");
  } catch (const std::bad_alloc&) {
    response = {};
    response.result = kResultNoMemory;
  }
  if (stop.stop_requested()) return;

  RecoveryResult result;
  result.status = response.result;
  result.mode = mode;
  if (m_options.trace) Log("Network recovery result: {}\n", response.result);
  bool answered = result.valid = IsValidServerResponse(response.result);
  if (response.result == kOk) {
    if (const char* why = WhyNoScript(response)) {
      Log("The recovery server's answer is no script: {}\n", why);
      answered = false;
    } else {
      answered = result.has_script = StoreScript(response.body);
    }
  } else if (answered) {
    RemoveScript();
  }

  {
    const std::lock_guard lock(m_lock);
    result.count = m_result.count + 1;
    const std::chrono::seconds delay =
        DelayToNextCheck(mode, answered, response.retry_after, result.count);
    if (answered && response.retry_after >= 1) {
      Log("Server said to retry after {}s\n", response.retry_after);
    }
    Log("Will check for recovery script again in {}s.\n", delay.count());
    m_next_check = lattix::monotonic_time_after_ms(std::chrono::milliseconds(delay).count());
    m_result = result;
    // Under the lock: a waker that was taken back is not written to.
    if (PollWaker* waker = std::exchange(m_waker, nullptr)) waker->Wake();
  }
  if (m_options.on_result) m_options.on_result(result);
}
