#include "OutputFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "Failure.h"

namespace brvhost {

OutputFile::OutputFile(std::string path) : path_(std::move(path)) {
  descriptor_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (descriptor_ < 0) fail("create", errno);
}

OutputFile::~OutputFile() {
  if (isOpen()) ::close(descriptor_);
}

OutputFile::OutputFile(OutputFile&& other) noexcept
    : path_(std::move(other.path_)), descriptor_(std::exchange(other.descriptor_, -1)), size_(other.size_) {}

OutputFile& OutputFile::operator=(OutputFile&& other) noexcept {
  if (this != &other) {
    if (isOpen()) ::close(descriptor_);
    path_ = std::move(other.path_);
    descriptor_ = std::exchange(other.descriptor_, -1);
    size_ = other.size_;
  }
  return *this;
}

void OutputFile::write(const void* bytes, std::size_t count) {
  const auto* next = static_cast<const char*>(bytes);
  while (count > 0) {
    const ssize_t written = ::write(descriptor_, next, count);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) fail("write to", errno);
    next += written;
    count -= static_cast<std::size_t>(written);
    size_ += static_cast<std::uint64_t>(written);
  }
}

void OutputFile::overwrite(std::uint64_t offset, const void* bytes, std::size_t count) {
  const auto* next = static_cast<const char*>(bytes);
  while (count > 0) {
    const ssize_t written = ::pwrite(descriptor_, next, count, static_cast<off_t>(offset));
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) fail("write to", errno);
    next += written;
    count -= static_cast<std::size_t>(written);
    offset += static_cast<std::uint64_t>(written);
  }
}

void OutputFile::truncate(std::uint64_t size) noexcept {
  if (!isOpen() || ::ftruncate(descriptor_, static_cast<off_t>(size)) != 0) return;
  ::lseek(descriptor_, static_cast<off_t>(size), SEEK_SET);
  size_ = size;
}

void OutputFile::close() {
  if (!isOpen()) return;
  if (::close(std::exchange(descriptor_, -1)) != 0 && errno != EINTR) fail("finish", errno);
}

void OutputFile::discard() noexcept {
  if (!isOpen()) return;
  ::close(std::exchange(descriptor_, -1));
  ::unlink(path_.c_str());
}

void OutputFile::fail(const char* action, int error) const {
  throw Failure(formatted("cannot %s %s: %s", action, path_.c_str(), std::generic_category().message(error).c_str()));
}

}  // namespace brvhost
