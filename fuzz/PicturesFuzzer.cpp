// Frames with impossible times, sizes and shapes, into the delegate of pictures; and what is reckoned with times, there
// and by a host that records.

#include <Foundation/NSDictionary.h>
#include <Foundation/NSValue.h>

#include <limits>

#include "AVCaptureDelegate.h"
#include "FuzzInput.h"
#include "picture/Rational.h"
#include "support/Samples.h"

namespace {

void attach(CVPixelBufferRef image, CFStringRef key, CFStringRef first, CFStringRef second, fuzz::Input& input) {
  auto numbers = makeRef<NSDictionary>();
  for (const CFStringRef name : {first, second}) {
    if (input.ConsumeBool()) numbers->insert(name, NSNumber::numberWithDouble(input.real()));
  }
  CVBufferSetAttachment(image, key, numbers.get(), kCVAttachmentMode_ShouldPropagate);
}

void checkTimes(CMTime a, CMTime b, std::int32_t timescale, double seconds) {
  fuzz::require(CMTimeCompare(a, b) == -CMTimeCompare(b, a) && CMTimeCompare(a, a) == 0);
  fuzz::require(CMTimeCompare(CMTimeAdd(a, b), CMTimeAdd(b, a)) == 0);
  const CMTime converted = CMTimeConvertScale(a, timescale, kCMTimeRoundingMethod_RoundHalfAwayFromZero);
  const CMTime made = CMTimeMakeWithSeconds(seconds, timescale);
  for (const CMTime& time : {converted, made, CMTimeAdd(a, converted), CMTimeAdd(made, b)}) CMTimeGetSeconds(time);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  int records = 0;
  const auto delegate = VCaptureDelegate::initWithDevice(nullptr);
  delegate->setVideoDataArrivedContext(&records);
  delegate->setVideoDataArrivedCallback([](void* context, BRV_VideoBuffer* record) {
    ++*static_cast<int*>(context);
    fuzz::require(record->format == BRV_FORMAT_PIXEL_BUFFER && record->width >= 0 && record->height >= 0);
  });
  while (input.isLeft()) {
    checkTimes(input.time(), input.time(), input.number(), input.real());
    const auto aspect =
        brvhost::pixelAspect(static_cast<float>(input.real()), input.number(), input.number(), 32768, 1);
    fuzz::require(aspect.numerator >= 0 && aspect.denominator >= 0);
    if (input.ConsumeBool()) delegate->dirtyFormat();
    const auto image = samples::picture(input.ConsumeIntegral<std::uint8_t>(), input.ConsumeIntegral<std::uint8_t>());
    if (image && input.ConsumeBool()) {
      attach(image.get(), kCVImageBufferPixelAspectRatioKey, kCVImageBufferPixelAspectRatioHorizontalSpacingKey,
             kCVImageBufferPixelAspectRatioVerticalSpacingKey, input);
      attach(image.get(), kCVImageBufferDisplayDimensionsKey, kCVImageBufferDisplayWidthKey,
             kCVImageBufferDisplayHeightKey, input);
    }
    const int expected = records + (image ? 1 : 0);
    const CMTime time = input.time();
    delegate->captureOutputDidOutputSampleBuffer(nullptr, samples::frame(image.get(), time).get(), nullptr);
    fuzz::require(records == expected && delegate->timescale() == time.timescale);
  }
  return 0;
}
