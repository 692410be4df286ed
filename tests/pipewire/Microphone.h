#pragma once

// A microphone of the test: each sample tells its place in the stream and its channel, or beeps tell the time.

#include <spa/param/audio/raw.h>

#include <atomic>

#include "Stream.h"

namespace test::pipewire {

/// The place of a sample of 16 or 24 bits, modulo 2 to their power.
std::uint32_t placeOf(std::uint32_t sample, std::uint32_t channel, int bits);

struct MicrophoneSettings {
  std::string name = "microphone", description = "Microphone";
  spa_audio_format format = SPA_AUDIO_FORMAT_S16_LE;
  std::uint32_t rate = 48'000, channels = 2;
  Properties properties{};
  bool beeps = false;  ///< in the first tenth of each second of the monotonic clock; silent otherwise
};

class Microphone final : public Stream {
 public:
  explicit Microphone(MicrophoneSettings settings = {}) : _settings(std::move(settings)) { plug(); }
  ~Microphone() override { pull(); }

  void plug();
  /// Holds its next cycle up for that long: the graph has a gap.
  void stall(std::int64_t nanoseconds) { _stall = nanoseconds; }

 private:
  void process() override;

  const MicrophoneSettings _settings;
  std::uint32_t _place = 0;
  std::atomic<std::int64_t> _stall{0};
};

}  // namespace test::pipewire
