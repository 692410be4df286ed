#pragma once

#include <brv.hpp>

#include <nlohmann/json.hpp>
#include <string>

namespace brvhost {

/// What viewers ask for, of a source by its name, which may be any text. Any thread; all throw std::exceptions, with
/// words for people.
class Controls {
 public:
  virtual ~Controls() = default;

  virtual nlohmann::ordered_json settings(const std::string& source) = 0;
  /// Returns the settings as they are then.
  virtual nlohmann::ordered_json apply(const std::string& source, const std::string& parameter, int index) = 0;
  /// The newest picture.
  virtual brv::Frame picture(const std::string& source) = 0;
  /// The file's name, and in the end its account. `ending`: "mkv", "mov" or "mp4".
  virtual std::string record(const std::string& source, const std::string& ending) = 0;
  virtual std::string endRecording(const std::string& source) = 0;
};

}  // namespace brvhost
