#include <AVFoundation/AVFoundation.h>
#include <CoreVideo/CVPixelBuffer.h>
#include <Foundation/NSValue.h>
#include <gmock/gmock.h>

#include <future>
#include <thread>

#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class RecordingDelegate final : public AVCaptureVideoDataOutputSampleBufferDelegate {
 public:
  void captureOutputDidOutputSampleBuffer(AVCaptureOutput*, CMSampleBufferRef sample, AVCaptureConnection*) override {
    const auto time = CMSampleBufferGetPresentationTimeStamp(sample).value;
    if (whileDelivering) whileDelivering(sample);
    events.push_back(time);
  }
  void captureOutputDidDropSampleBuffer(AVCaptureOutput*, CMSampleBufferRef sample, AVCaptureConnection*) override {
    events.push_back(-CMSampleBufferGetPresentationTimeStamp(sample).value);
  }

  /// Times of delivered frames; negative for dropped ones.
  std::vector<std::int64_t> events;
  std::function<void(CMSampleBufferRef)> whileDelivering;
};

/// Holds a delegate in its first delivery until it is let go.
class Gate {
 public:
  void attachTo(RecordingDelegate& delegate) {
    delegate.whileDelivering = [this](CMSampleBufferRef) {
      if (!std::exchange(_isClosed, false)) return;
      _entered.set_value();
      _open.get_future().wait();
    };
  }
  void waitUntilEntered() { _entered.get_future().wait(); }
  void open() { _open.set_value(); }

 private:
  bool _isClosed = true;
  std::promise<void> _entered;
  std::promise<void> _open;
};

class VideoOutputTest : public FrameworkTest {
 protected:
  VideoOutputTest() {
    fake::install({camera});
    session->addInput(AVCaptureDeviceInput::initWithDevice(AVCaptureDevice::devices().front().get(), nullptr).get());
    output->setSampleBufferDelegate(&delegate, queue.get());
    session->addOutput(output.get());
  }
  ~VideoOutputTest() override {
    session->stopRunning();
    output->setSampleBufferDelegate(nullptr, nullptr);
    dispatch_sync(queue.get(), [] {});
  }

  void capture(std::int64_t time) { camera->captureFrame(CMTimeMake(time, 30), static_cast<std::uint8_t>(time)); }
  void expectConservation() const {
    const auto counts = output->statistics();
    EXPECT_EQ(counts.captured, counts.delivered + counts.dropped() + counts.pending);
    EXPECT_EQ(counts.pending, 0U);
  }

  std::shared_ptr<fake::Device> camera = fake::camera("Cam", "c");
  Ref<AVCaptureSession> session = makeRef<AVCaptureSession>();
  Ref<AVCaptureVideoDataOutput> output = makeRef<AVCaptureVideoDataOutput>();
  CFRef<dispatch_queue_t> queue =
      CFRef<dispatch_queue_t>::adopt(dispatch_queue_create("frames", DISPATCH_QUEUE_SERIAL));
  RecordingDelegate delegate;
};

TEST_F(VideoOutputTest, LateFramesAreDroppedAndReportedInOrder) {
  Gate gate;
  gate.attachTo(delegate);
  session->startRunning();

  capture(1);
  gate.waitUntilEntered();
  for (int time = 2; time <= 5; ++time) capture(time);  // 2 waits, the others are late
  gate.open();
  session->stopRunning();

  EXPECT_THAT(delegate.events, ElementsAre(1, 2, -3, -4, -5));
  EXPECT_EQ(output->statistics().droppedLate, 3U);
  expectConservation();
}

TEST_F(VideoOutputTest, WithoutDiscardingFramesWaitAsLongAsThePoolLasts) {
  output->setAlwaysDiscardsLateVideoFrames(false);
  Gate gate;
  gate.attachTo(delegate);
  session->startRunning();

  capture(1);
  gate.waitUntilEntered();
  for (int time = 2; time <= 20; ++time) capture(time);
  gate.open();
  session->stopRunning();

  EXPECT_EQ(output->statistics().delivered, 16U);
  EXPECT_EQ(output->statistics().droppedNoBuffer, 4U);
  expectConservation();
}

TEST_F(VideoOutputTest, FramesThatTheDelegateKeepsExhaustThePoolUntilTheyAreReleased) {
  std::vector<CFRef<CVPixelBufferRef>> kept;
  delegate.whileDelivering = [&](CMSampleBufferRef sample) {
    kept.push_back(CFRef<CVPixelBufferRef>::retain(CMSampleBufferGetImageBuffer(sample)));
  };
  session->startRunning();
  const auto captureAndWait = [&](int time) {
    capture(time);
    dispatch_sync(queue.get(), [] {});
  };

  for (int time = 1; time <= 18; ++time) captureAndWait(time);
  EXPECT_EQ(output->statistics().droppedNoBuffer, 2U);
  kept.pop_back();
  captureAndWait(19);
  EXPECT_EQ(delegate.events.back(), 19);

  session->stopRunning();
  output->setSampleBufferDelegate(nullptr, nullptr);
  output = makeRef<AVCaptureVideoDataOutput>();
  session = makeRef<AVCaptureSession>();
  CVPixelBufferLockBaseAddress(kept[2].get(), kCVPixelBufferLock_ReadOnly);
  EXPECT_EQ(*static_cast<std::uint8_t*>(CVPixelBufferGetBaseAddress(kept[2].get())), 3) << "frames outlive the output";
  CVPixelBufferUnlockBaseAddress(kept[2].get(), kCVPixelBufferLock_ReadOnly);
}

TEST_F(VideoOutputTest, StopLetsWaitingFramesArriveAndNothingAfterThem) {
  Gate gate;
  gate.attachTo(delegate);
  session->startRunning();
  capture(1);
  gate.waitUntilEntered();
  capture(2);
  std::thread releasing([&] { gate.open(); });

  session->stopRunning();
  releasing.join();
  capture(3);

  EXPECT_THAT(delegate.events, ElementsAre(1, 2));
}

TEST_F(VideoOutputTest, StoppedFromTheDelegateWaitingFramesAreDropped) {
  session->startRunning();
  delegate.whileDelivering = [&](CMSampleBufferRef) {
    capture(2);
    session->stopRunning();
  };

  capture(1);
  dispatch_sync(queue.get(), [] {});
  dispatch_sync(queue.get(), [] {});

  EXPECT_THAT(delegate.events, ElementsAre(1, -2));
  EXPECT_EQ(output->statistics().droppedStopped, 1U);
  expectConservation();
}

TEST_F(VideoOutputTest, AStuckDelegateCostsNoMemoryAndEveryDropIsReported) {
  Gate gate;
  gate.attachTo(delegate);
  session->startRunning();
  capture(1);
  gate.waitUntilEntered();
  capture(2);
  for (int i = 0; i < 1000; ++i) {
    capture(3);
    camera->loseFrame(CMTimeMake(3, 30));
  }
  gate.open();
  session->stopRunning();

  EXPECT_EQ(delegate.events.size(), 2002U);
  EXPECT_EQ(output->statistics().droppedLate, 1000U);
  EXPECT_EQ(output->statistics().droppedByDevice, 1000U);
  expectConservation();
}

TEST_F(VideoOutputTest, FramesLostByTheDeviceAreReported) {
  session->startRunning();
  camera->loseFrame(CMTimeMake(1, 30));
  session->stopRunning();

  EXPECT_THAT(delegate.events, ElementsAre(-1));
  EXPECT_EQ(output->statistics().droppedByDevice, 1U);
  expectConservation();
}

TEST_F(VideoOutputTest, ARemovedOutputReceivesNothing) {
  session->startRunning();
  session->removeOutput(output.get());
  capture(1);
  EXPECT_FALSE(camera->isRunning());
  session->addOutput(output.get());
  capture(2);
  session->stopRunning();

  EXPECT_THAT(delegate.events, ElementsAre(2));
}

TEST_F(VideoOutputTest, OnlyThePixelFormatOnOfferIsAccepted) {
  const auto asking = [](std::uint32_t format) {
    return makeRef<NSDictionary>(std::initializer_list<NSDictionary::Entry>{
        {kCVPixelBufferPixelFormatTypeKey, NSNumber::numberWithUnsignedInt(format)}});
  };
  EXPECT_TRUE(output->setVideoSettings(asking(kCVPixelFormatType_422YpCbCr8_yuvs).get()));
  EXPECT_FALSE(output->setVideoSettings(asking(0x42475241).get()));
}

TEST_F(VideoOutputTest, ConsumerPacedDevicesHearOfRoom) {
  hardware::Sink* sink = nullptr;
  Gate gate;
  gate.attachTo(delegate);
  session->startRunning();
  sink = camera->sink();
  EXPECT_TRUE(sink->hasRoomForVideo());
  capture(1);
  gate.waitUntilEntered();
  capture(2);
  EXPECT_FALSE(sink->hasRoomForVideo());
  EXPECT_TRUE(sink->hasRoomForAudio());
  gate.open();
  session->stopRunning();

  EXPECT_EQ(camera->roomReports, 1);
}

TEST(SessionNotificationTest, ASessionTellsWhenItStartsAndStops) {
  auto session = makeRef<AVCaptureSession>();
  std::vector<std::string> names;
  auto& center = NSNotificationCenter::defaultCenter();
  std::vector<Ref<NSObject>> tokens;
  for (auto name : {AVCaptureSessionDidStartRunningNotification, AVCaptureSessionDidStopRunningNotification}) {
    tokens.push_back(center.addObserverForName(
        name, session.get(), nullptr, [&](NSNotification& notification) { names.push_back(notification.name()); }));
  }

  session->stopRunning();
  session->startRunning();
  session->startRunning();
  session->stopRunning();
  for (const auto& token : tokens) center.removeObserver(token.get());

  EXPECT_THAT(names,
              ElementsAre(AVCaptureSessionDidStartRunningNotification, AVCaptureSessionDidStopRunningNotification));
}

}  // namespace
