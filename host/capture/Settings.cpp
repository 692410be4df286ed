#include "capture/Settings.h"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <system_error>

#include "common/ASCIICase.h"
#include "common/Failure.h"

namespace brvhost {

namespace {

struct Alias {
  std::string_view name;
  const char* parameter;
};

constexpr Alias Aliases[] = {{"video", brv::VideoSettings}, {"fps", brv::VideoFPS}, {"audio", brv::AudioSettings}};

const char* parameterNamed(std::string_view name) {
  for (const char* parameter : ParameterNames) {
    if (equalsAnyCase(name, parameter)) return parameter;
  }
  for (const Alias& alias : Aliases) {
    if (equalsAnyCase(name, alias.name)) return alias.parameter;
  }
  throw UsageError("there is no setting \"" + std::string(name) + "\"; there are video, fps and audio");
}

bool isOverridden(const brv::Setting& earlier, const brv::Setting& later) {
  return later.parameter == earlier.parameter ||
         (earlier.parameter == brv::VideoFPS && later.parameter == brv::VideoSettings);
}

bool isSelected(const Parameter& parameter, int index) {
  if (index == *parameter.selected) return true;
  const std::string title = parameter.titleOf(index);
  return !title.empty() && title == parameter.titleOf(*parameter.selected);
}

std::string shownTitle(const std::string& title) {
  return title.empty() ? "(no title)" : title;
}

}  // namespace

std::string Parameter::titleOf(int index) const {
  const auto option = std::find_if(options.begin(), options.end(), [=](auto& each) { return each.index == index; });
  return option == options.end() ? std::string() : option->title;
}

brv::Setting parseSetting(const std::string& text) {
  const std::size_t equals = text.find('=');
  if (equals == std::string::npos) throw UsageError("a setting is NAME=INDEX, not \"" + text + "\"");

  const char* const parameter = parameterNamed(std::string_view(text).substr(0, equals));
  int index = -1;
  const char* const end = text.data() + text.size();
  const auto [parsedEnd, error] = std::from_chars(text.data() + equals + 1, end, index);
  if (error != std::errc() || parsedEnd != end || index < 0) {
    throw UsageError("\"" + text + "\" wants an index behind the \"=\", 0 or above");
  }
  return {parameter, index};
}

std::string settingsText(const std::vector<brv::Setting>& settings) {
  std::string text;
  for (const brv::Setting& setting : settings) {
    text += (text.empty() ? "" : ", ") + setting.parameter + "=" + std::to_string(setting.index);
  }
  return text;
}

std::optional<std::string> unmetSetting(const std::vector<brv::Setting>& settings, const std::vector<Parameter>& now) {
  for (auto setting = settings.begin(); setting != settings.end(); ++setting) {
    if (std::any_of(setting + 1, settings.end(), [&](auto& later) { return isOverridden(*setting, later); })) continue;
    const auto parameter =
        std::find_if(now.begin(), now.end(), [&](auto& each) { return each.name == setting->parameter; });
    if (parameter == now.end() || !parameter->selected || isSelected(*parameter, setting->index)) continue;
    return formatted("%s is %d (%s), not %d", setting->parameter.c_str(), *parameter->selected,
                     shownTitle(parameter->titleOf(*parameter->selected)).c_str(), setting->index);
  }
  return std::nullopt;
}

std::string optionsTable(const Parameter& parameter) {
  std::string text;
  for (const brv::Option& option : parameter.options) {
    const bool isMarked = parameter.selected == option.index;
    text += formatted("    %c %d  ", isMarked ? '*' : ' ', option.index) + shownTitle(option.title) + "\n";
  }
  return text;
}

std::string selectionTable(const std::vector<Parameter>& parameters) {
  std::string text;
  for (const Parameter& parameter : parameters) {
    text += formatted("  %-14s  ", parameter.name.c_str());
    text += parameter.selected
                ? formatted("%d  ", *parameter.selected) + shownTitle(parameter.titleOf(*parameter.selected))
                : "not known";
    text += "\n";
  }
  return text;
}

}  // namespace brvhost
