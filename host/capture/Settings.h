#pragma once

// Settings as people write them. Nothing here calls the module.

#include <brv.hpp>

#include <array>
#include <functional>
#include <string>
#include <vector>

namespace brvhost {

/// The parameters of a source, in the order in which they are set and shown: the rates to choose from are those of the
/// format.
inline constexpr std::array ParameterNames = {brv::VideoSettings, brv::VideoFPS, brv::AudioSettings};

/// A setting that somebody wants. Which choice that is shows once a source's choices are known.
struct WantedSetting {
  std::string parameter;
  /// The index of the choice. Throws UsageError, with the choices, when none is meant.
  std::function<int(const std::vector<brv::Option>& options)> indexAmong;
};

/// Reads NAME=CHOICE. The name is a parameter's, a part of it, or "video"; the choice is an index, a title or a part of
/// one. Throws UsageError.
WantedSetting settingNamed(const std::string& text);

/// Reads WIDTHxHEIGHT: the first format of that size. Throws UsageError.
WantedSetting settingOfSize(const std::string& text);

/// The frame rate nearest to `framesPerSecond`, within 0.5 %.
WantedSetting settingOfRate(double framesPerSecond);

/// The settings in the order in which they are set. Throws UsageError when a parameter is set twice.
std::vector<WantedSetting> inOrder(std::vector<WantedSetting> settings);

}  // namespace brvhost
