#include <Foundation/NSDictionary.h>
#include <Foundation/NSValue.h>

#include "AVCaptureDelegate.h"
#include "support/FrameworkTest.h"
#include "support/Samples.h"

namespace {

class VideoDelegateTest : public FrameworkTest {
 protected:
  VideoDelegateTest() : delegate(VCaptureDelegate::initWithDevice(nullptr)) {
    delegate->setVideoDataArrivedCallback([](void* context, BRV_VideoBuffer* buffer) {
      auto* test = static_cast<VideoDelegateTest*>(context);
      test->records.push_back(*buffer);
      if (test->duringCallback) test->duringCallback();
    });
    delegate->setVideoDataArrivedContext(this);
  }

  void deliver(CMTime time) {
    delegate->captureOutputDidOutputSampleBuffer(nullptr, samples::frame(image.get(), time).get(), nullptr);
  }
  int lastFlags() const { return records.back().flags; }

  CFRef<CVPixelBufferRef> image = samples::picture(64, 48);
  Ref<VCaptureDelegate> delegate;
  std::vector<BRV_VideoBuffer> records;
  std::function<void()> duringCallback;
};

/// Attaches a dictionary of those numbers that there are.
void attach(CVPixelBufferRef image, CFStringRef key, std::pair<CFStringRef, std::optional<double>> first,
            std::pair<CFStringRef, std::optional<double>> second) {
  auto numbers = makeRef<NSDictionary>();
  for (const auto& [name, number] : {first, second}) {
    if (number) numbers->insert(name, NSNumber::numberWithDouble(*number));
  }
  CVBufferSetAttachment(image, key, numbers->toCF(), kCVAttachmentMode_ShouldPropagate);
}

TEST_F(VideoDelegateTest, ARecordDescribesItsFrame) {
  EXPECT_EQ(delegate->timescale(), -1);

  deliver(CMTimeMake(1001, 30000));

  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].format, BRV_FORMAT_PIXEL_BUFFER);
  EXPECT_EQ(records[0].width, 64);
  EXPECT_EQ(records[0].height, 48);
  EXPECT_EQ(static_cast<std::size_t>(records[0].rowBytes), CVPixelBufferGetBytesPerRow(image.get()));
  EXPECT_EQ(records[0].pixelAspectRatio, 1.0F);
  EXPECT_EQ(records[0].timeStamp, 1001);
  EXPECT_EQ(records[0].data, image.get());
  EXPECT_EQ(delegate->timescale(), 30000);
}

TEST_F(VideoDelegateTest, FlagsTellTheFirstFrameAndEveryChangeOfTheTimescale) {
  const std::vector<std::pair<CMTime, int>> steps{
      {CMTimeMake(1, 600), 0},   {CMTimeMake(2, 600), 1}, {CMTimeMake(3, 90000), 0x21},
      {CMTimeMake(4, 90000), 1}, {kCMTimeInvalid, 0x21},  {CMTimeMake(5, 90000), 0x21},
  };
  for (const auto& [time, flags] : steps) {
    deliver(time);
    EXPECT_EQ(lastFlags(), flags);
    EXPECT_EQ(records.back().timeStamp, time.value);
    EXPECT_EQ(delegate->timescale(), time.timescale);
  }
}

TEST_F(VideoDelegateTest, ADirtyFormatIsMarkedOnceWheneverItIsSet) {
  delegate->dirtyFormat();
  deliver(CMTimeMake(1, 30));
  EXPECT_EQ(lastFlags(), 0x20);
  deliver(CMTimeMake(2, 30));
  EXPECT_EQ(lastFlags(), 1);

  // While a delivery is in progress, the mark belongs to the next one.
  duringCallback = [this] { delegate->dirtyFormat(); };
  deliver(CMTimeMake(3, 30));
  EXPECT_EQ(lastFlags(), 1);
  duringCallback = nullptr;
  deliver(CMTimeMake(4, 30));
  EXPECT_EQ(lastFlags(), 0x21);
  deliver(CMTimeMake(5, 30));
  EXPECT_EQ(lastFlags(), 1);
}

TEST_F(VideoDelegateTest, WithoutPictureCallbackOrContextAFrameOnlyMovesTheTimescale) {
  delegate->setVideoDataArrivedContext(nullptr);
  deliver(CMTimeMake(1, 600));
  delegate->setVideoDataArrivedContext(this);
  deliver(CMTimeMake(2, 600));
  EXPECT_EQ(lastFlags(), 1) << "the first frame was the one before";

  image = {};
  deliver(CMTimeMake(3, 90000));

  EXPECT_EQ(records.size(), 1U);
  EXPECT_EQ(delegate->timescale(), 90000);
}

TEST_F(VideoDelegateTest, ThePixelAspectRatioNeedsBothSpacings) {
  struct Case {
    std::optional<double> horizontal, vertical;
    float ratio;
  };
  for (const Case& c : {Case{10, 11, 10.0F / 11.0F}, Case{10, std::nullopt, 1.0F}, Case{std::nullopt, 11, 1.0F}}) {
    image = samples::picture(64, 48);
    attach(image.get(), kCVImageBufferPixelAspectRatioKey,
           {kCVImageBufferPixelAspectRatioHorizontalSpacingKey, c.horizontal},
           {kCVImageBufferPixelAspectRatioVerticalSpacingKey, c.vertical});
    deliver(CMTimeMake(1, 30));
    EXPECT_EQ(records.back().pixelAspectRatio, c.ratio);
  }
}

TEST_F(VideoDelegateTest, DisplaySizesAreTruncated) {
  attach(image.get(), kCVImageBufferDisplayDimensionsKey, {kCVImageBufferDisplayWidthKey, 1919.7},
         {kCVImageBufferDisplayHeightKey, 1080.2});

  deliver(CMTimeMake(1, 30));

  EXPECT_EQ(records[0].width, 1919);
  EXPECT_EQ(records[0].height, 1080);
}

}  // namespace
