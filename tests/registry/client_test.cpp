// What every registry client promises, held against both: the one that opens the store itself, and
// the one that asks a real service on a bus of the test's own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "lib/platform/registry_bus/registry_client_impl.h"
#include "lib/platform/registry_client.h"
#include "lib/platform/registry_document.h"
#include "lib/platform/registry_store.h"
#include "tests/registry/registry_support.h"

namespace {

using std::string_literals::operator""s;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr size_t kMiB = 1u << 20;

enum class Kind { kStore, kBus };

class RegistryClientTest : public testing::TestWithParam<Kind> {
 protected:
  RegistryClientTest() {
    if (GetParam() == Kind::kStore) {
      m_client = std::make_unique<RegistryUnprivilegedClientImpl>();
    } else {
      m_bus = std::make_unique<PrivateBus>(PrivateBus::Service::kStartable);
      m_client = std::make_unique<RegistryClientImpl>();
    }
  }
  RegistryClient& Client() { return *m_client; }

 private:
  TemporaryRoot m_root;
  std::unique_ptr<PrivateBus> m_bus;
  std::unique_ptr<RegistryClient> m_client;
};

INSTANTIATE_TEST_SUITE_P(Clients, RegistryClientTest, testing::Values(Kind::kStore, Kind::kBus),
                         [](const auto& kind) {
                           return kind.param == Kind::kStore ? "Store" : "Bus";
                         });

// The text of the registry's exception that a call throws, "" when it throws none.
std::string Failure(const std::function<void()>& call) {
  try {
    call();
    return {};
  } catch (const Registry::Error& e) {
    return e.what();
  }
}

TEST_P(RegistryClientTest, ReadsWhatWasWritten) {
  RegistryClient& client = Client();
  EXPECT_EQ("", client.Read("networking", "curl_debug"));
  EXPECT_FALSE(client.KeyExists("networking", "curl_debug"));
  EXPECT_FALSE(client.SectionExists("networking"));

  client.Write("networking", "curl_debug", "1");
  client.Write("networking", "Curl_debug", "\"quoted\" \\ \n\t\x01 \xc3\xa4\xf0\x9f\x98\x80");
  client.Write("networking", "empty", "");
  client.Write(".ps", "tz", "PST");
  EXPECT_EQ("1", client.Read("networking", "curl_debug"));
  EXPECT_EQ("\"quoted\" \\ \n\t\x01 \xc3\xa4\xf0\x9f\x98\x80",
            client.Read("networking", "Curl_debug"));
  EXPECT_EQ("", client.Read("networking", "empty"));
  EXPECT_TRUE(client.KeyExists("networking", "empty"));
  EXPECT_TRUE(client.SectionExists(".ps"));
  EXPECT_FALSE(client.SectionExists("Networking"));
  EXPECT_THAT(client.SectionList(), ElementsAre(".ps", "networking"));
  EXPECT_THAT(client.KeyList("networking"), ElementsAre("Curl_debug", "curl_debug", "empty"));
  EXPECT_THAT(client.KeyList("other"), IsEmpty());

  client.Write("networking", "curl_debug", "2");
  client.Flush();
  EXPECT_EQ("2", client.Read("networking", "curl_debug"));
}

TEST_P(RegistryClientTest, DeletesAndToleratesWhatIsNotThere) {
  RegistryClient& client = Client();
  client.DeleteKey("a", "1");
  client.DeleteSection("a");
  client.DeleteAll();
  client.WriteJson(R"({"a":{"1":"x","2":"y"},"b":{"1":"z"},"c":{"1":"z"}})");

  client.DeleteKey("a", "1");
  client.DeleteKey("a", "3");
  EXPECT_THAT(client.KeyList("a"), ElementsAre("2"));
  // A section goes with its last key.
  client.DeleteKey("a", "2");
  client.DeleteSection("b");
  EXPECT_THAT(client.SectionList(), ElementsAre("c"));
  client.DeleteAll();
  EXPECT_EQ("{}", client.ReadAllJson());
}

TEST_P(RegistryClientTest, EveryOperationRefusesInvalidNames) {
  RegistryClient& client = Client();
  const std::string longest_in_two_byte_characters = [] {
    std::string name = "x";
    while (name.size() < 255) name += "\xc3\xa4";
    return name;
  }();
  const struct {
    std::string name;
    std::string failure;
  } kCases[] = {
      {"", "InvalidName"},
      {std::string(255, 'n'), ""},
      {std::string(256, 'n'), "InvalidName"},
      {longest_in_two_byte_characters, ""},
      {longest_in_two_byte_characters + "y", "InvalidName"},
      {"new\nline", "InvalidName"},
      {"nul\0"s, "InvalidName"},
      {"delete\x7f", "InvalidName"},
      {"next line \xc2\x85", "InvalidName"},
      {"blank \xc2\xa0", ""},
      {"\xff", "Input data not valid UTF-8"},
  };
  for (const auto& [name, failure] : kCases) {
    SCOPED_TRACE(testing::PrintToString(name));
    EXPECT_EQ(failure, Failure([&] { client.Write(name, "key", "1"); }));
    EXPECT_EQ(failure, Failure([&] { client.Write("section", name, "1"); }));
    EXPECT_EQ(failure, Failure([&] { client.Read(name, "key"); }));
    EXPECT_EQ(failure, Failure([&] { client.Read("section", name); }));
    EXPECT_EQ(failure, Failure([&] { client.KeyExists(name, "key"); }));
    EXPECT_EQ(failure, Failure([&] { client.KeyExists("section", name); }));
    EXPECT_EQ(failure, Failure([&] { client.SectionExists(name); }));
    EXPECT_EQ(failure, Failure([&] { client.KeyList(name); }));
    EXPECT_EQ(failure, Failure([&] { client.DeleteKey(name, "key"); }));
    EXPECT_EQ(failure, Failure([&] { client.DeleteKey("section", name); }));
    EXPECT_EQ(failure, Failure([&] { client.DeleteSection(name); }));
  }
  EXPECT_THROW(client.Read("", "key"), Registry::InvalidName);
  EXPECT_THROW(client.Read("\xff", "key"), Registry::InvalidEncoding);
}

TEST_P(RegistryClientTest, RefusedValuesLeaveTheOldOne) {
  RegistryClient& client = Client();
  const std::string longest(kMiB, 'v');
  client.Write("section", "key", longest);
  for (const std::string& bad :
       {"cut \xc3"s, "stray \x80"s, "overlong \xc0\xaf"s, "overlong \xe0\x80\xaf"s,
        "surrogate \xed\xa0\x80"s, "beyond \xf4\x90\x80\x80"s, "nul \0"s,
        "noncharacter \xef\xbf\xbf"s, "noncharacter \xef\xb7\x90"s}) {
    EXPECT_THROW(client.Write("section", "key", bad), Registry::InvalidEncoding) << bad;
  }
  EXPECT_EQ("Registry full", Failure([&] { client.Write("section", "key", longest + "v"); }));
  EXPECT_EQ(longest, client.Read("section", "key"));
}

TEST_P(RegistryClientTest, AFullRegistryKeepsWhatWasThere) {
  RegistryClient& client = Client();
  // With eight of them the names and the punctuation are too much.
  for (int i = 0; i < 7; ++i) {
    client.Write("section", "key" + std::to_string(i), std::string(kMiB, 'a' + i));
  }
  const std::string before = client.ReadAllJson();
  const std::string last(kMiB, 'h');
  EXPECT_EQ("Registry full", Failure([&] { client.Write("section", "key7", last); }));
  EXPECT_THROW(client.WriteJson(R"({"a":{"b":"c"},"section":{"key7":")" + last + R"("}})"),
               Registry::Full);
  EXPECT_EQ(before, client.ReadAllJson());

  client.Write("section", "small", "still fits");
  client.DeleteKey("section", "key3");
  client.Write("section", "key7", last);
  EXPECT_EQ(last, client.Read("section", "key7"));
  EXPECT_EQ(std::string(kMiB, 'g'), client.Read("section", "key6"));
}

TEST_P(RegistryClientTest, AJsonDocumentIsWrittenWholeOrNotAtAll) {
  RegistryClient& client = Client();
  client.Write("kept", "key", "old");
  client.WriteJson(
      " {\"kept\": {\"more\": \"\\u00e4\\/\"}, \"empty\": {},\n \"new\": {\"k\": \"v\"}}");
  constexpr char kAll[] =
      "{\"kept\":{\"key\":\"old\",\"more\":\"\xc3\xa4/\"},\"new\":{\"k\":\"v\"}}";
  EXPECT_EQ(kAll, client.ReadAllJson());

  for (const char* other_shape :
       {"[]", "null", "\"text\"", "{\"new\":1}", "{\"new\":[]}", "{\"new\":{\"k\":1}}",
        "{\"new\":{\"k\":null}}", "{\"new\":{\"k\":{}}}", "{\"new\":\"k\"}"}) {
    EXPECT_EQ("Invalid JSON", Failure([&] { client.WriteJson(other_shape); })) << other_shape;
  }
  for (const char* no_json : {"", "{", "{\"new\":{\"k\":\"w\"}", "{} {}", "{\"new\":{k:\"w\"}}",
                              "{\"new\":{\"k\":\"\xff\"}}", "{\"new\":{\"k\":\"\\ud800\"}}"}) {
    EXPECT_THAT(Failure([&] { client.WriteJson(no_json); }),
                testing::StartsWith("Invalid JSON format:[json.exception.parse_error."))
        << no_json;
  }
  EXPECT_THROW(client.WriteJson(R"({"new":{"k":"w","":"w"}})"), Registry::InvalidName);
  EXPECT_THROW(client.WriteJson(R"({"new":{"k":"w","z":"\u0000"}})"), Registry::InvalidEncoding);
  EXPECT_EQ(kAll, client.ReadAllJson());
}

TEST_P(RegistryClientTest, ServesSeveralThreads) {
  RegistryClient& client = Client();
  std::vector<std::thread> threads;
  for (const char* name : {"one", "two", "three", "four"}) {
    threads.emplace_back([&client, name] {
      for (int n = 0; n < 10; ++n) {
        client.Write("section", name, std::to_string(n));
        EXPECT_EQ(std::to_string(n), client.Read("section", name));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(client.KeyList("section"), ElementsAre("four", "one", "three", "two"));
}

TEST_P(RegistryClientTest, HostileDocumentsAreRefusedCheaply) {
  RegistryClient& client = Client();
  EXPECT_THROW(client.WriteJson(std::string(4 * kMiB, '[')), Registry::InvalidJson);
  std::string nested;
  while (nested.size() < kMiB) nested += "{\"a\":";
  EXPECT_THROW(client.WriteJson(nested), Registry::InvalidJson);
  EXPECT_THROW(client.WriteJson(std::string(Registry::kMaxDocumentSize + 1, ' ')), Registry::Full);
  // The text of the failure does not grow with the document.
  EXPECT_LT(Failure([&] { client.WriteJson("{\"" + std::string(kMiB, 'x')); }).size(), 1000u);
}

}  // namespace
