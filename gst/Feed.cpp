#include "Feed.h"

#include <algorithm>

namespace brvgst {

using namespace std::chrono_literals;

namespace {

constexpr auto Silence = 1500ms;
constexpr PerMedium<const char*> Silent = {" sends no pictures", " sends no sound"};

/// Clips that play at their taker's pace count from 0; no machine is that young.
constexpr auto YoungestMachine = 10s;

constexpr std::int64_t SoundRate = 44'100;

}  // namespace

void Feed::add(const Inboxes& inboxes) {
  bool isNewMedium = false;
  for (const Medium medium : {Video, Audio}) {
    if (!inboxes[medium]) continue;
    List list = *hearing(medium);
    list.push_back(inboxes[medium]);
    change(medium, std::move(list));
    isNewMedium |= !_isSubscribed[medium];
  }
  if (!isNewMedium) return;
  try {
    subscribe();
  } catch (...) {
    remove(inboxes);
    throw;
  }
}

void Feed::remove(const Inboxes& inboxes) {
  for (const Medium medium : {Video, Audio}) {
    List list = *hearing(medium);
    if (std::erase(list, inboxes[medium]) > 0) change(medium, std::move(list));
  }
}

bool Feed::isHeard() const {
  return !hearing(Video)->empty() || !hearing(Audio)->empty();
}

void Feed::subscribe() {
  _subscription.reset();
  const auto start = std::make_shared<Start>();
  brv::Handlers handlers;
  _isSubscribed = {!hearing(Video)->empty(), !hearing(Audio)->empty()};
  if (_isSubscribed[Video]) handlers.video = [this, start](const brv::Frame& frame) { pictureArrived(frame, start); };
  if (_isSubscribed[Audio]) handlers.audio = [this, start](const brv::Sound& sound) { soundArrived(sound, start); };
  try {
    _subscription = _source.listen(std::move(handlers));
  } catch (...) {
    _isSubscribed = {};
    throw;
  }
}

std::string Feed::check() {
  if (_isClip) return _source.error();
  PerMedium<bool> isSilent{};
  for (const Medium medium : {Video, Audio}) {
    const brv::Time last{brv::Time::duration(_lastArrival[medium])};
    isSilent[medium] = _isSubscribed[medium] && brv::Time::clock::now() - last > Silence;
  }
  if (_mayBeReplaced && (isSilent[Video] || isSilent[Audio])) subscribe();
  if (isSilent[Video] || isSilent[Audio]) _mayBeReplaced = false;
  if (std::string error = _source.error(); !error.empty()) return error;
  for (const Medium medium : {Video, Audio}) {
    const bool isNews = isSilent[medium] && _lastArrival[medium] != 0;
    if (isNews && !_saidSilent[medium]) return _saidSilent[medium] = true, _source.id() + Silent[medium];
    if (!isSilent[medium]) _saidSilent[medium] = false;
  }
  return {};
}

std::shared_ptr<const Feed::List> Feed::hearing(Medium medium) const {
  const std::lock_guard lock(_lock);
  return _hearing[medium];
}

void Feed::change(Medium medium, List inboxes) {
  std::shared_ptr<const List> changed = std::make_shared<List>(std::move(inboxes));
  const std::lock_guard lock(_lock);
  _hearing[medium].swap(changed);
}

void Feed::noteArrival(Medium medium, const std::shared_ptr<Start>& start, brv::Time time) {
  const brv::Time now = brv::Time::clock::now();
  _lastArrival[medium] = now.time_since_epoch().count();
  const bool isClip = time.time_since_epoch() < YoungestMachine && now - time > YoungestMachine;
  auto unknown = Start::Unknown;
  start->pace.compare_exchange_strong(unknown, isClip ? Start::Taker : Start::Clock);
  _isClip = start->pace == Start::Taker;
}

// Without memory a sample is lost, which its successor's stamp shows.

void Feed::pictureArrived(const brv::Frame& frame, const std::shared_ptr<Start>& start) noexcept try {
  noteArrival(Video, start, frame.time());
  const int ticks = _source.ticksPerSecond();
  const std::int64_t frameDuration = _source.frameDuration();
  const auto picture = std::make_shared<Picture>(frame, _out, ticks, frameDuration);
  std::chrono::nanoseconds duration{};
  if (ticks > 0 && frameDuration > 0) duration = std::chrono::nanoseconds(frameDuration * 1'000'000'000 / ticks);
  for (const auto& inbox : *hearing(Video)) {
    inbox->put({picture, nullptr, frame.time().time_since_epoch(), duration, start});
  }
} catch (const std::exception&) {
}

void Feed::soundArrived(const brv::Sound& sound, const std::shared_ptr<Start>& start) noexcept try {
  if (!sound.time || sound.samples.empty()) return;
  noteArrival(Audio, start, *sound.time);
  const auto frames = static_cast<std::int64_t>(sound.samples.size() / 2);
  const std::chrono::nanoseconds duration(frames * 1'000'000'000 / SoundRate);
  const BufferPtr buffer(gst_buffer_new_memdup(sound.samples.data(), sound.samples.size_bytes()));
  for (const auto& inbox : *hearing(Audio)) {
    BufferPtr own(gst_buffer_copy(buffer.get()));  // shares the memory
    inbox->put({nullptr, std::move(own), sound.time->time_since_epoch(), duration, start});
  }
} catch (const std::exception&) {
}

}  // namespace brvgst
