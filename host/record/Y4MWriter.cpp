#include "record/Y4MWriter.h"

#include <algorithm>
#include <utility>

#include "common/Failure.h"

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
    : _file(std::move(file)), _format(format), _frame(sizeof FrameMarker + planarBytes(format.width, format.height)) {
  std::copy(std::begin(FrameMarker), std::end(FrameMarker), _frame.begin());
  const std::string header = y4mHeader(_format);
  _file.write(header.data(), header.size());
}

void Y4MWriter::writeFrame(const PictureView& picture) {
  if (picture.width != _format.width || picture.height != _format.height) {
    throw Failure(formatted("a picture of %zu x %zu does not belong into %s, which holds %zu x %zu", picture.width,
                            picture.height, _file.path().c_str(), _format.width, _format.height));
  }
  repackPlanar(picture, _frame.data() + sizeof FrameMarker);
  _file.write(_frame.data(), _frame.size());
  ++_frameCount;
}

}  // namespace brvhost
