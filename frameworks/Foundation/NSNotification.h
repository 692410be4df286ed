#pragma once

// Notifications between the frameworks and their users.

#include <Foundation/NSOperation.h>
#include <runtime/NSObject.h>

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

using NSNotificationName = std::string_view;

class NSNotification final : public NSObject {
 public:
  NSNotification(NSNotificationName name, NSObject* object) : _name(name), _object(Ref<NSObject>::retain(object)) {}

  const std::string& name() const noexcept { return _name; }
  /// What the notification is about, or null.
  NSObject* object() const noexcept { return _object.get(); }

 private:
  std::string _name;
  Ref<NSObject> _object;
};

/// Any thread may post, add and remove, also from inside an observer's block.
class NSNotificationCenter {
 public:
  using Block = std::function<void(NSNotification& notification)>;

  static NSNotificationCenter& defaultCenter();

  // addObserverForName:object:queue:usingBlock:
  /// Registers a block and returns the token that removes it; the centre keeps its own reference until then.
  /// `object` (borrowed, compared by identity, not retained) limits the observer to posts about it; null takes all.
  /// With a null `queue` the block runs on the posting thread, before the post returns. With the main
  /// queue it does the same for a post from the main thread; for a post from another thread the block
  /// waits until the main thread runs its loop, and the post returns at once. Blocks of one observer may run
  /// on two posting threads at a time. A block must not throw. For an empty block nothing is registered
  /// and the token is null.
  Ref<NSObject> addObserverForName(NSNotificationName name, NSObject* object, NSOperationQueue* queue,
                                   Block usingBlock);

  // removeObserver:
  /// After the return the block is not running and will not run, waiting ones included. Called from
  /// inside the block itself, it returns at once and the block never runs again. What the block had captured
  /// is destroyed with it. Unknown tokens and null are ignored. It waits for a block that runs on another
  /// thread, so the caller must hold nothing that the block waits for. Takes no memory.
  void removeObserver(NSObject* token) noexcept;

  // postNotificationName:object:
  /// Runs or queues the block of every matching observer, in the order of their registration. Observers
  /// that join during a post are not told of it; those removed before their turn are left out. When memory runs out,
  /// those whose turn has not come are not told, and the standard error says so.
  void postNotificationName(NSNotificationName name, NSObject* object) noexcept;

  /// How many observers are registered: for tests.
  std::size_t observerCount() const;

  NSNotificationCenter(const NSNotificationCenter&) = delete;
  NSNotificationCenter& operator=(const NSNotificationCenter&) = delete;

 private:
  class Observer;
  struct WaitingRemover;

  NSNotificationCenter();
  ~NSNotificationCenter();

  std::vector<Ref<Observer>> observersFor(NSNotificationName name, const NSObject* object) const;
  Ref<Observer> take(Observer& observer);
  void deliver(const Ref<Observer>& observer, const Ref<NSNotification>& notification);
  void queueForMainThread(const Ref<Observer>& observer, const Ref<NSNotification>& notification);
  void runBlock(Observer& observer, NSNotification& notification) noexcept;
  void endRun(Observer& observer);

  /// By what they are limited to and, under that, in the order of their registration.
  using Observers = std::map<std::pair<const NSObject*, std::uint64_t>, Ref<Observer>>;

  mutable std::mutex _mutex;  ///< Guards the lists and the state of each observer; not held while a block runs.
  /// By name. Each of thousands of sessions has observers of its own: a post finds those it concerns, and a removal its
  /// token, without a walk over the others.
  std::map<std::string, Observers, std::less<>> _observers;
  std::unordered_map<const NSObject*, Observer*> _byToken;
  std::uint64_t _registrations = 0;
};
