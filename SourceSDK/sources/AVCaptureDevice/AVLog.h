#pragma once

// The capture side's log. Messages go to the host's callback, rate-limited for each call site: a site that fires in a
// burst sends its first messages through, then one summary line now and then, and is heard again in full after it has
// been quiet for more than five seconds. Any thread may log; no lock is held while the host's callback runs.

#include "BRV_AVCapture.h"

#include <cstdint>
#include <optional>

/// How often a call site has logged in its current burst. Guarded by the log's lock.
class AV_LogCount {
 public:
  /// Counts one call and returns how many came before it in the burst. More than five seconds of quiet begin a new one.
  std::int32_t logCount();

  void setLogCount(std::int32_t count) { _logCount = count; }

 private:
  std::int32_t _logCount = 0;
  /// Time of the previous count on the monotonic clock, in nanoseconds. Empty before the first count.
  std::optional<std::int64_t> _lastLogTime;
};

namespace AV {

/// What the host is told of a message's weight.
enum LogLevel : std::int32_t { LevelBanner = 2, LevelRefusal = 3, LevelOther = 4 };

/// Installs the host's log callback; with a null `context` removes it. Either way every call site starts from zero. A
/// call site that logs without a pause sends `minimumCount` messages, then one summary line at every
/// `maximumCount` - `minimumCount` + 2 calls. After the return the former callback is not running, unless on
/// this very thread, and will not be called. Without memory there is no log.
void setLog(BRV_LogCallback callback, void* context, std::int32_t maximumCount, std::int32_t minimumCount) noexcept;

/// Logs a printf-style message of the call site at `file`:`line`. Text beyond 511 bytes is cut off between two
/// characters.
[[gnu::format(printf, 4, 5)]] void _aux_log(std::int32_t level, std::int32_t line, const char* file, const char* format,
                                            ...);

}  // namespace AV

/// Logs from the place where it stands. It passes the name without its directories, which is quicker to compare.
#define AV_LOG(level, ...) ::AV::_aux_log((level), __LINE__, __FILE_NAME__, __VA_ARGS__)
