#include <AVFoundation/AVCaptureVideoDataOutput.h>

#include <AVFoundation/Capture/CaptureStream.h>
#include <AVFoundation/Capture/PictureAttachments.h>
#include <AVFoundation/Capture/SampleLine.h>
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

/// Frames and reports that may wait. With them, no more samples are out than CoreMedia keeps memory for.
constexpr std::size_t PlacesInLine = 48;

CFRef<CMSampleBufferRef> makeSample(CVPixelBufferRef image, CMFormatDescriptionRef format, CMTime presentationTime,
                                    CMTime duration) {
  const CMSampleTimingInfo timing{duration, presentationTime, kCMTimeInvalid};
  CMSampleBufferRef sample = nullptr;
  CMSampleBufferCreateForImageBuffer(kCFAllocatorDefault, image, true, nullptr, nullptr, format, &timing, &sample);
  return CFRef<CMSampleBufferRef>::adopt(sample);
}

}  // namespace

/// On the device's lane, but for `line` and `discardsLateFrames`.
struct AVCaptureVideoDataOutput::Implementation final : hardware::Sink {
  explicit Implementation(AVCaptureVideoDataOutput& output) : line(output, AVMediaTypeVideo, PlacesInLine) {}
  ~Implementation() { CVPixelBufferPoolRelease(pool); }

  void videoFrameCaptured(const hardware::VideoFrame& frame) override;
  void videoFrameLost(CMTime presentationTime, CMTime duration) override;
  void audioChunkCaptured(const hardware::AudioChunk&) override {}
  bool hasRoomForVideo() override;
  bool hasRoomForAudio() override { return true; }

  /// Draws the frame into a buffer; otherwise says why it is dropped.
  SampleFate draw(const hardware::VideoFrame& frame, CFRef<CVPixelBufferRef>& image);
  /// Makes pool and format description for frames of this size; false when that is not possible.
  bool prepareFor(std::int32_t width, std::int32_t height);
  /// When as many as may be are out, the device hears of room as one comes back.
  CVReturn takeBuffer(CFRef<CVPixelBufferRef>& buffer);
  void send(SampleFate fate, CVPixelBufferRef image, CMTime presentationTime, CMTime duration);

  SampleLine line;
  std::atomic<bool> discardsLateFrames{true};

  AVCaptureConnection* connection = nullptr;
  CVPixelBufferPoolRef pool = nullptr;  ///< of the connection: a camera may count on what it drew into a buffer before
  CFRef<CMVideoFormatDescriptionRef> format;
  std::int32_t poolWidth = 0;
  std::int32_t poolHeight = 0;
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
  _implementation->line.setDelegate(sampleBufferDelegate, queue);
}

AVCaptureOutputStatistics AVCaptureVideoDataOutput::statistics() const {
  return _implementation->line.statistics();
}

std::uint32_t AVCaptureVideoDataOutput::samplesInDelivery() const {
  return _implementation->line.samplesInDelivery();
}

hardware::Sink& AVCaptureVideoDataOutput::sink() {
  return *_implementation;
}

/// The pool's buffers may come back much later, but they tell nobody once it is released.
void AVCaptureVideoDataOutput::setConnection(AVCaptureConnection* connection) {
  _implementation->connection = connection;
  CVPixelBufferPoolRelease(std::exchange(_implementation->pool, nullptr));
}

void AVCaptureVideoDataOutput::finish() {
  _implementation->line.finish();
}

void AVCaptureVideoDataOutput::Implementation::videoFrameCaptured(const hardware::VideoFrame& frame) {
  SampleFate fate = line.outlook(discardsLateFrames ? 1 : MostFramesOut);
  CFRef<CVPixelBufferRef> image;
  if (fate == SampleFate::delivered && frame.hasImage) fate = draw(frame, image);
  send(fate, image.get(), frame.presentationTime, frame.duration);
}

void AVCaptureVideoDataOutput::Implementation::videoFrameLost(CMTime presentationTime, CMTime duration) {
  send(SampleFate::lostByDevice, nullptr, presentationTime, duration);
}

void AVCaptureVideoDataOutput::Implementation::send(SampleFate fate, CVPixelBufferRef image, CMTime presentationTime,
                                                    CMTime duration) {
  CapturedSample sample{fate, makeSample(image, format.get(), presentationTime, duration)};
  if (!sample.buffer && fate == SampleFate::delivered) sample.fate = SampleFate::noBuffer;
  line.add(std::move(sample), *connection);
}

bool AVCaptureVideoDataOutput::Implementation::hasRoomForVideo() {
  if (line.outlook(1) == SampleFate::late) return false;
  // Where memory is short there is room: nobody would say when there is memory again, and a frame that is lost is
  // reported.
  CFRef<CVPixelBufferRef> image;
  return !pool || takeBuffer(image) != kCVReturnWouldExceedAllocationThreshold;
}

SampleFate AVCaptureVideoDataOutput::Implementation::draw(const hardware::VideoFrame& frame,
                                                          CFRef<CVPixelBufferRef>& image) {
  CFRef<CVPixelBufferRef> taken;
  if (!prepareFor(frame.width, frame.height) || takeBuffer(taken) != kCVReturnSuccess) return SampleFate::noBuffer;
  CVPixelBufferRef buffer = taken.get();
  if (CFDictionaryRef ratio = connection->stream().pixelAspectRatio()) {
    CVBufferSetAttachment(buffer, kCVImageBufferPixelAspectRatioKey, ratio, kCVAttachmentMode_ShouldPropagate);
  }
  if (frame.color) attachColor(buffer, *frame.color);
  CVPixelBufferLockBaseAddress(buffer, 0);
  const bool isDrawn = frame.drawInto(buffer);
  CVPixelBufferUnlockBaseAddress(buffer, 0);
  if (!isDrawn) return SampleFate::notConverted;
  image = std::move(taken);
  return SampleFate::delivered;
}

bool AVCaptureVideoDataOutput::Implementation::prepareFor(std::int32_t width, std::int32_t height) try {
  if (pool && poolWidth == width && poolHeight == height) return true;
  CVPixelBufferPoolRelease(std::exchange(pool, nullptr));
  CMVideoFormatDescriptionRef description = nullptr;
  if (CMVideoFormatDescriptionCreate(kCFAllocatorDefault, kCVPixelFormatType_422YpCbCr8_yuvs, width, height, nullptr,
                                     &description) != noErr) {
    return false;
  }
  format = CFRef<CMVideoFormatDescriptionRef>::adopt(description);
  auto attributes = makeRef<NSDictionary>(std::initializer_list<NSDictionary::Entry>{
      {kCVPixelBufferPixelFormatTypeKey, NSNumber::numberWithUnsignedInt(kCVPixelFormatType_422YpCbCr8_yuvs)},
      {kCVPixelBufferWidthKey, NSNumber::numberWithInt(width)},
      {kCVPixelBufferHeightKey, NSNumber::numberWithInt(height)},
  });
  auto size = makeRef<NSDictionary>(std::initializer_list<NSDictionary::Entry>{
      {kCVPixelBufferPoolMinimumBufferCountKey, NSNumber::numberWithInt(UsualFramesOut)}});
  if (CVPixelBufferPoolCreate(kCFAllocatorDefault, size.get(), attributes.get(), &pool) != kCVReturnSuccess) {
    pool = nullptr;
    return false;
  }
  CVPixelBufferPoolSetFreeBufferHandler(pool, [&stream = connection->stream()] { stream.outputHasRoom(); });
  poolWidth = width;
  poolHeight = height;
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

CVReturn AVCaptureVideoDataOutput::Implementation::takeBuffer(CFRef<CVPixelBufferRef>& buffer) {
  CVPixelBufferRef taken = nullptr;
  const CVReturn status = CVPixelBufferPoolTake(pool, MostFramesOut, &taken);
  buffer = CFRef<CVPixelBufferRef>::adopt(taken);
  return status;
}
