#include "monitor/Wall.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "capture/SourceSettings.h"
#include "common/Failure.h"

namespace brvhost {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::chrono::seconds Afterglow(3);
constexpr std::chrono::milliseconds StateTime(100);

}  // namespace

Wall::Wall(const brv::Library& library, Journal& journal, Broadcast& broadcast, std::string folder,
           double picturesPerSecond)
    : _library(library),
      _journal(journal),
      _broadcast(broadcast),
      _folder(std::move(folder)),
      _projector(broadcast, picturesPerSecond) {
  followDevices();
}

Wall::~Wall() {
  while (!_stations.empty()) remove(std::string(_stations.begin()->first));
}

void Wall::turn(bool haveDevicesChanged) {
  if (haveDevicesChanged) followDevices();
  const Clock::time_point now = Clock::now();
  const bool isWatched = _broadcast.hasViewers();
  if (isWatched) _watched = now;
  if (isWatched) startOne();
  if (now - _watched > Afterglow) stopUnwatched();
  endFailedRecordings();
  if (isWatched && now - _published >= StateTime) {
    _published = now;
    publishState();
  }
}

void Wall::followDevices() {
  _order.clear();
  std::map<std::string, std::unique_ptr<Station>> present;
  Projector::Feeds feeds;
  for (const brv::Source& source : _library.sources()) {
    const std::string& id = source.id();
    _order.push_back(id);
    const auto known = _stations.find(id);
    if (known != _stations.end() && known->second->isOutdated()) {
      const bool wasRecording = known->second->isRecording();
      remove(id);
      _journal.add("changed", id + (wasRecording ? ", and its recording has ended" : ""));
    } else if (known == _stations.end()) {
      _journal.add("added", id);
    }
    if (!_stations.contains(id)) _stations[id] = std::make_unique<Station>(source);
    feeds[id] = _stations[id]->feed();
  }
  std::vector<std::string> gone;
  for (const auto& [id, station] : _stations) {
    if (!feeds.contains(id)) gone.push_back(id);
  }
  for (const std::string& id : gone) {
    remove(id);
    _journal.add("removed", id);
  }
  _projector.show(std::move(feeds));
}

void Wall::remove(const std::string& source) {
  const auto found = _stations.find(source);
  if (found->second->isRecording()) endRecording(*found->second);
  _stations.erase(found);
  _errors.erase(source);
}

void Wall::startOne() {
  for (const auto& [id, station] : _stations) {
    if (station->isRunning() || !station->source().isPluggedIn()) continue;
    station->start();
    return;
  }
}

void Wall::stopUnwatched() {
  for (const auto& [id, station] : _stations) {
    if (station->isRunning() && !station->isRecording()) station->stop();
  }
}

void Wall::endFailedRecordings() {
  for (const auto& [id, station] : _stations) {
    if (station->hasRecordingFailed()) endRecording(*station);
  }
}

std::string Wall::endRecording(Station& station) {
  std::string report = station.endRecording();
  _journal.add("recorded", report);
  return report;
}

void Wall::publishState() {
  Json sources = Json::array();
  for (const std::string& id : _order) {
    sources.push_back(_stations.at(id)->state());
    const std::string error = sources.back()["error"];
    if (std::exchange(_errors[id], error) != error && !error.empty())
      _journal.add("error", formatted("%s: %s", id.c_str(), error.c_str()));
  }
  _broadcast.publish(Broadcast::State, "", sources.dump(-1, ' ', false, Json::error_handler_t::replace));
}

Station& Wall::station(const std::string& source) const {
  const auto found = _stations.find(source);
  if (found == _stations.end()) throw Failure("\"" + source + "\" is not there");
  return *found->second;
}

Json Wall::settings(const std::string& source) const {
  return settingsOf(station(source).source());
}

void Wall::apply(const std::string& source, const std::string& parameter, int index) {
  if (std::find(ParameterNames.begin(), ParameterNames.end(), parameter) == ParameterNames.end()) {
    throw Failure("\"" + parameter + "\" is no setting");
  }
  const brv::Answer answer = station(source).source().apply({{parameter, index}});
  if (!answer) {
    throw Failure(source + " refused " + parameter + (answer.message.empty() ? "" : ": " + answer.message));
  }
}

brv::Frame Wall::picture(const std::string& source) const {
  brv::Frame frame = station(source).feed()->newest().frame;
  if (!frame) throw Failure(source + " sends no picture");
  return frame;
}

std::string Wall::record(const std::string& source, const std::string& ending) {
  std::string file = station(source).record(_folder, ending);
  _journal.add("recording", file);
  return file;
}

std::string Wall::endRecording(const std::string& source) {
  Station& recorded = station(source);
  if (!recorded.isRecording()) throw Failure(source + " is not being recorded");
  return endRecording(recorded);
}

}  // namespace brvhost
