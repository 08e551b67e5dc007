// What the platform costs a script's events, for bench/run:
//
//   events timers COUNT      nanoseconds to cancel a random one of COUNT timers and add it anew
//   events handover ROUNDS   median nanoseconds from a thread that posts an event to the thread
//   that
//                            waited for it: a message port, then a bare condition variable
//
// In a hand-over the waiting thread is asleep when the event comes. The two kinds take turns, so
// that what else the machine does falls on both.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "lib/platform/monotonic_time.h"
#include "lib/platform/poll_thread.h"
#include "lib/scripting/CommonAPI/Include/class_registry.h"
#include "lib/scripting/CommonAPI/Include/object_globals.h"
#include "lib/scripting/CommonAPI/Include/stream_events.h"
#include "lib/scripting/Plumscript/Source/publicapis.h"

namespace {

using Clock = std::chrono::steady_clock;

int64_t NowNs() { return Clock::now().time_since_epoch().count(); }

// --- Timers -----------------------------------------------------------------------------------

struct Client : TimerClient {
  void OnTimer(void*) {}
};

// Due in an hour at the earliest, so that none fires.
double TimerCost(size_t count) {
  constexpr size_t kOperations = 1'000'000;
  std::vector<Client> clients(count);
  std::mt19937_64 random(1);
  const int64_t first = lattix::get_monotonic_time() + 3'600'000'000'000;
  const auto random_due = [&] { return first + static_cast<int64_t>(random() >> 20); };
  std::vector<std::pair<uint32_t, int64_t>> operations(kOperations);
  for (auto& [client, due] : operations) {
    client = static_cast<uint32_t>(random() % count);
    due = random_due();
  }
  const auto poll_thread = std::make_unique<PollThread>();
  for (Client& client : clients) {
    poll_thread->AddTimer(&client, &Client::OnTimer, nullptr, random_due());
  }
  const int64_t start = NowNs();
  for (const auto& [client, due] : operations) {
    poll_thread->CancelTimer(&clients[client], &Client::OnTimer, nullptr);
    poll_thread->AddTimer(&clients[client], &Client::OnTimer, nullptr, due);
  }
  const double cost = static_cast<double>(NowNs() - start) / kOperations;
  for (Client& client : clients) {
    poll_thread->CancelTimer(&client, &Client::OnTimer, nullptr);
  }
  return cost;
}

// --- Hand-over --------------------------------------------------------------------------------

class SenderInstance final
    : public MixinForwarder<SenderInstance, KelvoObjectInstance<SenderInstance>, MessageSourceMixin,
                            UserDataMixin> {
 public:
  static pscClass sm_class;
};
constexpr psInterface kSenderInterfaces[] = {
    MessageSourceMixin::kInterface<SenderInstance>,
    UserDataMixin::kInterface<SenderInstance>,
};
constinit pscClass SenderInstance::sm_class =
    KelvoClass<SenderInstance>("koBenchSender", kSenderInterfaces);

// One thread sends when the other has had the time to fall asleep.
template <class Send, class Receive>
void HandOver(int rounds, Send send, Receive receive, std::vector<int64_t>* latencies) {
  std::atomic<int> waiting{0};
  std::atomic<int64_t> sent{0};
  std::thread sender([&] {
    for (int round = 1; round <= rounds; ++round) {
      while (waiting.load() < round) {
      }
      const int64_t asleep = NowNs() + 50'000;
      while (NowNs() < asleep) {
      }
      sent = NowNs();
      send();
    }
  });
  for (int round = 1; round <= rounds; ++round) {
    waiting = round;
    receive();
    latencies->push_back(NowNs() - sent);
  }
  sender.join();
}

int64_t Median(std::vector<int64_t> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<ptrdiff_t>(values.size() / 2),
                   values.end());
  return values[values.size() / 2];
}

void MeasureHandOver(int rounds) {
  const auto globals = std::make_unique<KelvoObjectGlobals>();
  scriptInit({});
  KelvoRegisterClasses();
  pscRegisterClass(&SenderInstance::sm_class);
  std::vector<int64_t> ours, bare;
  {
    const KelvoObjectRef port =
        GarbageCollectorLockedKelvoObjectRef(scriptDomain(), "koMessagePort");
    const KelvoObjectRef sender = KelvoNewObject<SenderInstance>(scriptDomain());
    SenderInstance& source = SenderInstance::FromHandle(sender.Get());
    source.SetPort(port.Get());
    source.SetUserData(port.Get());
    const auto* methods =
        static_cast<const psIfMessagePort*>(pscGetMethods(port.Get(), "ifMessagePort"));

    std::mutex mutex;
    std::condition_variable changed;
    bool raised = false;

    constexpr int kTurn = 100;
    for (int done = 0; done < rounds; done += kTurn) {
      HandOver(
          kTurn, [&] { source.PostMessage<StreamByteEventInstance>(source, 7); },
          [&] { pscSubRef(methods->WaitMessage(port.Get(), 0)); }, &ours);
      HandOver(
          kTurn,
          [&] {
            const std::lock_guard lock(mutex);
            raised = true;
            changed.notify_one();
          },
          [&] {
            std::unique_lock lock(mutex);
            changed.wait(lock, [&] { return raised; });
            raised = false;
          },
          &bare);
    }
  }
  std::printf("%lld %lld\n", static_cast<long long>(Median(ours)),
              static_cast<long long>(Median(bare)));
  scriptUninit();
}

}  // namespace

int main(int argc, char** argv) {
  const int n = argc == 3 ? std::atoi(argv[2]) : 0;
  if (n > 0 && std::strcmp(argv[1], "timers") == 0) {
    std::printf("%.1f\n", TimerCost(static_cast<size_t>(n)));
  } else if (n > 0 && std::strcmp(argv[1], "handover") == 0) {
    MeasureHandOver(n);
  } else {
    std::fputs("usage: bench_events timers COUNT | handover ROUNDS\n", stderr);
    return 64;
  }
  return 0;
}
