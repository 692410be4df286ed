#include "MediaFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

namespace hardware::simulated {

Result<MediaFile> MediaFile::open(const std::string& path) {
  // Without blocking, since the path may turn out to be a pipe that nobody writes to.
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) return Failure{std::generic_category().message(errno)};

  struct stat status {};
  const bool isRegular = ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
  MediaFile file(descriptor, isRegular ? static_cast<std::uint64_t>(status.st_size) : 0);
  if (!isRegular) return Failure{"not a regular file"};
  return file;
}

MediaFile::~MediaFile() {
  if (_descriptor >= 0) ::close(_descriptor);
}

MediaFile::MediaFile(MediaFile&& other) noexcept
    : _descriptor(std::exchange(other._descriptor, -1)), _size(other._size) {}

MediaFile& MediaFile::operator=(MediaFile&& other) noexcept {
  std::swap(_descriptor, other._descriptor);
  std::swap(_size, other._size);
  return *this;
}

std::size_t MediaFile::read(std::uint64_t offset, std::span<std::uint8_t> bytes) const {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t count =
        ::pread(_descriptor, bytes.data() + done, bytes.size() - done, static_cast<off_t>(offset + done));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    done += static_cast<std::size_t>(count);
  }
  return done;
}

void tellCutOff(const std::string& path) {
  std::fprintf(stderr, "%s: the clip is cut off; it plays to its last whole frame\n", path.c_str());
}

}  // namespace hardware::simulated
