#include "commands/TakeReport.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "commands/ReportPage.h"
#include "common/Failure.h"

namespace brvhost {

namespace {

/// "1:02:03.456", without the hours where there are none.
std::string positionText(double seconds) {
  const auto minutes = static_cast<long long>(seconds / 60);
  const double rest = seconds - 60.0 * static_cast<double>(minutes);
  return minutes < 60 ? formatted("%lld:%06.3f", minutes, rest)
                      : formatted("%lld:%02lld:%06.3f", minutes / 60, minutes % 60, rest);
}

std::vector<page::Point> pointsOf(const Timeline& timeline) {
  std::vector<page::Point> points;
  for (const auto& [seconds, low, high] : timeline.buckets()) points.push_back({seconds, low, high});
  return points;
}

std::string plots(const TakeNotes& notes, double nominalMilliseconds) {
  const auto holesIn = [&](Medium medium) {
    std::vector<page::Span> spans;
    for (const TakeNotes::Hole& hole : notes.holes) {
      if (hole.medium == medium) spans.push_back({hole.position, hole.position + hole.seconds});
    }
    return spans;
  };
  std::string text;
  if (const auto points = pointsOf(notes.intervals); !points.empty()) {
    const double most = std::ranges::max(points, {}, &page::Point::high).high;
    const double shown = std::ceil(std::min(most, 10 * nominalMilliseconds) / 10) * 10 + 10;  // a gap would flatten it
    text += page::plot("milliseconds from picture to picture, until " + positionText(points.back().at), points, 0,
                       shown, holesIn(Medium::video));
  }
  if (const auto points = pointsOf(notes.levels); !points.empty()) {
    text += page::plot("peak of the sound in dB, until " + positionText(points.back().at), points, -90, 0,
                       holesIn(Medium::audio));
  }
  return text;
}

std::string holesText(const TakeNotes& notes) {
  if (notes.holes.empty()) return "<p class=\"good\">Nothing is missing.</p>\n";
  std::string text = "<table>\n";
  for (const TakeNotes::Hole& hole : notes.holes) {
    text += page::row(
        positionText(hole.position),
        formatted(hole.medium == Medium::video ? "%.3f s of the picture" : "%.3f s of the sound", hole.seconds) +
            (hole.reason.empty() ? "" : ": " + hole.reason));
  }
  if (notes.furtherHoles > 0) text += page::row("later", formatted("%zu more", notes.furtherHoles));
  return text + "</table>\n";
}

}  // namespace

std::string takePage(const Json& facts, const Json& settings, const TakeNotes& notes, const TakeAccount& account,
                     const TakeDrops& drops, const std::optional<std::string>& shortfall) {
  std::string text = shortfall ? "<p class=\"advice\">" + page::escaped(*shortfall) + "</p>\n"
                               : "<p class=\"good\">The recording is whole.</p>\n";
  text += "<table>\n";
  for (const auto& [name, value] : facts.items()) text += page::row(name, value);
  text += page::rowsOf(settings) + "</table>\n<div class=\"pictures\">\n";
  for (const TakeNotes::Still& still : notes.stills) text += page::image(still.jpeg, positionText(still.position));
  text += "</div>\n<h2>How it came</h2>\n" + plots(notes, 1'000 * account.pictures.sampleSeconds);
  text += "<h2>What is missing</h2>\n" + holesText(notes);
  if (!notes.remarks.empty()) {
    text += "<h2>What was noticed</h2>\n<table>\n";
    for (const TakeNotes::Remark& remark : notes.remarks) text += page::row(positionText(remark.position), remark.text);
    text += "</table>\n";
  }
  text += "<h2>Account</h2>\n<pre>" + page::escaped(reportText(account, drops)) + "</pre>\n";
  return page::document("A recording", facts.value("began", ""), text);
}

}  // namespace brvhost
