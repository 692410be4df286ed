#pragma once

// Linear PCM as devices speak it: descriptions of it, and samples written in it.

#include <CoreAudio/CoreAudioTypes.h>

#include <cstdint>
#include <span>

namespace hardware::simulated {

struct PCMShape {
  double sampleRate = 48000;
  std::uint32_t bitsPerSample = 16;  ///< integers: 8, 16, 24, 32; floating point: 32, 64
  std::uint32_t channels = 2;
  bool isFloat = false;
  bool isUnsigned = false;  ///< for 8 bits
  bool isBigEndian = false;
  bool isPlanar = false;
  bool isNonMixable = false;
};

/// The packed description of a shape.
AudioStreamBasicDescription describePCM(const PCMShape& shape);

/// The number of AudioBuffers that the format's samples take: 1, or one a channel for planar formats.
std::uint32_t bufferCount(const AudioStreamBasicDescription& format);

/// Writes interleaved samples (1.0 is full scale; as many channels as the format has) into the buffers of a list made
/// for `format`. Integers are rounded to the nearest and saturate. The format is one that describePCM gives.
void writeSamples(std::span<const double> samples, const AudioStreamBasicDescription& format, AudioBufferList& list);

}  // namespace hardware::simulated
