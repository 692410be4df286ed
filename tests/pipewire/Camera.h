#pragma once

// A camera of the test: pictures that can be checked (Scene.h), at times that are known, with the faults that are asked
// for. It sends while somebody captures from it.

#include <array>
#include <atomic>
#include <mutex>
#include <optional>

#include "Scene.h"
#include "Stream.h"

namespace test::pipewire {

struct CameraSettings {
  std::string name = "camera", description = "Camera";
  std::vector<Picture> pictures{{}};  ///< the formats that it offers; none until `offer` is called
  spa_fraction rate{30, 1};
  Properties properties{};
  /// Every so many-th picture: lost, its number used up; not what it should be.
  std::uint64_t loseEvery = 0, corruptEvery = 0;
};

class Camera final : public Stream {
 public:
  /// Plugs it in.
  explicit Camera(CameraSettings settings = {}) : _settings(std::move(settings)) { plug(); }
  ~Camera() override { pull(); }

  void plug() override;
  /// From now on these and no others.
  void offer(const std::vector<Picture>& pictures);

  /// How many numbers of pictures are used up, and how many buffers were there to be filled.
  std::uint64_t number() const { return _number; }
  std::uint64_t sent() const { return _sent; }

  /// A picture that it took.
  struct Taken {
    std::uint64_t number, run;
    std::int64_t time;
  };
  /// When one of the last thousands was taken, and the one that was taken then, as closely as stamps tell.
  std::int64_t timeOf(std::uint64_t number) const;
  std::optional<Taken> takenAt(std::int64_t time) const;

 private:
  void formatChosen(const spa_pod& format) override;
  void streamingChanged(bool isStreaming) override;
  void tick() override;
  void process() override;
  std::int64_t period() const { return 1'000'000'000LL * _settings.rate.denom / _settings.rate.num; }

  const CameraSettings _settings;
  Picture _picture;
  mutable std::mutex _lock;
  std::array<Taken, 8192> _taken{};
  std::atomic<std::uint64_t> _number{0}, _sent{0};
};

}  // namespace test::pipewire
