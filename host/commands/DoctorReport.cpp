#include "commands/DoctorReport.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "capture/Still.h"
#include "commands/ReportPage.h"
#include "common/LocalTime.h"

namespace brvhost {

namespace {

constexpr std::size_t WidestPicture = 4'096;

std::vector<page::Point> pointsOf(const std::vector<double>& values) {
  std::vector<page::Point> points;
  points.reserve(values.size());
  for (const double value : values) points.push_back({static_cast<double>(points.size()), value, value});
  return points;
}

}  // namespace

void DoctorReport::add(const Json& facts, const std::string& text, const Json& settings,
                       const Examination& examination) {
  _sources += "<h2>" + page::escaped(titleOf(facts)) + "</h2>\n";
  for (const Json& advice : facts["advice"]) _sources += "<p class=\"advice\">" + page::escaped(advice) + "</p>\n";
  if (facts["advice"].empty()) _sources += "<p class=\"good\">Nothing is wrong.</p>\n";
  if (examination.picture) _sources += page::image(jpegOf(examination.picture->last, WidestPicture), "what it shows");
  _sources += "<pre>" + page::escaped(text) + "</pre>\n<table>\n";
  for (const auto& [medium, drops] : facts["dropped"].items()) {
    for (const auto& [reason, number] : drops.items()) {
      if (number != 0) _sources += page::row(std::string(medium).append(" dropped, ").append(reason), number.dump());
    }
  }
  _sources += page::rowsOf(settings) + "</table>\n";
  if (examination.picture && !examination.picture->intervals.empty()) {
    const std::vector<double>& intervals = examination.picture->intervals;
    const double most = *std::ranges::max_element(intervals);
    _sources +=
        page::plot("milliseconds from picture to picture", pointsOf(intervals), 0, std::ceil(most / 10) * 10 + 10);
  }
  if (examination.sound) _sources += page::plot("peak of the sound in dB", pointsOf(examination.sound->peaks), -90, 0);
}

std::string DoctorReport::page(const Json& report) const {
  const std::string time = localTime("%F %T");
  std::string text = std::string(report["good"] ? "<p class=\"good\">All is well.</p>\n"
                                                : "<p class=\"advice\">Not all is well.</p>\n") +
                     "<table>\n" + page::row("examined", time) + page::row("devices from", report["provider"]);
  if (report.contains("server")) {
    const Json& server = report["server"];
    for (const auto& [name, key] : {std::pair("server", "name"), std::pair("session manager", "session_manager"),
                                    std::pair("problem", "problem")}) {
      if (server[key] != "") text += page::row(name, server[key]);
    }
  }
  for (const Json& device : report["video_devices"]) {
    std::string state = device["name"].get<std::string>() + ", " + device["permissions"].get<std::string>();
    if (!device["permitted"]) state += ", not permitted to this user";
    for (const Json& holder : device["holders"]) state += ", open in " + holder.get<std::string>();
    text += page::row(device["path"], state);
  }
  for (const Json& device : report["unoffered"]) text += page::row(device["name"], device["reason"]);
  return page::document("Cameras and microphones", time, text + "</table>\n" + _sources);
}

}  // namespace brvhost
