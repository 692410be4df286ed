#include "capture/SourceSettings.h"

#include <nlohmann/json.hpp>

#include "capture/Sources.h"
#include "common/Failure.h"

namespace brvhost {

SettingsOutcome applySettings(const brv::Library& library, const brv::Source& source,
                              const std::vector<WantedSetting>& settings) {
  const auto apply = [&](const std::vector<brv::Setting>& one) {
    brv::Answer answer = source.apply(one);
    library.poll();  // or a camera that has gone meanwhile would pass for one that refuses
    requirePluggedIn(source);
    return answer;
  };
  apply({});  // a start, in which the module chooses a format where none is set, and with it the rates
  const std::string reason = source.error();  // a format that is refused has no message, but the start's choice had one

  SettingsOutcome outcome;
  for (const WantedSetting& setting : settings) {
    const int index = setting.indexAmong(source.options(setting.parameter.c_str()));
    outcome.tried.push_back({setting.parameter, index});
    outcome.answer = apply({outcome.tried.back()});
    if (!outcome.answer && outcome.answer.message.empty()) outcome.answer.message = reason;
    if (!outcome.answer) break;
  }
  return outcome;
}

void requireSettings(const brv::Library& library, const brv::Source& source,
                     const std::vector<WantedSetting>& settings) {
  if (settings.empty()) return;
  const SettingsOutcome outcome = applySettings(library, source, settings);
  if (outcome.answer) return;
  throw Failure(source.id() + " refused " + settingsText({outcome.tried.back()}) +
                formatted(" (code %d): ", outcome.answer.code) +
                (outcome.answer.message.empty() ? "the module has no message for it" : outcome.answer.message));
}

nlohmann::ordered_json settingsOf(const brv::Source& source) {
  using Json = nlohmann::ordered_json;
  requirePluggedIn(source);
  Json settings = Json::array();
  for (const char* name : ParameterNames) {
    Json choices = Json::array();
    for (const brv::Option& option : source.options(name)) {
      choices.push_back({{"index", option.index}, {"title", option.title}});
    }
    const std::optional<int> selected = source.selected(name);
    settings.push_back({{"name", name}, {"selected", selected ? Json(*selected) : Json()}, {"choices", choices}});
  }
  return settings;
}

std::string settingsText(const std::vector<brv::Setting>& settings) {
  std::string text;
  for (const brv::Setting& setting : settings) {
    text += (text.empty() ? "" : ", ") + setting.parameter + "=" + std::to_string(setting.index);
  }
  return text;
}

}  // namespace brvhost
