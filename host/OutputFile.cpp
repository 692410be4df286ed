#include "OutputFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "Failure.h"

namespace brvhost {

OutputFile::OutputFile(std::string path) : _path(std::move(path)) {
  _descriptor = ::open(_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (_descriptor < 0) fail("create", errno);
}

OutputFile::~OutputFile() {
  if (isOpen()) ::close(_descriptor);
}

OutputFile::OutputFile(OutputFile&& other) noexcept
    : _path(std::move(other._path)), _descriptor(std::exchange(other._descriptor, -1)), _size(other._size) {}

OutputFile& OutputFile::operator=(OutputFile&& other) noexcept {
  if (this != &other) {
    if (isOpen()) ::close(_descriptor);
    _path = std::move(other._path);
    _descriptor = std::exchange(other._descriptor, -1);
    _size = other._size;
  }
  return *this;
}

void OutputFile::write(const void* bytes, std::size_t count) {
  const auto* next = static_cast<const char*>(bytes);
  while (count > 0) {
    const ssize_t written = ::write(_descriptor, next, count);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) fail("write to", errno);
    next += written;
    count -= static_cast<std::size_t>(written);
    _size += static_cast<std::uint64_t>(written);
  }
}

void OutputFile::overwrite(std::uint64_t offset, const void* bytes, std::size_t count) {
  const auto* next = static_cast<const char*>(bytes);
  while (count > 0) {
    const ssize_t written = ::pwrite(_descriptor, next, count, static_cast<off_t>(offset));
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) fail("write to", errno);
    next += written;
    count -= static_cast<std::size_t>(written);
    offset += static_cast<std::uint64_t>(written);
  }
}

void OutputFile::truncate(std::uint64_t size) noexcept {
  if (!isOpen() || ::ftruncate(_descriptor, static_cast<off_t>(size)) != 0) return;
  ::lseek(_descriptor, static_cast<off_t>(size), SEEK_SET);
  _size = size;
}

void OutputFile::close() {
  if (!isOpen()) return;
  if (::close(std::exchange(_descriptor, -1)) != 0 && errno != EINTR) fail("finish", errno);
}

void OutputFile::discard() noexcept {
  if (!isOpen()) return;
  ::close(std::exchange(_descriptor, -1));
  ::unlink(_path.c_str());
}

void OutputFile::fail(const char* action, int error) const {
  throw Failure(formatted("cannot %s %s: %s", action, _path.c_str(), std::generic_category().message(error).c_str()));
}

}  // namespace brvhost
