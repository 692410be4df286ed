// Camera pictures of any packing, size and stride, and JPEGs, out of memory that holds not a byte more, into rows that
// hold not a byte more.

#include <algorithm>
#include <deque>
#include <string_view>

#include "FuzzInput.h"
#include "pipewire/pictures/PictureReader.h"
#include "support/GuardedBytes.h"

namespace {

using namespace hardware::pipewire;

constexpr std::int32_t MaximumSide = 600;

/// Announces a JPEG's own size, which mutations of the bytes alone would hardly meet, if it is not too large.
void announceOwnSize(PackedPicture& picture, std::string_view jpeg) {
  const std::size_t frame = std::min(jpeg.find("\xFF\xC0"), jpeg.find("\xFF\xC1"));
  if (frame == jpeg.npos || jpeg.size() < frame + 9) return;
  const auto side = [&](std::size_t i) {
    const int stated =
        static_cast<std::uint8_t>(jpeg[frame + i]) * 256 + static_cast<std::uint8_t>(jpeg[frame + i + 1]);
    return std::clamp(stated, 1, MaximumSide);
  };
  picture.height = side(5);
  picture.width = side(7);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static PictureReader reader;
  fuzz::Input input(data, size);
  PackedPicture picture;
  picture.packing = static_cast<Packing>(input.ConsumeIntegralInRange(0, static_cast<int>(Packing::JPEG)));
  picture.width = input.ConsumeIntegralInRange(1, MaximumSide);
  picture.height = input.ConsumeIntegralInRange(1, MaximumSide);
  if (input.ConsumeBool()) picture.color.range = hardware::VideoColor::Range::full;
  picture.planeCount = input.ConsumeIntegralInRange(0, 3);
  std::deque<GuardedBytes> memory;
  for (Plane& plane : picture.planes) {
    plane.size = input.ConsumeIntegralInRange<std::size_t>(0, 1 << 20);
    plane.stride = input.ConsumeBool() ? input.ConsumeIntegral<std::uint16_t>() : input.ConsumeIntegral<std::size_t>();
    plane.bytes = memory.emplace_back(plane.size).data;
  }
  if (picture.packing == Packing::JPEG) {
    const std::string jpeg = input.ConsumeRemainingBytesAsString();
    announceOwnSize(picture, jpeg);
    std::copy(jpeg.begin(), jpeg.end(), memory.emplace_back(jpeg.size()).data);
    picture.planes[0] = {memory.back().data, jpeg.size(), 0};
  }
  const std::size_t rowBytes = static_cast<std::size_t>(picture.width + 1) / 2 * 4;
  const GuardedBytes rows(rowBytes * static_cast<std::size_t>(picture.height));
  reader.write(picture, rows.data, rowBytes);
  return 0;
}
