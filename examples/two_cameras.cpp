// Two cameras side by side, and how far apart in time their pictures were taken: two_cameras LEFT RIGHT [FILE.pgm]

#include <algorithm>
#include <brv.hpp>
#include <cstdio>
#include <fstream>
#include <mutex>

namespace {

using namespace std::chrono_literals;
using Milliseconds = std::chrono::duration<double, std::milli>;

/// The newest picture of a camera.
class Newest {
 public:
  explicit Newest(const brv::Source& camera) {
    _subscription = camera.onVideo([this](const brv::Frame& frame) {
      const std::lock_guard lock(_lock);
      _frame = frame;
    });
  }

  brv::Frame frame() const {
    const std::lock_guard lock(_lock);
    return _frame;
  }

 private:
  mutable std::mutex _lock;
  brv::Frame _frame;
  brv::Subscription _subscription;  // the last member: ends before what the callback uses goes
};

/// The luma of a picture (Y0 Cb Y1 Cr) as grey, in `width` bytes for each of `height` rows.
std::vector<std::vector<char>> greyRows(const brv::Frame& frame, std::size_t height) {
  const brv::Pixels pixels = frame.pixels();
  std::vector<std::vector<char>> rows(height, std::vector<char>(pixels.width()));
  for (std::size_t y = 0; y < std::min(height, pixels.height()); ++y) {
    const std::span<const std::uint8_t> row = pixels.row(y);
    for (std::size_t x = 0; x < pixels.width(); ++x) {
      rows[y][x] = static_cast<char>(std::clamp((row[2 * x] - 16) * 255 / 219, 0, 255));
    }
  }
  return rows;
}

void saveSideBySide(const brv::Frame& left, const brv::Frame& right, const char* path) {
  const std::size_t height = std::max(left.pixels().height(), right.pixels().height());
  const auto leftRows = greyRows(left, height), rightRows = greyRows(right, height);
  std::ofstream file(path, std::ios::binary);
  file << "P5 " << leftRows[0].size() + rightRows[0].size() << " " << height << " 255\n";
  for (std::size_t y = 0; y < height; ++y) {
    for (const auto* row : {&leftRows[y], &rightRows[y]}) file.write(row->data(), std::ssize(*row));
  }
  if (!file.flush()) throw brv::Error(std::string("cannot write ") + path);
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc < 3) throw brv::Error("usage: two_cameras LEFT RIGHT [FILE.pgm]");
  brv::Library library;
  const Newest left(library.source(argv[1])), right(library.source(argv[2]));
  for (int time = 0; time < 3; ++time) {
    library.poll(500ms);
    if (!left.frame() || !right.frame()) continue;
    std::printf("%s is %+.1f ms from %s\n", argv[1], Milliseconds(left.frame().time() - right.frame().time()).count(),
                argv[2]);
  }
  if (argc > 3) saveSideBySide(left.frame(), right.frame(), argv[3]);
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
