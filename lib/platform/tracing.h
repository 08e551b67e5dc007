// Track events: what the process did when, for a trace viewer.
//
// Off unless the environment variable ORVEX_TRACE or the registry key "tracing" / "file" names a
// file (a device path). Then every event is written there as a Chrome trace event (the "Trace Event
// Format", JSON array form, times in microseconds of the monotonic clock), which the usual trace
// viewers open. An event that is off costs one relaxed load.
//
// Events may come from any thread. Names are string literals. Events are collected and written in
// blocks: the last ones of a process that does not end in order may be missing. A trace that has
// reached 256 MiB, or that cannot be written, ends there.
#pragma once

#include <atomic>
#include <cstdint>

namespace tracing {

// Parts of the player, by which a viewer filters.
enum class Category { kStartup, kScript, kNetwork, kMedia };

// Begin and end of tracing in this process: called once each, by whoever starts it.
void Start();
void Stop();

inline std::atomic<bool> g_enabled{false};
inline bool IsEnabled() { return g_enabled.load(std::memory_order_relaxed); }

// Something that happened now.
void Instant(Category category, const char* name);
// Something that took from `begin` (monotonic nanoseconds) until now, on this thread.
void Complete(Category category, const char* name, int64_t begin);
int64_t Now();

// The time that a scope takes.
class Span {
 public:
  Span(Category category, const char* name)
      : m_category(category), m_name(name), m_begin(IsEnabled() ? Now() : 0) {}
  ~Span() {
    if (m_begin != 0) Complete(m_category, m_name, m_begin);
  }
  Span(const Span&) = delete;
  Span& operator=(const Span&) = delete;

 private:
  const Category m_category;
  const char* const m_name;
  const int64_t m_begin;
};

}  // namespace tracing
