#pragma once

// The one base of all framework objects, and the handle that owns a reference to one.

#include <atomic>
#include <concepts>
#include <cstdint>
#include <utility>

/// A counted object. Born with a count of 1 that belongs to whoever made it. Any thread may retain and
/// release; the release that takes the last reference destroys the object on that thread.
class NSObject {
 public:
  NSObject(const NSObject&) = delete;
  NSObject& operator=(const NSObject&) = delete;

  void retain() const noexcept { _count.fetch_add(1, std::memory_order_relaxed); }
  void release() const noexcept {
    if (_count.fetch_sub(1, std::memory_order_acq_rel) == 1) const_cast<NSObject*>(this)->dispose();
  }

  /// The count at this moment: for tests and diagnostics only.
  std::int64_t retainCount() const noexcept { return _count.load(std::memory_order_relaxed); }

  /// How many framework objects exist in the process, constants left out.
  static std::int64_t liveObjectCount() noexcept;

 protected:
  NSObject() noexcept;
  virtual ~NSObject();

  /// Runs when the last reference is gone. An object that goes back to a pool overrides this and
  /// calls `revive` when it leaves the pool again.
  virtual void dispose() { delete this; }
  void revive() noexcept { _count.store(1, std::memory_order_relaxed); }

  /// For objects that live as long as the process, once, before anyone else sees the object: leaves it out of
  /// liveObjectCount and raises its count out of the reach of any release.
  void makeImmortal() noexcept;

 private:
  mutable std::atomic<std::int64_t> _count{1};
};

/// Owning handle for a counted object. There is no way in from a bare pointer but the two verbs `adopt`
/// and `retain`, so that each use says whether it takes a reference over or adds one.
template <typename T>
class Ref {
 public:
  Ref() noexcept = default;
  Ref(const Ref& other) noexcept : _object(other._object) {
    if (_object) _object->retain();
  }
  Ref(Ref&& other) noexcept : _object(std::exchange(other._object, nullptr)) {}
  template <typename U>
  requires std::derived_from<U, T> Ref(Ref<U> other)
  noexcept : _object(other.leak()) {}
  Ref& operator=(Ref other) noexcept {
    std::swap(_object, other._object);
    return *this;
  }
  ~Ref() {
    if (_object) _object->release();
  }

  /// Takes over a reference that the caller owns. Null is allowed.
  static Ref adopt(T* object) noexcept { return Ref(object); }

  /// Adds a reference to a borrowed object. Null is allowed.
  static Ref retain(T* object) noexcept {
    if (object) object->retain();
    return Ref(object);
  }

  T* get() const noexcept { return _object; }
  T* operator->() const noexcept { return _object; }
  T& operator*() const noexcept { return *_object; }
  explicit operator bool() const noexcept { return _object != nullptr; }
  friend bool operator==(const Ref& a, const Ref& b) noexcept { return a._object == b._object; }

  /// Hands the reference outward; the handle is empty afterwards.
  [[nodiscard]] T* leak() noexcept { return std::exchange(_object, nullptr); }

 private:
  explicit Ref(T* object) noexcept : _object(object) {}

  T* _object = nullptr;
};

/// Makes an object and adopts its first reference.
template <typename T, typename... Arguments>
Ref<T> makeRef(Arguments&&... arguments) {
  return Ref<T>::adopt(new T(std::forward<Arguments>(arguments)...));
}
