#pragma once

// The settings of a source in the module: asked for, applied, and insisted on. Main thread.

#include <brv.hpp>

#include <optional>
#include <string>
#include <vector>

#include "capture/Settings.h"

namespace brvhost {

/// What is to be chosen on `source` and what is selected, as of now. Throws Failure.
std::vector<Parameter> parametersOf(const brv::Source& source);

/// What became of an attempt to set something.
struct SettingsOutcome {
  brv::Answer answer;
  std::vector<Parameter> now;        ///< what is selected afterwards
  std::optional<std::string> unmet;  ///< what does not hold, whatever the module answered

  bool isDone() const { return answer && !unmet; }
};

/// Applies `settings` in their order, in one call of the module. Throws Failure when the source has gone.
SettingsOutcome applySettings(const brv::Library& library, const brv::Source& source,
                              const std::vector<brv::Setting>& settings);

/// Applies `settings` so that they last over the starts that a recording takes. Throws Failure unless all of them hold.
/// Without any nothing happens.
void requireSettings(const brv::Library& library, const brv::Source& source, const std::vector<brv::Setting>& settings);

}  // namespace brvhost
