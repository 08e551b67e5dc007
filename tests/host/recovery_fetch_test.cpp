// Fetching, against a server that answers well, badly or not at all.
#include <gtest/gtest.h>

#include <thread>

#include "lib/platform/monotonic_time.h"
#include "lib/platform/url_fetch/curl_url_fetcher.h"
#include "tests/apps/program_run.h"
#include "tests/host/http_test_server.h"
#include "tests/platform/test_support.h"

namespace {

UrlFetcher::Request To(const std::string& url) {
  UrlFetcher::Request request;
  request.url = url;
  request.user_agent = "Orvex/1.0 (Test)";
  return request;
}

struct AnswerCase {
  const char* name;
  std::string answer;
  int result;
  const char* message;
  const char* body = "";
  int64_t retry_after = 0;
};

class FetchAnswer : public testing::TestWithParam<AnswerCase> {};

TEST_P(FetchAnswer, BecomesAResult) {
  HttpTestServer server([](const std::string&) { return GetParam().answer; });
  UrlFetcher::Request request = To(server.Url());
  request.max_body = 1000;
  const UrlFetcher::Response response = CurlUrlFetcher().Fetch(request, {});
  EXPECT_EQ(response.result, GetParam().result);
  EXPECT_EQ(response.body, GetParam().body);
  EXPECT_EQ(response.retry_after, GetParam().retry_after);
  if (*GetParam().message) {
    EXPECT_EQ(response.message, GetParam().message);
  }
}

const std::string kDated = "Date: Sun, 06 Nov 1994 08:49:37 GMT\r\n";
const AnswerCase kAnswers[] = {
    {"Whole", Answer("200 OK", "Print 1"), 200, "OK", "Print 1"},
    {"Nothing", "HTTP/1.1 204 No Content\r\n\r\n", 204, "No content"},
    {"NotFound", Answer("404 Gone away", "page", "Retry-After: 17\r\n"), 404, "Not found", "", 17},
    {"Failing", Answer("500 Oops", "page"), 500, "Internal server error"},
    {"Unnamed", Answer("499 Odd", ""), 499, "HTTP 499 error\n"},
    {"RetryDate", Answer("503 Busy", "", kDated + "Retry-After: Sun, 06 Nov 1994 08:50:00 GMT\r\n"),
     503, "", "", 23},
    {"RetryPast", Answer("503 Busy", "", kDated + "Retry-After: Sun, 06 Nov 1994 08:40:00 GMT\r\n"),
     503, ""},
    {"RetryHuge", Answer("503 Busy", "", "Retry-After: 99999999999999999999\r\n"), 503, "", "",
     30 * 24 * 3600},
    {"RetryNonsense", Answer("503 Busy", "", "Retry-After: soon\r\n"), 503, ""},
    {"TooLarge", Answer("200 OK", std::string(1001, 'x')), -63, ""},
    {"TooLargeUnannounced", "HTTP/1.1 200 OK\r\n\r\n" + std::string(1001, 'x'), -63,
     "Maximum file size exceeded"},
    {"JustFits", Answer("200 OK", "y"), 200, "OK", "y"},
    {"CutShort", "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf", -18, ""},
    {"Garbage", "\x01\x02garbage\r\n\r\n", -1, ""},
    {"Closed", "\r\n", -1, ""},
    {"ToAFile", Answer("302 Found", "", "Location: file:///etc/passwd\r\n"), -1, ""},
    {"Loop", Answer("302 Found", "", "Location: /again\r\n"), -47, ""},
};
INSTANTIATE_TEST_SUITE_P(All, FetchAnswer, testing::ValuesIn(kAnswers),
                         [](const auto& info) { return info.param.name; });

TEST(Fetch, SendsAFormWithHeadersAndCredentials) {
  HttpTestServer server([](const std::string& request) {
    if (request.find("Authorization: Basic ") == std::string::npos) {
      return Answer("401 No", "", "WWW-Authenticate: Basic realm=\"r\"\r\n");
    }
    return Answer("200 OK", "");
  });
  UrlFetcher::Request request = To(server.Url("/report", "user:secret@"));
  request.post_body = std::string("A=1&\0B", 6);
  request.headers = {{"DeviceID", "X1"}, {"Bad", "a\r\nInjected: 1"}};
  // Basic sends the password in the clear, so it is not among what is offered.
  EXPECT_EQ(CurlUrlFetcher().Fetch(request, {}).result, 401);
  const std::string seen = server.Requests().at(0);
  EXPECT_TRUE(seen.starts_with("POST /report HTTP/1.1\r\n"));
  for (const char* line : {"User-Agent: Orvex/1.0 (Test)\r\n", "DeviceID: X1\r\n",
                           "Content-Type: application/x-www-form-urlencoded\r\n"}) {
    EXPECT_NE(seen.find(line), std::string::npos) << line;
  }
  EXPECT_EQ(seen.find("Injected"), std::string::npos);
}

TEST(Fetch, RefusesOtherProtocolsAndDeadServers) {
  for (const char* url : {"file:///etc/passwd", "ftp://127.0.0.1/x", "", "http://"}) {
    const UrlFetcher::Response response = CurlUrlFetcher().Fetch(To(url), {});
    EXPECT_LT(response.result, 0) << url;
    EXPECT_GT(response.result, -100) << url;
    EXPECT_NE(response.message, "") << url;
  }
  EXPECT_EQ(CurlUrlFetcher().Fetch(To("http://127.0.0.1:1/"), {}).result, -7);
}

TEST(Fetch, TrustsThePeersThatTheDeviceKnowsByTheirNames) {
  const TemporaryRoot root;
  // A certificate that is its own authority.
  const std::string make =
      "cd '" + root.path() +
      "' && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=x "
      "-addext subjectAltName=DNS:localhost -keyout key.pem -out cert.pem 2>make.log";
  ASSERT_EQ(std::system(make.c_str()), 0) << root.Read("/make.log");
  root.Write("/script", "Print 1\n");
  ProgramRun server(
      "/usr/bin/openssl",
      {"s_server", "-accept", "127.0.0.1:0", "-WWW", "-key", "key.pem", "-cert", "cert.pem"},
      root.path(), false, {});
  ASSERT_TRUE(server.Expect("ACCEPT 127.0.0.1:"));
  const size_t port = server.out.find("ACCEPT 127.0.0.1:") + 17;
  ASSERT_TRUE(server.Expect("\n"));
  const std::string path =
      ":" + server.out.substr(port, server.out.find('\n', port) - port) + "/script";

  constexpr int kNotTrusted = -60;
  EXPECT_EQ(CurlUrlFetcher().Fetch(To("https://localhost" + path), {}).result, kNotTrusted);
  root.Write("/etc/ssl/certs/ca-certificates.crt", root.Read("/cert.pem"));
  EXPECT_EQ(CurlUrlFetcher().Fetch(To("https://127.0.0.1" + path), {}).result, kNotTrusted);
  const UrlFetcher::Response response = CurlUrlFetcher().Fetch(To("https://localhost" + path), {});
  EXPECT_EQ(response.result, 200) << response.message;
  EXPECT_EQ(response.body, "Print 1\n");
}

TEST(Fetch, EndsAtItsTimeLimitAndWhenCancelled) {
  HttpTestServer server([](const std::string&) { return std::string(); });
  UrlFetcher::Request request = To(server.Url());
  request.time_limit = std::chrono::milliseconds(100);
  EXPECT_EQ(CurlUrlFetcher().Fetch(request, {}).result, -28);

  std::stop_source stop;
  server.arrived.Wait(1);  // the first request's
  std::thread canceller([&] {
    EXPECT_TRUE(server.arrived.Wait(30'000));
    stop.request_stop();
  });
  const int64_t before = lattix::get_monotonic_time();
  const UrlFetcher::Response response = CurlUrlFetcher().Fetch(To(server.Url()), stop.get_token());
  canceller.join();
  EXPECT_EQ(response.result, kUrlResultCancelled);
  EXPECT_EQ(response.message, "Cancelled");
  EXPECT_LT(lattix::get_monotonic_time() - before, 20'000'000'000);
  // One that was cancelled before it began does not begin.
  EXPECT_EQ(CurlUrlFetcher().Fetch(To(server.Url()), stop.get_token()).result, kUrlResultCancelled);
  EXPECT_EQ(server.Requests().size(), 2u);
}

TEST(Fetch, KeepsCredentialsOutOfMessages) {
  const std::pair<const char*, const char*> kUrls[] = {
      {"http://u:p@host/x?q=a@b", "http://host/x?q=a@b"},
      {"https://u:p@ss\\@host:8/", "https://host:8/"},
      {"http://host/a@b", "http://host/a@b"},
      {"u:p@host", "host"},
      {"http://u@h?x@y", "http://h?x@y"},
      {"", ""},
  };
  for (const auto& [url, shown] : kUrls) EXPECT_EQ(UrlWithoutCredentials(url), shown);
  EXPECT_EQ(UrlEncode("a-Z_0.~ &=%\xC3\n"), "a-Z_0.~%20%26%3D%25%C3%0A");
}

}  // namespace
