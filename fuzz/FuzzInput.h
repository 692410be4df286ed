#pragma once

// What a fuzzer's bytes stand for.

#include <CoreAudio/CoreAudioTypes.h>
#include <CoreMedia/CMTime.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>

namespace fuzz {

/// Ends the run, and with it the input is a finding.
inline void require(bool holds) {
  if (!holds) std::abort();
}

class Input : public FuzzedDataProvider {
 public:
  using FuzzedDataProvider::FuzzedDataProvider;

  bool isLeft() { return remaining_bytes() > 0; }

  /// A number that is usual, or at an edge, or anything at all.
  std::int32_t number() {
    constexpr std::int32_t most = std::numeric_limits<std::int32_t>::max();
    return ConsumeBool()
               ? PickValueInArray<std::int32_t>({0, 1, -1, 600, 30, 44100, 90000, 65535, 65536, most, -most - 1})
               : ConsumeIntegral<std::int32_t>();
  }

  /// The same, with NaN and infinities among them.
  double real() {
    using Limits = std::numeric_limits<double>;
    return ConsumeBool()
               ? PickValueInArray<double>({0, 1, -1, 30, 44100, 48000, 192000, 1e-300, 2147483648, Limits::max(),
                                           Limits::infinity(), -Limits::infinity(), Limits::quiet_NaN()})
               : ConsumeFloatingPoint<double>();
  }

  /// A time as an honest camera stamps it, or with every field as it comes.
  CMTime time() {
    if (ConsumeBool()) return CMTimeMake(ConsumeIntegral<std::int32_t>(), PickValueInArray({1, 30, 600, 44100, 90000}));
    const CMTimeValue value = ConsumeBool()
                                  ? PickValueInArray<CMTimeValue>({std::numeric_limits<CMTimeValue>::max(),
                                                                   std::numeric_limits<CMTimeValue>::min(), 0})
                                  : ConsumeIntegral<CMTimeValue>();
    return {value, number(), ConsumeIntegral<CMTimeFlags>(), ConsumeIntegralInRange<CMTimeEpoch>(-1, 1)};
  }

  /// A description of sound that is sound in itself, but for one field.
  AudioStreamBasicDescription stream() {
    const auto channels = ConsumeIntegralInRange<UInt32>(0, 9);
    const auto bits = PickValueInArray<UInt32>({8, 16, 24, 32, 64, 0});
    const auto flags = ConsumeIntegral<std::uint8_t>();
    const UInt32 bytes = bits / 8 * (flags & kAudioFormatFlagIsNonInterleaved ? 1 : channels);
    const auto rate = PickValueInArray<double>({44100, 48000, 8000, 192000, 1, 0});
    AudioStreamBasicDescription made{rate, kAudioFormatLinearPCM, flags, bytes, 1, bytes, channels, bits, 0};
    UInt32* const fields[] = {&made.mFormatID,        &made.mFormatFlags,   &made.mBytesPerPacket,
                              &made.mFramesPerPacket, &made.mBytesPerFrame, &made.mChannelsPerFrame,
                              &made.mBitsPerChannel,  &made.mReserved};
    const auto broken = ConsumeIntegralInRange<std::size_t>(0, 15);
    if (broken < std::size(fields)) *fields[broken] = static_cast<UInt32>(number());
    if (broken == std::size(fields)) made.mSampleRate = real();
    return made;
  }
};

/// A file without a folder, for what reads files.
class MemoryFile {
 public:
  MemoryFile() : _descriptor(memfd_create("input", 0)) { require(_descriptor >= 0); }
  ~MemoryFile() { close(_descriptor); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  /// The path, after the file has been given these contents.
  std::string holding(const std::uint8_t* data, std::size_t size) const {
    require(ftruncate(_descriptor, 0) == 0 && pwrite(_descriptor, data, size, 0) == static_cast<ssize_t>(size));
    return "/proc/self/fd/" + std::to_string(_descriptor);
  }

 private:
  const int _descriptor;
};

}  // namespace fuzz
