#include "PipeWireTest.h"

#include <CoreVideo/CVPixelBuffer.h>

#include <cmath>
#include <cstdio>

namespace test::pipewire {

std::string outputOfHost(const std::string& arguments) {
  std::FILE* const pipe = popen(
      ("env -u CAPTURE_RIG BRV_MODULE=" AVC_MODULE_PATH " " AVC_HOST_PATH " " + arguments + " 2>&1").c_str(), "re");
  std::string output;
  for (int c; (c = std::getc(pipe)) != EOF;) output += static_cast<char>(c);
  pclose(pipe);
  return output;
}

std::optional<std::pair<std::uint8_t, std::size_t>> readPicture(const BRV_VideoBuffer& buffer,
                                                                const std::vector<Picture>& pictures) {
  auto* const pixels = static_cast<CVPixelBufferRef>(buffer.data);
  CVPixelBufferLockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
  std::optional<std::uint8_t> number;
  std::size_t which = 0;
  for (std::size_t i = 0; i < pictures.size() && !number; ++i) {
    const Picture& picture = pictures[i];
    if (buffer.width != static_cast<int>(picture.width) || buffer.height != static_cast<int>(picture.height)) continue;
    number = numberIn(static_cast<const std::uint8_t*>(CVPixelBufferGetBaseAddress(pixels)),
                      static_cast<std::size_t>(buffer.rowBytes), picture);
    which = i;
  }
  CVPixelBufferUnlockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
  if (!number) return {};
  return std::pair(*number, which);
}

VideoTake::VideoTake(const Host& host, std::string source, std::vector<Picture> pictures, std::uint64_t modulus)
    : _host(host), _source(std::move(source)), _pictures(std::move(pictures)), _modulus(modulus) {
  host.registerVideo(_source, receive, this);
}

VideoTake::~VideoTake() {
  _host.registerVideo(_source, nullptr, nullptr);
  EXPECT_TRUE(_isRight) << _source << ": a picture is not as the camera sent it";
}

void VideoTake::receive(void* context, BRV_VideoBuffer* buffer) {
  auto& self = *static_cast<VideoTake*>(context);
  const auto read = readPicture(*buffer, self._pictures);
  const double time = static_cast<double>(buffer->timeStamp) * 1e9 / self._host.timescale(self._source);
  std::lock_guard lock(self._lock);
  if (!read) {
    self._isRight = false;
    return;
  }
  const auto [number, which] = *read;
  const std::uint64_t last = self._frames.empty() ? 0 : self._frames.back().number;
  const std::uint64_t absolute =
      self._frames.empty() ? number : last + (number + 256 * self._modulus - last) % self._modulus;
  self._frames.push_back({absolute, std::llround(time), now(), which, buffer->flags});
}

std::vector<VideoTake::Frame> VideoTake::frames() const {
  std::lock_guard lock(_lock);
  return _frames;
}

bool VideoTake::waitForMore(std::size_t more) const {
  const std::size_t before = count();
  until([&] { return !_isRight || count() >= before + more; }, 20);
  return count() >= before + more;
}

std::uint64_t VideoTake::missing() const {
  const auto all = frames();
  return all.empty() ? 0 : all.back().number - all.front().number + 1 - all.size();
}

}  // namespace test::pipewire
