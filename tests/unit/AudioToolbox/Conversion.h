#pragma once

// What the converter's tests share: formats in a few words, input that comes in pieces, and whole streams at once.

#include <AudioToolbox/AudioConverter.h>
#include <AudioToolbox/Converter/InstructionSet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <numbers>
#include <type_traits>
#include <vector>

constexpr AudioFormatFlags kPlanar = kAudioFormatFlagIsNonInterleaved;
constexpr AudioFormatFlags kFloatFlags = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked;
constexpr AudioFormatFlags kIntFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
constexpr OSStatus kNoMoreForNow = 0x6E6F6D6F;  // 'nomo', known to these tests alone

using Description = AudioStreamBasicDescription;
using Bytes = std::vector<std::byte>;
using Buffers = std::vector<Bytes>;  ///< one for each buffer of an AudioBufferList

inline Description pcm(double rate, UInt32 channels, UInt32 bits, AudioFormatFlags flags, UInt32 container = 0) {
  if (container == 0) container = bits / 8;
  const UInt32 bytes = flags & kPlanar ? container : container * channels;
  return {rate, kAudioFormatLinearPCM, flags, bytes, 1, bytes, channels, bits, 0};
}
template <typename Sample>
Description of(double rate, UInt32 channels, AudioFormatFlags flags = 0) {
  return pcm(rate, channels, 8 * sizeof(Sample), flags | (std::is_integral_v<Sample> ? kIntFlags : kFloatFlags));
}

/// Input for a converter, handed over `chunk` frames at a time (0: all at once), then `statusAtEnd`: 0 ends the input.
struct Feed {
  Description format;
  Buffers buffers;
  size_t chunk = 0;
  OSStatus statusAtEnd = noErr;
  size_t available = SIZE_MAX;  ///< frames that have arrived so far
  size_t given = 0;
  size_t calls = 0;
  std::vector<std::unique_ptr<std::byte[]>> piece{};  ///< what was handed out last

  static OSStatus proc(AudioConverterRef, UInt32* packets, AudioBufferList* list, AudioStreamPacketDescription**,
                       void* context) {
    Feed& feed = *static_cast<Feed*>(context);
    ++feed.calls;
    EXPECT_GE(*packets, 1u);
    EXPECT_EQ(list->mNumberBuffers, feed.buffers.size());
    const size_t frameBytes = feed.format.mBytesPerFrame;
    size_t count = std::min(feed.available, feed.buffers[0].size() / frameBytes) - feed.given;
    if (feed.chunk > 0) count = std::min(count, feed.chunk);
    *packets = static_cast<UInt32>(count);
    if (count == 0) return feed.statusAtEnd;

    // Memory of exactly the size promised, so that a sanitizer sees a read past it; the last piece is gone by then.
    feed.piece.clear();
    for (size_t b = 0; b < feed.buffers.size(); ++b) {
      AudioBuffer& buffer = (&list->mBuffers[0])[b];
      buffer.mDataByteSize = static_cast<UInt32>(count * frameBytes);
      buffer.mData = feed.piece.emplace_back(std::make_unique<std::byte[]>(count * frameBytes)).get();
      std::memcpy(buffer.mData, feed.buffers[b].data() + feed.given * frameBytes, count * frameBytes);
    }
    feed.given += count;
    return noErr;
  }
};

/// Does the test's work once with the portable kernels, and once with those that suit this processor.
template <typename Test>
void withEveryInstructionSet(const Test& test) {
  using AudioConversion::InstructionSet;
  for (const InstructionSet set : {InstructionSet::Portable, InstructionSet::AVX2}) {
    AudioConversion::limitInstructions(set);
    test();
  }
}

class Converter {
 public:
  Converter(const Description& source, const Description& destination) : _destination(destination) {
    EXPECT_EQ(AudioConverterNew(&source, &destination, &_converter), noErr);
  }
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;
  ~Converter() { AudioConverterDispose(_converter); }
  AudioConverterRef get() { return _converter; }

  /// Asks once for `frames` frames; `out` holds what came.
  OSStatus fill(Feed& feed, size_t frames, Buffers& out) {
    const size_t frameBytes = _destination.mBytesPerFrame;
    const bool isPlanar = _destination.mFormatFlags & kPlanar;
    out.assign(isPlanar ? _destination.mChannelsPerFrame : 1, Bytes(frames * frameBytes));
    struct {
      UInt32 count;
      AudioBuffer at[8];
    } list{static_cast<UInt32>(out.size()), {}};
    for (size_t b = 0; b < out.size(); ++b) {
      list.at[b] = {isPlanar ? 1 : _destination.mChannelsPerFrame, static_cast<UInt32>(out[b].size()), out[b].data()};
    }
    auto packets = static_cast<UInt32>(frames);
    const OSStatus status = AudioConverterFillComplexBuffer(_converter, &Feed::proc, &feed, &packets,
                                                            reinterpret_cast<AudioBufferList*>(&list), nullptr);
    feed.piece.clear();  // as a caller may once a fill has returned
    for (size_t b = 0; b < out.size(); ++b) {
      EXPECT_EQ(list.at[b].mDataByteSize, packets * frameBytes);
      out[b].resize(packets * frameBytes);
    }
    return status;
  }

  /// Asks for `request` frames at a time until fewer come; adds them to `all`. Returns what the last one did.
  OSStatus fillFrom(Feed& feed, size_t request, Buffers& all) {
    for (Buffers piece;;) {
      const OSStatus status = fill(feed, request, piece);
      all.resize(piece.size());
      for (size_t b = 0; b < all.size(); ++b) all[b].insert(all[b].end(), piece[b].begin(), piece[b].end());
      if (piece[0].size() < request * _destination.mBytesPerFrame) return status;
    }
  }

 private:
  AudioConverterRef _converter = nullptr;
  Description _destination;
};

inline Buffers convert(const Description& source, const Description& destination, Buffers buffers, size_t chunk = 0,
                       size_t request = 4096) {
  Feed feed{.format = source, .buffers = std::move(buffers), .chunk = chunk};
  Buffers all;
  EXPECT_EQ(Converter(source, destination).fillFrom(feed, request, all), noErr);
  return all;
}

template <typename Sample>
Bytes bytesOf(const std::vector<Sample>& samples) {
  const auto* bytes = reinterpret_cast<const std::byte*>(samples.data());
  return {bytes, bytes + samples.size() * sizeof(Sample)};
}

/// One channel of `Sample`s at the one rate, converted to the other.
template <typename In, typename Out = In>
std::vector<Out> resample(double from, double to, const std::vector<In>& samples) {
  const Bytes bytes = convert(of<In>(from, 1), of<Out>(to, 1), {bytesOf(samples)}, 512)[0];
  std::vector<Out> result(bytes.size() / sizeof(Out));
  if (!result.empty()) std::memcpy(result.data(), bytes.data(), bytes.size());
  return result;
}

template <typename Sample = double>
std::vector<Sample> sine(double frequency, double rate, size_t frames, double amplitude, double phase) {
  std::vector<Sample> samples(frames);
  for (size_t n = 0; n < frames; ++n) {
    const double turn = std::fmod(frequency / rate * static_cast<double>(n), 1.0);
    const double value = amplitude * std::sin(2 * std::numbers::pi * turn + phase);
    samples[n] = static_cast<Sample>(std::is_integral_v<Sample> ? std::nearbyint(value) : value);
  }
  return samples;
}
