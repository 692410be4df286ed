#include "record/Recorder.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

namespace brvhost {

namespace {

/// Every picture that waits keeps one of the source's buffers, of which there may be no more than 16; when they are all
/// out, the source loses frames. This leaves it enough to work with. Sound weighs little: some seconds of it.
constexpr std::size_t MostPictures = 8, MostSound = 512;

/// For what is read as fast as it is taken: a clip waits for the disk.
constexpr std::chrono::seconds Patience(1);
/// The same at the beginning for the medium that comes later; what is live does not wait.
constexpr std::chrono::milliseconds LivePatience(200), ClipPatience(2'000);

}  // namespace

Recorder::Recorder(const brv::Source& source, TakeOptions options)
    : _source(source),
      _hasVideo(options.records(Medium::video)),
      _hasAudio(options.records(Medium::audio)),
      _writer(std::move(options)),
      _thread([this] { write(); }) {}

Recorder::~Recorder() {
  finish();
}

brv::Handlers Recorder::handlers() {
  brv::Handlers handlers;
  _timing = {};
  if (_hasVideo) handlers.video = [this](const brv::Frame& frame) { pictureArrived(frame); };
  if (_hasAudio) handlers.audio = [this](const brv::Sound& sound) { soundArrived(sound); };
  return handlers;
}

void Recorder::pictureArrived(const brv::Frame& frame) {
  if (!_timing.isKnown() || (frame.record().flags & BRV_FLAG_FORMAT_CHANGED) != 0) _timing = timingOf(_source);
  std::unique_lock lock(_mutex);
  _signal.picture(frame);
  if (!wait(lock, 0, MostPictures)) {
    ++_skipped;
    return;
  }
  _samples.push_back(Picture{frame, _timing, std::exchange(_skipped, 0)});
  _changed.notify_all();
}

void Recorder::soundArrived(const brv::Sound& sound) {
  std::unique_lock lock(_mutex);
  _signal.sound(sound);
  if (!sound.time || !wait(lock, 1, MostSound)) {
    _lostSound += std::ssize(sound.samples) / 2;
    return;
  }
  _samples.push_back(SoundRun{*sound.time, {sound.samples.begin(), sound.samples.end()}});
  _changed.notify_all();
}

/// Waits for a place, and takes it.
bool Recorder::wait(std::unique_lock<std::mutex>& lock, std::size_t alternative, std::size_t most) {
  const auto hasRoom = [&] { return _isClosed || _waiting[alternative] < most; };
  if (!_changed.wait_for(lock, Patience, hasRoom) || _isClosed) return false;
  ++_waiting[alternative];
  return true;
}

void Recorder::finish() noexcept {
  if (!_thread.joinable()) return;
  {
    const std::lock_guard lock(_mutex);
    _isClosed = true;
  }
  _changed.notify_all();
  _thread.join();
}

bool Recorder::isOfNow(const Sample& sample) {
  const auto* const picture = std::get_if<Picture>(&sample);
  const brv::Time time = picture ? picture->frame.time() : std::get<SoundRun>(sample).time;
  return std::chrono::abs(std::chrono::steady_clock::now() - time) < std::chrono::seconds(10);
}

void Recorder::write() {
  std::optional<std::string> failure;
  const auto attempt = [&](auto&& work) {
    try {
      if (!failure) work();
    } catch (const std::exception& exception) {
      failure = exception.what();
    }
  };
  std::optional<std::chrono::steady_clock::time_point> start;
  std::unique_lock lock(_mutex);
  while (true) {
    _changed.wait(lock, [this] { return _isClosed || !_samples.empty(); });
    if (_samples.empty()) break;
    if (!start) start = std::chrono::steady_clock::now();
    auto next = _samples.begin();
    const std::size_t lacking = _writer.lacksSound() ? 1 : 0;
    if (lacking == 1 || _writer.lacksPictures()) {
      // What comes faster than in life would be gone, or far ahead, before the other medium is there.
      const auto patience = isOfNow(_samples.front()) ? LivePatience : ClipPatience;
      _changed.wait_until(lock, *start + patience, [&] { return _isClosed || _waiting[lacking] > 0; });
      next = std::ranges::find(_samples, lacking, &Sample::index);
      if (next == _samples.end()) next = _samples.begin();
    }
    Sample sample = std::move(*next);
    _samples.erase(next);
    --_waiting[sample.index()];
    lock.unlock();
    _changed.notify_all();
    attempt([&] {
      if (auto* const picture = std::get_if<Picture>(&sample)) {
        _writer.picture(picture->frame, picture->timing, picture->skipped);
      } else {
        _writer.sound(std::move(std::get<SoundRun>(sample)));
      }
    });
    sample = SoundRun();  // at once: the source's pool is only so large
    lock.lock();
    publish(failure);
  }
  lock.unlock();
  const bool hadFailed = failure.has_value();
  std::optional<std::string> first = std::exchange(failure, std::nullopt);
  attempt([&] { _writer.finish(); });
  lock.lock();
  publish(hadFailed ? first : failure);
}

/// The caller holds the lock.
void Recorder::publish(const std::optional<std::string>& failure) {
  _account = _writer.account();
  _account.bytes = _writer.bytes();
  if (_isClosed && _samples.empty()) _account.pictures.notWritten += std::exchange(_skipped, 0);
  _account.sound.delivered += _lostSound;
  _account.sound.notWritten += _lostSound;
  _account.failure = failure;
  _account.peak = _signal.peak();
  const bool isDone = (!_hasVideo || _account.pictures.isComplete) && (!_hasAudio || _account.sound.isComplete);
  _isComplete = isDone || failure;
}

TakeAccount Recorder::account() const {
  const std::lock_guard lock(_mutex);
  return _account;
}

std::vector<std::string> Recorder::takeNews() {
  const std::lock_guard lock(_mutex);
  return _signal.takeNews();
}

Level Recorder::takeLevel() {
  const std::lock_guard lock(_mutex);
  return _signal.takeLevel();
}

}  // namespace brvhost
