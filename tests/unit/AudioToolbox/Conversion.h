#pragma once

// What the converter's tests share: formats in a few words, input that comes in pieces, and whole streams at once.

#include <AudioToolbox/AudioConverter.h>
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

inline Description pcm(double rate, UInt32 channels, UInt32 bits, AudioFormatFlags flags, UInt32 container = 0) {
  if (container == 0) container = bits / 8;
  const UInt32 bytes = flags & kPlanar ? container : container * channels;
  return {rate, kAudioFormatLinearPCM, flags, bytes, 1, bytes, channels, bits, 0};
}
template <typename Sample>
Description of(double rate, UInt32 channels, AudioFormatFlags flags = 0) {
  return pcm(rate, channels, 8 * sizeof(Sample), flags | (std::is_integral_v<Sample> ? kIntFlags : kFloatFlags));
}

using Bytes = std::vector<std::byte>;
using Buffers = std::vector<Bytes>;  ///< one for each buffer of an AudioBufferList

inline size_t buffersIn(const Description& format) {
  return format.mFormatFlags & kPlanar ? format.mChannelsPerFrame : 1;
}

inline void append(Buffers& all, const Buffers& piece) {
  all.resize(piece.size());
  for (size_t b = 0; b < all.size(); ++b) all[b].insert(all[b].end(), piece[b].begin(), piece[b].end());
}

/// An AudioBufferList of up to eight buffers, over memory of the test's.
struct BufferList {
  BufferList(const Description& format, Buffers& buffers) : count(static_cast<UInt32>(buffers.size())) {
    const UInt32 channels = count > 1 ? 1 : format.mChannelsPerFrame;
    for (UInt32 b = 0; b < count; ++b) at[b] = {channels, static_cast<UInt32>(buffers[b].size()), buffers[b].data()};
  }
  AudioBufferList* get() { return reinterpret_cast<AudioBufferList*>(this); }

  UInt32 count;
  AudioBuffer at[8];
};

/// Input for a converter, handed over `chunk` frames at a time (0: all at once), then `statusAtEnd`: 0 ends the input.
struct Feed {
  Description format;
  Buffers buffers;
  size_t chunk = 0;
  OSStatus statusAtEnd = noErr;
  size_t given = 0;
  size_t available = SIZE_MAX;  ///< frames that have arrived so far
  size_t calls = 0;
  std::vector<std::unique_ptr<std::byte[]>> piece{};  ///< what was handed out last

  static OSStatus proc(AudioConverterRef, UInt32* packets, AudioBufferList* list, AudioStreamPacketDescription**,
                       void* context) {
    Feed& feed = *static_cast<Feed*>(context);
    ++feed.calls;
    EXPECT_GE(*packets, 1u);
    EXPECT_EQ(list->mNumberBuffers, feed.buffers.size());
    size_t count = std::min(feed.available, feed.buffers[0].size() / feed.format.mBytesPerFrame) - feed.given;
    if (feed.chunk > 0) count = std::min(count, feed.chunk);
    *packets = static_cast<UInt32>(count);
    if (count == 0) return feed.statusAtEnd;

    // Memory of exactly the size promised, so that a sanitizer sees a read past it; the last piece is gone by then.
    feed.piece.clear();
    const size_t size = count * feed.format.mBytesPerFrame;
    for (size_t b = 0; b < feed.buffers.size(); ++b) {
      feed.piece.push_back(std::make_unique<std::byte[]>(size));
      std::memcpy(feed.piece[b].get(), feed.buffers[b].data() + feed.given * feed.format.mBytesPerFrame, size);
      AudioBuffer& buffer = (&list->mBuffers[0])[b];
      buffer.mData = feed.piece[b].get();
      buffer.mDataByteSize = static_cast<UInt32>(size);
    }
    feed.given += count;
    return noErr;
  }
};

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
    out.assign(buffersIn(_destination), Bytes(frames * _destination.mBytesPerFrame));
    BufferList list(_destination, out);
    auto packets = static_cast<UInt32>(frames);
    const OSStatus status =
        AudioConverterFillComplexBuffer(_converter, &Feed::proc, &feed, &packets, list.get(), nullptr);
    feed.piece.clear();  // as a caller may once a fill has returned
    for (size_t b = 0; b < out.size(); ++b) {
      EXPECT_EQ(list.at[b].mDataByteSize, packets * _destination.mBytesPerFrame);
      out[b].resize(packets * _destination.mBytesPerFrame);
    }
    return status;
  }

  /// Converts to the end of the input, asking for `request` frames at a time.
  Buffers convertAll(Feed& feed, size_t request = 4096) {
    Buffers all;
    for (Buffers piece;;) {
      EXPECT_EQ(fill(feed, request, piece), noErr);
      append(all, piece);
      if (piece[0].size() < request * _destination.mBytesPerFrame) return all;
    }
  }

 private:
  AudioConverterRef _converter = nullptr;
  Description _destination;
};

inline Buffers convert(const Description& source, const Description& destination, Buffers buffers, size_t chunk = 0,
                       size_t request = 4096) {
  Feed feed{.format = source, .buffers = std::move(buffers), .chunk = chunk};
  return Converter(source, destination).convertAll(feed, request);
}

template <typename Sample>
Bytes bytesOf(const std::vector<Sample>& samples) {
  const auto* bytes = reinterpret_cast<const std::byte*>(samples.data());
  return {bytes, bytes + samples.size() * sizeof(Sample)};
}

template <typename Sample>
std::vector<Sample> samplesOf(const Bytes& bytes) {
  std::vector<Sample> samples(bytes.size() / sizeof(Sample));
  if (!samples.empty()) std::memcpy(samples.data(), bytes.data(), bytes.size());
  return samples;
}

/// A sine of `frequency` at `rate`, the same in each of the interleaved channels.
template <typename Sample = double>
std::vector<Sample> sine(double frequency, double rate, size_t frames, double amplitude, size_t channels = 1,
                         double phase = 0.3) {
  std::vector<Sample> samples;
  for (size_t n = 0; n < frames; ++n) {
    const double turn = std::fmod(frequency / rate * static_cast<double>(n), 1.0);
    const double value = amplitude * std::sin(2 * std::numbers::pi * turn + phase);
    samples.insert(samples.end(), channels, static_cast<Sample>(value));
  }
  return samples;
}
