#include "PCM.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace hardware::simulated {
namespace {

// Stores the low `Size` bytes of `bits` in the asked order.
template <std::size_t Size>
void store(std::uint64_t bits, bool bigEndian, std::uint8_t* out) {
  for (std::size_t i = 0; i < Size; ++i) {
    const std::size_t shift = 8 * (bigEndian ? Size - 1 - i : i);
    out[i] = static_cast<std::uint8_t>(bits >> shift);
  }
}

template <std::size_t Size>
struct IntegerCodec {
  std::uint64_t offset;  // what unsigned samples count from

  std::uint64_t encode(double sample) const {
    constexpr double scale = static_cast<double>(std::uint64_t{1} << (8 * Size - 1));
    if (std::isnan(sample)) return offset;
    const double value = std::clamp(std::nearbyint(sample * scale), -scale, scale - 1);
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(value)) + offset;
  }
};

template <typename Float, typename Bits>
struct FloatCodec {
  std::uint64_t encode(double sample) const {
    const auto value = static_cast<Float>(sample);
    Bits bits;
    static_assert(sizeof(bits) == sizeof(value));
    std::memcpy(&bits, &value, sizeof(bits));
    return bits;
  }
};

template <std::size_t Size, typename Codec>
void writeAll(std::span<const double> samples, const AudioStreamBasicDescription& format, Codec codec,
              AudioBufferList& list) {
  const bool bigEndian = (format.mFormatFlags & kAudioFormatFlagIsBigEndian) != 0;
  const std::size_t stride = list.mNumberBuffers;
  AudioBuffer* buffers = list.mBuffers;
  for (std::size_t plane = 0; plane < stride; ++plane) {
    auto* out = static_cast<std::uint8_t*>(buffers[plane].mData);
    for (std::size_t i = plane; i < samples.size(); i += stride, out += Size) {
      store<Size>(codec.encode(samples[i]), bigEndian, out);
    }
  }
}

}  // namespace

AudioStreamBasicDescription describePCM(const PCMShape& shape) {
  AudioFormatFlags flags = kAudioFormatFlagIsPacked;
  if (shape.isFloat) flags |= kAudioFormatFlagIsFloat;
  if (!shape.isFloat && !shape.isUnsigned) flags |= kAudioFormatFlagIsSignedInteger;
  if (shape.isBigEndian) flags |= kAudioFormatFlagIsBigEndian;
  if (shape.isPlanar) flags |= kAudioFormatFlagIsNonInterleaved;
  if (shape.isNonMixable) flags |= kAudioFormatFlagIsNonMixable;

  AudioStreamBasicDescription format{};
  format.mSampleRate = shape.sampleRate;
  format.mFormatID = kAudioFormatLinearPCM;
  format.mFormatFlags = flags;
  format.mBytesPerFrame = shape.bitsPerSample / 8 * (shape.isPlanar ? 1 : shape.channels);
  format.mFramesPerPacket = 1;
  format.mBytesPerPacket = format.mBytesPerFrame;
  format.mChannelsPerFrame = shape.channels;
  format.mBitsPerChannel = shape.bitsPerSample;
  return format;
}

std::uint32_t bufferCount(const AudioStreamBasicDescription& format) {
  const bool planar = (format.mFormatFlags & kAudioFormatFlagIsNonInterleaved) != 0;
  return planar ? format.mChannelsPerFrame : 1;
}

void writeSamples(std::span<const double> samples, const AudioStreamBasicDescription& format, AudioBufferList& list) {
  const bool isFloat = (format.mFormatFlags & kAudioFormatFlagIsFloat) != 0;
  const bool isSigned = (format.mFormatFlags & kAudioFormatFlagIsSignedInteger) != 0;
  const std::uint32_t bits = format.mBitsPerChannel;
  if (isFloat && bits == 32) {
    writeAll<4>(samples, format, FloatCodec<float, std::uint32_t>{}, list);
  } else if (isFloat) {
    writeAll<8>(samples, format, FloatCodec<double, std::uint64_t>{}, list);
  } else if (bits == 8) {
    writeAll<1>(samples, format, IntegerCodec<1>{isSigned ? 0u : 128u}, list);
  } else if (bits == 16) {
    writeAll<2>(samples, format, IntegerCodec<2>{0}, list);
  } else if (bits == 24) {
    writeAll<3>(samples, format, IntegerCodec<3>{0}, list);
  } else {
    writeAll<4>(samples, format, IntegerCodec<4>{0}, list);
  }
}

}  // namespace hardware::simulated
