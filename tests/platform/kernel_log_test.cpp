// The kernel's log as a device root has it.
#include "lib/platform/kernel_log.h"

#include <cerrno>
#include <filesystem>
#include <thread>
#include <vector>

#include "lib/platform/errno_exception.h"
#include "tests/platform/test_support.h"

namespace {

using lattix::KernelLog;

class KernelLogTest : public testing::Test {
 protected:
  KernelLogTest() { root.Write(KernelLog::kPath, ""); }

  // The text of the next record; what else may happen in brackets.
  static std::string Next(KernelLog& log) {
    std::string record;
    switch (log.Read(&record)) {
      case KernelLog::Next::kNone: return "[none]";
      case KernelLog::Next::kLost: return "[lost]";
      case KernelLog::Next::kRecord: break;
    }
    EXPECT_TRUE(record.ends_with('\n'));
    record.pop_back();
    return record.substr(record.find(';') + 1);
  }

  const TemporaryRoot root;
};

TEST_F(KernelLogTest, GivesEveryReaderWhatAnybodyWrote) {
  const auto a = KernelLog::Open();
  const auto b = KernelLog::Open();
  EXPECT_EQ(Next(*a), "[none]");
  a->Write("one\n");
  b->Write("<3>two\ttabbed \xc3\xbc \\");
  root.Write("/dev/other", "");  // somebody else's file changes nothing
  std::ofstream(root.path() + KernelLog::kPath, std::ios::app) << "plain; text\nunfinished";
  const auto late = KernelLog::Open();
  for (KernelLog* log : {a.get(), b.get(), late.get()}) {
    EXPECT_EQ(Next(*log), "one");
    EXPECT_EQ(Next(*log), "two\\x09tabbed \\xc3\\xbc \\x5c");
    EXPECT_EQ(Next(*log), "plain; text");
    EXPECT_EQ(Next(*log), "[none]");
  }
  b->Write("three");
  EXPECT_EQ(Next(*a), "unfinished");
  EXPECT_EQ(Next(*a), "three");
  const std::string all = a->ReadAll();
  EXPECT_NE(all.find("] two\ttabbed \xc3\xbc \\\n<12>[    0.000000] plain; text\n<12>["), all.npos);
  EXPECT_TRUE(all.starts_with("<12>["));
  EXPECT_NE(all.find("\n<11>["), all.npos);
}

TEST_F(KernelLogTest, RefusesWhatTheKernelRefuses) {
  const auto log = KernelLog::Open();
  log->Write(std::string(992, 'x'));
  try {
    log->Write(std::string(993, 'x'));
    FAIL();
  } catch (const lattix::ErrnoException& e) {
    EXPECT_EQ(e.error(), EINVAL);
  }
  EXPECT_EQ(Next(*log), std::string(992, 'x'));
  EXPECT_EQ(Next(*log), "[none]");
}

TEST_F(KernelLogTest, TellsReadersThatFellBehind) {
  const auto writer = KernelLog::Open();
  const auto behind = KernelLog::Open();
  const auto close = KernelLog::Open();
  writer->Write("0");
  EXPECT_EQ(Next(*behind), "0");
  EXPECT_EQ(Next(*close), "0");
  // Enough for the log to shed its older half more than once.
  const std::string padding(900, '.');
  for (int i = 1; i <= 3000; i++) {
    writer->Write(std::to_string(i) + " " + padding);
    EXPECT_EQ(Next(*close), std::to_string(i) + " " + padding);
  }
  EXPECT_LE(std::filesystem::file_size(root.path() + KernelLog::kPath), 2u << 20);
  EXPECT_LE(writer->ReadAll().size(), KernelLog::kMaxAll);
  EXPECT_TRUE(writer->ReadAll().ends_with("] 3000 " + padding + "\n"));
  int read = 0, lost = 0;
  std::string last;
  for (std::string text; (text = Next(*behind)) != "[none]"; last = text) {
    (text == "[lost]" ? lost : read)++;
  }
  EXPECT_EQ(lost, 1);
  EXPECT_EQ(last, "3000 " + padding);
  EXPECT_LT(read, 3000);
}

TEST_F(KernelLogTest, BearsStrangersInTheFile) {
  const auto log = KernelLog::Open();
  log->Write("before");
  EXPECT_EQ(Next(*log), "before");
  root.Write(KernelLog::kPath, "hi\n");  // truncated, and shorter than before
  EXPECT_EQ(Next(*log), "hi");
  std::filesystem::remove(root.path() + KernelLog::kPath);
  EXPECT_EQ(Next(*log), "[none]");
  EXPECT_ANY_THROW(log->Write("nowhere"));
  root.Write(KernelLog::kPath, "12,7,x;y\n99999999999,1,1,-;z\n" + std::string(200'000, '\x01'));
  EXPECT_EQ(Next(*log), "12,7,x;y");
  EXPECT_EQ(Next(*log), "99999999999,1,1,-;z");
  EXPECT_EQ(Next(*log), "[none]");
  log->Write("after");
  const auto reader = KernelLog::Open();
  std::string text, last;
  while ((text = Next(*reader)) != "[none]") last = text;
  EXPECT_EQ(last, "after");
}

TEST_F(KernelLogTest, TakesRecordsFromManyThreads) {
  constexpr int kThreads = 4, kRecords = 50;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([t] {
      const auto log = KernelLog::Open();
      for (int i = 0; i < kRecords; i++) log->Write(std::to_string(t));
    });
  }
  for (std::thread& thread : threads) thread.join();
  const auto log = KernelLog::Open();
  std::string record;
  for (int i = 1; i <= kThreads * kRecords; i++) {
    ASSERT_EQ(log->Read(&record), KernelLog::Next::kRecord);
    ASSERT_TRUE(record.starts_with("12," + std::to_string(i) + ",")) << record;
  }
  EXPECT_EQ(log->Read(&record), KernelLog::Next::kNone);
}

}  // namespace
