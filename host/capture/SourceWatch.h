#pragma once

// Captures from a source without keeping anything, to say when something is wrong with what it sends. Main thread.

#include <brv.hpp>

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "capture/MediumWatch.h"
#include "capture/SignalWatch.h"
#include "capture/Sources.h"

namespace brvhost {

class SourceWatch {
 public:
  using Clock = MediumWatch::Clock;

  /// Starts the source, and goes on as long as this exists. Throws brv::Error.
  explicit SourceWatch(const brv::Source& source);
  SourceWatch(const SourceWatch&) = delete;
  SourceWatch& operator=(const SourceWatch&) = delete;

  const brv::Source& source() const { return _source; }

  /// What has begun or ended: a stop, silence, a black or frozen picture, losses. At most one line a minute; what comes
  /// in between waits for the next.
  std::optional<std::string> takeNews(Clock::time_point now);

  /// All of it in a line: what came, what was lost, how often there was news.
  std::string summary() const;

 private:
  void watch(const char* name, std::int64_t SourceWatch::*count);
  std::int64_t drops() const;
  void noteDrops();

  const brv::Source _source;
  mutable std::mutex _mutex;  ///< guards what the capture queues write
  SignalWatch _signal;
  std::int64_t _pictures = 0;
  std::int64_t _soundRuns = 0;
  std::vector<MediumWatch> _media;
  Drops _videoBefore, _audioBefore;  ///< before this began
  std::int64_t _drops = 0;           ///< that were told of, of both media
  std::vector<std::string> _waiting;
  std::optional<Clock::time_point> _lastTold;
  std::size_t _newsCount = 0;
  brv::Subscription _running;  ///< the last member: ends before what its handlers use goes
};

}  // namespace brvhost
