// The console as a stream for scripts.
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include "lib/platform/poll_thread.h"
#include "lib/scripting/CommonAPI/Include/stream_receive_mixin.h"

// Reads standard input on the poll thread while nobody edits lines on it: what is typed at the
// shell's or the debugger's prompt is theirs.
class ConsoleInstance final
    : public MixinForwarder<ConsoleInstance, KelvoObjectInstance<ConsoleInstance>, StreamSendMixin,
                            StreamReceiveMixin, UserDataMixin, FailureReasonMixin>,
      public Pollable {
 public:
  static pscClass sm_class;  // koConsole

  ~ConsoleInstance();
  bool Init();

  int GetFd() const override;
  void OnEvents(short revents) override;

 protected:
  void DoSend(std::string_view bytes) override;
  void DoFlush() override;

 private:
  PollableWaker m_look_again;
  uint64_t m_releases = 0;             // the listener; 0: not registered
  std::atomic<bool> m_failed = false;  // reading fails, so there is no point in waiting for input
};
