#include "monitor/Broadcast.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace brvhost {

namespace {

constexpr std::size_t MostViewers = 8;

std::string bigEndian(std::size_t number, int bytes) {
  std::string text;
  while (bytes-- > 0) text += static_cast<char>(number >> (8 * bytes) & 0xFF);
  return text;
}

std::string message(char kind, const std::string& source, const std::string& content) {
  const std::string name = source.substr(0, 0xFFFF);
  return bigEndian(3 + name.size() + content.size(), 4) + kind + bigEndian(name.size(), 2) + name + content;
}

}  // namespace

std::shared_ptr<Broadcast::Viewer> Broadcast::join(std::string enlarged) {
  const std::lock_guard lock(_mutex);
  if (_isClosed || _viewers.size() >= MostViewers) return nullptr;
  ++_joined;
  return _viewers.emplace_back(std::make_shared<Viewer>(Viewer{std::move(enlarged)}));
}

void Broadcast::leave(const std::shared_ptr<Viewer>& viewer) {
  const std::lock_guard lock(_mutex);
  std::erase(_viewers, viewer);
}

bool Broadcast::hasViewers() const {
  const std::lock_guard lock(_mutex);
  return !_viewers.empty();
}

std::uint64_t Broadcast::joined() const {
  const std::lock_guard lock(_mutex);
  return _joined;
}

std::set<std::string> Broadcast::enlarged() const {
  const std::lock_guard lock(_mutex);
  std::set<std::string> sources;
  for (const auto& viewer : _viewers) sources.insert(viewer->enlarged);
  return sources;
}

void Broadcast::publish(Kind kind, const std::string& source, const std::string& content) {
  const auto shared = std::make_shared<const std::string>(message(kind, source, content));
  const std::lock_guard lock(_mutex);
  for (const auto& viewer : _viewers) {
    if (kind != Enlarged || viewer->enlarged == source) viewer->waiting[{kind, source}] = shared;
  }
  _changed.notify_all();
}

std::optional<std::string> Broadcast::next(Viewer& viewer) {
  decltype(viewer.waiting) waiting;
  {
    std::unique_lock lock(_mutex);
    _changed.wait(lock, [&] { return _isClosed || !viewer.waiting.empty(); });
    if (_isClosed) return std::nullopt;
    waiting.swap(viewer.waiting);
  }
  std::string messages;
  if (const auto news = _journal.after(viewer.lastLine); !news.empty()) {
    auto lines = nlohmann::json::array();
    for (const Journal::Line& line : news) {
      lines.push_back({{"time", line.time}, {"kind", line.kind}, {"text", line.text}});
    }
    viewer.lastLine = news.back().number;
    messages = message(Lines, "", lines.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  }
  for (const auto& [kind, content] : waiting) messages += *content;
  return messages;
}

void Broadcast::close() {
  const std::lock_guard lock(_mutex);
  _isClosed = true;
  _changed.notify_all();
}

}  // namespace brvhost
