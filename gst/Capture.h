#pragma once

// The module, shared by all elements and device providers of a process, since it permits one library. It is open while
// somebody has it.
//
// A program with GStreamer has no main loop of the frameworks, so a thread of theirs runs it, unless the program's main
// thread does at that moment. All calls of the module are made there, one at a time, and so are changes of what is
// below. No capture queue and no task of a pad waits for that thread; any other thread may.

#include <condition_variable>
#include <functional>
#include <list>
#include <map>
#include <thread>

#include "Feed.h"

namespace brvgst {

/// A source, for lists.
struct Description {
  std::string name;
  PerMedium<bool> has{};
  PerMedium<std::string> deviceId;
  std::string provider;
  std::vector<std::pair<int, int>> sizes;  ///< of its pictures, where they are known

  bool operator==(const Description&) const = default;
};

/// What an element wants to hear: media that have an inbox. Texts that are empty leave the choice to the module.
struct Order {
  std::string source;  ///< a name, how one begins, or a device's ID; empty: the first source with these media
  std::string format, fps, audioFormat;
  bool waits = false;  ///< whether the source may be missing
  Inboxes inboxes;
};

class Capture {
 public:
  using Watcher = std::function<void(const std::vector<Description>&)>;
  class Listener;

  /// The module at `path` (empty: where it is installed, or BRV_MODULE), unless it is open already. Throws brv::Error.
  static std::shared_ptr<Capture> open(const std::string& path);

  std::vector<Description> sources();

  /// Tells the sources now and at each change, on the main loop's thread, until it is removed.
  void addWatcher(const void* owner, Watcher watcher);
  void removeWatcher(const void* owner);

  /// Begins to fill the inboxes, until `end`. Throws brv::Error when the source lacks something, which inboxes that
  /// wait get as a warning; one that goes later is an inbox's failure, or comes back if the order waits.
  Listener* listen(Order order);
  void end(Listener* listener);
  /// The source's name; empty while there is none.
  std::string nameOf(const Listener* listener);
  /// Counts of a medium by their names, and those of sound frames in the record "frames".
  std::vector<brv::Field> account(const Listener* listener, Medium medium);

 private:
  class User;

  explicit Capture(const std::string& path);
  ~Capture();

  template <typename Call>
  void perform(Call&& call);
  std::vector<Description> list() const;
  void update();
  void attach(Listener& listener);
  void detach(Listener& listener);
  void watchSources(const std::stop_token& stop);

  const bool _hasThread;
  // The main loop's:
  std::unique_ptr<brv::Library> _library;
  std::map<std::string, std::unique_ptr<Feed>> _feeds;
  std::list<Listener> _listeners;
  std::map<const void*, Watcher> _watchers;

  std::mutex _tickLock;
  std::condition_variable_any _tick;
  std::jthread _watch;
};

}  // namespace brvgst
