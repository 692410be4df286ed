#pragma once

// A file being written: whole writes or a Failure that names the file and the reason. It does no harm before it has
// something to write: an earlier file keeps its contents until then, and a new one in which nothing was written goes
// away again. Also a FIFO, a terminal and the like. One thread at a time.

#include <cstddef>
#include <cstdint>
#include <string>

namespace brvhost {

class OutputFile {
 public:
  /// Opens the file, or creates it; a FIFO is waited for until somebody reads. Throws Failure, also for a disk, and for
  /// a file that another OutputFile writes, in whatever process. "-" is standard output.
  explicit OutputFile(std::string path);
  /// Whether the file is a FIFO that nobody reads, so that opening it would wait.
  static bool lacksReader(const std::string& path);
  ~OutputFile();
  OutputFile(OutputFile&& other) noexcept;

  const std::string& path() const { return _path; }
  /// Whether bytes can be replaced.
  bool isSeekable() const { return _isRegular; }

  /// Writes all of the bytes where the last ones ended, or at an offset among those that were written before; the first
  /// ones take the place of what an earlier file held. Throws Failure; what went before is then the end of the file,
  /// where it can be cut. Throws it too where this process has the earlier file open: a clip that a camera plays.
  void write(const void* bytes, std::size_t count);
  void seek(std::uint64_t offset) { _position = offset; }
  /// How long the file is by now.
  std::uint64_t size() const { return _size; }
  /// Throws Failure when what was written turns out not to have reached the disk. Closed is closed in any case.
  void close();
  /// Closes the file, and takes it off the disk again where it was this object that created it.
  void discard() noexcept;

 private:
  OutputFile() = default;

  /// Makes that the end of the file; false where it cannot be.
  bool cut(std::uint64_t size) noexcept;
  bool isOpenElsewhere() const;
  [[noreturn]] void fail(const char* action, int error) const;

  std::string _path;
  int _descriptor = -1;
  bool _isNew = false;
  bool _isRegular = false;
  bool _holdsEarlier = false;  ///< bytes that were there before, until the first write
  std::uint64_t _size = 0;     ///< bytes written
  std::uint64_t _position = 0;
};

}  // namespace brvhost
