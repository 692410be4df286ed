// The way through the capture frameworks and the module, and the least that any way between threads consists of.

#include <lumora/zThread.h>
#include <support/FakeHardware.h>

#include <array>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <thread>

#include "AVDeviceManager.h"
#include "Line.h"

namespace {

constexpr std::int32_t Nanoseconds = 1'000'000'000;

/// Its pictures are so small that drawing them does not count.
std::shared_ptr<fake::Device> makeCamera() {
  hardware::DeviceDescription description;
  description.name = "Camera";
  description.uniqueID = "camera";
  description.hasVideo = true;
  description.videoFormats = {fake::videoFormat(16, 16)};
  return std::make_shared<fake::Device>(std::move(description));
}

class CaptureLine final : public bench::Line {
 public:
  CaptureLine(bench::Arrival arrival, void* context) : _arrival(arrival), _context(context) {
    zThread::SetSleepFunction([](unsigned) {});
    fake::install({_camera});
    _manager.reset(AV::DeviceManager::instance());
    _manager->detectDeviceConnect();
    AV::Device& source = *_manager->getDeviceWithIndex(0);
    source.setVideoDataArriveCallback(
        [](void* line, BRV_VideoBuffer* buffer) {
          const auto& self = *static_cast<CaptureLine*>(line);
          self._arrival(self._context, buffer->timeStamp);
        },
        this);
    source.startDevice();
  }
  ~CaptureLine() override {
    _manager.reset();
    hardware::installSystemProvider(nullptr);
    zThread::SetSleepFunction(nullptr);
  }

  void capture(std::int64_t time) override { _camera->captureFrame(CMTimeMake(time, Nanoseconds)); }

 private:
  const bench::Arrival _arrival;
  void* const _context;
  const std::shared_ptr<fake::Device> _camera = makeCamera();
  std::unique_ptr<AV::DeviceManager> _manager;
};

/// Carries a picture with each frame as well, of the same size and drawn in the same way.
class BareQueueLine final : public bench::Line {
 public:
  BareQueueLine(bench::Arrival arrival, void* context)
      : _consumer([this, arrival, context] {
          for (BRV_VideoBuffer frame; take(frame);) arrival(context, frame.timeStamp);
        }) {}
  ~BareQueueLine() override {
    {
      std::lock_guard lock(_lock);
      _isEnded = true;
    }
    _changed.notify_one();
    _consumer.join();
  }

  void capture(std::int64_t time) override {
    BRV_VideoBuffer frame{};
    frame.timeStamp = time;
    Picture& picture = _pictures[_nextPicture++ % _pictures.size()];
    picture.fill(std::byte{});
    frame.data = picture.data();
    {
      std::lock_guard lock(_lock);
      _frames.push_back(frame);
    }
    _changed.notify_one();
  }

 private:
  using Picture = std::array<std::byte, std::size_t{64} * 16>;  // 16 x 16, in a pixel buffer's rows

  bool take(BRV_VideoBuffer& frame) {
    std::unique_lock lock(_lock);
    _changed.wait(lock, [this] { return _isEnded || !_frames.empty(); });
    if (_frames.empty()) return false;
    frame = _frames.front();
    _frames.pop_front();
    return true;
  }

  std::mutex _lock;
  std::condition_variable _changed;
  std::deque<BRV_VideoBuffer> _frames;
  std::array<Picture, 2> _pictures;  ///< one being drawn, one with the consumer, which never is late here
  std::size_t _nextPicture = 0;
  bool _isEnded = false;
  std::thread _consumer;
};

template <typename Kind>
std::unique_ptr<bench::Line> make(bench::Arrival arrival, void* context) {
  return std::make_unique<Kind>(arrival, context);
}

const bench::LineDefinition captureLine{{"ours", make<CaptureLine>}};
const bench::LineDefinition bareQueueLine{{"bare queue", make<BareQueueLine>}};

}  // namespace
