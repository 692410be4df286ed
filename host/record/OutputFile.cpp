#include "record/OutputFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include "common/Failure.h"

namespace brvhost {

namespace {

bool isSameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

}  // namespace

// Delegates, so that the destructor cleans up behind what is thrown.
OutputFile::OutputFile(std::string path) : OutputFile() {
  _path = std::move(path);
  const bool isStandardOutput = _path == "-";
  if (isStandardOutput) {
    _path = "standard output";
    _descriptor = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
  } else {
    _descriptor = ::open(_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    _isNew = _descriptor >= 0;
  }
  if (!isStandardOutput && !_isNew && errno == EEXIST)
    _descriptor = ::open(_path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  struct stat status = {};
  if (_descriptor < 0 && errno == EINTR) throw Failure("interrupted");  // while waiting for a FIFO's reader
  if (_descriptor < 0 || ::fstat(_descriptor, &status) != 0) fail("create", errno);

  if (S_ISBLK(status.st_mode)) throw Failure("cannot write to " + _path + ": it is a disk, not a file");
  _isRegular = !isStandardOutput && S_ISREG(status.st_mode);  // what a shell appends to is not to be overwritten
  _holdsEarlier = _isRegular && status.st_size > 0;
  // Best effort: there are file systems without locks.
  if (_isRegular && ::flock(_descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    _isNew = false;  // whoever was quicker writes it
    throw Failure("cannot write to " + _path + ": it is being recorded to already");
  }
}

OutputFile::~OutputFile() {
  if (_size == 0) discard();
  if (_descriptor >= 0) ::close(_descriptor);
}

OutputFile::OutputFile(OutputFile&& other) noexcept
    : _path(std::move(other._path)),
      _descriptor(std::exchange(other._descriptor, -1)),
      _isNew(other._isNew),
      _isRegular(other._isRegular),
      _holdsEarlier(other._holdsEarlier),
      _size(other._size),
      _position(other._position) {}

bool OutputFile::lacksReader(const std::string& path) {
  struct stat status = {};
  if (::stat(path.c_str(), &status) != 0 || !S_ISFIFO(status.st_mode)) return false;
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (descriptor >= 0) ::close(descriptor);
  return descriptor < 0 && errno == ENXIO;
}

void OutputFile::write(const void* bytes, std::size_t count) {
  if (_holdsEarlier && isOpenElsewhere()) {
    throw Failure("cannot write to " + _path + ": it is open as a clip that plays, or as standard output");
  }
  const auto* next = static_cast<const char*>(bytes);
  const std::uint64_t sizeBefore = _size;
  while (count > 0) {
    const ssize_t written = _isRegular ? ::pwrite(_descriptor, next, count, static_cast<off_t>(_position))
                                       : ::write(_descriptor, next, count);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) {
      const int error = errno;
      if (!_holdsEarlier) cut(sizeBefore);
      fail("write to", error);
    }
    next += written;
    count -= static_cast<std::size_t>(written);
    _position += static_cast<std::uint64_t>(written);
    _size = std::max(_size, _position);
    if (std::exchange(_holdsEarlier, false) && !cut(_size)) fail("write to", errno);
  }
}

void OutputFile::close() {
  if (_descriptor >= 0 && ::close(std::exchange(_descriptor, -1)) != 0 && errno != EINTR) fail("finish", errno);
}

void OutputFile::discard() noexcept {
  if (_descriptor < 0) return;
  struct stat own = {};
  struct stat named = {};
  const bool isStillNamed =
      ::fstat(_descriptor, &own) == 0 && ::lstat(_path.c_str(), &named) == 0 && isSameFile(own, named);
  if (_isNew && isStillNamed) ::unlink(_path.c_str());
  ::close(std::exchange(_descriptor, -1));
}

bool OutputFile::cut(std::uint64_t size) noexcept {
  const auto end = static_cast<off_t>(size);
  if (::ftruncate(_descriptor, end) != 0) return false;
  _size = size;
  return true;
}

bool OutputFile::isOpenElsewhere() const {
  struct stat own = {};
  if (::fstat(_descriptor, &own) != 0) return false;
  int found = 0;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
    struct stat other = {};
    if (::stat(entry.path().c_str(), &other) == 0 && isSameFile(own, other)) ++found;
  }
  return found > 1;
}

void OutputFile::fail(const char* action, int error) const {
  const std::string reason = error == EPIPE ? "nobody reads it any more" : std::generic_category().message(error);
  throw Failure(formatted("cannot %s %s: %s", action, _path.c_str(), reason.c_str()));
}

}  // namespace brvhost
