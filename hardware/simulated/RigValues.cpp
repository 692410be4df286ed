#include "RigValues.h"

#include <CoreFoundation/CFRef.h>
#include <CoreFoundation/CFString.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <numeric>

#include "Rig.h"

namespace hardware::simulated {
namespace {

constexpr std::string_view Blanks = " \t\r";

template <typename Number>
std::optional<Number> parseNumber(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::string quoted(std::string_view text) {
  return "'" + std::string(text) + "'";
}

std::string numberText(double number) {
  char text[32];
  const auto [end, error] = std::to_chars(std::begin(text), std::end(text), number);
  return error == std::errc() ? std::string(text, end) : "?";
}

struct Rate {
  std::int64_t numerator;
  std::int64_t denominator;
};

// The rates of NTSC's family are written as 29.97, and mean 30000/1001.
std::optional<Rate> broadcastRate(double rate) {
  constexpr double precision = 0.006;
  const double whole = std::round(rate * 1.001);
  if (whole < 1 || rate == std::round(rate) || std::abs(whole / 1.001 - rate) >= precision) return std::nullopt;
  return Rate{static_cast<std::int64_t>(whole) * 1000, 1001};
}

std::optional<Rate> parseRate(std::string_view text) {
  if (const std::size_t slash = text.find('/'); slash != std::string_view::npos) {
    const auto numerator = parseNumber<std::int32_t>(text.substr(0, slash));
    const auto denominator = parseNumber<std::int32_t>(text.substr(slash + 1));
    if (!numerator || !denominator) return std::nullopt;
    return Rate{*numerator, *denominator};
  }
  const auto number = parseNumber<double>(text);
  if (!number || !(*number > 0) || *number > MaximumFrameRate) return std::nullopt;
  if (const auto rate = broadcastRate(*number)) return rate;
  constexpr std::int64_t millionths = 1'000'000;
  return Rate{std::llround(*number * millionths), millionths};
}

}  // namespace

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(Blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(Blanks) - first + 1);
}

std::optional<Failure> textFailure(std::string_view line) {
  const auto isControl = [](char character) {
    const auto byte = static_cast<unsigned char>(character);
    return (byte < 0x20 && byte != '\t') || byte == 0x7F;
  };
  if (std::any_of(line.begin(), line.end(), isControl)) return Failure{"there is a control character in the line"};
  const auto string = CFRef<CFStringRef>::adopt(
      CFStringCreateWithCString(kCFAllocatorDefault, std::string(line).c_str(), kCFStringEncodingUTF8));
  if (!string) return Failure{"the line is not UTF-8"};
  // Now that the sequences are whole, these bytes are nothing else.
  for (std::size_t at = line.find('\xC2'); at != std::string_view::npos; at = line.find('\xC2', at + 1)) {
    if (static_cast<unsigned char>(line[at + 1]) < 0xA0) return Failure{"there is a control character in the line"};
  }
  for (const std::string_view noncharacter : {"\xEF\xBF\xBE", "\xEF\xBF\xBF"}) {
    if (line.find(noncharacter) != std::string_view::npos) return Failure{"U+FFFE and U+FFFF are no characters"};
  }
  return std::nullopt;
}

bool takeWord(std::string_view& text, std::string_view word) {
  if (text.substr(0, word.size()) != word) return false;
  const std::string_view rest = text.substr(word.size());
  if (!rest.empty() && Blanks.find(rest.front()) == std::string_view::npos) return false;
  text = trimmed(rest);
  return true;
}

std::string_view unquoted(std::string_view text) {
  const bool isQuoted = text.size() >= 2 && text.front() == '"' && text.back() == '"';
  return isQuoted ? text.substr(1, text.size() - 2) : text;
}

Result<std::vector<std::string_view>> parseClauses(std::string_view text) {
  std::vector<std::string_view> clauses;
  bool isQuoted = false;
  std::size_t begin = 0;
  for (std::size_t i = 0; i <= text.size(); ++i) {
    if (i < text.size() && text[i] == '"') isQuoted = !isQuoted;
    if (i < text.size() && (text[i] != ',' || isQuoted)) continue;
    clauses.push_back(trimmed(text.substr(begin, i - begin)));
    if (clauses.back().empty()) return Failure{"there is nothing on one side of a comma"};
    begin = i + 1;
  }
  if (isQuoted) return Failure{"a quotation mark is missing"};
  return clauses;
}

std::vector<std::string_view> words(std::string_view text) {
  std::vector<std::string_view> found;
  for (text = trimmed(text); !text.empty();) {
    const std::size_t end = std::min(text.find_first_of(Blanks), text.size());
    found.push_back(text.substr(0, end));
    text = trimmed(text.substr(end));
  }
  return found;
}

Result<bool> parseYesNo(std::string_view text) {
  if (text == "yes") return true;
  if (text == "no") return false;
  return Failure{quoted(text) + " is neither yes nor no"};
}

Result<std::uint64_t> parseCount(std::string_view text, std::uint64_t smallest, std::uint64_t largest) {
  const auto number = parseNumber<std::uint64_t>(text);
  if (!number || *number < smallest || *number > largest) {
    return Failure{quoted(text) + " is not a whole number from " + std::to_string(smallest) + " to " +
                   std::to_string(largest)};
  }
  return *number;
}

Result<std::uint64_t> parseGUID(std::string_view text) {
  const bool hasPrefix = text.substr(0, 2) == "0x" || text.substr(0, 2) == "0X";
  const std::string_view digits = hasPrefix ? text.substr(2) : text;
  std::uint64_t guid = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), guid, hasPrefix ? 16 : 10);
  if (error != std::errc() || end != digits.data() + digits.size()) {
    return Failure{quoted(text) + " is not a 64-bit identifier"};
  }
  return guid;
}

Result<std::int32_t> parseTimescale(std::string_view text) {
  const auto number = parseCount(text, 1, std::numeric_limits<std::int32_t>::max());
  if (!number) return number.failure();
  return static_cast<std::int32_t>(*number);
}

Result<double> parseDecimal(std::string_view text, std::string_view unit, double smallest, double largest) {
  std::string_view digits = text;
  if (!unit.empty() && digits.ends_with(unit)) digits = trimmed(digits.substr(0, digits.size() - unit.size()));
  const auto number = parseNumber<double>(digits);
  if (!number || !(*number >= smallest) || !(*number <= largest)) {
    return Failure{quoted(text) + " is not a number from " + numberText(smallest) + " to " + numberText(largest) +
                   (unit.empty() ? "" : " " + std::string(unit))};
  }
  return *number;
}

Result<Size> parseSize(std::string_view text) {
  const std::size_t cross = text.find('x');
  if (cross != std::string_view::npos) {
    const auto width = parseNumber<std::int32_t>(text.substr(0, cross));
    const auto height = parseNumber<std::int32_t>(text.substr(cross + 1));
    const auto isSize = [](const auto& number) { return number && *number >= 0 && *number <= MaximumPictureSize; };
    if (isSize(width) && isSize(height) && (*width == 0) == (*height == 0)) return Size{*width, *height};
  }
  return Failure{quoted(text) + " is not a size like 1920x1080 of up to " + std::to_string(MaximumPictureSize) +
                 " each way"};
}

Result<PixelAspectRatio> parseAspect(std::string_view text) {
  const std::size_t colon = text.find(':');
  if (colon != std::string_view::npos) {
    const auto horizontal = parseNumber<std::int32_t>(trimmed(text.substr(0, colon)));
    const auto vertical = parseNumber<std::int32_t>(trimmed(text.substr(colon + 1)));
    if (horizontal && vertical && *horizontal > 0 && *vertical > 0) return PixelAspectRatio{*horizontal, *vertical};
  }
  return Failure{quoted(text) + " is not a ratio like 4:3"};
}

Result<CMTime> parseFrameRate(std::string_view text) {
  const auto rate = parseRate(text);
  if (rate && rate->numerator > 0 && rate->denominator > 0) {
    const std::int64_t divisor = std::gcd(rate->numerator, rate->denominator);
    const std::int64_t numerator = rate->numerator / divisor;
    const bool isSensible =
        static_cast<double>(rate->numerator) <= MaximumFrameRate * static_cast<double>(rate->denominator);
    if (isSensible && numerator <= std::numeric_limits<std::int32_t>::max()) {
      return CMTimeMake(rate->denominator / divisor, static_cast<std::int32_t>(numerator));
    }
  }
  return Failure{quoted(text) + " is not a frame rate of up to " + numberText(MaximumFrameRate)};
}

Result<FrameRateRange> parseFrameRateRange(std::string_view text) {
  const std::size_t dash = text.find('-');
  if (dash == 0 || dash == text.size() - 1)
    return Failure{quoted(text) + " is neither a frame rate nor a range like 15-30"};
  const auto slowest = parseFrameRate(text.substr(0, dash));
  if (!slowest) return slowest.failure();
  const auto fastest = dash == std::string_view::npos ? slowest : parseFrameRate(text.substr(dash + 1));
  if (!fastest) return fastest.failure();
  if (CMTimeCompare(*slowest, *fastest) < 0) return Failure{quoted(text) + " does not begin with the lower rate"};
  const auto framesPerSecond = [](CMTime duration) {
    return static_cast<double>(duration.timescale) / static_cast<double>(duration.value);
  };
  return FrameRateRange{framesPerSecond(*slowest), framesPerSecond(*fastest), *fastest, *slowest};
}

}  // namespace hardware::simulated
