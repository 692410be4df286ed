#pragma once

// A microphone of the test: each sample tells its place in the stream and its channel.

#include <spa/param/audio/raw.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>

#include "Stream.h"

namespace test::pipewire {

/// The place of a sample of 16 or 24 bits, modulo 2 to their power.
std::uint32_t placeOf(std::uint32_t sample, std::uint32_t channel, int bits);

struct MicrophoneSettings {
  std::string name = "microphone", description = "Microphone";
  spa_audio_format format = SPA_AUDIO_FORMAT_S16_LE;
  std::uint32_t rate = 48'000, channels = 2;
  Properties properties{};
};

class Microphone final : public Stream {
 public:
  explicit Microphone(MicrophoneSettings settings = {}) : _settings(std::move(settings)) { plug(); }
  ~Microphone() override { pull(); }

  void plug() override;
  /// Holds its next cycle up for that long: the graph has a gap.
  void stall(std::int64_t nanoseconds) { _stall = nanoseconds; }

  /// Sound that went on from a place, heard at that time.
  struct Heard {
    std::int64_t time;
    std::uint64_t run;
    std::uint32_t place;
  };
  /// What was heard at a time of the last minutes.
  std::optional<Heard> heardAt(std::int64_t time) const;

 private:
  void process() override;

  const MicrophoneSettings _settings;
  std::uint32_t _place = 0;
  mutable std::mutex _lock;
  std::array<Heard, 1024> _cycles{};
  std::size_t _cycle = 0;
  std::atomic<std::int64_t> _stall{0};
};

}  // namespace test::pipewire
