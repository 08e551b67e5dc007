// The report is made once and told twice: on the console, where the device's log keeps it, and to
// the recovery server, which can send a script that puts things right.
#include "lib/scripting/error_report.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <stdexcept>

#include "lib/platform/assertion.h"
#include "lib/platform/device_path.h"
#include "lib/platform/digest/file_digest.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"

using lattix::Log;

namespace {

constexpr char kCrashDump[] = "/var/lib/orvex/crash-dump/crash-dump.tar.bz2";
// The device has something better to do than to wait for a server that does not take the report.
constexpr std::chrono::seconds kReportLimit{60};
constexpr size_t kMaxAnswer = size_t{64} << 10;

const char* KindText(ScriptFailure::Kind kind) {
  return kind == ScriptFailure::Kind::kLoadError ? "ScriptLoadError" : "ScriptRuntimeError";
}

std::string Trimmed(const std::string& text) {
  constexpr char kSpace[] = " \t\n\v\f\r";
  const size_t start = text.find_first_not_of(kSpace);
  if (start == std::string::npos) return {};
  return text.substr(start, text.find_last_not_of(kSpace) + 1 - start);
}

// Empty when the script cannot be read any more.
std::string ScriptHash(const FilenameMapper& mapper, const std::string& script,
                       const std::stop_token& stop) {
  try {
    const lattix::UniqueFd file = OpenBeneathDrive(mapper.Map(script), O_RDONLY, 0);
    if (!file) throw lattix::ErrnoException(errno, script);
    return FileSha1(file.Get(), [&stop] {
      if (stop.stop_requested()) throw std::runtime_error("Cancelled");
    });
  } catch (const std::exception& error) {
    Log("Failed to hash failed script contents: {}.\n", error.what());
    return {};
  }
}

void Post(UrlFetcher& fetcher, const std::string& url, const std::string& user_agent,
          std::string form, const std::stop_token& stop) {
  Log("Sending error report to {}\n", UrlWithoutCredentials(url));
  UrlFetcher::Request request;
  request.url = url;
  request.user_agent = user_agent;
  request.post_body = std::move(form);
  request.max_body = kMaxAnswer;
  request.time_limit = kReportLimit;
  const UrlFetcher::Response response = fetcher.Fetch(request, stop);
  if (response.IsSuccess()) {
    Log("Error report sent successfully.\n");
  } else {
    Log("Failed to send error report to network: {}\n", Trimmed(response.message));
  }
}

}  // namespace

bool HasCrashDump() {
  struct stat status;
  return ::stat(lattix::DevicePath(kCrashDump).c_str(), &status) == 0;
}

std::string ErrorReportForm(const ScriptFailure& failure, const std::string& hash,
                            bool with_crash_dump) {
  std::string post_data;
  post_data += "ErrorType=" + std::string(KindText(failure.kind)) + "&";
  post_data += "ErrorString=" + UrlEncode(Trimmed(failure.error)) + "&";
  post_data += "ScriptFile=" + UrlEncode(failure.script) + "&";
  post_data += "ScriptHash=SHA1%3A" + UrlEncode(hash) + "&";
  if (with_crash_dump) post_data += "CrashDump=yes&";
  LATTIX_ASSERT(*post_data.rbegin() == '&');
  return post_data;
}

void MaybeReportErrorToNetwork(UrlFetcher& fetcher, const std::string& url,
                               const std::string& user_agent, const FilenameMapper& mapper,
                               const ScriptFailure& failure, bool with_crash_dump,
                               std::stop_token stop) {
  if (failure.error.empty()) return;
  try {
    const std::string hash = ScriptHash(mapper, failure.script, stop);
    Log("{}: {}\n", KindText(failure.kind), Trimmed(failure.error));
    Log("ScriptName: {}\n", failure.script);
    Log("ScriptHash: {}\n", hash);
    if (url.empty() || failure.for_debugger) return;
    Post(fetcher, url, user_agent, ErrorReportForm(failure, hash, with_crash_dump), stop);
  } catch (const std::exception& error) {
    Log("Script error could not be fully reported: {}\n", error.what());
  }
}
