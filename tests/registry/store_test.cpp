// The store's file: its form, what happens when it is broken, and that neither threads nor
// processes nor a process's sudden end lose or mix up what was written.
#include "lib/platform/registry_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "lib/platform/errno_exception.h"
#include "lib/platform/unique_fd.h"
#include "tests/platform/test_support.h"

namespace {

using testing::HasSubstr;

constexpr char kPath[] = "/var/lib/orvex/registry.json";
constexpr char kAside[] = "/var/lib/orvex/registry.json.corrupt";
constexpr char kCorruptLine[] =
    "Registry file /var/lib/orvex/registry.json is corrupt: kept as "
    "/var/lib/orvex/registry.json.corrupt, a fresh one is started\n";

TEST(RegistryStore, TheFileIsTheDocumentAndPrivate) {
  const TemporaryRoot root;
  RegistryStore().Write("networking", "pass\"word", "secret");
  EXPECT_EQ("{\"networking\":{\"pass\\\"word\":\"secret\"}}\n", root.Read(kPath));
  struct stat status;
  ASSERT_EQ(0, stat((root.path() + kPath).c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 07777);
  EXPECT_FALSE(std::filesystem::exists(root.path() + kPath + ".new"));
}

TEST(RegistryStore, ReadingANewDeviceLeavesNoFiles) {
  const TemporaryRoot root;
  RegistryStore store;
  EXPECT_EQ("{}", store.ReadAllJson());
  store.Flush();
  EXPECT_TRUE(std::filesystem::is_empty(root.path()));
}

TEST(RegistryStore, ACorruptFileIsKeptAsideOnce) {
  for (const std::string& content :
       {std::string(), std::string("{\"a\":{\"b\":\"c\""), std::string("[]\n"),
        std::string("{\"a\":{\"\":\"c\"}}"), std::string("{\"a\":{\"b\":\"\xff\"}}"),
        std::string(4096, '\0'), std::string(Registry::kMaxDocumentSize + 1, ' ')}) {
    const TemporaryRoot root;
    root.Write(kPath, content);
    RegistryStore reader;
    RegistryStore writer;
    testing::internal::CaptureStderr();
    EXPECT_EQ("", reader.Read("a", "b"));
    writer.Write("a", "b", "new");
    EXPECT_EQ("new", reader.Read("a", "b"));
    EXPECT_EQ(kCorruptLine, testing::internal::GetCapturedStderr());
    EXPECT_TRUE(content == root.Read(kAside)) << content.substr(0, 100);
  }
}

TEST(RegistryStore, AWriteToACorruptFileStartsAfresh) {
  const TemporaryRoot root;
  std::filesystem::create_directories(root.path() + kPath);
  testing::internal::CaptureStderr();
  RegistryStore().Write("a", "b", "c");
  EXPECT_EQ(kCorruptLine, testing::internal::GetCapturedStderr());
  EXPECT_EQ("{\"a\":{\"b\":\"c\"}}\n", root.Read(kPath));
}

TEST(RegistryStore, ACorruptFileThatCannotBeMovedReadsAsEmptyAndIsNotOverwritten) {
  const TemporaryRoot root;
  root.Write(kPath, "{");
  root.Write(std::string(kAside) + "/occupied", "");
  RegistryStore store;
  testing::internal::CaptureStderr();
  EXPECT_EQ("", store.Read("a", "b"));
  EXPECT_FALSE(store.KeyExists("a", "b"));
  EXPECT_EQ(
      "Registry file /var/lib/orvex/registry.json is corrupt and cannot be kept aside: Is a "
      "directory\n",
      testing::internal::GetCapturedStderr());
  EXPECT_THROW(store.Write("a", "b", "c"), lattix::ErrnoException);
  EXPECT_EQ("{", root.Read(kPath));
  // Somebody repairs it.
  root.Write(kPath, "{\"a\":{\"b\":\"c\"}}");
  EXPECT_EQ("c", store.Read("a", "b"));
}

TEST(RegistryStore, SeesEveryOtherWriterAtOnce) {
  const TemporaryRoot root;
  RegistryStore one;
  RegistryStore two;
  // Of one size all of them, and in files whose inode numbers come back.
  for (char value = 'a'; value <= 'z'; ++value) {
    (value % 2 != 0 ? one : two).Write("section", "key", std::string(1, value));
    EXPECT_EQ(std::string(1, value), one.Read("section", "key"));
    EXPECT_EQ(std::string(1, value), two.Read("section", "key"));
  }
  root.Write(kPath, "{\"section\": {\"key\": \"edited by hand\"}}");
  EXPECT_EQ("edited by hand", one.Read("section", "key"));
  std::filesystem::remove(root.path() + kPath);
  EXPECT_FALSE(one.SectionExists("section"));
}

TEST(RegistryStore, ATooLargeFileCanBeReadAndShrunkButNotGrow) {
  const TemporaryRoot root;
  std::string document = "{\"s\":{";
  for (int i = 0; i < 9; ++i) {
    document += "\"" + std::to_string(i) + "\":\"" + std::string(1u << 20, 'x') + "\",";
  }
  root.Write(kPath, document + "\"last\":\"one\"}}");
  RegistryStore store;
  EXPECT_EQ("one", store.Read("s", "last"));
  EXPECT_THROW(store.Write("s", "more", ""), Registry::Full);
  store.DeleteKey("s", "0");
  EXPECT_THROW(store.Write("s", "more", ""), Registry::Full);
  store.DeleteKey("s", "1");
  store.Write("s", "more", "");
  EXPECT_EQ("one", store.Read("s", "last"));
}

TEST(RegistryStore, AFailedWriteChangesNothing) {
  const TemporaryRoot root;
  RegistryStore store;
  store.Write("a", "b", "old");
  root.Write(std::string(kPath) + ".new/occupied", "");
  try {
    store.Write("a", "b", "new");
    FAIL() << "wrote over a folder";
  } catch (const lattix::ErrnoException& e) {
    EXPECT_EQ(kPath, e.context());
  }
  EXPECT_EQ("old", store.Read("a", "b"));
  std::filesystem::remove_all(root.path() + kPath + ".new");
  store.Write("a", "b", "new");
  EXPECT_EQ("new", store.Read("a", "b"));
}

TEST(RegistryStore, ThreadsAndStoresLoseNothing) {
  const TemporaryRoot root;
  RegistryStore shared;
  constexpr int kThreads = 4;
  constexpr int kWrites = 25;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&shared, i] {
      RegistryStore own;
      RegistryStore& store = i % 2 == 0 ? shared : own;
      for (int n = 0; n < kWrites; ++n) {
        store.Write("section", std::to_string(i) + "-" + std::to_string(n), "x");
        EXPECT_TRUE(shared.KeyExists("section", std::to_string(i) + "-" + std::to_string(n)));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(static_cast<size_t>(kThreads * kWrites), RegistryStore().KeyList("section").size());
}

// Runs the function in a process of its own, without what the test program does at its end.
template <typename Function>
pid_t StartChild(Function function) {
  const pid_t child = fork();
  if (child == 0) {
    function();
    _exit(0);
  }
  return child;
}

bool EndsWell(pid_t child) {
  int status;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(RegistryStore, ProcessesLoseNothing) {
  const TemporaryRoot root;
  constexpr int kWrites = 40;
  std::vector<pid_t> children;
  for (const char* name : {"one", "two", "three"}) {
    children.push_back(StartChild([name] {
      RegistryStore store;
      for (int n = 0; n < kWrites; ++n) {
        const std::string key = std::to_string(n);
        store.Write(name, key, key);
        store.Write("shared", name + key, key);
        if (n % 2 != 0) store.DeleteKey("shared", name + std::to_string(n - 1));
      }
    }));
  }
  for (const pid_t child : children) EXPECT_TRUE(EndsWell(child));
  RegistryStore store;
  for (const char* name : {"one", "two", "three"}) {
    EXPECT_EQ(static_cast<size_t>(kWrites), store.KeyList(name).size());
  }
  EXPECT_EQ(static_cast<size_t>(3 * kWrites / 2), store.KeyList("shared").size());
}

// Writes the numbers from `first` on, each in two keys at once, and reports each one that the store
// has taken.
[[noreturn]] void WriteNumbers(uint32_t first, int reports) {
  RegistryStore store;
  for (uint32_t n = first;; ++n) {
    const std::string number = std::to_string(n);
    // Of changing length, so that a write takes one system call as well as many.
    store.WriteJson("{\"count\":{\"a\":\"" + number + "\",\"b\":\"" + number + "\",\"filling\":\"" +
                    std::string((n % 5) * 50'000, 'f') + "\"}}");
    if (write(reports, &n, sizeof n) != sizeof n) _exit(1);
  }
}

// How often a writer is killed; tools/registry-kill-test asks for more.
int Kills() {
  const char* number = std::getenv("ORVEX_REGISTRY_KILLS");
  return number != nullptr ? std::max(1, std::atoi(number)) : 50;
}

TEST(RegistryStore, AKilledWriterLeavesTheOldStateOrTheNew) {
  const TemporaryRoot root;
  RegistryStore store;
  store.Write("kept", "key", "value");
  std::mt19937 random(std::random_device{}());
  std::uniform_int_distribution<int> delay_us(0, 20'000);
  uint32_t stored = 0;
  for (int i = 0; i < Kills(); ++i) {
    int pipe_fds[2];
    ASSERT_EQ(0, pipe(pipe_fds));
    const lattix::UniqueFd reports(pipe_fds[0]);
    const pid_t child = StartChild([&] { WriteNumbers(stored + 1, pipe_fds[1]); });
    close(pipe_fds[1]);

    uint32_t reported = 0;
    ASSERT_EQ(ssize_t{sizeof reported}, read(reports.Get(), &reported, sizeof reported));
    const int delay = delay_us(random);
    SCOPED_TRACE(testing::Message() << "kill " << i << " after " << delay << " us");
    usleep(static_cast<useconds_t>(delay));
    ASSERT_EQ(0, kill(child, SIGKILL));
    int status;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFSIGNALED(status));
    for (uint32_t n; read(reports.Get(), &n, sizeof n) == ssize_t{sizeof n};) reported = n;

    stored = static_cast<uint32_t>(std::stoul(store.Read("count", "a")));
    EXPECT_TRUE(stored == reported || stored == reported + 1) << stored << " of " << reported;
    EXPECT_EQ(std::to_string(stored), store.Read("count", "b"));
    EXPECT_EQ((stored % 5) * 50'000, store.Read("count", "filling").size());
    EXPECT_EQ("value", RegistryStore().Read("kept", "key"));
    ASSERT_FALSE(std::filesystem::exists(root.path() + kAside));
  }
  // What a killed writer left beside the file is in nobody's way.
  store.Write("kept", "key", "written again");
  EXPECT_FALSE(std::filesystem::exists(root.path() + kPath + ".new"));
}

}  // namespace
