// Clips of sound.

#include <simulated/WAVReader.h>

#include <algorithm>
#include <array>

#include "FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const fuzz::MemoryFile file;
  auto reader = hardware::simulated::WAVReader::open(file.holding(data, size));
  if (!reader) return 0;
  fuzz::require(reader->channels() > 0 && reader->frameCount() > 0 && reader->frameCount() <= size);

  std::array<double, 256> samples;
  const auto whole = std::min<std::uint64_t>(samples.size() / reader->channels(), reader->frameCount());
  fuzz::require(reader->read(0, samples) == whole);
  fuzz::require(reader->read(reader->frameCount() - 1, samples) == std::min<std::uint64_t>(whole, 1));
  for (const auto first : {reader->frameCount(), std::numeric_limits<std::uint64_t>::max()}) {
    fuzz::require(reader->read(first, samples) == 0);
  }
  return 0;
}
