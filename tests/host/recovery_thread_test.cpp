// The recovery thread and the error report, with a real server.
#include <gtest/gtest.h>
#include <poll.h>

#include "lib/platform/monotonic_time.h"
#include "lib/platform/url_fetch/curl_url_fetcher.h"
#include "lib/scripting/error_report.h"
#include "lib/scripting/network_recovery.h"
#include "tests/host/http_test_server.h"
#include "tests/platform/test_support.h"

namespace {

using enum RecoveryMode;

TEST(NetworkRecoveryRules, DelayFollowsModeAnswerAndCount) {
  struct {
    RecoveryMode mode;
    bool answered;
    int64_t retry_after;
    unsigned count;
    int64_t seconds;
  } const kRows[] = {
      {kOverride, true, 0, 1, 7200},      {kPeriodic, true, 0, 9, 7200},
      {kLastResort, true, 0, 1, 300},     {kLastResort, true, 1, 1, 1},
      {kPeriodic, true, 86400, 1, 86400}, {kOverride, false, 50, 9, 2},
      {kLastResort, false, 0, 9, 60},     {kPeriodic, false, 0, 2, 300},
      {kPeriodic, false, 0, 3, 7200},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(DelayToNextCheck(row.mode, row.answered, row.retry_after, row.count).count(),
              row.seconds);
  }
  EXPECT_STREQ(GetRecoveryModeText(kLastResort), "last-resort");
  EXPECT_STREQ(GetRecoveryModeText(static_cast<RecoveryMode>(5)), "unknown");
}

TEST(NetworkRecoveryRules, OnlyTextsThatMayBeScriptsPass) {
  struct {
    std::string body;
    const char* type;
    bool script;
  } const kRows[] = {
      {"Print 1", "text/plain", true},
      {"\xEF\xBB\xBF' comment", "", true},
      {"OSPS\x01\0\xFF", "application/octet-stream", true},
      {"", "text/plain", false},
      {" \n ", "", false},
      {"\xEF\xBB\xBF", "", false},
      {"Print 1", "TEXT/HTML; charset=utf-8", false},
      {"\n <html>", "", false},
      {std::string("Print\0 1", 8), "", false},
      {"\x01Print", "", false},
      {"\xFF\xFEP", "", false},
  };
  for (const auto& row : kRows) {
    UrlFetcher::Response response;
    response.body = row.body;
    response.content_type = row.type;
    EXPECT_EQ(WhyNoScript(response) == nullptr, row.script) << row.body;
  }
}

class NetworkRecoveryTest : public testing::Test {
 protected:
  NetworkRecoveryTest() { std::filesystem::create_directories(m_root.path() + "/storage/tmp"); }

  NetworkRecovery::Options OptionsFor(const std::string& url) {
    NetworkRecovery::Options options;
    options.url = url;
    options.user_agent = "Orvex/1 (T)";
    options.device = {.model = "M", .serial = "S1", .version = "1.2"};
    options.trace = true;
    return options;
  }
  // Whether the waker was written to; takes the byte.
  bool Woken() {
    pollfd fd{m_waker.GetReadFd(), POLLIN, 0};
    if (::poll(&fd, 1, 30'000) != 1) return false;
    m_waker.Acknowledge();
    return true;
  }
  std::string Script() const { return m_root.Read("/storage/tmp/recovery1.plm"); }

  const TemporaryRoot m_root;
  FilenameMapper m_mapper;
  CurlUrlFetcher m_fetcher;
  PollWaker m_waker;
};

TEST_F(NetworkRecoveryTest, StoresWhatTheServerSendsAndTakesItBack) {
  std::vector<std::string> answers = {
      Answer("404 No", ""), Answer("200 OK", "<html>", "Content-Type: text/html\r\n"),
      Answer("200 OK", "Print 1\n", "Retry-After: 9\r\n"), "HTTP/1.1 204 None\r\n\r\n"};
  size_t next = 0;
  HttpTestServer server([&](const std::string&) { return answers.at(next++); });
  m_root.Write("/storage/tmp/recovery1.plm", "of an earlier run");
  NetworkRecovery recovery(m_fetcher, OptionsFor(server.Url("/r", "me:secret@")));
  testing::internal::CaptureStderr();
  recovery.NotifyResult(&m_waker);
  recovery.Start(kOverride);
  ASSERT_TRUE(Woken());
  EXPECT_EQ(recovery.GetResult().status, 404);
  EXPECT_EQ(recovery.GetResult().mode, kOverride);
  EXPECT_EQ(Script(), "");

  const auto request = [&](RecoveryMode mode) {
    recovery.SetMode(mode);
    recovery.NotifyResult(&m_waker);
    recovery.RequestNow();
    EXPECT_TRUE(Woken());
    return recovery.GetResult();
  };
  EXPECT_FALSE(request(kLastResort).has_script);  // a web page
  EXPECT_EQ(recovery.GetResult().status, 200);
  EXPECT_EQ(Script(), "");
  EXPECT_TRUE(request(kPeriodic).has_script);
  EXPECT_EQ(Script(), "Print 1\n");
  EXPECT_FALSE(request(kPeriodic).has_script);
  EXPECT_EQ(Script(), "");
  EXPECT_EQ(recovery.GetResult().count, 4u);
  recovery.Stop();

  const std::string log = testing::internal::GetCapturedStderr();
  for (const char* line :
       {"Network recovery result: 404\n", "IsValidServerResponse 404\n",
        "Will check for recovery script again in 7200s.\n",
        "Will check for recovery script again in 60s.\n",
        "Write recovery script to 'tmp:/recovery1.plm'.\n", "Server said to retry after 9s\n",
        "Will check for recovery script again in 9s.\n"}) {
    EXPECT_NE(log.find(line), std::string::npos) << line << log;
  }
  EXPECT_EQ(log.find("secret"), std::string::npos);
  EXPECT_NE(server.Requests()[2].find("RecoveryMode: periodic\r\n"), std::string::npos);
  EXPECT_NE(server.Requests()[2].find("DeviceID: S1\r\n"), std::string::npos);
}

TEST_F(NetworkRecoveryTest, StopsInTheMiddleOfATransferAndOfAWait) {
  HttpTestServer server([](const std::string&) { return std::string(); });
  NetworkRecovery recovery(m_fetcher, OptionsFor(server.Url()));
  recovery.NotifyResult(&m_waker);
  recovery.Start(kDisabled);  // waits until it is told otherwise
  recovery.SetMode(kPeriodic);
  ASSERT_TRUE(Happens(&server.arrived));
  const int64_t before = lattix::get_monotonic_time();
  recovery.Stop();
  EXPECT_LT(lattix::get_monotonic_time() - before, 20'000'000'000);
  EXPECT_EQ(recovery.GetResult().count, 0u);

  NetworkRecovery nowhere(m_fetcher, OptionsFor(""));
  EXPECT_FALSE(nowhere.IsPossible());
  nowhere.Start(kLastResort);
  nowhere.RequestNow();
  nowhere.Stop();
  nowhere.Stop();
}

TEST_F(NetworkRecoveryTest, ReportsAScriptsFailure) {
  m_root.Write("/storage/sd/autorun.plm", "abc");
  bool accept = true;
  HttpTestServer server([&](const std::string&) {
    return accept ? Answer("200 OK", "thanks") : Answer("404 No", "");
  });
  ScriptFailure failure{.kind = ScriptFailure::Kind::kLoadError,
                        .error = "  Syntax Error. &h02 \n",
                        .script = "SD:/autorun.plm"};
  const auto report = [&] {
    testing::internal::CaptureStderr();
    MaybeReportErrorToNetwork(m_fetcher, server.Url("/", "u:p@"), "Orvex/1 (T)", m_mapper, failure,
                              HasCrashDump());
    return testing::internal::GetCapturedStderr();
  };
  const std::string hash = "a9993e364706816aba3e25717850c26c9cd0d89d";
  EXPECT_EQ(
      report(),
      "ScriptLoadError: Syntax Error. &h02\nScriptName: SD:/autorun.plm\nScriptHash: " + hash +
          "\nSending error report to " + server.Url() + "\nError report sent successfully.\n");
  EXPECT_TRUE(server.Requests().at(0).ends_with(
      "\r\n\r\nErrorType=ScriptLoadError&ErrorString=Syntax%20Error.%20%26h02&"
      "ScriptFile=SD%3A%2Fautorun.plm&ScriptHash=SHA1%3A" +
      hash + "&"));

  accept = false;
  m_root.Write("/var/lib/orvex/crash-dump/crash-dump.tar.bz2", "");
  failure.kind = ScriptFailure::Kind::kRuntimeError;
  failure.script = "SD:/gone.plm";
  const std::string log = report();
  EXPECT_NE(log.find("Failed to hash failed script contents: No such file or directory.\n"),
            std::string::npos);
  EXPECT_NE(log.find("Failed to send error report to network: Not found\n"), std::string::npos);
  EXPECT_TRUE(server.Requests().at(1).ends_with("&ScriptHash=SHA1%3A&CrashDump=yes&"));

  failure.for_debugger = true;
  report();
  failure.error.clear();
  EXPECT_EQ(report(), "");
  EXPECT_EQ(server.Requests().size(), 2u);
}

}  // namespace
