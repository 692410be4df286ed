#pragma once

// Owning handle for the C types, the counterpart of the runtime's Ref for classes.

#include <CoreFoundation/CFBase.h>

#include <utility>

/// Holds one reference to an object of a C type such as CMSampleBufferRef. Made only by the two verbs
/// below, so that each use says whether it takes a reference over or adds one.
template <typename T>
class CFRef {
 public:
  CFRef() noexcept = default;
  CFRef(const CFRef& other) noexcept : _object(other._object) {
    if (_object) CFRetain(_object);
  }
  CFRef(CFRef&& other) noexcept : _object(std::exchange(other._object, nullptr)) {}
  CFRef& operator=(CFRef other) noexcept {
    std::swap(_object, other._object);
    return *this;
  }
  ~CFRef() {
    if (_object) CFRelease(_object);
  }

  /// Takes over a reference that the caller owns. Null is allowed.
  static CFRef adopt(T object) noexcept { return CFRef(object); }

  /// Adds a reference to a borrowed object. Null is allowed.
  static CFRef retain(T object) noexcept {
    if (object) CFRetain(object);
    return CFRef(object);
  }

  T get() const noexcept { return _object; }
  explicit operator bool() const noexcept { return _object != nullptr; }

  /// Hands the reference outward; the handle is empty afterwards.
  [[nodiscard]] T leak() noexcept { return std::exchange(_object, nullptr); }

 private:
  explicit CFRef(T object) noexcept : _object(object) {}

  T _object = nullptr;
};
