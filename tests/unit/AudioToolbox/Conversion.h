#pragma once

// What the converter's tests share: formats in a few words, input that comes in pieces, and whole streams at once.

#include <AudioToolbox/AudioConverter.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <numbers>
#include <vector>

constexpr AudioFormatFlags kPlanar = kAudioFormatFlagIsNonInterleaved;
constexpr AudioFormatFlags kFloatFlags = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked;
constexpr AudioFormatFlags kIntFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;

inline AudioStreamBasicDescription pcm(double rate, UInt32 channels, UInt32 bits, AudioFormatFlags flags,
                                       UInt32 container = 0) {
  if (container == 0) container = bits / 8;
  const UInt32 bytes = flags & kPlanar ? container : container * channels;
  return {rate, kAudioFormatLinearPCM, flags, bytes, 1, bytes, channels, bits, 0};
}
inline AudioStreamBasicDescription floats(double rate, UInt32 channels) {
  return pcm(rate, channels, 32, kFloatFlags);
}
inline AudioStreamBasicDescription doubles(double rate, UInt32 channels) {
  return pcm(rate, channels, 64, kFloatFlags);
}
inline AudioStreamBasicDescription int16s(double rate, UInt32 channels) {
  return pcm(rate, channels, 16, kIntFlags);
}

using Bytes = std::vector<std::byte>;
using Buffers = std::vector<Bytes>;  ///< one for each buffer of an AudioBufferList

inline size_t buffersIn(const AudioStreamBasicDescription& format) {
  return format.mFormatFlags & kPlanar ? format.mChannelsPerFrame : 1;
}

/// An AudioBufferList of any length over memory of the test's.
class BufferList {
 public:
  BufferList(const AudioStreamBasicDescription& format, Buffers& buffers, size_t firstFrame = 0)
      : _storage(sizeof(AudioBufferList) + buffers.size() * sizeof(AudioBuffer)) {
    get()->mNumberBuffers = static_cast<UInt32>(buffers.size());
    for (size_t b = 0; b < buffers.size(); ++b) {
      const size_t skipped = std::min(buffers[b].size(), firstFrame * format.mBytesPerFrame);
      const auto bytes = static_cast<UInt32>(buffers[b].size() - skipped);
      at(b) = {buffers.size() > 1 ? 1 : format.mChannelsPerFrame, bytes, buffers[b].data() + skipped};
    }
  }
  AudioBufferList* get() { return reinterpret_cast<AudioBufferList*>(_storage.data()); }
  AudioBuffer& at(size_t index) {
    AudioBuffer* const first = get()->mBuffers;
    return first[index];
  }

 private:
  std::vector<std::byte> _storage;
};

/// Input for a converter, handed over `chunk` frames at a time (0: all at once), then `statusAtEnd`: 0 ends the input.
struct Feed {
  AudioStreamBasicDescription format;
  Buffers buffers;
  size_t chunk = 0;
  OSStatus statusAtEnd = noErr;
  size_t given = 0;
  size_t available = SIZE_MAX;  ///< frames that have arrived so far
  size_t calls = 0;

  size_t frames() const { return buffers[0].size() / format.mBytesPerFrame; }

  static OSStatus proc(AudioConverterRef, UInt32* packets, AudioBufferList* list, AudioStreamPacketDescription**,
                       void* context) {
    Feed& feed = *static_cast<Feed*>(context);
    ++feed.calls;
    EXPECT_GE(*packets, 1u);
    EXPECT_EQ(list->mNumberBuffers, feed.buffers.size());
    size_t count = std::min(feed.available, feed.frames()) - feed.given;
    if (feed.chunk > 0) count = std::min(count, feed.chunk);
    *packets = static_cast<UInt32>(count);
    if (count == 0) return feed.statusAtEnd;

    // Memory of exactly the size promised, so that a sanitizer sees a read past it; the last piece is gone by then.
    feed._piece.clear();
    AudioBuffer* const first = list->mBuffers;
    for (size_t b = 0; b < feed.buffers.size(); ++b) {
      const size_t size = count * feed.format.mBytesPerFrame;
      feed._piece.push_back(std::make_unique<std::byte[]>(size));
      std::memcpy(feed._piece[b].get(), feed.buffers[b].data() + feed.given * feed.format.mBytesPerFrame, size);
      first[b].mData = feed._piece[b].get();
      first[b].mDataByteSize = static_cast<UInt32>(size);
    }
    feed.given += count;
    return noErr;
  }

  /// Frees what was handed out, as a caller may once a fill has returned.
  void release() { _piece.clear(); }

  std::vector<std::unique_ptr<std::byte[]>> _piece{};
};

class Converter {
 public:
  Converter(const AudioStreamBasicDescription& source, const AudioStreamBasicDescription& destination)
      : _destination(destination) {
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
    feed.release();
    for (size_t b = 0; b < out.size(); ++b) {
      EXPECT_EQ(list.at(b).mDataByteSize, packets * _destination.mBytesPerFrame);
      out[b].resize(packets * _destination.mBytesPerFrame);
    }
    return status;
  }

  /// Converts to the end of the input, asking for `request` frames at a time.
  Buffers convertAll(Feed& feed, size_t request = 4096) {
    Buffers all(buffersIn(_destination));
    for (;;) {
      Buffers piece;
      EXPECT_EQ(fill(feed, request, piece), noErr);
      for (size_t b = 0; b < all.size(); ++b) all[b].insert(all[b].end(), piece[b].begin(), piece[b].end());
      if (piece[0].size() < request * _destination.mBytesPerFrame) return all;
    }
  }

 private:
  AudioConverterRef _converter = nullptr;
  AudioStreamBasicDescription _destination;
};

template <typename Sample>
Bytes bytesOf(const std::vector<Sample>& samples) {
  Bytes bytes(samples.size() * sizeof(Sample));
  if (!samples.empty()) std::memcpy(bytes.data(), samples.data(), bytes.size());
  return bytes;
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
  samples.reserve(frames * channels);
  for (size_t n = 0; n < frames; ++n) {
    const double turn = std::fmod(frequency / rate * static_cast<double>(n), 1.0);
    const double value = amplitude * std::sin(2 * std::numbers::pi * turn + phase);
    samples.insert(samples.end(), channels, static_cast<Sample>(value));
  }
  return samples;
}

template <typename Sample>
std::vector<double> channelOf(const std::vector<Sample>& interleaved, size_t channel, size_t channels) {
  std::vector<double> result;
  for (size_t i = channel; i < interleaved.size(); i += channels) result.push_back(static_cast<double>(interleaved[i]));
  return result;
}
