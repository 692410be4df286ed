#include <AVFoundation/AVCaptureVideoDataOutput.h>
#include <AVFoundation/CaptureStream.h>
#include <AVFoundation/SampleDelivery.h>
#include <AVFoundation/SampleLedger.h>
#include <CoreVideo/CVPixelBuffer.h>
#include <CoreVideo/CVPixelBufferStore.h>
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
  ~Implementation() {
    CVPixelBufferPoolRelease(pool);
    SampleLedger::noteEnded(AVMediaTypeVideo, delivery.statistics());
  }

  void handOver(void* delegate, SampleFate fate, CMSampleBufferRef sample, AVCaptureConnection* connection) override;

  /// Makes pool and format description for frames of this size from this device; false when that is not possible.
  bool prepareFor(std::int32_t width, std::int32_t height, AVCaptureDevice& device);
  CFRef<CVPixelBufferRef> draw(const hardware::VideoFrame& frame, CFDictionaryRef pixelAspectRatio,
                               AVCaptureDevice& device);
  /// Empty when as many as may be are out; the device then hears of room when one comes back.
  CFRef<CVPixelBufferRef> takeBuffer();
  void pushDropped(CMTime presentationTime, CMTime duration, SampleFate fate, AVCaptureConnection* connection);
  CFRef<CMSampleBufferRef> makeSample(CVPixelBufferRef image, CMTime presentationTime, CMTime duration) const;

  AVCaptureVideoDataOutput& output;
  SampleDelivery delivery;
  std::atomic<bool> discardsLateFrames{true};

  // Used on the device's lane alone.
  CFRef<CFDictionaryRef> poolLimits;
  CVPixelBufferPoolRef pool = nullptr;
  Ref<AVCaptureDevice> poolDevice;  ///< hears when a buffer comes back
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
  Implementation& self = *_implementation;
  return self.delivery.waitingFrames() == 0 && (!self.pool || self.takeBuffer());
}

void AVCaptureVideoDataOutput::finish() {
  _implementation->delivery.finish();
}

void AVCaptureVideoDataOutput::receive(const hardware::VideoFrame& frame, CFDictionaryRef pixelAspectRatio,
                                       AVCaptureConnection* connection) {
  Implementation& self = *_implementation;
  const CMTime time = frame.presentationTime;
  const SampleDelivery::Arrival arrival = self.delivery.arrive();
  if (!arrival.hasDelegate) return self.pushDropped(time, frame.duration, SampleFate::stopped, connection);
  if (self.discardsLateFrames && arrival.waitingFrames > 0) {
    return self.pushDropped(time, frame.duration, SampleFate::late, connection);
  }
  CFRef<CVPixelBufferRef> image;
  if (frame.hasImage) {
    image = self.draw(frame, pixelAspectRatio, connection->input().device());
    if (!image) return self.pushDropped(time, frame.duration, SampleFate::noBuffer, connection);
  }
  auto sample = self.makeSample(image.get(), time, frame.duration);
  const auto fate = sample ? SampleFate::deliver : SampleFate::noBuffer;
  self.delivery.push(std::move(sample), fate, connection);
}

void AVCaptureVideoDataOutput::receiveLost(CMTime presentationTime, CMTime duration, AVCaptureConnection* connection) {
  _implementation->delivery.arrive();
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

bool AVCaptureVideoDataOutput::Implementation::prepareFor(std::int32_t newWidth, std::int32_t newHeight,
                                                          AVCaptureDevice& device) {
  if (pool && width == newWidth && height == newHeight && poolDevice.get() == &device) return true;
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
  poolDevice = Ref<AVCaptureDevice>::retain(&device);
  CVPixelBufferPoolSetFreeBufferHandler(pool, [&device] { device.stream().outputHasRoom(); });
  CMVideoFormatDescriptionRef description = nullptr;
  CMVideoFormatDescriptionCreate(kCFAllocatorDefault, kCVPixelFormatType_422YpCbCr8_yuvs, newWidth, newHeight, nullptr,
                                 &description);
  format = CFRef<CMVideoFormatDescriptionRef>::adopt(description);
  width = newWidth;
  height = newHeight;
  return true;
}

CFRef<CVPixelBufferRef> AVCaptureVideoDataOutput::Implementation::draw(const hardware::VideoFrame& frame,
                                                                       CFDictionaryRef pixelAspectRatio,
                                                                       AVCaptureDevice& device) {
  if (!prepareFor(frame.width, frame.height, device)) return {};
  auto image = takeBuffer();
  if (!image) return {};
  CVPixelBufferRef buffer = image.get();
  if (pixelAspectRatio) {
    CVBufferSetAttachment(buffer, kCVImageBufferPixelAspectRatioKey, pixelAspectRatio,
                          kCVAttachmentMode_ShouldPropagate);
  }
  CVPixelBufferLockBaseAddress(buffer, 0);
  frame.drawInto(buffer);
  CVPixelBufferUnlockBaseAddress(buffer, 0);
  return image;
}

CFRef<CVPixelBufferRef> AVCaptureVideoDataOutput::Implementation::takeBuffer() {
  CVPixelBufferRef buffer = nullptr;
  CVPixelBufferPoolCreatePixelBufferWithAuxAttributes(kCFAllocatorDefault, pool, poolLimits.get(), &buffer);
  return CFRef<CVPixelBufferRef>::adopt(buffer);
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
