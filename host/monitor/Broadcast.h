#pragma once

// What all viewers see, handed to each as fast as it takes it: one that is slow misses pictures and states, and holds
// nobody up. Any thread.
//
// A viewer gets a stream of messages: the length of the rest in 4 bytes, most significant first; a letter for the kind;
// the length of the source's name in 2 bytes, and the name; and the rest: JSON, or the bytes of a JPEG file.

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "monitor/Journal.h"

namespace brvhost {

class Broadcast {
 public:
  enum Kind : char { State = 's', Tile = 't', Enlarged = 'e', Lines = 'l' };
  struct Viewer {
    const std::string enlarged;  ///< the source that it sees large; empty for none
    std::map<std::pair<char, std::string>, std::shared_ptr<const std::string>> waiting = {};
    std::uint64_t lastLine = 0;
  };

  explicit Broadcast(const Journal& journal) : _journal(journal) {}

  /// None when there are too many.
  std::shared_ptr<Viewer> join(std::string enlarged);
  void leave(const std::shared_ptr<Viewer>& viewer);
  bool hasViewers() const;
  /// How many have come, those included that have gone.
  std::uint64_t joined() const;
  /// Which sources somebody sees large.
  std::set<std::string> enlarged() const;

  /// In place of the last one of the kind and the source that a viewer has not got yet.
  void publish(Kind kind, const std::string& source, const std::string& content);

  /// Waits for messages, and returns them; none when there will be no more.
  std::optional<std::string> next(Viewer& viewer);
  void close();

 private:
  const Journal& _journal;
  mutable std::mutex _mutex;
  std::condition_variable _changed;
  std::vector<std::shared_ptr<Viewer>> _viewers;
  std::uint64_t _joined = 0;
  bool _isClosed = false;
};

}  // namespace brvhost
