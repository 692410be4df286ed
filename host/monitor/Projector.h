#pragma once

// Makes the pictures that viewers see: on a thread of its own, at a steady rate, each once for all of them, and none
// while there are no viewers.

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "monitor/Broadcast.h"
#include "monitor/Feed.h"
#include "monitor/Preview.h"

namespace brvhost {

class Projector {
 public:
  using Feeds = std::map<std::string, std::shared_ptr<Feed>>;

  Projector(Broadcast& broadcast, double picturesPerSecond);
  ~Projector();
  Projector(const Projector&) = delete;
  Projector& operator=(const Projector&) = delete;

  /// What is to be seen from now on, by the sources' names.
  void show(Feeds feeds);

 private:
  void run();
  void project(const Feeds& feeds);

  Broadcast& _broadcast;
  const brv::Seconds _period;
  Preview _preview;                             ///< the thread's, and so are the next two
  std::map<std::string, std::uint64_t> _shown;  ///< the number of the last picture of each source
  std::uint64_t _joined = 0;

  std::mutex _mutex;
  std::condition_variable _changed;
  Feeds _feeds;
  bool _isEnding = false;
  std::thread _thread;
};

}  // namespace brvhost
