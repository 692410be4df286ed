#include <AVFoundation/AVCaptureVideoDataOutput.h>
#include <AVFoundation/CaptureStream.h>
#include <AVFoundation/SampleDelivery.h>
#include <CoreVideo/CVPixelBuffer.h>
#include <Foundation/NSValue.h>

#include <atomic>

namespace {

/// How many frames of one size may be out at once, in the line and with the delegate's side.
constexpr std::int32_t MostFramesOut = 16;

}  // namespace

struct AVCaptureVideoDataOutput::Implementation final : SampleReceiver {
  explicit Implementation(AVCaptureVideoDataOutput& owner) : output(owner), delivery(owner, *this) {
    auto threshold = makeRef<NSDictionary>(std::initializer_list<NSDictionary::Entry>{
        {kCVPixelBufferPoolAllocationThresholdKey, NSNumber::numberWithInt(MostFramesOut)}});
    poolLimits = CFRef<CFDictionaryRef>::adopt(threshold.leak()->toCF());
  }
  ~Implementation() { CVPixelBufferPoolRelease(pool); }

  void handOver(void* delegate, SampleFate fate, CMSampleBufferRef sample, AVCaptureConnection* connection) override;

  /// Makes pool and format description for frames of this size; false when that is not possible.
  bool prepareFor(std::int32_t width, std::int32_t height);
  CFRef<CVPixelBufferRef> draw(const hardware::VideoFrame& frame, CFDictionaryRef pixelAspectRatio);
  void pushDropped(CMTime presentationTime, CMTime duration, SampleFate fate, AVCaptureConnection* connection);
  CFRef<CMSampleBufferRef> makeSample(CVPixelBufferRef image, CMTime presentationTime, CMTime duration) const;

  AVCaptureVideoDataOutput& output;
  SampleDelivery delivery;
  std::atomic<bool> discardsLateFrames{true};

  // Used on the device's lane alone.
  CFRef<CFDictionaryRef> poolLimits;
  CVPixelBufferPoolRef pool = nullptr;
  CFRef<CMVideoFormatDescriptionRef> format;
  std::int32_t width = 0;
  std::int32_t height = 0;
};

AVCaptureVideoDataOutput::AVCaptureVideoDataOutput() : _implementation(std::make_unique<Implementation>(*this)) {}

AVCaptureVideoDataOutput::~AVCaptureVideoDataOutput() = default;

bool AVCaptureVideoDataOutput::setVideoSettings(const NSDictionary* videoSettings) {
  if (!videoSettings) return true;
  const auto* type = dynamic_cast<NSNumber*>(videoSettings->objectForKey(kCVPixelBufferPixelFormatTypeKey));
  return !type || type->longLongValue() == kCVPixelFormatType_422YpCbCr8_yuvs;
}

void AVCaptureVideoDataOutput::setAlwaysDiscardsLateVideoFrames(bool alwaysDiscardsLateVideoFrames) {
  _implementation->discardsLateFrames = alwaysDiscardsLateVideoFrames;
}

void AVCaptureVideoDataOutput::setSampleBufferDelegate(
    AVCaptureVideoDataOutputSampleBufferDelegate* sampleBufferDelegate, dispatch_queue_t queue) {
  _implementation->delivery.setDelegate(sampleBufferDelegate, queue);
}

AVCaptureOutputStatistics AVCaptureVideoDataOutput::statistics() const {
  return _implementation->delivery.statistics();
}

bool AVCaptureVideoDataOutput::hasRoom() {
  return _implementation->delivery.waitingFrames() == 0;
}

void AVCaptureVideoDataOutput::finish() {
  _implementation->delivery.finish();
}

void AVCaptureVideoDataOutput::receive(const hardware::VideoFrame& frame, CFDictionaryRef pixelAspectRatio,
                                       AVCaptureConnection* connection) {
  Implementation& self = *_implementation;
  const CMTime time = frame.presentationTime;
  if (!self.delivery.hasDelegate()) return self.pushDropped(time, frame.duration, SampleFate::stopped, connection);
  if (self.discardsLateFrames && self.delivery.waitingFrames() > 0) {
    return self.pushDropped(time, frame.duration, SampleFate::late, connection);
  }
  CFRef<CVPixelBufferRef> image;
  if (frame.hasImage) {
    image = self.draw(frame, pixelAspectRatio);
    if (!image) return self.pushDropped(time, frame.duration, SampleFate::noBuffer, connection);
  }
  auto sample = self.makeSample(image.get(), time, frame.duration);
  const auto fate = sample ? SampleFate::deliver : SampleFate::noBuffer;
  self.delivery.push(std::move(sample), fate, connection);
}

void AVCaptureVideoDataOutput::receiveLost(CMTime presentationTime, CMTime duration, AVCaptureConnection* connection) {
  _implementation->pushDropped(presentationTime, duration, SampleFate::lostByDevice, connection);
}

void AVCaptureVideoDataOutput::Implementation::handOver(void* delegate, SampleFate fate, CMSampleBufferRef sample,
                                                        AVCaptureConnection* connection) {
  auto* receiver = static_cast<AVCaptureVideoDataOutputSampleBufferDelegate*>(delegate);
  if (fate == SampleFate::deliver) {
    connection->input().device().stream().outputHasRoom();
    receiver->captureOutputDidOutputSampleBuffer(&output, sample, connection);
    return;
  }
  // A frame that was still waiting when the session stopped has its picture yet.
  CFRef<CMSampleBufferRef> withoutPicture;
  if (sample && CMSampleBufferGetImageBuffer(sample)) {
    withoutPicture =
        makeSample(nullptr, CMSampleBufferGetPresentationTimeStamp(sample), CMSampleBufferGetDuration(sample));
    sample = withoutPicture.get();
  }
  receiver->captureOutputDidDropSampleBuffer(&output, sample, connection);
}

bool AVCaptureVideoDataOutput::Implementation::prepareFor(std::int32_t newWidth, std::int32_t newHeight) {
  if (pool && width == newWidth && height == newHeight) return true;
  CVPixelBufferPoolRelease(std::exchange(pool, nullptr));
  auto attributes = makeRef<NSDictionary>(std::initializer_list<NSDictionary::Entry>{
      {kCVPixelBufferPixelFormatTypeKey, NSNumber::numberWithUnsignedInt(kCVPixelFormatType_422YpCbCr8_yuvs)},
      {kCVPixelBufferWidthKey, NSNumber::numberWithInt(newWidth)},
      {kCVPixelBufferHeightKey, NSNumber::numberWithInt(newHeight)},
  });
  if (CVPixelBufferPoolCreate(kCFAllocatorDefault, nullptr, attributes->toCF(), &pool) != kCVReturnSuccess) {
    pool = nullptr;
    return false;
  }
  CMVideoFormatDescriptionRef description = nullptr;
  CMVideoFormatDescriptionCreate(kCFAllocatorDefault, kCVPixelFormatType_422YpCbCr8_yuvs, newWidth, newHeight, nullptr,
                                 &description);
  format = CFRef<CMVideoFormatDescriptionRef>::adopt(description);
  width = newWidth;
  height = newHeight;
  return true;
}

CFRef<CVPixelBufferRef> AVCaptureVideoDataOutput::Implementation::draw(const hardware::VideoFrame& frame,
                                                                       CFDictionaryRef pixelAspectRatio) {
  if (!prepareFor(frame.width, frame.height)) return {};
  CVPixelBufferRef buffer = nullptr;
  if (CVPixelBufferPoolCreatePixelBufferWithAuxAttributes(kCFAllocatorDefault, pool, poolLimits.get(), &buffer) !=
      kCVReturnSuccess) {
    return {};
  }
  auto image = CFRef<CVPixelBufferRef>::adopt(buffer);
  if (pixelAspectRatio) {
    CVBufferSetAttachment(buffer, kCVImageBufferPixelAspectRatioKey, pixelAspectRatio,
                          kCVAttachmentMode_ShouldPropagate);
  }
  CVPixelBufferLockBaseAddress(buffer, 0);
  frame.drawInto(buffer);
  CVPixelBufferUnlockBaseAddress(buffer, 0);
  return image;
}

void AVCaptureVideoDataOutput::Implementation::pushDropped(CMTime presentationTime, CMTime duration, SampleFate fate,
                                                           AVCaptureConnection* connection) {
  delivery.push(makeSample(nullptr, presentationTime, duration), fate, connection);
}

CFRef<CMSampleBufferRef> AVCaptureVideoDataOutput::Implementation::makeSample(CVPixelBufferRef image,
                                                                              CMTime presentationTime,
                                                                              CMTime duration) const {
  const CMSampleTimingInfo timing{duration, presentationTime, kCMTimeInvalid};
  CMSampleBufferRef sample = nullptr;
  CMSampleBufferCreateForImageBuffer(kCFAllocatorDefault, image, true, nullptr, nullptr, format.get(), &timing,
                                     &sample);
  return CFRef<CMSampleBufferRef>::adopt(sample);
}
