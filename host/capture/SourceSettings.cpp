#include "capture/SourceSettings.h"

#include "capture/Sources.h"
#include "common/Failure.h"

namespace brvhost {

namespace {

std::string refusalText(const brv::Source& source, const SettingsOutcome& outcome) {
  std::string text = source.id();
  if (outcome.answer) {
    text += " did not take a setting";
  } else {
    text += formatted(" refused a setting (code %d): ", outcome.answer.code);
    text += outcome.answer.message.empty() ? "the module has no message for it" : outcome.answer.message;
  }
  return outcome.unmet ? text + "; " + *outcome.unmet : text;
}

}  // namespace

std::vector<Parameter> parametersOf(const brv::Source& source) {
  requirePluggedIn(source);
  std::vector<Parameter> parameters;
  parameters.reserve(ParameterNames.size());
  for (const char* name : ParameterNames) parameters.push_back({name, source.options(name), source.selected(name)});
  return parameters;
}

SettingsOutcome applySettings(const brv::Library& library, const brv::Source& source,
                              const std::vector<brv::Setting>& settings) {
  SettingsOutcome outcome;
  outcome.answer = source.apply(settings);
  library.poll();  // or a camera that has gone meanwhile would pass for one that refuses
  outcome.now = parametersOf(source);
  outcome.unmet = unmetSetting(settings, outcome.now);
  return outcome;
}

void requireSettings(const brv::Library& library, const brv::Source& source,
                     const std::vector<brv::Setting>& settings) {
  if (settings.empty()) return;
  const SettingsOutcome outcome = applySettings(library, source, settings);
  if (!outcome.isDone()) throw Failure(refusalText(source, outcome));
}

}  // namespace brvhost
