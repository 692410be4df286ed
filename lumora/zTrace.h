#pragma once

// The host's trace: short notes for the people who look after the machine. Any thread may trace.

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>

class zTrace {
 public:
  /// Receives one note, NUL-terminated UTF-8 as it was traced, valid during the call. Called on the tracing thread, one
  /// call at a time, so it must not wait for another thread that may trace. Notes that it traces itself go to the
  /// standard error stream. What it throws is swallowed.
  using Sink = std::function<void(const char* note)>;

  /// Longest note in bytes, without terminator.
  static constexpr std::size_t MaximumNoteLength = 1023;

  zTrace() = default;
  zTrace(const zTrace&) = delete;
  zTrace& operator=(const zTrace&) = delete;

  /// The process's trace. It is never destroyed: threads may trace until the process ends. Made at the
  /// first call, which throws std::bad_alloc when there is no memory for it.
  static zTrace& Default();

  /// Traces a note formatted as by printf. What exceeds `MaximumNoteLength` is cut off between two code points.
  void TraceNote(const char* format, ...) noexcept __attribute__((format(printf, 2, 3)));

  /// Sends notes to `sink`; an empty one sends them to standard error, a line each, as at first. On return
  /// no other thread is in the sink that was there before.
  void SetSink(Sink sink);

 private:
  void Deliver(const char* note) noexcept;

  std::recursive_mutex _lock;  // Recursive for the sake of sinks that trace.
  std::shared_ptr<const Sink> _sink;
  bool _delivering = false;
};
