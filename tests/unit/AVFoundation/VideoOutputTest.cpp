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
    if (whileDelivering) whileDelivering(CMSampleBufferGetImageBuffer(sample));
    events.push_back(CMSampleBufferGetPresentationTimeStamp(sample).value);
  }
  void captureOutputDidDropSampleBuffer(AVCaptureOutput*, CMSampleBufferRef sample, AVCaptureConnection*) override {
    events.push_back(-CMSampleBufferGetPresentationTimeStamp(sample).value);
  }

  /// Times of delivered frames; negative for dropped ones.
  std::vector<std::int64_t> events;
  std::function<void(CVImageBufferRef)> whileDelivering;
};

class VideoOutputTest : public FrameworkTest {
 protected:
  VideoOutputTest() {
    fake::install({camera});
    session->addInput(AVCaptureDeviceInput::initWithDevice(AVCaptureDevice::devices().front().get(), nullptr).get());
    output->setSampleBufferDelegate(&delegate, queue.get());
    session->addOutput(output.get());
    session->startRunning();
  }
  /// Every sample has come to an end by then, which FrameworkTest checks.
  ~VideoOutputTest() override {
    session->stopRunning();
    output->setSampleBufferDelegate(nullptr, nullptr);
  }

  /// Captures frame 1 and returns while its delivery is held by the gate, and frame 2 waits for it.
  void enterGate() {
    delegate.whileDelivering = [this](CVImageBufferRef) { gate.pass(); };
    capture(1);
    gate.waitUntilEntered();
    EXPECT_TRUE(camera->sink()->hasRoomForVideo());
    capture(2);
  }
  void capture(std::int64_t time) { camera->captureFrame(CMTimeMake(time, 30)); }
  void drain() {
    for (int i = 0; i < 2; ++i) dispatch_sync(queue.get(), [] {});  // a delivery may add another one
  }

  std::shared_ptr<fake::Device> camera = fake::camera("Cam", "c");
  Ref<AVCaptureSession> session = makeRef<AVCaptureSession>();
  Ref<AVCaptureVideoDataOutput> output = makeRef<AVCaptureVideoDataOutput>();
  CFRef<dispatch_queue_t> queue =
      CFRef<dispatch_queue_t>::adopt(dispatch_queue_create("frames", DISPATCH_QUEUE_SERIAL));
  RecordingDelegate delegate;
  Gate gate;
};

TEST_F(VideoOutputTest, AStuckDelegateCostsNoMemoryEveryDropIsReportedInOrderAndAStopWaitsForItsFrames) {
  enterGate();
  EXPECT_FALSE(camera->sink()->hasRoomForVideo());
  EXPECT_TRUE(camera->sink()->hasRoomForAudio());
  for (int time = 3; time < 1003; ++time) {
    capture(time);
    camera->loseFrame(CMTimeMake(time, 30));
  }
  EXPECT_LT(output->retainCount(), 100) << "every place in its line holds it";
  camera->whileStopping = [this] { capture(2000); };  // what it takes until it stands still
  const std::jthread releasing([&] { gate.open(); });

  session->stopRunning();
  camera->whileStopping = {};
  capture(2001);

  ASSERT_EQ(delegate.events.size(), 2003U);
  delegate.events.resize(6);
  EXPECT_THAT(delegate.events, ElementsAre(1, 2, -3, -3, -4, -4));
  EXPECT_EQ(output->statistics().droppedByDevice, 1000U);
  EXPECT_EQ(unclaimedFrames(), 0U);
  EXPECT_EQ(camera->roomReports, 1) << "a device that waits for room hears of it";
}

TEST_F(VideoOutputTest, PicturesCarryTheirColourAndThoseThatCannotBeDecodedAreDropped) {
  using Color = hardware::VideoColor;
  const void* matrix = nullptr;
  const void* primaries = "not looked at";
  delegate.whileDelivering = [&](CVImageBufferRef image) {
    matrix = CVBufferGetAttachment(image, kCVImageBufferYCbCrMatrixKey, nullptr);
    primaries = CVBufferGetAttachment(image, kCVImageBufferColorPrimariesKey, nullptr);
  };
  camera->color.emplace().matrix = Color::Matrix::ITU_R_601_4;
  capture(1);
  drain();
  EXPECT_EQ(matrix, kCVImageBufferYCbCrMatrix_ITU_R_601_4);
  EXPECT_EQ(primaries, nullptr);

  camera->picturesAreReadable = false;
  capture(2);
  drain();
  EXPECT_THAT(delegate.events, ElementsAre(1, -2));
  EXPECT_EQ(output->statistics().droppedConversion, 1U);
}

TEST_F(VideoOutputTest, ConsumerPacedDevicesWaitForABufferOfAPoolThatIsKept) {
  std::vector<CFRef<CVImageBufferRef>> kept;
  delegate.whileDelivering = [&](CVImageBufferRef image) { kept.push_back(CFRef<CVImageBufferRef>::retain(image)); };
  for (int taken = 0; taken < 100 && camera->sink()->hasRoomForVideo(); ++taken) {
    capture(taken);
    drain();
  }
  EXPECT_EQ(kept.size(), 16U);

  const int reports = camera->roomReports;
  kept.pop_back();
  EXPECT_EQ(camera->roomReports, reports + 1);
  EXPECT_TRUE(camera->sink()->hasRoomForVideo());
}

TEST_F(VideoOutputTest, ADelegateThatIsTakenAwayHasReturnedAndWhatWaitedForItIsDropped) {
  output->setAlwaysDiscardsLateVideoFrames(false);
  enterGate();
  capture(3);
  const std::jthread releasing([&] {
    while (output->statistics().droppedStopped == 0) std::this_thread::yield();
    gate.open();
  });

  output->setSampleBufferDelegate(nullptr, nullptr);
  output->setSampleBufferDelegate(&delegate, nullptr);  // as good as none
  capture(4);

  EXPECT_EQ(output->statistics().droppedStopped, 3U);
  EXPECT_THAT(delegate.events, ElementsAre(1));
}

TEST_F(VideoOutputTest, AStopWaitsForADelegateThatTookItselfAwayAndForAnOutputThatIsBeingRemoved) {
  delegate.whileDelivering = [this](CVImageBufferRef) {
    output->setSampleBufferDelegate(nullptr, nullptr);
    gate.pass();
  };
  capture(1);
  gate.waitUntilEntered();
  const std::jthread removing([&] { session->removeOutput(output.get()); });
  while (camera->isRunning()) std::this_thread::yield();
  const std::jthread releasing([&] { gate.open(); });

  session->stopRunning();

  EXPECT_THAT(delegate.events, ElementsAre(1));
}

}  // namespace
