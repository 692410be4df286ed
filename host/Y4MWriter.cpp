#include "Y4MWriter.h"

#include <algorithm>
#include <utility>

#include "Failure.h"

namespace brvhost {

namespace {

constexpr char FrameMarker[] = {'F', 'R', 'A', 'M', 'E', '\n'};

}  // namespace

std::string y4mHeader(const Y4MFormat& format) {
  return formatted(
      "YUV4MPEG2 W%zu H%zu F%lld:%lld Ip A%lld:%lld C422\n", format.width, format.height,
      static_cast<long long>(format.frameRate.numerator), static_cast<long long>(format.frameRate.denominator),
      static_cast<long long>(format.pixelAspect.numerator), static_cast<long long>(format.pixelAspect.denominator));
}

Y4MWriter::Y4MWriter(OutputFile file, const Y4MFormat& format)
    : file_(std::move(file)), format_(format), frame_(sizeof FrameMarker + planarBytes(format.width, format.height)) {
  std::copy(std::begin(FrameMarker), std::end(FrameMarker), frame_.begin());
  const std::string header = y4mHeader(format_);
  file_.write(header.data(), header.size());
}

void Y4MWriter::writeFrame(const PictureView& picture) {
  if (picture.width != format_.width || picture.height != format_.height) {
    throw Failure(formatted("a picture of %zu x %zu does not belong into %s, which holds %zu x %zu", picture.width,
                            picture.height, file_.path().c_str(), format_.width, format_.height));
  }
  repackPlanar(picture, frame_.data() + sizeof FrameMarker);
  const std::uint64_t sizeBefore = file_.size();
  try {
    file_.write(frame_.data(), frame_.size());
  } catch (const Failure&) {
    file_.truncate(sizeBefore);
    throw;
  }
  ++frameCount_;
}

}  // namespace brvhost
