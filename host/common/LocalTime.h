#pragma once

#include <array>
#include <ctime>
#include <string>

namespace brvhost {

/// The present time where this machine is, as strftime writes it; empty where that is more than 4 kB. Any thread.
__attribute__((format(strftime, 1, 0))) inline std::string localTime(const char* format) {
  std::array<char, 4'096> text{};
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  return {text.data(), std::strftime(text.data(), text.size(), format, ::localtime_r(&now, &local))};
}

}  // namespace brvhost
