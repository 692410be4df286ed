#include "monitor/Feed.h"

#include <algorithm>
#include <utility>

namespace brvhost {

namespace {

constexpr std::chrono::seconds RateSpan(2);

}  // namespace

brv::Handlers Feed::handlers(const brv::Source& source) {
  brv::Handlers handlers;
  if (source.hasVideo()) handlers.video = [this](const brv::Frame& frame) { picture(frame); };
  if (source.hasAudio()) handlers.audio = [this](const brv::Sound& run) { sound(run); };
  return handlers;
}

void Feed::picture(const brv::Frame& frame) {
  brv::Frame former = frame;  // let go of outside the lock
  {
    const std::lock_guard lock(_mutex);
    std::swap(_newest.frame, former);
    _arrivals[++_newest.number % _arrivals.size()] = Clock::now();
  }
  _pictureWatch.picture(frame);
  _pictureWatch.takeNews();  // its state is enough here
  _isBlack = _pictureWatch.isBlack();
  _isFrozen = _pictureWatch.isFrozen();
  const std::shared_lock lock(_listenerLock);
  if (_listener.video) _listener.video(frame);
}

void Feed::sound(const brv::Sound& sound) {
  {
    const std::lock_guard lock(_mutex);
    for (std::size_t i = 0; i < sound.samples.size(); ++i) _meters[i % 2].add(sound.samples.subspan(i, 1));
  }
  _soundWatch.sound(sound);
  _soundWatch.takeNews();
  _isSilent = _soundWatch.isSilent();
  const std::shared_lock lock(_listenerLock);
  if (_listener.audio) _listener.audio(sound);
}

Feed::Newest Feed::newest() const {
  const std::lock_guard lock(_mutex);
  return _newest;
}

Feed::Measures Feed::take() {
  const std::lock_guard lock(_mutex);
  Measures measures;
  measures.isBlack = _isBlack;
  measures.isFrozen = _isFrozen;
  measures.isSilent = _isSilent;
  for (std::size_t channel = 0; channel < 2; ++channel) measures.levels[channel] = _meters[channel].take();
  if (_newest.frame) {
    measures.width = static_cast<std::size_t>(_newest.frame.record().width);
    measures.height = static_cast<std::size_t>(_newest.frame.record().height);
  }
  const Clock::time_point since = Clock::now() - RateSpan, last = _arrivals[_newest.number % _arrivals.size()];
  Clock::time_point first = last;
  std::uint64_t count = 0;
  for (std::uint64_t i = 0; i < std::min<std::uint64_t>(_arrivals.size(), _newest.number); ++i, ++count) {
    const Clock::time_point arrival = _arrivals[(_newest.number - i) % _arrivals.size()];
    if (arrival < since) break;
    first = arrival;
  }
  if (count > 1) measures.framesPerSecond = static_cast<double>(count - 1) / brv::Seconds(last - first).count();
  return measures;
}

void Feed::clear() {
  Newest former;
  const std::lock_guard lock(_mutex);
  former.number = _newest.number;
  std::swap(_newest, former);
  _arrivals.fill({});
  _meters = {};
  _pictureWatch = {};
  _soundWatch = {};
  _isBlack = _isFrozen = _isSilent = false;
}

void Feed::setListener(brv::Handlers listener) {
  const std::lock_guard lock(_listenerLock);
  _listener = std::move(listener);
}

}  // namespace brvhost
