#include <Foundation/NSDictionary.h>
#include <Foundation/NSValue.h>

#include "AVCaptureDelegate.h"
#include "support/FrameworkTest.h"
#include "support/LogCapture.h"
#include "support/Samples.h"

namespace {

class VideoDelegateTest : public FrameworkTest {
 protected:
  VideoDelegateTest() : delegate(VCaptureDelegate::initWithDevice(nullptr)) {
    delegate->setVideoDataArrivedCallback([](void* context, BRV_VideoBuffer* buffer) {
      auto* test = static_cast<VideoDelegateTest*>(context);
      test->record = *buffer;
      if (std::exchange(test->isMadeDirtyDuring, false)) test->delegate->dirtyFormat();
    });
    delegate->setVideoDataArrivedContext(this);
  }

  void deliver(CMTime time) {
    delegate->captureOutputDidOutputSampleBuffer(nullptr, samples::frame(image.get(), time).get(), nullptr);
  }
  void attach(CFStringRef key, std::initializer_list<NSDictionary::Entry> numbers) {
    CVBufferSetAttachment(image.get(), key, makeRef<NSDictionary>(numbers).get(), kCVAttachmentMode_ShouldPropagate);
  }
  void attachRatio(int width, int height) {
    attach(kCVImageBufferPixelAspectRatioKey,
           {{kCVImageBufferPixelAspectRatioHorizontalSpacingKey, NSNumber::numberWithInt(width)},
            {kCVImageBufferPixelAspectRatioVerticalSpacingKey, NSNumber::numberWithInt(height)}});
  }

  CFRef<CVPixelBufferRef> image = samples::picture(64, 48);
  Ref<VCaptureDelegate> delegate;
  BRV_VideoBuffer record{};  ///< the latest
  bool isMadeDirtyDuring = false;
};

TEST_F(VideoDelegateTest, FlagsTellTheFirstFrameEveryChangeOfTheTimescaleAndADirtyFormat) {
  enum Dirty { No, Before, During };  // During a delivery, the mark belongs to the next one.
  const struct {
    CMTime time;
    int flags;
    Dirty dirty;
  } steps[] = {{CMTimeMake(1, 600), 0, No},       {CMTimeMake(2, 600), 1, No},    {CMTimeMake(3, 90000), 0x21, No},
               {CMTimeMake(4, 90000), 1, No},     {kCMTimeInvalid, 0x21, No},     {CMTimeMake(5, 30), 0x21, Before},
               {CMTimeMake(6, 30), 0x21, Before}, {CMTimeMake(7, 30), 1, During}, {CMTimeMake(8, 30), 0x21, No},
               {CMTimeMake(9, 30), 1, No}};
  EXPECT_EQ(delegate->timescale(), -1);
  for (const auto& [time, flags, dirty] : steps) {
    if (dirty == Before) delegate->dirtyFormat();
    isMadeDirtyDuring = dirty == During;
    deliver(time);
    EXPECT_EQ(record.flags, flags) << time.value;
    EXPECT_EQ(record.timeStamp, time.value);
    EXPECT_EQ(delegate->timescale(), time.timescale);
  }
}

TEST_F(VideoDelegateTest, WithoutPictureCallbackOrContextAFrameOnlyMovesTheTimescale) {
  delegate->setVideoDataArrivedContext(nullptr);
  deliver(CMTimeMake(1, 600));
  EXPECT_EQ(record.data, nullptr);
  delegate->setVideoDataArrivedContext(this);
  deliver(CMTimeMake(2, 600));
  EXPECT_EQ(record.flags, 1) << "the first frame was the one before";

  image = {};
  deliver(CMTimeMake(3, 90000));

  EXPECT_EQ(record.timeStamp, 2);
  EXPECT_EQ(delegate->timescale(), 90000);
}

TEST_F(VideoDelegateTest, AFrameThatWasDroppedIsLogged) {
  const LogCapture log;
  delegate->captureOutputDidDropSampleBuffer(nullptr, samples::frame(nullptr, CMTimeMake(1, 30)).get(), nullptr);
  EXPECT_EQ(log.lines(), std::vector<std::string>{"4 Dropped a Frame!\n"});
}

TEST_F(VideoDelegateTest, ARecordDescribesItsFrame) {
  const auto number = NSNumber::numberWithDouble;
  const auto describe = [&] {
    deliver(CMTimeMake(1, 30));
    return std::tuple(record.format, record.width, record.height, record.rowBytes, record.pixelAspectRatio,
                      record.data);
  };
  const auto expected = [&](int width, int height, float ratio) {
    return std::tuple(BRV_FORMAT_PIXEL_BUFFER, width, height, 128, ratio, image.get());
  };
  EXPECT_EQ(describe(), expected(64, 48, 1));

  attach(kCVImageBufferPixelAspectRatioKey, {{kCVImageBufferPixelAspectRatioVerticalSpacingKey, number(11)}});
  EXPECT_EQ(describe(), expected(64, 48, 1)) << "the ratio needs both spacings";
  for (const auto& [width, height] : {std::pair(1, 0), {0, 1}, {0, 0}}) {
    attachRatio(width, height);
    EXPECT_EQ(describe(), expected(64, 48, 1)) << "no pixel is " << width << " : " << height;
  }
  attachRatio(10, 11);
  attach(kCVImageBufferDisplayDimensionsKey,
         {{kCVImageBufferDisplayWidthKey, number(1919.7)}, {kCVImageBufferDisplayHeightKey, number(1080.2)}});
  EXPECT_EQ(describe(), expected(1919, 1080, 10.0F / 11)) << "sizes are truncated";
}

}  // namespace
