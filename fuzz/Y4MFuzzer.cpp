// Clips of pictures.

#include <CoreFoundation/CFRef.h>
#include <simulated/Y4MReader.h>

#include "FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const fuzz::MemoryFile file;
  auto reader = hardware::simulated::Y4MReader::open(file.holding(data, size));
  if (!reader) return 0;
  const auto& header = reader->header();
  fuzz::require(header.width > 0 && header.height > 0 && header.frameSize() <= size);

  CVPixelBufferRef made = nullptr;
  CVPixelBufferCreate(nullptr, static_cast<std::size_t>(header.width), static_cast<std::size_t>(header.height),
                      kCVPixelFormatType_422YpCbCr8_yuvs, nullptr, &made);
  const auto picture = CFRef<CVPixelBufferRef>::adopt(made);
  if (!picture) return 0;
  CVPixelBufferLockBaseAddress(picture.get(), 0);
  const auto play = [&] {
    int frames = 0;
    for (; frames < 100 && reader->nextFrame(); ++frames) reader->drawInto(picture.get());
    return frames;
  };
  const int frames = play();
  reader->rewind();
  fuzz::require(frames > 0 && play() == frames);
  return 0;
}
