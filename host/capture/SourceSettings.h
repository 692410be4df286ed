#pragma once

// The settings of a source in the module: looked up, applied, and insisted on. Main thread.

#include <brv.hpp>

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "capture/Settings.h"

namespace brvhost {

/// What became of an attempt to set something.
struct SettingsOutcome {
  std::vector<brv::Setting> tried;  ///< in their order; the last one was refused where the answer says so
  brv::Answer answer{1};
};

/// Applies `settings` in their order, up to the first that is refused; they last over further starts. Throws UsageError
/// for one that means no choice, and Failure when the source has gone.
SettingsOutcome applySettings(const brv::Library& library, const brv::Source& source,
                              const std::vector<WantedSetting>& settings);

/// The same; throws Failure unless all of them are taken. Without any nothing happens.
void requireSettings(const brv::Library& library, const brv::Source& source,
                     const std::vector<WantedSetting>& settings);

/// What can be set, and what is selected, with the keys that `brvhost show --help` names. Throws Failure when the
/// source has gone.
nlohmann::ordered_json settingsOf(const brv::Source& source);

/// "Video Settings=0, Video FPS=1".
std::string settingsText(const std::vector<brv::Setting>& settings);

}  // namespace brvhost
