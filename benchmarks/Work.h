#pragma once

// The work that is measured, each piece defined once: the same code is timed and has its instructions counted.
// Everything runs on the main thread.

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace bench {

/// What is measuring. Work that must prepare itself between runs stops the measurement meanwhile.
class Meter {
 public:
  virtual void pause() = 0;
  virtual void resume() = 0;

 protected:
  ~Meter() = default;
};

/// Does the work `count` times.
using Run = std::function<void(std::size_t count, Meter& meter)>;

struct Work {
  std::string name;           ///< "ROW/WHO": what is compared stands in one row
  std::size_t batch = 1;      ///< runs in one measurement, many enough that its overhead vanishes
  double itemsPerRun = 1;     ///< figures are quoted per item
  std::function<Run()> make;  ///< prepares the work; what it holds goes with the Run
};

/// All work of this program, in the order of the definitions within a file.
inline std::vector<Work>& works() {
  static std::vector<Work> all;
  return all;
}

/// Enters work while the program starts.
struct Definition {
  explicit Definition(Work work) { works().push_back(std::move(work)); }
};

/// Work that needs no meter: `once` is called for every run.
template <typename Once>
Run repeat(Once once) {
  return [once = std::move(once)](std::size_t count, Meter&) mutable {
    for (std::size_t i = 0; i < count; ++i) once();
  };
}

}  // namespace bench
