#pragma once

// The parts of a page that can be sent to somebody: nothing in it is loaded from elsewhere.

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace brvhost::page {

std::string escaped(const std::string& text);
/// A row of a table.
std::string row(const std::string& name, const std::string& value);
/// The rows of what is selected of a source's settings.
std::string rowsOf(const nlohmann::ordered_json& settings);

/// A JPEG, in the page itself.
std::string image(std::span<const std::uint8_t> jpeg, const std::string& caption);

/// What was measured at a moment, or between `low` and `high` in a stretch of time.
struct Point {
  double at = 0, low = 0, high = 0;
};
struct Span {
  double from = 0, to = 0;
};
/// Values over time, from `low` at the bottom to `high`; `marked` are spans of time that stand out.
std::string plot(const std::string& title, std::span<const Point> points, double low, double high,
                 std::span<const Span> marked = {});

/// A whole page of `title` at `time`; `body` is HTML.
std::string document(const std::string& title, const std::string& time, const std::string& body);

}  // namespace brvhost::page
