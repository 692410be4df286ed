#include "SourceSettings.h"

#include <algorithm>

#include "Failure.h"

namespace brvhost {

namespace {

bool sets(const std::vector<Setting>& settings, const std::string& parameter) {
  return std::any_of(settings.begin(), settings.end(), [&](auto& each) { return each.parameter == parameter; });
}

std::optional<std::int32_t> selectionOf(const std::vector<Setting>& selections, const std::string& parameter) {
  for (const Setting& selection : selections) {
    if (selection.parameter == parameter) return selection.index;
  }
  return std::nullopt;
}

/// As long as nobody has chosen a format, the module chooses one at every start, and the frame rate with it. So a frame
/// rate alone takes the format with it that the module chose.
void holdFormat(Session& session, const Source& source, std::vector<Setting>& settings) {
  if (!source.providesVideo || !sets(settings, VideoFPS) || sets(settings, VideoSettings)) return;
  session.setSettings(source, settingsRecord({}));  // starts the source, which is when the module chooses
  const auto format = selectionOf(settingsInRecord(session.settings(source)), VideoSettings);
  if (!format) throw Failure("the format of " + source.identifier + " is not known; set it before its frame rate");
  settings.insert(settings.begin(), {VideoSettings, *format});
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
  const std::vector<Setting> selections = settingsInRecord(session.settings(source));
  std::vector<Parameter> parameters;
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

void requireSettings(Session& session, const Source& source, std::vector<Setting> settings) {
  if (settings.empty()) return;
  holdFormat(session, source, settings);
  const SettingsOutcome outcome = applySettings(session, source, settings);
  if (!outcome.isDone()) throw Failure(refusalText(source, outcome));
}

}  // namespace brvhost
