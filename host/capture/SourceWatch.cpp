#include "capture/SourceWatch.h"

#include <algorithm>
#include <utility>

#include "common/Failure.h"

namespace brvhost {

namespace {

constexpr std::chrono::seconds BetweenLines(60);

std::int64_t sumSince(const Drops& now, const Drops& before) {
  std::int64_t sum = 0;
  for (const auto& [reason, count] : now) sum += count - (before.contains(reason) ? before.at(reason) : 0);
  return sum;
}

}  // namespace

SourceWatch::SourceWatch(const brv::Source& source) : _source(source) {
  brv::Handlers handlers;
  if (source.hasVideo()) {
    watch("picture", &SourceWatch::_pictures);
    handlers.video = [this](const brv::Frame& frame) {
      const std::lock_guard lock(_mutex);
      ++_pictures;
      _signal.picture(frame);
    };
  }
  if (source.hasAudio()) {
    watch("sound", &SourceWatch::_soundRuns);
    handlers.audio = [this](const brv::Sound& sound) {
      const std::lock_guard lock(_mutex);
      ++_soundRuns;
      _signal.sound(sound);
    };
  }
  handlers.starting = [this] { _videoBefore = dropsOf(_source, "video"), _audioBefore = dropsOf(_source, "audio"); };
  if (!_media.empty()) _running = source.listen(std::move(handlers));
}

void SourceWatch::watch(const char* name, std::int64_t SourceWatch::*count) {
  const auto state = [this, count] {
    const std::lock_guard lock(_mutex);
    return MediumState{.frames = this->*count};
  };
  _media.emplace_back(name, state, std::nullopt, Clock::now());
}

std::optional<std::string> SourceWatch::takeNews(Clock::time_point now) {
  for (MediumWatch& medium : _media) {
    medium.look(now);
    if (auto news = medium.takeNews()) _waiting.push_back(std::move(*news));
  }
  {
    const std::lock_guard lock(_mutex);
    for (std::string& news : _signal.takeNews()) _waiting.push_back(std::move(news));
  }
  if (_lastTold && now - *_lastTold < BetweenLines) return std::nullopt;
  noteDrops();
  if (_waiting.empty()) return std::nullopt;
  _lastTold = now;
  _newsCount += _waiting.size();
  constexpr std::size_t MostTold = 5;  // the latest say how it stands
  const std::size_t left = _waiting.size() > MostTold ? _waiting.size() - MostTold : 0;
  std::string text = left > 0 ? formatted("%zu more, then ", left) : "";
  for (std::size_t i = left; i < _waiting.size(); ++i) text += (i > left ? "; " : "") + _waiting[i];
  _waiting.clear();
  return text;
}

/// A source that was unplugged has no account any more.
std::int64_t SourceWatch::drops() const {
  const std::int64_t drops =
      sumSince(dropsOf(_source, "video"), _videoBefore) + sumSince(dropsOf(_source, "audio"), _audioBefore);
  return std::max(drops, _drops);
}

void SourceWatch::noteDrops() {
  const std::int64_t drops = this->drops();
  if (drops > _drops)
    _waiting.push_back(formatted(drops == _drops + 1 ? "%lld sample lost" : "%lld samples lost",
                                 static_cast<long long>(drops - _drops)));
  _drops = drops;
}

std::string SourceWatch::summary() const {
  const std::lock_guard lock(_mutex);
  std::string text;
  if (_source.hasVideo()) text += formatted("%lld pictures, ", static_cast<long long>(_pictures));
  if (_source.hasAudio()) text += "loudest sound " + levelText(_signal.peak()) + ", ";
  return text + formatted("%lld samples lost, %zu times told of", static_cast<long long>(drops()), _newsCount);
}

}  // namespace brvhost
