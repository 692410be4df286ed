#include "capture/Settings.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <regex>

#include "common/Choice.h"
#include "common/Failure.h"

namespace brvhost {

namespace {

constexpr double RateTolerance = 0.005;

std::vector<Choice> choicesOf(const std::vector<brv::Option>& options) {
  std::vector<Choice> choices;
  choices.reserve(options.size());
  for (const brv::Option& option : options) choices.push_back({option.title});
  return choices;
}

/// How far the rate in `title` is from `wanted`, as a part of it; 1 where there is none.
double distance(const std::string& title, double wanted) {
  double rate = 0;
  std::from_chars(title.data(), title.data() + title.size(), rate);
  return std::abs(rate - wanted) / wanted;
}

}  // namespace

WantedSetting settingNamed(const std::string& text) {
  const std::size_t equals = text.find('=');
  if (equals == std::string::npos) throw UsageError("a setting is NAME=CHOICE, not \"" + text + "\"");
  const std::vector<Choice> parameters = {{brv::VideoSettings, {"video"}}, {brv::VideoFPS}, {brv::AudioSettings}};
  const std::string parameter = ParameterNames[choose("setting", parameters, text.substr(0, equals))];
  return {parameter, [parameter, wanted = text.substr(equals + 1)](const std::vector<brv::Option>& options) {
            return options[choose("choice of " + parameter, choicesOf(options), wanted)].index;
          }};
}

WantedSetting settingOfSize(const std::string& text) {
  std::smatch sides;
  if (!std::regex_match(text, sides, std::regex("([0-9]+) *x *([0-9]+)"))) {
    throw UsageError("a size is WIDTHxHEIGHT, not \"" + text + "\"");
  }
  const std::string size = sides.str(1) + " x " + sides.str(2);
  return {brv::VideoSettings, [size](const std::vector<brv::Option>& options) {
            for (const brv::Option& option : options) {
              if (hasPart(option.title, size)) return option.index;
            }
            refuse("no format has " + size, choicesOf(options));
          }};
}

WantedSetting settingOfRate(double framesPerSecond) {
  return {brv::VideoFPS, [framesPerSecond](const std::vector<brv::Option>& options) {
            const auto nearest = std::min_element(options.begin(), options.end(), [&](const auto& a, const auto& b) {
              return distance(a.title, framesPerSecond) < distance(b.title, framesPerSecond);
            });
            if (nearest != options.end() && distance(nearest->title, framesPerSecond) <= RateTolerance) {
              return nearest->index;
            }
            refuse(formatted("the format has no rate of %g frames a second", framesPerSecond), choicesOf(options));
          }};
}

std::vector<WantedSetting> inOrder(std::vector<WantedSetting> settings) {
  std::vector<WantedSetting> ordered;
  for (const char* parameter : ParameterNames) {
    for (WantedSetting& setting : settings) {
      if (setting.parameter != parameter) continue;
      if (!ordered.empty() && ordered.back().parameter == parameter) {
        throw UsageError(setting.parameter + " is set twice");
      }
      ordered.push_back(std::move(setting));
    }
  }
  return ordered;
}

}  // namespace brvhost
