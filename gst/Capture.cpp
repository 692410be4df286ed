#include "Capture.h"

#include <algorithm>
#include <exception>

#include "Choices.h"

namespace brvgst {

using namespace std::chrono_literals;

namespace {

thread_local bool isOnMainLoop = false;

struct OnMainLoop {
  const bool former = std::exchange(isOnMainLoop, true);
  ~OnMainLoop() { isOnMainLoop = former; }
};

/// Makes the settings of an order, for all starts to come.
void applySettings(const brv::Source& source, const Order& order) {
  const auto apply = [&](const std::vector<brv::Setting>& settings) {
    if (const brv::Answer answer = source.apply(settings); !answer)
      throw brv::Error(source.id() + ": " + answer.message);
  };
  if (!order.audioFormat.empty()) {
    apply({{brv::AudioSettings, chosenOption(source.options(brv::AudioSettings), order.audioFormat)}});
  }
  if (!order.format.empty()) {
    apply({{brv::VideoSettings, chosenOption(source.options(brv::VideoSettings), order.format)}});
  }
  if (order.fps.empty()) return;
  // A rate is one of a format that was chosen before; without one, that is what a start chooses.
  if (order.format.empty()) apply({});
  const int format = source.selected(brv::VideoSettings).value_or(0);
  apply({{brv::VideoSettings, format}, {brv::VideoFPS, chosenRate(source.options(brv::VideoFPS), order.fps)}});
}

}  // namespace

class Capture::Listener {
 public:
  explicit Listener(Order from) : order(std::move(from)) {}

  void warn(const std::string& text) {
    if (text.empty() || std::exchange(_lastWarning, text) == text) return;
    (order.inboxes[Video] ? order.inboxes[Video] : order.inboxes[Audio])->warn(text);
  }
  /// Why nothing more comes, unless there is time.
  void say(const std::string& text) {
    if (order.waits) return warn(text);
    for (const auto& inbox : order.inboxes) {
      if (inbox) inbox->fail(text);
    }
  }

  Order order;
  Feed* feed = nullptr;

 private:
  std::string _lastWarning;
};

/// The one module, and how many have it. What the last of them closes is waited for by whoever opens it next.
class Capture::User {
 public:
  static std::shared_ptr<Capture> make(const std::string& path) {
    std::unique_lock lock(access, std::defer_lock);
    // The main loop's thread must not wait for one that closes the module, and waits for that thread.
    if (!isOnMainLoop) {
      lock.lock();
    } else if (!lock.try_lock_for(1s)) {
      throw brv::Error("the capture module is being closed");
    }
    if (users == 0) open = new Capture(path);
    ++users;
    return {open, [](Capture*) { release(); }};
  }

 private:
  static void release() {
    if (isOnMainLoop) return std::thread(release).detach();
    const std::lock_guard lock(access);
    if (--users == 0) delete std::exchange(open, nullptr);
  }

  static inline std::timed_mutex access;
  static inline Capture* open = nullptr;
  static inline int users = 0;
};

std::shared_ptr<Capture> Capture::open(const std::string& path) {
  return User::make(path);
}

Capture::Capture(const std::string& path) : _hasThread(CFRunLoopStartThread(CFRunLoopGetMain())) {
  brv::Options options;
  options.module = path;
  options.log = [](int level, std::string_view line) {
    const GstDebugLevel as = level == 2 ? GST_LEVEL_INFO : level == 3 ? GST_LEVEL_WARNING : GST_LEVEL_DEBUG;
    while (line.ends_with('\n')) line.remove_suffix(1);
    GST_CAT_LEVEL_LOG(debugCategory(), as, nullptr, "%.*s", static_cast<int>(line.size()), line.data());
  };
  options.changed = [this](brv::Change) {
    const OnMainLoop here;
    update();
  };
  try {
    perform([&] { _library = std::make_unique<brv::Library>(std::move(options)); });
    _watch = std::jthread([this](const std::stop_token& stop) { watchSources(stop); });
  } catch (...) {
    if (_library) perform([&] { _library.reset(); });
    if (_hasThread) CFRunLoopEndThread(CFRunLoopGetMain());
    throw;
  }
}

Capture::~Capture() {
  _watch = {};
  try {
    perform([&] {
      _feeds.clear();
      _library.reset();
    });
  } catch (const std::exception& error) {
    GST_CAT_WARNING(debugCategory(), "%s", error.what());
  }
  if (_hasThread) CFRunLoopEndThread(CFRunLoopGetMain());
}

/// Runs the call on the main loop's thread. What it throws is thrown here.
template <typename Call>
void Capture::perform(Call&& call) {
  struct Block {
    Call& call;
    std::exception_ptr error;
  } block{call, nullptr};
  const auto run = [](void* context) {
    auto& own = *static_cast<Block*>(context);
    const OnMainLoop here;
    try {
      own.call();
    } catch (...) {
      own.error = std::current_exception();
    }
  };
  if (!CFRunLoopPerformAndWait(CFRunLoopGetMain(), run, &block)) throw brv::Error("out of memory");
  if (block.error) std::rethrow_exception(block.error);
}

std::vector<Description> Capture::sources() {
  std::vector<Description> found;
  perform([&] { found = list(); });
  return found;
}

std::vector<Description> Capture::list() const {
  std::vector<Description> found;
  for (const brv::Source& source : _library->sources()) {
    Description description{source.id(), {source.hasVideo(), source.hasAudio()}, {}, {}, {}};
    description.deviceId[Video] = source.property("video_device_id").value_or("");
    description.deviceId[Audio] = source.property("audio_device_id").value_or("");
    description.provider = source.property("provider").value_or("");
    if (source.hasVideo()) {
      for (const auto& option : source.options(brv::VideoSettings)) {
        const auto size = sizeIn(option.title);
        const bool isKnown = std::ranges::find(description.sizes, size) != description.sizes.end();
        if (size.first > 0 && !isKnown) description.sizes.push_back(size);
      }
    }
    found.push_back(std::move(description));
  }
  return found;
}

void Capture::addWatcher(const void* owner, Watcher watcher) {
  perform([&] {
    watcher(list());
    _watchers[owner] = std::move(watcher);
  });
}

void Capture::removeWatcher(const void* owner) {
  perform([&] { _watchers.erase(owner); });
}

Capture::Listener* Capture::listen(Order order) {
  Listener* added = nullptr;
  perform([&] {
    _listeners.emplace_back(std::move(order));
    added = &_listeners.back();
    try {
      attach(*added);
    } catch (const brv::Error& error) {
      if (!added->order.waits) {
        _listeners.pop_back();
        throw;
      }
      added->warn(error.what());
    }
  });
  return added;
}

void Capture::end(Listener* listener) {
  perform([&] {
    detach(*listener);
    _listeners.remove_if([&](const Listener& other) { return &other == listener; });
  });
}

std::string Capture::nameOf(const Listener* listener) {
  std::string name;
  perform([&] { name = listener->feed ? listener->feed->source().id() : ""; });
  return name;
}

std::vector<brv::Field> Capture::account(const Listener* listener, Medium medium) {
  std::vector<brv::Field> fields;
  perform([&] {
    if (!listener->feed) return;
    const auto record = listener->feed->source().property(medium == Video ? "video_account" : "audio_account");
    if (record) fields = brv::fieldsOf(*record);
  });
  return fields;
}

/// Begins to hear the source that the listener's order means.
void Capture::attach(Listener& listener) {
  const auto sources = list();
  const Description& chosen = chosenSource(sources, listener.order);
  auto& feed = _feeds[chosen.name];
  try {
    if (!feed) feed = std::make_unique<Feed>(_library->source(chosen.name));
    applySettings(feed->source(), listener.order);
    feed->add(listener.order.inboxes);
  } catch (...) {
    if (!feed || !feed->isHeard()) _feeds.erase(chosen.name);
    throw;
  }
  listener.feed = feed.get();
  // Names are given in the order of appearance; the device stays the same one.
  const Medium leading = chosen.has[Video] ? Video : Audio;
  if (!chosen.deviceId[leading].empty()) listener.order.source = chosen.deviceId[leading];
}

void Capture::detach(Listener& listener) {
  Feed* const feed = std::exchange(listener.feed, nullptr);
  if (!feed) return;
  feed->remove(listener.order.inboxes);
  if (!feed->isHeard()) std::erase_if(_feeds, [&](const auto& entry) { return entry.second.get() == feed; });
}

/// Devices came or went.
void Capture::update() try {
  const auto sources = list();
  for (auto& [name, feed] : _feeds) feed->expectChange();
  for (Listener& listener : _listeners) {
    if (!listener.feed) continue;
    const std::string name = listener.feed->source().id();
    const auto found = std::ranges::find(sources, name, &Description::name);
    if (found != sources.end()) continue;
    listener.say(name + " was unplugged");
    detach(listener);
  }
  for (Listener& listener : _listeners) {
    if (listener.feed || !listener.order.waits) continue;
    try {
      attach(listener);
    } catch (const Missing&) {
    } catch (const brv::Error& error) {
      listener.warn(error.what());
    }
  }
  const auto watchers = _watchers;
  for (const auto& [owner, watcher] : watchers) watcher(sources);
} catch (const std::exception& error) {
  GST_CAT_WARNING(debugCategory(), "devices came or went, but: %s", error.what());
}

/// Looks twice a second for what sources say about themselves.
void Capture::watchSources(const std::stop_token& stop) {
  std::unique_lock lock(_tickLock);
  while (!_tick.wait_for(lock, stop, 500ms, [&] { return stop.stop_requested(); })) {
    try {
      perform([&] {
        for (const auto& [name, feed] : _feeds) {
          const std::string said = feed->check();
          for (Listener& listener : _listeners) {
            if (listener.feed == feed.get()) listener.warn(said);
          }
        }
      });
    } catch (const std::exception& error) {
      GST_CAT_WARNING(debugCategory(), "%s", error.what());
    }
  }
}

}  // namespace brvgst
