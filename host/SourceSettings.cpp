#include "SourceSettings.h"

#include <algorithm>

#include "Failure.h"

namespace brvhost {

namespace {

std::optional<std::int32_t> selectionOf(const std::vector<Setting>& selections, const std::string& parameter) {
  for (const Setting& selection : selections) {
    if (selection.parameter == parameter) return selection.index;
  }
  return std::nullopt;
}

std::string refusalText(const Source& source, const SettingsOutcome& outcome) {
  std::string text = source.identifier;
  if (outcome.answer > 0) {
    text += " did not take a setting";
  } else {
    text += formatted(" refused a setting (code %d): ", outcome.answer);
    text += outcome.message.empty() ? "the module has no message for it" : outcome.message;
  }
  return outcome.unmet ? text + "; " + *outcome.unmet : text;
}

}  // namespace

std::vector<Parameter> parametersOf(const Session& session, const Source& source) {
  session.requirePluggedIn(source);
  const std::vector<Setting> selections = settingsInRecord(session.settings(source));
  std::vector<Parameter> parameters;
  parameters.reserve(std::size(ParameterNames));
  for (const char* name : ParameterNames) {
    parameters.push_back(
        {name, optionsInRecord(session.parameterOptions(source, name)), selectionOf(selections, name)});
  }
  return parameters;
}

SettingsOutcome applySettings(Session& session, const Source& source, const std::vector<Setting>& settings) {
  SettingsOutcome outcome;
  outcome.answer = session.setSettings(source, settingsRecord(settings));
  if (outcome.answer <= 0) outcome.message = session.errorMessage(outcome.answer);
  outcome.now = parametersOf(session, source);
  outcome.unmet = unmetSetting(settings, outcome.now);
  return outcome;
}

void requireSettings(Session& session, const Source& source, const std::vector<Setting>& settings) {
  if (settings.empty()) return;
  const SettingsOutcome outcome = applySettings(session, source, settings);
  if (!outcome.isDone()) throw Failure(refusalText(source, outcome));
}

}  // namespace brvhost
