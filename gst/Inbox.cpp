#include "Inbox.h"

#include <utility>

namespace brvgst {

using namespace std::chrono_literals;

namespace {

/// How long a clip waits for its taker. It cannot wait for ever: who stops the source waits for the callback.
constexpr auto LongestPause = 2s;

}  // namespace

void Inbox::put(Sample sample) {
  Sample lost;  // goes without the lock
  {
    std::unique_lock lock(_lock);
    const bool isClip = sample.start->pace == Start::Taker;
    if (isClip) {
      _changed.wait_for(lock, LongestPause, [this] { return _isFlushing || _samples.size() < _capacity; });
    }
    if (_isFlushing) return;
    if (!_isPlaying && !isClip) {
      _hasLost = true;
      return;
    }
    if (_samples.size() >= _capacity) {
      lost = std::move(_samples.front());
      _samples.pop_front();
      ++_dropped;
      (_samples.empty() ? sample : _samples.front()).followsLoss = true;
    }
    sample.followsLoss |= std::exchange(_hasLost, false);
    _samples.push_back(std::move(sample));
  }
  _changed.notify_all();
}

void Inbox::warn(const std::string& text) {
  {
    const std::lock_guard lock(_lock);
    _warning = text;
  }
  _changed.notify_all();
}

void Inbox::fail(const std::string& text) {
  {
    const std::lock_guard lock(_lock);
    _failure = text;
  }
  _changed.notify_all();
}

void Inbox::end(EventPtr event) {
  {
    const std::lock_guard lock(_lock);
    _end = std::move(event);
  }
  _changed.notify_all();
}

void Inbox::setPlaying(bool isPlaying) {
  std::deque<Sample> stale;
  {
    const std::lock_guard lock(_lock);
    _isPlaying = isPlaying;
    if (!isPlaying && !_samples.empty() && _samples.front().start->pace != Start::Taker) {
      stale.swap(_samples);
      _hasLost = true;
    }
  }
  _changed.notify_all();
}

void Inbox::setFlushing(bool isFlushing) {
  std::deque<Sample> stale;
  {
    const std::lock_guard lock(_lock);
    _isFlushing = isFlushing;
    stale.swap(_samples);
    _hasLost = false;
    _warning.clear();
    _failure.clear();
    _end.reset();
  }
  _changed.notify_all();
}

bool Inbox::hasWork() const {
  return _isFlushing || !_warning.empty() || !_failure.empty() || _end || (_isPlaying && !_samples.empty());
}

Inbox::Task Inbox::take(std::chrono::milliseconds timeout) {
  Task task;
  {
    std::unique_lock lock(_lock);
    _changed.wait_for(lock, timeout, [this] { return hasWork(); });
    if (_isFlushing) {
      task.kind = Task::Stop;
    } else if (!_warning.empty()) {
      task.kind = Task::Warn;
      task.text.swap(_warning);
    } else if (_isPlaying && !_samples.empty()) {
      task.kind = Task::Push;
      task.sample = std::move(_samples.front());
      _samples.pop_front();
    } else if (!_failure.empty()) {
      task.kind = Task::Fail;
      task.text.swap(_failure);
    } else if (_end) {
      task.kind = Task::End;
      task.event = std::move(_end);
    }
  }
  _changed.notify_all();
  return task;
}

std::size_t Inbox::room() const {
  const std::lock_guard lock(_lock);
  return _capacity - _samples.size();
}

}  // namespace brvgst
