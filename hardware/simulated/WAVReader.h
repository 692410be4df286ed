#pragma once

// Reads WAVE files: PCM of 8, 16, 24 and 32 bits, floating point of 32 and 64 bits, plain or extensible. The
// samples stay in the file until they are asked for.

#include <Hardware.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "MediaFile.h"
#include "Result.h"

namespace hardware::simulated {

/// One thread at a time.
class WAVReader {
 public:
  /// Fails for a file whose header cannot be read or that holds no sound. A data chunk that claims more than the file
  /// holds ends where the file does.
  static Result<WAVReader> open(const std::string& path);

  /// What the file holds, as a device would describe it.
  const AudioFormat& format() const noexcept { return _format; }
  std::uint32_t channels() const noexcept { return _format.stream.mChannelsPerFrame; }
  std::uint64_t frameCount() const noexcept { return _frameCount; }
  /// Whether the file ends before its data chunk does, or that in the middle of a frame.
  bool isCutOff() const noexcept { return _isCutOff; }

  /// Reads whole frames from frame `first` on, interleaved, 1.0 for full scale. Returns their number: less than
  /// `samples` has room for at the end of the sound. Exact: written again in the file's format, the same bytes come
  /// out.
  std::size_t read(std::uint64_t first, std::span<double> samples);

 private:
  WAVReader(MediaFile file, AudioFormat format, std::uint64_t dataOffset, std::uint64_t frameCount, bool isCutOff);

  MediaFile _file;
  AudioFormat _format;
  std::uint64_t _dataOffset;
  std::uint64_t _frameCount;
  bool _isCutOff;
  std::vector<std::uint8_t> _bytes;
};

}  // namespace hardware::simulated
