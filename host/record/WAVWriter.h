#pragma once

// WAVE files of 16-bit PCM. The sizes in the header are brought up to date with every second of sound, so a file whose
// writer was killed plays up to there. Past 4 GiB the file becomes RF64, for which the header keeps room
// from the start. Where there is no going back, as in a FIFO, the header says that the sizes are not known. Not locked;
// one thread at a time.

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "record/OutputFile.h"

namespace brvhost {

struct PCMFormat {
  std::int32_t sampleRate = 44'100;
  std::int32_t channels = 2;
  std::int32_t bitsPerSample = 16;

  /// 0 for numbers that no sound has.
  std::int64_t bytesPerFrame() const {
    return channels > 0 && bitsPerSample > 0 ? std::int64_t{channels} * bitsPerSample / 8 : 0;
  }
  std::uint64_t framesIn(std::uint64_t bytes) const {
    const auto frameBytes = static_cast<std::uint64_t>(bytesPerFrame());
    return frameBytes > 0 ? bytes / frameBytes : 0;
  }
  friend bool operator==(const PCMFormat&, const PCMFormat&) = default;
};

inline constexpr std::size_t WAVHeaderBytes = 80;
/// Of a stream whose end nobody knows yet.
inline constexpr std::uint64_t UnknownDataBytes = std::numeric_limits<std::uint64_t>::max();

/// Everything before the samples, for a file with `dataBytes` of them.
std::array<std::uint8_t, WAVHeaderBytes> wavHeader(const PCMFormat& format, std::uint64_t dataBytes);

class WAVWriter {
 public:
  /// Takes over `file`, in which nothing is written yet, and writes a header for no sound at all. Throws Failure.
  WAVWriter(OutputFile file, const PCMFormat& format);

  const PCMFormat& format() const { return _format; }
  /// Frames of sound in the file.
  std::int64_t frameCount() const;

  /// Appends whole frames, interleaved, little-endian. Throws Failure; the file then still ends behind a whole frame.
  void write(const void* samples, std::size_t bytes);

  /// Throws Failure.
  void close();

 private:
  void updateHeader();

  OutputFile _file;
  const PCMFormat _format;
  std::uint64_t _dataBytes = 0;
  std::uint64_t _dataBytesInHeader = 0;
};

}  // namespace brvhost
