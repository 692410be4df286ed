#include <Foundation/NSDictionary.h>
#include <Foundation/NSValue.h>

#include <random>

#include "AVCaptureDelegate.h"
#include "support/FrameworkTest.h"
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
    CVBufferSetAttachment(image.get(), key, makeRef<NSDictionary>(numbers)->toCF(), kCVAttachmentMode_ShouldPropagate);
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
    attach(kCVImageBufferPixelAspectRatioKey, {{kCVImageBufferPixelAspectRatioHorizontalSpacingKey, number(width)},
                                               {kCVImageBufferPixelAspectRatioVerticalSpacingKey, number(height)}});
    EXPECT_EQ(describe(), expected(64, 48, 1)) << "no pixel is " << width << " : " << height;
  }
  attach(kCVImageBufferPixelAspectRatioKey, {{kCVImageBufferPixelAspectRatioHorizontalSpacingKey, number(10)},
                                             {kCVImageBufferPixelAspectRatioVerticalSpacingKey, number(11)}});
  attach(kCVImageBufferDisplayDimensionsKey,
         {{kCVImageBufferDisplayWidthKey, number(1919.7)}, {kCVImageBufferDisplayHeightKey, number(1080.2)}});
  EXPECT_EQ(describe(), expected(1919, 1080, 10.0F / 11)) << "sizes are truncated";
}

/// The plain twin of the delegate's reading, which remembers the dictionary that it has read.
float pixelAspectOf(CVImageBufferRef image) {
  const auto attached =
      static_cast<CFDictionaryRef>(CVBufferGetAttachment(image, kCVImageBufferPixelAspectRatioKey, nullptr));
  const auto spacing = [&](CFStringRef key) {
    return attached ? dynamic_cast<NSNumber*>(NSDictionary::from(attached)->objectForKey(key)) : nullptr;
  };
  const NSNumber* width = spacing(kCVImageBufferPixelAspectRatioHorizontalSpacingKey);
  const NSNumber* height = spacing(kCVImageBufferPixelAspectRatioVerticalSpacingKey);
  return width && height ? static_cast<float>(width->doubleValue()) / static_cast<float>(height->doubleValue()) : 1.0F;
}

TEST_F(VideoDelegateTest, ThePixelAspectIsEachPicturesOwnWhateverCameBefore) {
  std::mt19937 random(3);
  const CFRef<CVPixelBufferRef> pictures[] = {samples::picture(16, 16), samples::picture(16, 16)};
  Ref<NSDictionary> ratios[3];  // on either picture, and made anew where another one has just been let go
  for (int frame = 0; frame < 2000; ++frame) {
    image = pictures[random() % 2];
    Ref<NSDictionary>& ratio = ratios[random() % 3];
    if (!ratio || random() % 4 == 0) {
      ratio = makeRef<NSDictionary>();
      for (const auto& key :
           {kCVImageBufferPixelAspectRatioHorizontalSpacingKey, kCVImageBufferPixelAspectRatioVerticalSpacingKey}) {
        if (random() % 5 > 0) ratio->insert(key, NSNumber::numberWithInt(static_cast<int>(random() % 16) + 1));
      }
    }
    if (random() % 2 == 0) {
      CVBufferRemoveAllAttachments(image.get());
      if (random() % 4 > 0) {
        CVBufferSetAttachment(image.get(), kCVImageBufferPixelAspectRatioKey, ratio->toCF(),
                              kCVAttachmentMode_ShouldPropagate);
      }
    }

    deliver(CMTimeMake(frame, 30));

    ASSERT_EQ(record.pixelAspectRatio, pixelAspectOf(image.get())) << "frame " << frame;
  }
}

}  // namespace
