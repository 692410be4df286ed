#pragma once

// A file being written: whole writes or a Failure that names the file and the reason.

#include <cstddef>
#include <cstdint>
#include <string>

namespace brvhost {

class OutputFile {
 public:
  OutputFile() = default;
  /// Creates the file or empties an existing one. Throws Failure.
  explicit OutputFile(std::string path);
  ~OutputFile();
  OutputFile(OutputFile&& other) noexcept;
  OutputFile& operator=(OutputFile&& other) noexcept;

  const std::string& path() const { return _path; }
  bool isOpen() const { return _descriptor >= 0; }
  /// Bytes in the file.
  std::uint64_t size() const { return _size; }

  /// Appends all of the bytes or throws Failure; part of them may then be in the file.
  void write(const void* bytes, std::size_t count);
  /// Replaces bytes that were written before. Throws Failure.
  void overwrite(std::uint64_t offset, const void* bytes, std::size_t count);
  /// Cuts off what lies behind `size`. Best effort.
  void truncate(std::uint64_t size) noexcept;
  /// Throws Failure when what was written turns out not to have reached the disk. Closed is closed in any case.
  void close();
  /// Closes the file and takes it off the disk again.
  void discard() noexcept;

 private:
  [[noreturn]] void fail(const char* action, int error) const;

  std::string _path;
  int _descriptor = -1;
  std::uint64_t _size = 0;
};

}  // namespace brvhost
