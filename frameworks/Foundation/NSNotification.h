#pragma once

// Notifications between the frameworks and their users.

#include <Foundation/NSDictionary.h>
#include <Foundation/NSOperation.h>
#include <runtime/NSObject.h>

#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

using NSNotificationName = std::string_view;

class NSNotification final : public NSObject {
 public:
  NSNotification(NSNotificationName name, NSObject* object, Ref<NSDictionary> userInfo)
      : _name(name), _object(Ref<NSObject>::retain(object)), _userInfo(std::move(userInfo)) {}

  const std::string& name() const noexcept { return _name; }
  /// What the notification is about, or null.
  NSObject* object() const noexcept { return _object.get(); }
  /// Details, or null.
  const NSDictionary* userInfo() const noexcept { return _userInfo.get(); }

 private:
  std::string _name;
  Ref<NSObject> _object;
  Ref<NSDictionary> _userInfo;
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
  /// thread, so the caller must hold nothing that the block waits for. Needs no memory.
  void removeObserver(NSObject* token) noexcept;

  // postNotificationName:object: postNotificationName:object:userInfo:
  /// Runs or queues the block of every matching observer, in the order of their registration. Observers
  /// that join during a post are not reached by it; those removed before their turn are left out. When memory runs out,
  /// those whose turn has not come are not reached, which is reported on standard error.
  void postNotificationName(NSNotificationName name, NSObject* object, Ref<NSDictionary> userInfo = {}) noexcept;

  NSNotificationCenter(const NSNotificationCenter&) = delete;
  NSNotificationCenter& operator=(const NSNotificationCenter&) = delete;

 private:
  class Observer;

  NSNotificationCenter();
  ~NSNotificationCenter();

  std::vector<Ref<Observer>> observersFor(NSNotificationName name, const NSObject* object) const;
  void deliver(const Ref<Observer>& observer, const Ref<NSNotification>& notification);
  void queueForMainThread(const Ref<Observer>& observer, const Ref<NSNotification>& notification);
  void runBlock(const Ref<Observer>& observer, NSNotification& notification) noexcept;
  void endRun(const Ref<Observer>& observer);

  mutable std::mutex _mutex;  ///< Guards the list and the state of each observer; not held while a block runs.
  std::vector<Ref<Observer>> _observers;  ///< In the order of registration; a removed one stays until its runs end.
};
