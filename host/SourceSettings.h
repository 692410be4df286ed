#pragma once

// The settings of a source in the module: asked for, applied, and insisted on. Main thread.

#include <optional>
#include <string>
#include <vector>

#include "Session.h"
#include "Settings.h"

namespace brvhost {

/// What is to be chosen on `source` and what is selected, as of now. Throws Failure.
std::vector<Parameter> parametersOf(const Session& session, const Source& source);

/// What became of an attempt to set something.
struct SettingsOutcome {
  int answer = 0;                    ///< the module's: above 0 success, otherwise its code
  std::string message;               ///< the module's for that code; empty when it gives none
  std::vector<Parameter> now;        ///< what is selected afterwards
  std::optional<std::string> unmet;  ///< what does not hold, whatever the module answered

  bool isDone() const { return answer > 0 && !unmet; }
};

/// Starts the source and applies `settings` in their order, in one call of the module. Throws Failure when the module
/// cannot be asked for the result.
SettingsOutcome applySettings(Session& session, const Source& source, const std::vector<Setting>& settings);

/// Applies `settings` so that they last over the starts that a recording takes. Throws Failure unless all of them hold.
/// Without any nothing happens.
void requireSettings(Session& session, const Source& source, const std::vector<Setting>& settings);

}  // namespace brvhost
