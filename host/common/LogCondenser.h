#pragma once

// Lines that repeat, told now and then: the first few of one text go out as they come, later ones as a line a minute
// that says how many there were. Texts are the same where they differ in numbers only. A text that goes on for an hour
// is told each ten minutes from then on, so that a night with a fault that lasts stays short.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace brvhost {

class LogCondenser {
 public:
  using Clock = std::chrono::steady_clock;
  using Tell = std::function<void(int level, std::string_view line)>;

  /// `tell` gets the lines, one at a time, on the thread that made them due; it must not call back.
  explicit LogCondenser(Tell tell) : _tell(std::move(tell)) {}
  ~LogCondenser() { finish(); }
  LogCondenser(const LogCondenser&) = delete;
  LogCondenser& operator=(const LogCondenser&) = delete;

  // Any thread. Where memory runs out, a line goes out as it is. Throws only what `tell` throws.

  /// A line of any level that is logged at `now`. A line end at its end is left out. What comes before the part that
  /// repeats, such as the time of day, may stand in `prefix`.
  void line(int level, std::string_view text, Clock::time_point now, std::string_view prefix = {});
  /// Tells what has become due without a line; to be called every now and then.
  void look(Clock::time_point now);
  /// Tells what has not been told yet. Never throws.
  void finish() noexcept;

 private:
  struct Repetition {
    int level = 0;                     ///< of the last
    std::string last;                  ///< with its prefix
    Clock::time_point told, lastLine;  ///< when it was told of last, and logged last
    int toldInFull = 0;
    int toldInSum = 0;
    std::int64_t waiting = 0;  ///< lines since `told`
  };

  void tellOf(Repetition& repetition, Clock::time_point now);
  void lookAtAll(Clock::time_point now);

  const Tell _tell;
  std::mutex _mutex;
  std::map<std::string, Repetition> _repetitions;  ///< by the text, with # for each number
};

}  // namespace brvhost
