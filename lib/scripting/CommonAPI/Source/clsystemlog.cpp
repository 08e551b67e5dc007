// koSystemLog: lines into the kernel's log, marked as a script's, and the log's lines back.
//
// Bytes gather in the pending line, which always begins with the mark; whatever is sent, a control
// byte never gets into the log.
#include <algorithm>

#include "lib/scripting/CommonAPI/Include/device_objects.h"
#include "lib/scripting/CommonAPI/Include/ko_container.h"

namespace {

constexpr std::string_view kMark = "+ ";

}  // namespace

bool SystemLogInstance::Init() {
  m_log = lattix::KernelLog::Open();
  m_pending = kMark;
  return true;
}

// --- Writing ----------------------------------------------------------------------------------

void SystemLogInstance::SendLine(psText line) {
  DoSend(line);
  DoSend("\n");
}

void SystemLogInstance::DoSend(std::string_view bytes) {
  for (const char c : bytes) {
    if (c == '\n') {
      m_pending += c;
      WritePending();
    } else if (static_cast<uint8_t>(c) > 31) {
      m_pending += c;
    }
  }
}

void SystemLogInstance::DoFlush() {
  if (m_pending.size() > kMark.size()) WritePending();
}

// A line that the log refuses is gone; the next one is not to be refused with it.
void SystemLogInstance::WritePending() {
  const KelvoText line = std::exchange(m_pending, KelvoText(kMark));
  m_log->Write(line);
}

// --- Reading ----------------------------------------------------------------------------------

KelvoObjectRef SystemLogInstance::ReadLog() {
  const std::string log = m_log->ReadAll();
  KelvoArrayCreator lines(GetDomain());
  for (std::string_view rest = log; !rest.empty();) {
    // The priorities of the kernel's own messages have one digit.
    if (rest.size() > 3 && rest[0] == '<' && rest[1] >= '0' && rest[1] <= '9' && rest[2] == '>') {
      rest.remove_prefix(3);
    }
    const std::string_view line = rest.substr(0, rest.find('\n'));
    lines.Add(line);
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
  }
  return lines.Take();
}

KelvoObjectRef SystemLogInstance::ReadNextLine() {
  std::string record;
  for (;;) {
    switch (m_log->Read(&record)) {
      case lattix::KernelLog::Next::kNone: return {};
      case lattix::KernelLog::Next::kLost:
        return KelvoNewString(GetDomain(), "Log messages lost due to buffer overflow");
      case lattix::KernelLog::Next::kRecord: break;
    }
    // Properties of the record follow its text, a line each.
    const std::string_view line = std::string_view(record).substr(0, record.find('\n'));
    const size_t header = line.find(';');
    if (header != line.npos) return KelvoNewString(GetDomain(), line.substr(header + 1));
  }
}

namespace {

constexpr fundes kSendFunctions[] = {
    koMethod<&StreamSendMixin::SendByte, SystemLogInstance>("SendByte"),
    koMethod<&SystemLogInstance::SendLine>("SendLine"),
    koMethod<&StreamSendMixin::SendBlock, SystemLogInstance>("SendBlock"),
    koMethod<&SystemLogInstance::SetSendEol>("SetSendEol"),
    koMethod<&StreamSendMixin::Flush, SystemLogInstance>("Flush"),
    {},
};
constexpr fundes kSystemLogFunctions[] = {
    koMethod<&SystemLogInstance::ReadLog>("ReadLog"),
    koMethod<&SystemLogInstance::ReadNextLine>("ReadNextLine"),
    {},
};
constexpr psInterface kSystemLogInterfaces[] = {
    {StreamSendMixin::kInterfaceName.data(), kSendFunctions},
    FailureReasonMixin::kInterface<SystemLogInstance>,
    {"ifSystemLog", kSystemLogFunctions},
};

}  // namespace

constinit pscClass SystemLogInstance::sm_class =
    KelvoClass<SystemLogInstance>("koSystemLog", kSystemLogInterfaces);
