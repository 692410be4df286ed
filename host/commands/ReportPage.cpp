#include "commands/ReportPage.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "common/Failure.h"
#include "record/AV.h"

namespace brvhost::page {

namespace {

constexpr const char* Style = R"(
body { font: 15px/1.5 system-ui, sans-serif; max-width: 60rem; margin: 2rem auto; padding: 0 1rem; color: #1b1f24 }
h1 { font-size: 1.6rem } h2 { font-size: 1.2rem; margin-top: 2.5rem; border-top: 1px solid #ccd; padding-top: 1rem }
img { max-width: 100%; max-height: 22rem; border-radius: 4px } table { border-collapse: collapse }
figure { margin: .5rem 0 } figcaption { color: #667; font-size: 13px } pre { overflow-x: auto }
.pictures { display: flex; flex-wrap: wrap; gap: .8rem } .pictures img { width: 19rem }
td { padding: .15rem 1rem .15rem 0; vertical-align: top } td:first-child { color: #667 }
.advice { background: #fff3d6; padding: .6rem 1rem; border-radius: 4px } .good { color: #1a7f37 }
svg { margin: .4rem 0; width: 100%; height: 8rem; background: #f5f6f8; border-radius: 4px }
polyline { fill: none; stroke: #2563c9; vector-effect: non-scaling-stroke } .low { stroke: #9db8e8 }
rect { fill: #d33; fill-opacity: .35 } text { font-size: 11px; fill: #667 }
)";

}  // namespace

std::string escaped(const std::string& text) {
  std::string written;
  for (const char character : text) {
    switch (character) {
      case '&':
        written += "&amp;";
        break;
      case '<':
        written += "&lt;";
        break;
      case '"':
        written += "&quot;";
        break;
      default:
        written += character;
    }
  }
  return written;
}

std::string row(const std::string& name, const std::string& value) {
  return "<tr><td>" + escaped(name) + "</td><td>" + escaped(value) + "</td></tr>\n";
}

std::string rowsOf(const nlohmann::ordered_json& settings) {
  std::string rows;
  for (const auto& setting : settings) {
    for (const auto& choice : setting["choices"]) {
      if (choice["index"] == setting["selected"]) rows += row(setting["name"], choice["title"]);
    }
  }
  return rows;
}

std::string image(std::span<const std::uint8_t> jpeg, const std::string& caption) {
  std::string text(AV_BASE64_SIZE(jpeg.size()), '\0');
  av_base64_encode(text.data(), static_cast<int>(text.size()), jpeg.data(), static_cast<int>(jpeg.size()));
  text.resize(text.size() - 1);  // its terminator
  return "<figure><img alt=\"" + escaped(caption) + "\" src=\"data:image/jpeg;base64," + text + "\"><figcaption>" +
         escaped(caption) + "</figcaption></figure>\n";
}

std::string plot(const std::string& title, std::span<const Point> points, double low, double high,
                 std::span<const Span> marked) {
  constexpr double Width = 900, Height = 120;
  double begin = 0, end = 1;
  if (!points.empty()) begin = points.front().at, end = std::max(points.back().at, begin + 1e-9);
  const auto across = [&](double at) { return Width * (std::clamp(at, begin, end) - begin) / (end - begin); };
  const auto down = [&](double value) { return Height * (high - std::clamp(value, low, high)) / (high - low); };
  std::string marks, lows, highs;
  for (const Span& span : marked) {
    marks += formatted("<rect x=\"%.1f\" y=\"0\" width=\"%.1f\" height=\"%g\"/>", across(span.from),
                       std::max(2.0, across(span.to) - across(span.from)), Height);
  }
  bool isBand = false;
  for (const Point& point : points) {
    lows += formatted("%.1f,%.1f ", across(point.at), down(point.low));
    highs += formatted("%.1f,%.1f ", across(point.at), down(point.high));
    isBand = isBand || point.low != point.high;
  }
  if (isBand) lows = "<polyline class=\"low\" points=\"" + lows + "\"/>";
  return "<svg viewBox=\"-5 -18 910 144\" preserveAspectRatio=\"none\" role=\"img\"><title>" + escaped(title) +
         formatted("</title><text x=\"0\" y=\"-6\">%s, %g to %g</text>", escaped(title).c_str(), low, high) + marks +
         (isBand ? lows : "") + "<polyline points=\"" + highs + "\"/></svg>\n";
}

std::string document(const std::string& title, const std::string& time, const std::string& body) {
  const std::string shown = escaped(title);
  return "<!doctype html>\n<html lang=\"en\"><meta charset=\"utf-8\"><title>" + shown + ", " + time +
         "</title>\n<style>" + Style + "</style>\n<h1>" + shown + "</h1>\n" + body + "</html>\n";
}

}  // namespace brvhost::page
