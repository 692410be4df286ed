#pragma once

// What can be set on a source, as people write it and as it travels between host and module: records in XML. Nothing
// here calls the module.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace brvhost {

inline constexpr const char* VideoSettings = "Video Settings";
inline constexpr const char* VideoFPS = "Video FPS";
inline constexpr const char* AudioSettings = "Audio Settings";

/// The parameters of a source, in the order in which they are shown.
inline constexpr std::array ParameterNames = {VideoSettings, VideoFPS, AudioSettings};

/// One parameter and the index of the choice that it has or shall have.
struct Setting {
  std::string parameter;
  std::int32_t index = 0;

  friend bool operator==(const Setting&, const Setting&) = default;
};

struct ParameterOption {
  std::int32_t index = 0;
  std::string title;  ///< empty: the module has none for it

  friend bool operator==(const ParameterOption&, const ParameterOption&) = default;
};

/// A parameter at one moment. The choices of "Video FPS" are those of the format in use then.
struct Parameter {
  std::string name;
  std::vector<ParameterOption> options;
  std::optional<std::int32_t> selected;  ///< absent: not known, or nothing chosen yet

  /// The title of the choice `index`; empty when there is none.
  std::string titleOf(std::int32_t index) const;
};

/// Reads NAME=INDEX. The name is a parameter's, or "video", "fps" or "audio", in any case; the index is decimal. Throws
/// UsageError.
Setting parseSetting(const std::string& text);

/// "Video FPS=0, Audio Settings=1".
std::string settingsText(const std::vector<Setting>& settings);

/// The record that asks for `settings`, in their order.
std::string settingsRecord(const std::vector<Setting>& settings);

/// The choices in a "parameter" record. Throws Failure for anything that is not one.
std::vector<ParameterOption> optionsInRecord(const std::string& record);

/// The selections in a "settings" record, in their order. Throws Failure for anything that is not one.
std::vector<Setting> settingsInRecord(const std::string& record);

/// Says which of the settings, applied in their order, does not hold; none when all do or nothing is known to the
/// contrary. The module answers for the last one only. Choices of one title count as the same, since the module tells
/// what is selected by its name; a frame rate in front of a format is over with the format that it was for.
std::optional<std::string> unmetSetting(const std::vector<Setting>& settings, const std::vector<Parameter>& now);

/// The choices of a parameter, a line each, "*" in front of the selected one.
std::string optionsTable(const Parameter& parameter);

/// The selected choice of each parameter, a line each.
std::string selectionTable(const std::vector<Parameter>& parameters);

}  // namespace brvhost
