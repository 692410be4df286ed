#pragma once

// All sources as stations, as long as they are plugged in. They run while somebody watches, and a little longer, or
// while they are recorded. Main thread.

#include <brv.hpp>

#include <chrono>
#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "monitor/Broadcast.h"
#include "monitor/Journal.h"
#include "monitor/Projector.h"
#include "monitor/Station.h"

namespace brvhost {

class Wall {
 public:
  /// Recordings go to `folder`.
  Wall(const brv::Library& library, Journal& journal, Broadcast& broadcast, std::string folder,
       double picturesPerSecond);
  ~Wall();
  Wall(const Wall&) = delete;
  Wall& operator=(const Wall&) = delete;

  /// Goes on: follows the devices if they have changed, starts or stops sources, and tells the viewers how things
  /// stand. Blocks for the start of one source at most.
  void turn(bool haveDevicesChanged);

  // What viewers ask for, of a source by its name. All throw Failure or brv::Error.
  nlohmann::ordered_json settings(const std::string& source) const;
  void apply(const std::string& source, const std::string& parameter, int index);
  /// The newest picture.
  brv::Frame picture(const std::string& source) const;
  /// The file's name, and in the end its account.
  std::string record(const std::string& source, const std::string& ending);
  std::string endRecording(const std::string& source);

 private:
  using Clock = std::chrono::steady_clock;

  Station& station(const std::string& source) const;
  void followDevices();
  void remove(const std::string& source);
  void startOne();
  void stopUnwatched();
  void endFailedRecordings();
  std::string endRecording(Station& station);
  void publishState();

  const brv::Library& _library;
  Journal& _journal;
  Broadcast& _broadcast;
  const std::string _folder;
  std::map<std::string, std::unique_ptr<Station>> _stations;
  std::vector<std::string> _order;             ///< of the sources
  std::map<std::string, std::string> _errors;  ///< that were told of last
  Clock::time_point _watched{}, _published{};
  Projector _projector;
};

}  // namespace brvhost
