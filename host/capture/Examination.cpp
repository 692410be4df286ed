#include "capture/Examination.h"

#include <algorithm>
#include <cmath>
#include <mutex>

#include "common/Failure.h"
#include "common/Interrupt.h"

namespace brvhost {

namespace {

using namespace std::chrono_literals;
using Clock = brv::Time::clock;

constexpr brv::Seconds Length = 2s;
constexpr brv::Seconds Patience = 5s;  ///< for the first sample of each medium
constexpr brv::Seconds PollTime = 20ms;

/// Takes what arrives, on the capture queues.
class Observer {
 public:
  brv::Handlers handlers(const brv::Source& source) {
    brv::Handlers handlers;
    if (source.hasVideo()) handlers.video = [this](const brv::Frame& frame) { picture(frame); };
    if (source.hasAudio()) handlers.audio = [this](const brv::Sound& sound) { this->sound(sound); };
    return handlers;
  }

  /// Whether each medium that the source has came, for as long as wanted.
  bool isDone(const brv::Source& source) const {
    const std::lock_guard lock(_mutex);
    const auto isLongEnough = [](Clock::time_point first) { return Clock::now() - first >= Length; };
    return (!source.hasVideo() || (!_pictures.empty() && isLongEnough(_pictures.front().arrived))) &&
           (!source.hasAudio() || (_firstSound && isLongEnough(_firstSound->arrived)));
  }
  /// Whether one of them has not begun.
  bool lacksMedium(const brv::Source& source) const {
    const std::lock_guard lock(_mutex);
    return (source.hasVideo() && _pictures.empty()) || (source.hasAudio() && !_firstSound);
  }

  /// When nothing arrives any more.
  std::optional<Examination::Picture> picture(Clock::time_point start, const FrameTiming& timing) {
    if (_pictures.empty()) return std::nullopt;
    Examination::Picture found{.firstSeconds = secondsFrom(start, _pictures.front().arrived), .timing = timing};
    found.width = _size.first, found.height = _size.second;
    found.count = std::ssize(_pictures);
    found.last = _last;
    found.isBlack = _signal.isBlack(), found.isFrozen = _signal.isFrozen();
    std::vector<double> ages;
    for (const Arrival& each : _pictures) ages.push_back(secondsFrom(each.taken, each.arrived));
    std::nth_element(ages.begin(), ages.begin() + found.count / 2, ages.end());
    found.age = ages[ages.size() / 2];
    if (found.count < 2) return found;

    const double span = secondsFrom(_pictures.front().taken, _pictures.back().taken);
    const auto steps = static_cast<double>(found.count - 1);
    found.rate = span > 0 ? steps / span : 0;
    const double nominal = inSeconds(timing.frameDuration, timing.ticksPerSecond);
    double squares = 0;
    for (std::size_t i = 1; i < _pictures.size(); ++i) {
      const double step = secondsFrom(_pictures[i - 1].taken, _pictures[i].taken);
      const double periods = nominal > 0 ? std::max(1.0, std::round(step / nominal)) : 1;
      found.missing += static_cast<std::int64_t>(periods) - 1;
      const double regular = nominal > 0 ? periods * nominal : span / steps;
      squares += (step - regular) * (step - regular);
      found.intervals.push_back(1'000 * step);
    }
    found.jitter = std::sqrt(squares / steps);
    return found;
  }
  std::optional<Examination::Sound> sound(Clock::time_point start) {
    if (!_firstSound) return std::nullopt;
    const double span = secondsFrom(_firstSound->taken, _lastSound);
    return Examination::Sound{secondsFrom(start, _firstSound->arrived),
                              span > 0 ? static_cast<double>(_soundFrames) / span : 0, _signal.takeLevel(),
                              _signal.isSilent(), _peaks};
  }

 private:
  struct Arrival {
    brv::Time taken, arrived;
  };

  static double secondsFrom(Clock::time_point from, Clock::time_point to) { return brv::Seconds(to - from).count(); }

  void picture(const brv::Frame& frame) {
    const std::lock_guard lock(_mutex);
    _pictures.push_back({frame.time(), Clock::now()});
    _size = {frame.record().width, frame.record().height};
    _signal.picture(frame);
    _last = frame;
  }
  void sound(const brv::Sound& sound) {
    const std::lock_guard lock(_mutex);
    if (!sound.time) return;
    if (!_firstSound) _firstSound = {*sound.time, Clock::now()};
    _lastSound = *sound.time;
    _soundFrames += _lastRun;
    _lastRun = std::ssize(sound.samples) / 2;
    _signal.sound(sound);
    _run.add(sound.samples);
    _peaks.push_back(_run.take().peak);
  }

  mutable std::mutex _mutex;
  std::vector<Arrival> _pictures;
  std::pair<int, int> _size;
  std::optional<Arrival> _firstSound;
  brv::Time _lastSound;
  std::int64_t _soundFrames = 0;  ///< of all runs but the last
  std::int64_t _lastRun = 0;
  SignalWatch _signal{1s};
  LevelMeter _run;
  std::vector<double> _peaks;
  brv::Frame _last;
};

}  // namespace

Examination examine(const brv::Library& library, const brv::Source& source) {
  Examination found;
  Observer observer;
  Drops video, audio;
  Clock::time_point start;
  {
    brv::Handlers handlers = observer.handlers(source);
    handlers.starting = [&] {  // with its format chosen
      video = dropsOf(source, "video"), audio = dropsOf(source, "audio");
      start = Clock::now();
    };
    const brv::Subscription running = source.listen(std::move(handlers));
    while (!observer.isDone(source) && !Interrupt::requested() && source.isPluggedIn()) {
      const auto elapsed = Clock::now() - start;
      if (elapsed > (observer.lacksMedium(source) ? Patience : Patience + Length)) break;
      library.poll(PollTime);
    }
    found.videoDrops = dropsOf(source, "video"), found.audioDrops = dropsOf(source, "audio");
  }
  for (const auto& [reason, count] : video) found.videoDrops[reason] -= count;
  for (const auto& [reason, count] : audio) found.audioDrops[reason] -= count;
  found.picture = observer.picture(start, timingOf(source));
  found.sound = observer.sound(start);
  found.error = source.isPluggedIn() ? source.error() : unpluggedText(source);
  return found;
}

std::vector<std::string> adviceFor(const brv::Source& source, const Examination& examination) {
  constexpr double SlowStart = 3, LeastRate = 0.95, MostJitter = 0.25, OldPicture = 0.2, MostDrift = 500e-6;
  std::vector<std::string> advice;
  const auto say = [&](bool holds, const std::string& text) {
    if (holds) advice.push_back(text);
  };
  const auto dropped = [](const Drops& drops, const char* reason) {
    const auto found = drops.find(reason);
    return found == drops.end() ? 0 : found->second;
  };
  say(!examination.error.empty(), examination.error);
  if (const auto& picture = examination.picture) {
    const double nominal = picture->timing.frameRate().value();
    say(picture->firstSeconds > SlowStart, "The first picture takes long. Start the camera some seconds early.");
    say(nominal > 0 && picture->rate < LeastRate * nominal,
        "Fewer pictures come than the format has. In the dark a camera exposes for longer: give it light, or set its "
        "exposure by hand. A camera that shares its USB bus may lack bandwidth: use another port, or Motion JPEG.");
    say(nominal > 0 && picture->jitter * nominal > MostJitter, "The pictures come at uneven times.");
    say(picture->age > OldPicture, "The pictures are old when they arrive: sound has to be delayed as long.");
    say(picture->isBlack, "The picture is black. Is there a lid, or a switch, on the camera?");
    say(picture->isFrozen, "The picture does not change at all: pull the camera and plug it in again.");
    const std::int64_t lost = dropped(examination.videoDrops, "lost_by_device");
    say(lost > 0, "The camera loses pictures. Try another cable, or a port without a hub.");
    say(dropped(examination.videoDrops, "not_converted") > 0, "Pictures arrive damaged. Try another cable.");
    say(dropped(examination.videoDrops, "late") > 0, "This machine is too busy for these pictures.");
  } else {
    say(source.hasVideo(), "No picture came. Does another program have the camera, or is its switch off?");
  }
  if (const auto& sound = examination.sound) {
    say(sound->isSilent, "The sound is silent. Is the microphone muted, or its level down?");
    say(sound->level.peak > -0.1, "The sound is too loud, and distorted. Turn its level down.");
    say(sound->rate > 0 && std::abs(sound->rate / 44'100 - 1) > MostDrift,
        "The microphone's clock is off: sound and picture drift apart. Record with a program that stretches the "
        "sound.");
    say(dropped(examination.audioDrops, "lost_by_device") > 0, "The microphone loses sound. Try another port.");
  } else {
    say(source.hasAudio(), "No sound came. Does another program have the microphone?");
  }
  return advice;
}

}  // namespace brvhost
