#pragma once

// A growing run of bytes, owned by its holder. Not synchronised: one thread at a time.

class zBuffer {
 public:
  /// An empty buffer with room for `capacity` bytes, a hint that memory may not allow. It grows in steps of at
  /// least `increment` bytes; 0 leaves the step to the buffer, which is right unless the sizes are known.
  zBuffer(unsigned int capacity, unsigned int increment) noexcept;
  ~zBuffer();
  zBuffer(const zBuffer&) = delete;
  zBuffer& operator=(const zBuffer&) = delete;

  /// Drops the bytes and keeps the room for the next ones.
  void MakeEmpty() noexcept;

  /// The bytes, valid until the buffer changes. Never null; a zero byte that `Length()` does not count follows them.
  const char* Data() const noexcept { return _bytes ? _bytes : &_none; }
  char* Data() noexcept { return _bytes ? _bytes : &_none; }

  /// Number of bytes.
  unsigned int Length() const noexcept { return _length; }

  /// Adds a copy of `length` bytes, which may be the buffer's own. False, with the buffer as it was, when memory or
  /// the range of `Length()` ends, or `bytes` is null and `length` is not 0.
  bool Append(const void* bytes, unsigned int length) noexcept;

 private:
  bool Reserve(unsigned long long length) noexcept;

  /// From std::realloc, which makes a long run longer by moving its pages instead of its bytes.
  char* _bytes = nullptr;
  unsigned int _length = 0;
  unsigned long long _room = 0;  ///< the zero byte left out
  unsigned int _increment;
  char _none = '\0';
};
