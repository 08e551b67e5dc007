// The events that streams of any kind post.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "lib/scripting/CommonAPI/Include/interface_mixins.h"

// Events that carry a number: a received byte, the end of a stream (0), and how a connection
// attempt ended (0, or the error number).
template <class T>
class StreamIntEventInstance
    : public MixinForwarder<T, KelvoObjectInstance<T>, IntValueMixin, UserDataMixin> {
 public:
  StreamIntEventInstance() = default;
  explicit StreamIntEventInstance(int32_t value) { this->SetInt(value); }
};

class StreamByteEventInstance final : public StreamIntEventInstance<StreamByteEventInstance> {
 public:
  static pscClass sm_class;  // koStreamByteEvent
  using StreamIntEventInstance::StreamIntEventInstance;
};
class StreamEndEventInstance final : public StreamIntEventInstance<StreamEndEventInstance> {
 public:
  static pscClass sm_class;  // koStreamEndEvent
  using StreamIntEventInstance::StreamIntEventInstance;
};
class StreamConnectResultEventInstance final
    : public StreamIntEventInstance<StreamConnectResultEventInstance> {
 public:
  static pscClass sm_class;  // koStreamConnectResultEvent
  using StreamIntEventInstance::StreamIntEventInstance;
};

// A received line, without what ended it.
class StreamLineEventInstance final
    : public MixinForwarder<StreamLineEventInstance, KelvoObjectInstance<StreamLineEventInstance>,
                            StringValueMixin, UserDataMixin> {
 public:
  static pscClass sm_class;  // koStreamLineEvent
  StreamLineEventInstance() = default;
  explicit StreamLineEventInstance(std::string_view line) { SetString(line); }
};

// A received block.
class StreamByteArrayEventInstance final
    : public MixinForwarder<StreamByteArrayEventInstance,
                            KelvoObjectInstance<StreamByteArrayEventInstance>, UserDataMixin> {
 public:
  static pscClass sm_class;  // koStreamByteArrayEvent
  StreamByteArrayEventInstance() = default;
  explicit StreamByteArrayEventInstance(std::span<const uint8_t> bytes)
      : m_bytes(bytes.begin(), bytes.end()) {}

  KelvoObjectRef GetByteArray();  // a new koByteArray

 private:
  std::vector<uint8_t, KelvoAllocator<uint8_t>> m_bytes;
};
