#pragma once

// A lock behind an interface, so that modules share it without sharing its layout. Whoever asked the factory for a lock
// deletes it, when no thread holds it or waits for it.

class zCritical {
 public:
  zCritical() = default;
  zCritical(const zCritical&) = delete;
  zCritical& operator=(const zCritical&) = delete;
  virtual ~zCritical() = default;

  /// Blocks until the calling thread holds the lock.
  virtual void Lock() = 0;

  /// Undoes one `Lock()` of the calling thread.
  virtual void Unlock() = 0;

  /// A new lock, owned by the caller; null when memory ran out. Every lock is recursive, whatever `recursive` says:
  /// a thread may take it again and gives it back as often as it took it. Code that asks for a plain lock only gives
  /// up a deadlock, while a host callback that runs under a lock may always call back into the code that called it.
  static zCritical* Factory(char recursive) noexcept;
};

/// Holds a lock for the length of a scope.
class zCriticalScope {
 public:
  /// Takes `lock`, which must outlive the scope. With null the scope guards nothing.
  explicit zCriticalScope(zCritical* lock) : _lock(lock) {
    if (_lock) _lock->Lock();
  }
  zCriticalScope(const zCriticalScope&) = delete;
  zCriticalScope& operator=(const zCriticalScope&) = delete;
  ~zCriticalScope() {
    if (_lock) _lock->Unlock();
  }

 private:
  zCritical* const _lock;
};
