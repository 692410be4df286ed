// A camera's picture of 1920 x 1080 written as 'yuvs' in video range.

#include <memory>

#include "CameraPictures.h"
#include "Work.h"
#include "pipewire/pictures/PictureReader.h"

namespace {

using namespace hardware::pipewire;

bench::Run makeRun(Packing packing, std::vector<std::uint8_t> bytes) {
  const auto reader = std::make_shared<PictureReader>();
  const auto rows = std::make_shared<std::vector<std::uint8_t>>(bench::CameraWidth * bench::CameraHeight * 2);
  return bench::repeat([reader, rows, packing, bytes = std::move(bytes)] {
    const PackedPicture picture{
        packing, bench::CameraWidth, bench::CameraHeight, {Plane{bytes.data(), bytes.size(), 0}}, 1, {}};
    if (!reader->write(picture, rows->data(), bench::CameraWidth * 2)) std::abort();
  });
}

const bench::Definition yuyv{{"picture YUYV/ours", 1, 1, [] { return makeRun(Packing::YUY2, bench::rawPicture(2)); }}};
const bench::Definition nv12{{"picture NV12/ours", 1, 1, [] { return makeRun(Packing::NV12, bench::rawPicture(2)); }}};
const bench::Definition rgbx{{"picture RGBx/ours", 1, 1, [] { return makeRun(Packing::RGBx, bench::rawPicture(4)); }}};
const bench::Definition jpeg{
    {"picture Motion JPEG/ours", 1, 1, [] { return makeRun(Packing::JPEG, bench::compressedPicture()); }}};

}  // namespace
