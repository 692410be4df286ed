#include "monitor/Station.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <string_view>

#include "capture/Sources.h"
#include "common/Failure.h"
#include "common/LocalTime.h"

namespace brvhost {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::chrono::milliseconds LookUpTime(500);

/// "HD Webcam Video 2026-01-31 23.59.59": a file name on every system.
std::string titleFor(const std::string& source) {
  std::string title;
  for (const char character : source) {
    const bool isPlain = std::string_view("/\\:*?\"<>|%").find(character) == std::string_view::npos;
    title += isPlain && (character < 0 || character >= ' ') && character != 0x7F ? character : '_';
  }
  if (title.starts_with('.')) title[0] = '_';
  return title.substr(0, 150) + localTime(" %F %H.%M.%S");
}

/// A name in the folder that no file has.
std::filesystem::path newFile(const std::string& folder, const std::string& source, const std::string& ending) {
  const std::string title = titleFor(source);
  std::filesystem::path path = std::filesystem::absolute(folder) / (title + "." + ending);
  for (int number = 2; std::filesystem::exists(path); ++number) {
    path.replace_filename(formatted("%s (%d).%s", title.c_str(), number, ending.c_str()));
  }
  return path;
}

/// A path as TakeOptions has it, with nothing in it that stands for the time.
std::string literally(const std::string& path) {
  std::string pattern;
  for (const char character : path) pattern.append(character == '%' ? 2 : 1, character);
  return pattern;
}

double rounded(double value) {
  return std::round(value * 10) / 10;
}

Json levelOf(const Level& level) {
  constexpr double Least = -100;  // dB, for silence too
  return {rounded(std::max(level.peak, Least)), rounded(std::max(level.rms, Least))};
}

}  // namespace

Station::Station(const brv::Source& source)
    : _source(source), _hasVideo(source.hasVideo()), _hasAudio(source.hasAudio()) {}

void Station::start() {
  if (!isRunning()) _running = _source.listen(_feed->handlers(_source));
}

void Station::stop() {
  _running.reset();
  _feed->clear();
}

std::string Station::record(const std::string& folder, const std::string& ending) {
  if (isRecording()) throw Failure(_source.id() + " is being recorded already");
  start();
  const std::filesystem::path path = newFile(folder, _source.id(), ending);
  _take = {
      .target = literally(path), .encoding = encodingFor(path, "", ""), .hasVideo = _hasVideo, .hasAudio = _hasAudio};
  _recorder = std::make_unique<Recorder>(_source, _take);
  _dropsBefore = TakeDrops::of(_source);
  _feed->setListener(_recorder->handlers());
  return path.filename();
}

std::string Station::endRecording() {
  _feed->setListener({});
  const std::unique_ptr<Recorder> recorder = std::move(_recorder);
  recorder->finish();
  const TakeAccount account = recorder->account();
  const bool isThere = _source.isPluggedIn();
  const auto shortfall = shortfallOf(account, _take, {}, isThere ? _source.property("error").value_or("") : "");
  return reportText(account, isThere ? TakeDrops::of(_source).since(_dropsBefore) : TakeDrops()) +
         (shortfall ? *shortfall + "\n" : "");
}

void Station::lookUp() {
  const auto now = std::chrono::steady_clock::now();
  if (!_facts.is_null() && now - _lookedUp < LookUpTime) return;
  _lookedUp = now;
  const auto drops = [this](const char* medium) {
    Json counts = Json::object();
    for (const auto& [reason, count] : dropsOf(_source, medium)) {
      if (count > 0) counts[reason] = count;
    }
    return counts;
  };
  _facts = {{"id", _source.id()},
            {"video", _hasVideo},
            {"audio", _hasAudio},
            {"nominal", timingOf(_source).frameRate().value()},
            {"drops", {{"picture", drops("video")}, {"sound", drops("audio")}}},
            {"error", _source.property("error").value_or("")}};
}

Json Station::state() {
  lookUp();
  Json state = _facts;
  const Feed::Measures measures = _feed->take();
  state["width"] = measures.width;
  state["height"] = measures.height;
  state["rate"] = rounded(measures.framesPerSecond);
  state["levels"] = {levelOf(measures.levels[0]), levelOf(measures.levels[1])};
  state["signal"] = Json::array();
  for (const auto& [holds, name] :
       {std::pair{measures.isBlack, "black"}, {measures.isFrozen, "frozen"}, {measures.isSilent, "silent"}}) {
    if (holds) state["signal"].push_back(name);
  }
  if (_recorder) {
    const TakeAccount account = _recorder->account();
    state["recording"] = {
        {"file", std::filesystem::path(account.files.empty() ? "" : account.files.back()).filename().string()},
        {"seconds", rounded(std::max(account.pictures.endSeconds, account.sound.endSeconds))},
        {"bytes", account.bytes},
        {"missing", account.pictures.gaps.missing() + account.pictures.notWritten}};
  }
  return state;
}

}  // namespace brvhost
