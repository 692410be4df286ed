#include <AVFoundation/AVFoundation.h>
#include <CoreVideo/CVPixelBuffer.h>
#include <gmock/gmock.h>

#include <thread>

#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"
#include "support/Gate.h"

namespace {

using testing::ElementsAre;

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

  /// Captures frame 1 and returns while its delivery is held by the gate.
  void enterGate() {
    delegate.whileDelivering = [this](CMSampleBufferRef) { gate.pass(); };
    session->startRunning();
    capture(1);
    gate.waitUntilEntered();
  }
  void capture(std::int64_t time) { camera->captureFrame(CMTimeMake(time, 30)); }
  void expectConservation() const {
    const auto counts = output->statistics();
    EXPECT_TRUE(counts.isBalanced());
    EXPECT_EQ(counts.pending, 0U);
  }

  std::shared_ptr<fake::Device> camera = fake::camera("Cam", "c");
  Ref<AVCaptureSession> session = makeRef<AVCaptureSession>();
  Ref<AVCaptureVideoDataOutput> output = makeRef<AVCaptureVideoDataOutput>();
  CFRef<dispatch_queue_t> queue =
      CFRef<dispatch_queue_t>::adopt(dispatch_queue_create("frames", DISPATCH_QUEUE_SERIAL));
  RecordingDelegate delegate;
  Gate gate;
};

TEST_F(VideoOutputTest, LateFramesAreDroppedAndReportedInOrder) {
  enterGate();
  for (int time = 2; time <= 5; ++time) capture(time);  // 2 waits, the others are late
  gate.open();
  session->stopRunning();

  EXPECT_THAT(delegate.events, ElementsAre(1, 2, -3, -4, -5));
  EXPECT_EQ(output->statistics().droppedLate, 3U);
  expectConservation();
}

TEST_F(VideoOutputTest, StopLetsWaitingFramesArriveAndNothingAfterThem) {
  enterGate();
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
  enterGate();
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

TEST_F(VideoOutputTest, ConsumerPacedDevicesHearOfRoom) {
  enterGate();
  hardware::Sink* sink = camera->sink();
  EXPECT_TRUE(sink->hasRoomForVideo());
  capture(2);
  EXPECT_FALSE(sink->hasRoomForVideo());
  EXPECT_TRUE(sink->hasRoomForAudio());
  gate.open();
  session->stopRunning();

  EXPECT_EQ(camera->roomReports, 1);
}

TEST_F(VideoOutputTest, ConsumerPacedDevicesWaitForABufferOfAPoolThatIsKept) {
  std::vector<CFRef<CVImageBufferRef>> kept;
  delegate.whileDelivering = [&](CMSampleBufferRef sample) {
    kept.push_back(CFRef<CVImageBufferRef>::retain(CMSampleBufferGetImageBuffer(sample)));
  };
  session->startRunning();
  hardware::Sink* sink = camera->sink();
  int taken = 0;
  for (; taken < 100 && sink->hasRoomForVideo(); ++taken) {
    capture(taken);
    dispatch_sync(queue.get(), [] {});
  }
  EXPECT_EQ(taken, 16);

  const int reports = camera->roomReports;
  kept.pop_back();
  EXPECT_EQ(camera->roomReports, reports + 1);
  EXPECT_TRUE(sink->hasRoomForVideo());
  session->stopRunning();
  EXPECT_EQ(output->statistics().delivered, 16U);
}

TEST_F(VideoOutputTest, WhatACameraTakesUntilItStandsStillIsDelivered) {
  session->startRunning();
  camera->whileStopping = [this] { capture(1); };

  session->stopRunning();

  EXPECT_THAT(delegate.events, ElementsAre(1));
  EXPECT_EQ(unclaimedFrames(), 0U);
  camera->whileStopping = {};
}

TEST_F(VideoOutputTest, AStopWaitsForEveryFormerDelegateThatIsStillAtWork) {
  const auto second = CFRef<dispatch_queue_t>::adopt(dispatch_queue_create("second", DISPATCH_QUEUE_SERIAL));
  RecordingDelegate successor;
  enterGate();
  output->setSampleBufferDelegate(&successor, second.get());
  capture(2);
  dispatch_sync(second.get(), [] {});
  std::thread releasing([&] { gate.open(); });

  session->stopRunning();

  EXPECT_THAT(delegate.events, ElementsAre(1));
  releasing.join();
}

}  // namespace
