#pragma once

// A stream description, checked and put into the terms that the conversion thinks in. A value; any thread.

#include <CoreAudio/CoreAudioTypes.h>

#include <algorithm>
#include <array>
#include <cstddef>

namespace AudioConversion {

/// Channels that are worked on: the most that a destination has, and a layout.
inline constexpr unsigned kMaxChannels = 8;
/// Of a source with more, the first kMaxChannels are read and the others stepped over.
inline constexpr unsigned kMaxSourceChannels = 32;
inline constexpr double kLowestSampleRate = 8000;
inline constexpr double kHighestSampleRate = 192000;

enum class SampleKind { SignedInteger, UnsignedInteger, Float };

/// How one sample lies in its container.
struct SampleEncoding {
  SampleKind kind = SampleKind::SignedInteger;
  unsigned bits = 0;            ///< significant bits: 8, 16, 24 or 32 of an integer, 32 or 64 of a float
  unsigned containerBytes = 0;  ///< bytes from one sample to the next of the same frame
  bool bigEndian = false;       ///< never set for containers of one byte
  bool alignedHigh = false;     ///< never set when the sample fills its container

  bool operator==(const SampleEncoding&) const = default;
  bool isFloat() const noexcept { return kind == SampleKind::Float; }
  /// Significant bits of a value near full scale: those of the mantissa for a float.
  unsigned precision() const noexcept { return !isFloat() ? bits : bits == 32 ? 24 : 53; }
};

struct PCMFormat {
  double sampleRate = 0;
  unsigned channels = 0;
  bool interleaved = true;
  SampleEncoding sample;

  bool operator==(const PCMFormat&) const = default;
  /// Buffers of an AudioBufferList in this format.
  unsigned bufferCount() const noexcept { return interleaved ? 1 : channels; }
  /// Those among them whose samples are looked at: the first so many.
  unsigned readBufferCount() const noexcept { return std::min(bufferCount(), kMaxChannels); }
  /// Bytes that one frame takes in each of those buffers.
  size_t bytesPerFrame() const noexcept {
    return interleaved ? channels * sample.containerBytes : sample.containerBytes;
  }
};

/// Reads a description. False for everything but linear PCM of up to `mostChannels` channels whose fields agree with
/// each other; the sample rate is taken over unread. A mono or one-channel-a-plane description is the same with and
/// without the non-interleaved flag.
bool parsePCMFormat(const AudioStreamBasicDescription& description, unsigned mostChannels, PCMFormat& format) noexcept;

bool isSampleRateInRange(double sampleRate) noexcept;

/// Where the samples of a run of frames lie: the first sample of each channel that is worked on, and the way from frame
/// to frame.
template <typename Byte>
struct SamplePlanes {
  std::array<Byte*, kMaxChannels> channel{};
  size_t stride = 0;  ///< bytes

  SamplePlanes advancedBy(size_t frames) const noexcept {
    SamplePlanes result = *this;
    for (Byte*& first : result.channel) {
      if (first) first += frames * stride;
    }
    return result;
  }
};
using InputPlanes = SamplePlanes<const std::byte>;
using OutputPlanes = SamplePlanes<std::byte>;

/// The planes of samples whose first bytes, one pointer for each buffer that is read, are given; a null one, which may
/// stand for no samples, stays null.
template <typename Byte>
SamplePlanes<Byte> planesOf(const PCMFormat& format, Byte* const* buffers) noexcept {
  SamplePlanes<Byte> planes;
  planes.stride = format.bytesPerFrame();
  for (unsigned c = 0; c < std::min(format.channels, kMaxChannels); ++c) {
    planes.channel[c] = buffers[format.interleaved ? 0 : c];
    if (format.interleaved && planes.channel[c]) planes.channel[c] += c * format.sample.containerBytes;
  }
  return planes;
}

}  // namespace AudioConversion
