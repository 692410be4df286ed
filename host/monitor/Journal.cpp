#include "monitor/Journal.h"

#include <algorithm>
#include <exception>
#include <iterator>

#include "common/LocalTime.h"

namespace brvhost {

namespace {

constexpr std::size_t MostLines = 200;

}  // namespace

void Journal::add(std::string_view kind, std::string_view text) noexcept {
  try {
    text = text.substr(0, text.find_last_not_of("\r\n") + 1);
    const std::lock_guard lock(_mutex);
    _lines.push_back({_last + 1, localTime("%T"), std::string(kind), std::string(text)});
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
