#include <AVFoundation/AVCaptureVideoDataOutput.h>
#include <AVFoundation/CaptureStream.h>
#include <AVFoundation/SampleDelivery.h>
#include <AVFoundation/SampleLedger.h>
#include <CoreVideo/CVPixelBuffer.h>
#include <CoreVideo/CVPixelBufferPool.h>
#include <Foundation/NSValue.h>

#include <atomic>
#include <new>

namespace {

/// How many frames of one size may be out at once, in the line and with the delegate's side.
constexpr std::uint64_t MostFramesOut = 16;

/// How many are out while the delegate keeps none: one being drawn, one waiting, one with the delegate.
constexpr std::int32_t UsualFramesOut = 3;

CFRef<CMSampleBufferRef> makeSample(CVPixelBufferRef image, CMFormatDescriptionRef format, CMTime presentationTime,
                                    CMTime duration) {
  const CMSampleTimingInfo timing{duration, presentationTime, kCMTimeInvalid};
  CMSampleBufferRef sample = nullptr;
  CMSampleBufferCreateForImageBuffer(kCFAllocatorDefault, image, true, nullptr, nullptr, format, &timing, &sample);
  return CFRef<CMSampleBufferRef>::adopt(sample);
}

}  // namespace

struct AVCaptureVideoDataOutput::Implementation final : SampleReceiver {
  explicit Implementation(AVCaptureVideoDataOutput& owner) : output(owner), delivery(owner, *this, MostFramesOut) {}
  ~Implementation() {
    CVPixelBufferPoolRelease(pool);
    SampleLedger::noteEnded(AVMediaTypeVideo, delivery.statistics());
  }

  void handOver(void* delegate, CMSampleBufferRef sample, AVCaptureConnection* connection) override;
  void reportDropped(void* delegate, const DroppedFrame& frame, AVCaptureConnection* connection) override;

  /// Makes pool and format description for frames of this size from this device; false when that is not possible.
  bool prepareFor(std::int32_t width, std::int32_t height, const AVCaptureConnection& connection);
  CFRef<CVPixelBufferRef> draw(const hardware::VideoFrame& frame, CFDictionaryRef pixelAspectRatio,
                               const AVCaptureConnection& connection);
  /// When as many as may be are out, the device hears of room as one comes back.
  CVReturn takeBuffer(CFRef<CVPixelBufferRef>& buffer);
  void pushDropped(CMTime presentationTime, CMTime duration, SampleFate fate, AVCaptureConnection* connection);

  AVCaptureVideoDataOutput& output;
  SampleDelivery delivery;
  std::atomic<bool> discardsLateFrames{true};

  // Used on the device's lane alone.
  CVPixelBufferPoolRef pool = nullptr;
  CaptureStream* poolStream = nullptr;  ///< hears when a buffer comes back
  Ref<AVCaptureDevice> poolDevice;      ///< its owner
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
  if (self.delivery.waitingFrames() > 0) return false;
  // Where memory is short there is room: nobody would say when there is memory again, and a frame that is lost is told.
  CFRef<CVPixelBufferRef> image;
  return !self.pool || self.takeBuffer(image) != kCVReturnWouldExceedAllocationThreshold;
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
    image = self.draw(frame, pixelAspectRatio, *connection);
    if (!image) return self.pushDropped(time, frame.duration, SampleFate::noBuffer, connection);
  }
  auto sample = makeSample(image.get(), self.format.get(), time, frame.duration);
  if (!sample) return self.pushDropped(time, frame.duration, SampleFate::noBuffer, connection);
  self.delivery.push(std::move(sample), connection);
}

void AVCaptureVideoDataOutput::receiveLost(CMTime presentationTime, CMTime duration, AVCaptureConnection* connection) {
  _implementation->delivery.arrive();
  _implementation->pushDropped(presentationTime, duration, SampleFate::lostByDevice, connection);
}

void AVCaptureVideoDataOutput::Implementation::handOver(void* delegate, CMSampleBufferRef sample,
                                                        AVCaptureConnection* connection) {
  connection->stream().outputHasRoom();
  static_cast<AVCaptureVideoDataOutputSampleBufferDelegate*>(delegate)->captureOutputDidOutputSampleBuffer(
      &output, sample, connection);
}

void AVCaptureVideoDataOutput::Implementation::reportDropped(void* delegate, const DroppedFrame& frame,
                                                             AVCaptureConnection* connection) {
  const auto sample = makeSample(nullptr, frame.format.get(), frame.presentationTime, frame.duration);
  static_cast<AVCaptureVideoDataOutputSampleBufferDelegate*>(delegate)->captureOutputDidDropSampleBuffer(
      &output, sample.get(), connection);
}

bool AVCaptureVideoDataOutput::Implementation::prepareFor(std::int32_t newWidth, std::int32_t newHeight,
                                                          const AVCaptureConnection& connection) try {
  CaptureStream& stream = connection.stream();
  if (pool && width == newWidth && height == newHeight && poolStream == &stream) return true;
  CVPixelBufferPoolRelease(std::exchange(pool, nullptr));
  CMVideoFormatDescriptionRef description = nullptr;
  if (CMVideoFormatDescriptionCreate(kCFAllocatorDefault, kCVPixelFormatType_422YpCbCr8_yuvs, newWidth, newHeight,
                                     nullptr, &description) != noErr) {
    return false;
  }
  format = CFRef<CMVideoFormatDescriptionRef>::adopt(description);
  auto attributes = makeRef<NSDictionary>(std::initializer_list<NSDictionary::Entry>{
      {kCVPixelBufferPixelFormatTypeKey, NSNumber::numberWithUnsignedInt(kCVPixelFormatType_422YpCbCr8_yuvs)},
      {kCVPixelBufferWidthKey, NSNumber::numberWithInt(newWidth)},
      {kCVPixelBufferHeightKey, NSNumber::numberWithInt(newHeight)},
  });
  auto size = makeRef<NSDictionary>(std::initializer_list<NSDictionary::Entry>{
      {kCVPixelBufferPoolMinimumBufferCountKey, NSNumber::numberWithInt(UsualFramesOut)}});
  if (CVPixelBufferPoolCreate(kCFAllocatorDefault, size.get(), attributes.get(), &pool) != kCVReturnSuccess) {
    pool = nullptr;
    return false;
  }
  poolStream = &stream;
  poolDevice = Ref<AVCaptureDevice>::retain(&connection.input().device());
  CVPixelBufferPoolSetFreeBufferHandler(pool, [&stream] { stream.outputHasRoom(); });
  width = newWidth;
  height = newHeight;
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

CFRef<CVPixelBufferRef> AVCaptureVideoDataOutput::Implementation::draw(const hardware::VideoFrame& frame,
                                                                       CFDictionaryRef pixelAspectRatio,
                                                                       const AVCaptureConnection& connection) {
  if (!prepareFor(frame.width, frame.height, connection)) return {};
  CFRef<CVPixelBufferRef> image;
  if (takeBuffer(image) != kCVReturnSuccess) return {};
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

CVReturn AVCaptureVideoDataOutput::Implementation::takeBuffer(CFRef<CVPixelBufferRef>& buffer) {
  CVPixelBufferRef taken = nullptr;
  const CVReturn status = CVPixelBufferPoolTake(pool, MostFramesOut, &taken);
  buffer = CFRef<CVPixelBufferRef>::adopt(taken);
  return status;
}

void AVCaptureVideoDataOutput::Implementation::pushDropped(CMTime presentationTime, CMTime duration, SampleFate fate,
                                                           AVCaptureConnection* connection) {
  delivery.pushDropped({presentationTime, duration, format}, fate, connection);
}
