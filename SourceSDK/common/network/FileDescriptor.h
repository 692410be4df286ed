#pragma once

// A file descriptor with an owner.

#include <unistd.h>

namespace CSDK {

/// Closes its descriptor at the end of the scope. Negative, as system calls return it for a failure, is none.
class FileDescriptor {
 public:
  explicit FileDescriptor(int number) noexcept : _number(number) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() {
    if (isOpen()) ::close(_number);
  }

  bool isOpen() const noexcept { return _number >= 0; }
  int number() const noexcept { return _number; }

 private:
  const int _number;
};

}  // namespace CSDK
