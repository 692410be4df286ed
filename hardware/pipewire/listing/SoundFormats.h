#pragma once

// The formats of a microphone or an interface: what PipeWire says of them, as the frameworks list them, and what a
// stream asks for. Pure functions.

#include <Hardware.h>
#include <spa/pod/pod.h>

#include <cstdint>
#include <span>
#include <vector>

struct spa_pod_builder;

namespace hardware::pipewire {

/// One line of a microphone's list: all of its channels, or two that belong together, out of a stream of all.
struct SoundFormat {
  AudioFormat format;                    ///< interleaved
  std::uint32_t sampleFormat = 0;        ///< an spa_audio_format
  std::vector<std::uint32_t> positions;  ///< of all channels of the stream

  std::uint32_t streamChannels() const { return static_cast<std::uint32_t>(positions.size()); }
};

/// Reads what a node offers; the device's own rate comes first. An interface with many inputs that have nothing to do
/// with each other has a format for each two of them: nobody wants their sum.
std::vector<SoundFormat> readSoundFormats(std::span<const spa_pod* const> offered);

/// What a stream takes. `builder` owns what is returned.
const spa_pod* requestFor(const SoundFormat& format, spa_pod_builder& builder);

}  // namespace hardware::pipewire
