#pragma once

// The last lines of what was logged and noticed, each with its time and a number. Any thread.

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace brvhost {

class Journal {
 public:
  struct Line {
    std::uint64_t number = 0;  ///< from 1, one after the other
    std::string time;          ///< "12:34:56"
    std::string kind;          ///< "log", "refusal", "error", "added", "removed", "recording"
    std::string text;
  };

  /// Never throws: a line for which there is no memory is left out.
  void add(std::string_view kind, std::string_view text) noexcept;
  /// Those after the one of that number, as far as they are still here.
  std::vector<Line> after(std::uint64_t number) const;

 private:
  mutable std::mutex _mutex;
  std::deque<Line> _lines;
  std::uint64_t _last = 0;
};

}  // namespace brvhost
