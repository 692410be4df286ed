// One picture, and one run of sound, from a sample buffer to a host's callback on the same thread; beside the least
// that any such hand-over could do.

#include <CoreVideo/CVImageBuffer.h>
#include <Foundation/NSDictionary.h>
#include <Foundation/NSValue.h>
#include <support/Samples.h>

#include <array>
#include <functional>
#include <memory>

#include "AVCaptureDelegate.h"
#include "Work.h"

namespace {

template <typename Record>
void takeRecord(void* context, Record* record) {
  *static_cast<std::int64_t*>(context) += record->timeStamp;
}

using Frames = std::array<CFRef<CMSampleBufferRef>, 4>;

Frames makeFrames() {
  auto ratio = makeRef<NSDictionary>();
  ratio->insert(kCVImageBufferPixelAspectRatioHorizontalSpacingKey, NSNumber::numberWithInt(4));
  ratio->insert(kCVImageBufferPixelAspectRatioVerticalSpacingKey, NSNumber::numberWithInt(3));
  Frames frames;
  for (std::size_t i = 0; i < frames.size(); ++i) {
    const auto picture = samples::picture(1440, 1080);
    CVBufferSetAttachment(picture.get(), kCVImageBufferPixelAspectRatioKey, ratio.get(),
                          kCVAttachmentMode_ShouldPropagate);
    frames[i] = samples::frame(picture.get(), CMTimeMake(static_cast<std::int64_t>(i), 30));
  }
  return frames;
}

bench::Run makeVideoFrame() {
  auto delegate = VCaptureDelegate::initWithDevice(nullptr);
  const auto sum = std::make_shared<std::int64_t>(0);
  delegate->setVideoDataArrivedCallback(takeRecord<BRV_VideoBuffer>);
  delegate->setVideoDataArrivedContext(sum.get());
  return bench::repeat([delegate, sum, frames = makeFrames(), next = std::size_t{0}]() mutable {
    // As the output calls it: through the protocol.
    AVCaptureVideoDataOutputSampleBufferDelegate& receiver = *delegate;
    receiver.captureOutputDidOutputSampleBuffer(nullptr, frames[next++ % frames.size()].get(), nullptr);
  });
}

constexpr AudioStreamBasicDescription HostFormat{44100, kAudioFormatLinearPCM, 12, 4, 1, 4, 2, 16, 0};

bench::Run makeAudioBuffer() {
  auto delegate = ACaptureDelegate::init();
  const auto sum = std::make_shared<std::int64_t>(0);
  delegate->setAudioDataArrivedCallback(takeRecord<BRV_AudioBuffer>);
  delegate->setAudioDataArrivedContext(sum.get());
  const auto sample = samples::sound(HostFormat, CMTimeMake(0, 44100), {std::vector<std::uint8_t>(4096)}, 1024);
  return bench::repeat([delegate, sum, sample] {
    AVCaptureAudioDataOutputSampleBufferDelegate& receiver = *delegate;
    receiver.captureOutputDidOutputSampleBuffer(nullptr, sample.get(), nullptr);
  });
}

/// A record of its own for every frame, shared with whoever wants to keep it.
bench::Run makeSharedRecord() {
  using Callback = std::function<void(std::shared_ptr<const BRV_VideoBuffer>)>;
  const auto sum = std::make_shared<std::int64_t>(0);
  const Callback callback = [sum](const std::shared_ptr<const BRV_VideoBuffer>& record) { *sum += record->timeStamp; };
  return bench::repeat([callback, time = std::int64_t{0}]() mutable {
    auto record = std::make_shared<BRV_VideoBuffer>();
    record->format = BRV_FORMAT_PIXEL_BUFFER;
    record->width = 1920;
    record->height = 1080;
    record->timeStamp = ++time;
    callback(std::move(record));
  });
}

bench::Run makeBareCall() {
  const auto sum = std::make_shared<std::int64_t>(0);
  void (*volatile callback)(void*, BRV_VideoBuffer*) = takeRecord<BRV_VideoBuffer>;
  return bench::repeat([callback = callback, sum, record = BRV_VideoBuffer{}]() mutable {
    ++record.timeStamp;
    callback(sum.get(), &record);
  });
}

const bench::Definition videoFrame{{"video frame/ours", 1000, 1, makeVideoFrame}};
const bench::Definition sharedRecord{{"video frame/shared_ptr record", 1000, 1, makeSharedRecord}};
const bench::Definition bareCall{{"video frame/bare call", 1000, 1, makeBareCall}};
const bench::Definition audioBuffer{{"audio buffer/ours", 1000, 1, makeAudioBuffer}};

}  // namespace
