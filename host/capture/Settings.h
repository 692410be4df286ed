#pragma once

// What can be set on a source, as people write it and read it. Nothing here calls the module.

#include <brv.hpp>

#include <array>
#include <optional>
#include <string>
#include <vector>

namespace brvhost {

/// The parameters of a source, in the order in which they are shown.
inline constexpr std::array ParameterNames = {brv::VideoSettings, brv::VideoFPS, brv::AudioSettings};

/// A parameter at one moment. The choices of "Video FPS" are those of the format in use then.
struct Parameter {
  std::string name;
  std::vector<brv::Option> options;
  std::optional<int> selected;  ///< absent: not known, or nothing chosen yet

  /// The title of the choice `index`; empty when there is none.
  std::string titleOf(int index) const;
};

/// Reads NAME=INDEX. The name is a parameter's, or "video", "fps" or "audio", in any case; the index is decimal. Throws
/// UsageError.
brv::Setting parseSetting(const std::string& text);

/// "Video FPS=0, Audio Settings=1".
std::string settingsText(const std::vector<brv::Setting>& settings);

/// Says which of the settings, applied in their order, does not hold; none when all do or nothing is known to the
/// contrary. The module answers for the last one only. Choices of one title count as the same, since the module tells
/// what is selected by its name; a frame rate in front of a format is over with the format that it was for.
std::optional<std::string> unmetSetting(const std::vector<brv::Setting>& settings, const std::vector<Parameter>& now);

/// The choices of a parameter, a line each, "*" in front of the selected one.
std::string optionsTable(const Parameter& parameter);

/// The selected choice of each parameter, a line each.
std::string selectionTable(const std::vector<Parameter>& parameters);

}  // namespace brvhost
