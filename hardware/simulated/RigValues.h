#pragma once

// The values of a rig file: numbers, rates, sizes, lists of clauses. Each function reads a whole text, without blanks
// around it, and gives the value or the reason, for display.

#include <CoreMedia/CMTime.h>
#include <Hardware.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Result.h"

namespace hardware::simulated {

std::string_view trimmed(std::string_view text);

/// Why a line, without blanks around it, cannot be shown to people and handed on as XML: it is not UTF-8, or has
/// control characters other than tabs, U+FFFE or U+FFFF. Nothing when it can.
std::optional<Failure> textFailure(std::string_view line);

/// Takes `word` and the blanks after it from the front of the text; false and no change when it does not begin with
/// that word.
bool takeWord(std::string_view& text, std::string_view word);

/// "Text" without its quotes; texts without quotes as they are.
std::string_view unquoted(std::string_view text);

/// The parts between commas, trimmed; commas within double quotes do not count.
Result<std::vector<std::string_view>> parseClauses(std::string_view text);

/// The words between blanks.
std::vector<std::string_view> words(std::string_view text);

Result<bool> parseYesNo(std::string_view text);
Result<std::uint64_t> parseCount(std::string_view text, std::uint64_t smallest, std::uint64_t largest);
/// Also hexadecimal, with 0x in front.
Result<std::uint64_t> parseGUID(std::string_view text);
Result<std::int32_t> parseTimescale(std::string_view text);
/// A decimal number with an optional unit after it.
Result<double> parseDecimal(std::string_view text, std::string_view unit, double smallest, double largest);

struct Size {
  std::int32_t width = 0;
  std::int32_t height = 0;
};
/// "1920x1080".
Result<Size> parseSize(std::string_view text);

/// "4:3".
Result<PixelAspectRatio> parseAspect(std::string_view text);

/// The exact duration of a frame at "25", "12.5", "30000/1001", or "29.97", which stands for 30000/1001 as its kin do.
Result<CMTime> parseFrameRate(std::string_view text);

/// A rate, or "15-30".
Result<FrameRateRange> parseFrameRateRange(std::string_view text);

}  // namespace hardware::simulated
