#include "commands/DoctorReport.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <span>

#include "common/Failure.h"
#include "common/LocalTime.h"
#include "picture/ImageFile.h"
#include "record/AV.h"

namespace brvhost {

namespace {

constexpr const char* Style = R"(
body { font: 15px/1.5 system-ui, sans-serif; max-width: 60rem; margin: 2rem auto; padding: 0 1rem; color: #1b1f24 }
h1 { font-size: 1.6rem } h2 { font-size: 1.2rem; margin-top: 2.5rem; border-top: 1px solid #ccd; padding-top: 1rem }
img { max-width: 100%; max-height: 22rem; border-radius: 4px } table { border-collapse: collapse }
td { padding: .15rem 1rem .15rem 0; vertical-align: top } td:first-child { color: #667 }
.advice { background: #fff3d6; padding: .6rem 1rem; border-radius: 4px } .good { color: #1a7f37 }
svg { margin: .4rem 0; width: 100%; height: 8rem; background: #f5f6f8; border-radius: 4px } polyline { fill: none; stroke: #2563c9 }
text { font-size: 11px; fill: #667 }
)";

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

/// Values over time, from `low` at the bottom to `high`.
std::string plot(const char* title, std::span<const double> values, double low, double high) {
  constexpr double Width = 900, Height = 120;
  std::string points;
  for (std::size_t i = 0; i < values.size(); ++i) {
    const double x = Width * static_cast<double>(i) / std::max(1.0, static_cast<double>(values.size() - 1));
    const double y = Height * (1 - (std::clamp(values[i], low, high) - low) / (high - low));
    points += formatted("%.1f,%.1f ", x, y);
  }
  return formatted("<svg viewBox=\"-5 -18 910 144\" preserveAspectRatio=\"none\" role=\"img\"><title>%s</title>",
                   title) +
         formatted("<text x=\"0\" y=\"-6\">%s, %g to %g</text>", title, low, high) + "<polyline points=\"" + points +
         "\"/></svg>\n";
}

std::string imageOf(const brv::Frame& frame) {
  const brv::Pixels pixels = frame.pixels();
  const RGBImage image =
      withSquarePixels(convertToRGB(viewOf(pixels), colorMatrix(frame.pixelBuffer())), pixelAspectOf(frame));
  const std::vector<std::uint8_t> jpeg = encoded(image, ImageFormat::jpeg);
  std::string text(AV_BASE64_SIZE(jpeg.size()), '\0');
  av_base64_encode(text.data(), static_cast<int>(text.size()), jpeg.data(), static_cast<int>(jpeg.size()));
  text.resize(text.size() - 1);  // its terminator
  return "<p><img alt=\"what it shows\" src=\"data:image/jpeg;base64," + text + "\"></p>\n";
}

}  // namespace

void DoctorReport::add(const Json& facts, const std::string& text, const Json& settings,
                       const Examination& examination) {
  _sources += "<h2>" + escaped(titleOf(facts)) + "</h2>\n";
  for (const Json& advice : facts["advice"]) _sources += "<p class=\"advice\">" + escaped(advice) + "</p>\n";
  if (facts["advice"].empty()) _sources += "<p class=\"good\">Nothing is wrong.</p>\n";
  if (examination.picture) _sources += imageOf(examination.picture->last);
  _sources += "<pre>" + escaped(text) + "</pre>\n<table>\n";
  for (const auto& [medium, drops] : facts["dropped"].items()) {
    for (const auto& [reason, number] : drops.items()) {
      if (number != 0) _sources += row(std::string(medium).append(" dropped, ").append(reason), number.dump());
    }
  }
  for (const Json& setting : settings) {
    for (const Json& choice : setting["choices"]) {
      if (choice["index"] == setting["selected"]) _sources += row(setting["name"], choice["title"]);
    }
  }
  _sources += "</table>\n";
  if (examination.picture && !examination.picture->intervals.empty()) {
    const std::vector<double>& intervals = examination.picture->intervals;
    const double most = *std::ranges::max_element(intervals);
    _sources += plot("milliseconds from picture to picture", intervals, 0, std::ceil(most / 10) * 10 + 10);
  }
  if (examination.sound) _sources += plot("peak of the sound in dB", examination.sound->peaks, -90, 0);
}

std::string DoctorReport::page(const Json& report) const {
  const std::string time = localTime("%F %T");
  std::string page =
      "<!doctype html>\n<html lang=\"en\"><meta charset=\"utf-8\"><title>Cameras and microphones, " + time +
      "</title>\n<style>" + Style + "</style>\n<h1>Cameras and microphones</h1>\n" +
      (report["good"] ? "<p class=\"good\">All is well.</p>\n" : "<p class=\"advice\">Not all is well.</p>\n") +
      "<table>\n" + row("examined", time) + row("devices from", report["provider"]);
  for (const Json& device : report["video_devices"]) {
    std::string text = device["name"];
    if (!device["permitted"]) text += ", not permitted to this user";
    for (const Json& holder : device["holders"]) text += ", open in " + holder.get<std::string>();
    page += row(device["path"], text);
  }
  for (const Json& device : report["unoffered"]) page += row(device["name"], device["reason"]);
  return page + "</table>\n" + _sources + "</html>\n";
}

}  // namespace brvhost
