#include "common/LogCondenser.h"

#include <algorithm>
#include <exception>
#include <new>

#include "common/Failure.h"

namespace brvhost {

namespace {

using namespace std::chrono_literals;

constexpr int MostInFull = 12;  // as many devices are listed, one named like the other
constexpr int MostEachMinute = 60;
constexpr auto Forgotten = 30min;  ///< after so long without it, a text is a new one
constexpr std::size_t MostTexts = 256;

/// With # for each number. What digits begin may be hexadecimal.
std::string withoutNumbers(std::string_view text) {
  constexpr std::string_view Digits = "0123456789", More = "0123456789abcdefABCDEFx";
  std::string shape;
  while (!text.empty()) {
    const std::size_t number = std::min(text.find_first_of(Digits), text.size());
    shape += text.substr(0, number);
    text.remove_prefix(number);
    if (text.empty()) break;
    shape += '#';
    text.remove_prefix(std::min(text.find_first_not_of(text.starts_with("0x") ? More : Digits), text.size()));
  }
  return shape;
}

}  // namespace

void LogCondenser::line(int level, std::string_view text, Clock::time_point now, std::string_view prefix) {
  text = text.substr(0, text.find_last_not_of("\r\n") + 1);
  try {
    const std::lock_guard lock(_mutex);
    lookAtAll(now);
    if (_repetitions.size() >= MostTexts) {
      const auto oldest =
          std::ranges::min_element(_repetitions, {}, [](const auto& entry) { return entry.second.lastLine; });
      tellOf(oldest->second, now);
      _repetitions.erase(oldest);
    }
    const std::string whole = std::string(prefix).append(text);
    Repetition& repetition = _repetitions[withoutNumbers(text)];
    repetition.lastLine = now;
    repetition.level = level;
    if (repetition.toldInFull < MostInFull) {
      ++repetition.toldInFull;
      repetition.told = now;
      _tell(level, whole);
    } else {
      ++repetition.waiting;
      repetition.last = whole;
    }
  } catch (const std::bad_alloc&) {
    _tell(level, text);
  }
}

void LogCondenser::look(Clock::time_point now) {
  const std::lock_guard lock(_mutex);
  lookAtAll(now);
}

void LogCondenser::finish() noexcept {
  try {
    const std::lock_guard lock(_mutex);
    for (auto& [text, repetition] : _repetitions) tellOf(repetition, repetition.lastLine);
  } catch (const std::exception&) {
  }
}

void LogCondenser::lookAtAll(Clock::time_point now) {
  for (auto& [text, repetition] : _repetitions) {
    const auto interval = repetition.toldInSum < MostEachMinute ? Clock::duration(1min) : Clock::duration(10min);
    if (now - repetition.told >= interval) tellOf(repetition, now);
  }
  std::erase_if(_repetitions, [&](const auto& entry) { return now - entry.second.lastLine >= Forgotten; });
}

void LogCondenser::tellOf(Repetition& repetition, Clock::time_point now) {
  if (repetition.waiting == 0) return;
  const double seconds = std::chrono::duration<double>(repetition.lastLine - repetition.told).count();
  const std::string count = repetition.waiting == 1 ? ""
                                                    : formatted("  (… %lld more in %.0f s)",
                                                                static_cast<long long>(repetition.waiting), seconds);
  _tell(repetition.level, repetition.last + count);
  repetition.told = now;
  repetition.waiting = 0;
  ++repetition.toldInSum;
}

}  // namespace brvhost
