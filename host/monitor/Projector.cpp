#include "monitor/Projector.h"

#include <exception>
#include <utility>

namespace brvhost {

namespace {

constexpr std::size_t TileWidth = 480, EnlargedWidth = 1280;

}  // namespace

Projector::Projector(Broadcast& broadcast, double picturesPerSecond)
    : _broadcast(broadcast), _period(1 / picturesPerSecond), _thread([this] { run(); }) {}

Projector::~Projector() {
  {
    const std::lock_guard lock(_mutex);
    _isEnding = true;
  }
  _changed.notify_all();
  _thread.join();
}

void Projector::show(Feeds feeds) {
  const std::lock_guard lock(_mutex);
  _feeds = std::move(feeds);
}

void Projector::run() {
  auto next = std::chrono::steady_clock::now();
  std::unique_lock lock(_mutex);
  while (!_changed.wait_until(lock, next, [this] { return _isEnding; })) {
    const Feeds feeds = _feeds;
    lock.unlock();
    const auto now = std::chrono::steady_clock::now();
    next = std::max(next + std::chrono::duration_cast<std::chrono::nanoseconds>(_period), now);
    if (_broadcast.hasViewers()) project(feeds);
    lock.lock();
  }
}

void Projector::project(const Feeds& feeds) {
  if (std::exchange(_joined, _broadcast.joined()) != _joined)
    _shown.clear();  // who has come sees what stands still too
  const std::set<std::string> enlarged = _broadcast.enlarged();
  for (const auto& [source, feed] : feeds) {
    const Feed::Newest newest = feed->newest();
    if (!newest.frame || std::exchange(_shown[source], newest.number) == newest.number) continue;
    try {
      _broadcast.publish(Broadcast::Tile, source, _preview.jpegOf(newest.frame, TileWidth));
      if (!enlarged.contains(source)) continue;
      _broadcast.publish(Broadcast::Enlarged, source, _preview.jpegOf(newest.frame, EnlargedWidth));
    } catch (const std::exception&) {  // out of memory, say: the next picture is tried again
    }
  }
}

}  // namespace brvhost
