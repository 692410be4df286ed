#pragma once

// What a process that captures sees of its frames, and what they cost it: figures of so many frames in a row, once the
// capture is in its stride.

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "NumberedPictures.h"

namespace bench {

class Take {
 public:
  /// Arguments: the file of the pictures' times, the number of frames to count.
  explicit Take(char** arguments);

  /// A frame that came at `arrival`; its number is read from 'yuvs' pixels. One call at a time.
  void frame(const std::uint8_t* pixels, std::size_t rowBytes, std::int64_t arrival);

  bool isDone() const { return _isDone; }
  void wait() const { _isDone.wait(false); }

  /// A line for each figure: its name, its value. `lane` is the name of the threads that are to be told apart.
  /// With LIVE_THREADS in the environment, standard error has what each thread cost.
  void print(const std::string& lane) const;

 private:
  struct Thread {
    int id;
    std::string name;
    std::int64_t time;  ///< ns of computing
  };

  /// What the process has used up at one moment.
  struct Usage {
    std::int64_t time, computing, allocations, switches, faults;

    static Usage now();
  };

  static std::vector<Thread> threads();

  const PictureTimes& _times;
  const std::size_t _count;
  std::size_t _frames = 0;
  std::vector<std::int64_t> _ages;
  // Threads are looked at before the first frame that counts, and after the last.
  std::vector<Thread> _threadsAtBegin, _threadsAtEnd;
  Usage _begin{}, _end{};
  std::atomic<bool> _isDone{false};
};

}  // namespace bench
