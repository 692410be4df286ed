#include "monitor/Journal.h"

#include <algorithm>
#include <ctime>
#include <exception>
#include <iterator>

namespace brvhost {

namespace {

constexpr std::size_t MostLines = 200;

std::string clockTime() {
  const std::time_t seconds = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&seconds, &local);
  char text[sizeof "12:34:56"];
  std::strftime(text, sizeof text, "%T", &local);
  return text;
}

}  // namespace

void Journal::add(std::string_view kind, std::string_view text) noexcept {
  try {
    text = text.substr(0, text.find_last_not_of("\r\n") + 1);
    const std::lock_guard lock(_mutex);
    _lines.push_back({_last + 1, clockTime(), std::string(kind), std::string(text)});
    ++_last;
    if (_lines.size() > MostLines) _lines.pop_front();
  } catch (const std::exception&) {
  }
}

std::vector<Journal::Line> Journal::after(std::uint64_t number) const {
  const std::lock_guard lock(_mutex);
  const auto first =
      std::find_if(_lines.begin(), _lines.end(), [number](const Line& line) { return line.number > number; });
  return {first, _lines.end()};
}

}  // namespace brvhost
