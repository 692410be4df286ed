// Clips of sound and of pictures, each input as both.

#include <simulated/WAVReader.h>
#include <simulated/Y4MReader.h>

#include <algorithm>
#include <array>

#include "FuzzInput.h"
#include "support/Samples.h"

namespace {

void playSound(const std::string& path, std::size_t size) {
  auto reader = hardware::simulated::WAVReader::open(path);
  if (!reader) return;
  fuzz::require(reader->channels() > 0 && reader->frameCount() > 0 && reader->frameCount() <= size);
  std::array<double, 256> samples;
  const auto whole = std::min<std::uint64_t>(samples.size() / reader->channels(), reader->frameCount());
  fuzz::require(reader->read(0, samples) == whole);
  fuzz::require(reader->read(reader->frameCount() - 1, samples) == std::min<std::uint64_t>(whole, 1));
  for (const auto first : {reader->frameCount(), std::numeric_limits<std::uint64_t>::max()}) {
    fuzz::require(reader->read(first, samples) == 0);
  }
}

void playPictures(const std::string& path, std::size_t size) {
  auto reader = hardware::simulated::Y4MReader::open(path);
  if (!reader) return;
  const auto& header = reader->header();
  fuzz::require(header.width > 0 && header.height > 0 && header.frameSize() <= size);
  const auto picture =
      samples::picture(static_cast<std::size_t>(header.width), static_cast<std::size_t>(header.height));
  if (!picture) return;
  CVPixelBufferLockBaseAddress(picture.get(), 0);
  std::array<int, 2> frames{};  // of the first time and the second
  for (int& count : frames) {
    for (; count < 100 && reader->nextFrame(); ++count) reader->drawInto(picture.get());
    reader->rewind();
  }
  fuzz::require(frames[0] > 0 && frames[1] == frames[0]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const fuzz::MemoryFile file;
  const std::string path = file.holding(data, size);
  playSound(path, size);
  playPictures(path, size);
  return 0;
}
