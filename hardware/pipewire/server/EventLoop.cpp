#include "server/EventLoop.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <system_error>
#include <utility>

namespace hardware::pipewire {
namespace {

/// What the library made, or what it ran out of.
template <typename T>
T* orThrow(T* made) {
  const int error = errno;
  if (made) return made;
  if (error == EMFILE || error == ENFILE) throw std::system_error(error, std::generic_category());
  throw std::bad_alloc();
}

pw_loop* makeLoop() {
  // Before any other call of the library, and never undone: other users of it may be in the process.
  static std::once_flag once;
  std::call_once(once, [] { pw_init(nullptr, nullptr); });
  return orThrow(pw_loop_new(nullptr));
}

}  // namespace

EventLoop::EventLoop() : _loop(makeLoop()) {
  const auto runCalls = [](void* loop, std::uint64_t) {
    auto& self = *static_cast<EventLoop*>(loop);
    self.guard([&self] { self.runCalls(); });
  };
  _wake = pw_loop_add_event(_loop, runCalls, this);
  if (_wake) return;
  const int error = errno;
  pw_loop_destroy(_loop);
  errno = error;
  orThrow(_wake);
}

EventLoop::~EventLoop() {
  end();
  pw_loop_destroy_source(_loop, _wake);
  pw_loop_destroy(_loop);
}

void EventLoop::begin(std::string_view name, std::weak_ptr<const void> owner, std::function<void()> close,
                      std::function<void()> recover) {
  _owner = std::move(owner);
  _close = std::move(close);
  _recover = std::move(recover);
  _lane = runtime::Scheduler::current().makeLane(name, *this);
}

void EventLoop::end() {
  if (!_lane) return;
  if (isCurrent()) {
    close();
  } else {
    _ends = true;
    pw_loop_signal_event(_loop, _wake);
    _closed.wait();
  }
  _lane.reset();
  _thread = std::thread::id();
}

void EventLoop::close() {
  if (_isClosed) return;
  _close();
  if (_isEntered) pw_loop_leave(_loop);
  _isClosed = true;
  _closed.signal();
}

void EventLoop::call(std::function<void()> action) {
  {
    std::lock_guard lock(_callsLock);
    _calls.push_back(std::move(action));
  }
  pw_loop_signal_event(_loop, _wake);
}

void EventLoop::runCalls() {
  std::vector<std::function<void()>> calls;
  {
    std::lock_guard lock(_callsLock);
    calls.swap(_calls);
  }
  for (const auto& call : calls) call();
}

void EventLoop::runNextItem() {
  if (_ends) return close();
  const auto owner = _owner.lock();
  if (!owner) return;  // it is being destroyed, and about to end the lane
  _thread = std::this_thread::get_id();
  if (!std::exchange(_isEntered, true)) pw_loop_enter(_loop);
  pw_loop_iterate(_loop, -1);
  if (std::exchange(_hasFailed, false) && !_isClosed) guard(_recover);
}

Signal::Signal(EventLoop& loop, std::function<void()> action) : _loop(loop), _action(std::move(action)) {
  const auto run = [](void* signal, std::uint64_t) {
    auto& self = *static_cast<Signal*>(signal);
    self._loop.guard(self._action);
  };
  _source = orThrow(pw_loop_add_event(_loop.get(), run, this));
}

Signal::~Signal() {
  pw_loop_destroy_source(_loop.get(), _source);
}

void Signal::raise() {
  pw_loop_signal_event(_loop.get(), _source);
}

Timer::Timer(EventLoop& loop, std::function<void()> action) : _loop(loop), _action(std::move(action)) {
  const auto run = [](void* timer, std::uint64_t) {
    auto& self = *static_cast<Timer*>(timer);
    self._loop.guard(self._action);
  };
  _source = orThrow(pw_loop_add_timer(_loop.get(), run, this));
}

Timer::~Timer() {
  pw_loop_destroy_source(_loop.get(), _source);
}

void Timer::set(runtime::Nanoseconds after) {
  // Zero would stop it.
  const runtime::Nanoseconds wait = std::max<runtime::Nanoseconds>(after, 1);
  timespec value{static_cast<std::time_t>(wait / runtime::NanosecondsPerSecond),
                 static_cast<long>(wait % runtime::NanosecondsPerSecond)};
  timespec once{};
  pw_loop_update_timer(_loop.get(), _source, &value, &once, false);
}

void Timer::stop() {
  timespec never{};
  pw_loop_update_timer(_loop.get(), _source, &never, &never, false);
}

}  // namespace hardware::pipewire
