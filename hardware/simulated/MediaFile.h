#pragma once

// A file that is read at given positions. Nothing is mapped, so a file that shrinks while it is read ends a
// clip instead of the process.

#include <cstdint>
#include <span>
#include <string>

#include "Result.h"

namespace hardware::simulated {

/// One thread at a time.
class MediaFile {
 public:
  /// Regular files only.
  static Result<MediaFile> open(const std::string& path);

  ~MediaFile();
  MediaFile(MediaFile&& other) noexcept;
  MediaFile& operator=(MediaFile&& other) noexcept;

  /// In bytes, when the file was opened.
  std::uint64_t size() const noexcept { return _size; }

  /// How many bytes could be read at `offset`: fewer than asked at the end of the file or on an error.
  std::size_t read(std::uint64_t offset, std::span<std::uint8_t> bytes) const;

 private:
  MediaFile(int descriptor, std::uint64_t size) : _descriptor(descriptor), _size(size) {}

  int _descriptor = -1;
  std::uint64_t _size = 0;
};

/// Says on the standard error that the end of a clip is missing, and what becomes of the rest.
void tellCutOff(const std::string& path);

}  // namespace hardware::simulated
