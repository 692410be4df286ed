#pragma once

// Looks at what a source sends, rather than whether it sends: how loud the sound is, and whether it is silent, the
// picture black, or always the same one. Not locked.

#include <brv.hpp>

#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace brvhost {

/// Of both channels, in decibels below full scale; minus infinity for digital silence.
struct Level {
  double peak = -std::numeric_limits<double>::infinity();
  double rms = -std::numeric_limits<double>::infinity();
};

/// "-12.0 dB", "silent" below what 16 bits hold.
std::string levelText(double decibels);

class LevelMeter {
 public:
  void add(std::span<const std::int16_t> samples);
  /// Of everything since the last call.
  Level take();

 private:
  int _peak = 0;
  double _squares = 0;
  std::int64_t _count = 0;
};

/// Says when something has gone on for a while, and when it is over.
class Condition {
 public:
  Condition(const char* begun, const char* over, brv::Seconds patience)
      : _begun(begun), _over(over), _patience(patience) {}

  /// What people should hear of it at `time`, once each time.
  std::optional<std::string> look(bool holds, brv::Time time);
  bool isTold() const { return _isTold; }

 private:
  const char* _begun;
  const char* _over;
  brv::Seconds _patience;
  std::optional<brv::Time> _since;
  bool _isTold = false;
};

class SignalWatch {
 public:
  SignalWatch() = default;
  /// Tells of everything after that time.
  explicit SignalWatch(brv::Seconds patience) : _silencePatience(patience), _picturePatience(patience) {}

  void picture(const brv::Frame& frame);
  void sound(const brv::Sound& sound);

  /// What has begun or ended since the last call.
  std::vector<std::string> takeNews() { return std::exchange(_news, {}); }
  /// Since the last call.
  Level takeLevel() { return _meter.take(); }
  /// The loudest of all.
  double peak() const { return _peak; }

  bool isSilent() const { return _silence.isTold(); }
  bool isBlack() const { return _black.isTold(); }
  bool isFrozen() const { return _frozen.isTold(); }

 private:
  void tell(std::optional<std::string> news);

  brv::Seconds _silencePatience = std::chrono::seconds(3), _picturePatience = std::chrono::seconds(2);
  LevelMeter _meter, _run;
  double _peak = Level().peak;
  std::uint64_t _lastPicture = 0;
  Condition _silence{"the sound is silent", "the sound is heard again", _silencePatience};
  Condition _black{"the picture is black", "the picture is black no more", _picturePatience};
  Condition _frozen{"the picture is frozen", "the picture moves again", _picturePatience};
  std::vector<std::string> _news;
};

}  // namespace brvhost
