// Sound of impossible formats, lengths and times, in one piece or several, into the delegate of sound.

#include "AVCaptureDelegate.h"
#include "FuzzInput.h"
#include "support/Samples.h"

namespace {

/// Reads all that the record shows.
void receive(void* sum, BRV_AudioBuffer* record) {
  fuzz::require(record->format == BRV_FORMAT_PCM && record->dataLength > 0);
  const auto* bytes = static_cast<const std::uint8_t*>(record->data);
  for (std::int32_t i = 0; i < record->dataLength; ++i) *static_cast<std::uint32_t*>(sum) += bytes[i];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  std::uint32_t sum = 0;
  const auto delegate = ACaptureDelegate::init();
  delegate->setAudioDataArrivedContext(&sum);
  delegate->setAudioDataArrivedCallback(receive);
  if (input.ConsumeBool()) delegate->setVideoDelegate(VCaptureDelegate::initWithDevice(nullptr).get());

  AudioStreamBasicDescription stream = input.stream();
  while (input.isLeft()) {
    if (input.ConsumeIntegralInRange(0, 3) == 0) stream = input.stream();
    if (delegate->videoDelegate()) delegate->videoDelegate()->setTimescale(input.number());
    std::vector<std::vector<std::uint8_t>> pieces(input.ConsumeIntegralInRange<std::size_t>(0, 3));
    for (auto& piece : pieces) {
      piece = input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegral<std::uint8_t>());
      // Long enough for the vector code.
      if (input.ConsumeBool()) piece.resize(piece.size() * 16);
    }
    const auto sample = samples::sound(stream, input.time(), pieces, input.number());
    if (sample) delegate->captureOutputDidOutputSampleBuffer(nullptr, sample.get(), nullptr);
  }
  return 0;
}
