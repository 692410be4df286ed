#include "VideoSource.h"

#include <optional>
#include <utility>

#include "TestPicture.h"
#include "Y4MReader.h"

namespace hardware::simulated {
namespace {

class TestPictures final : public VideoSource {
 public:
  bool advance() override {
    ++_number;
    return true;
  }

  void drawInto(CVPixelBufferRef pixelBuffer) override {
    if (_picture) _picture->draw(_number, pixelBuffer);
  }

  void setSize(std::int32_t width, std::int32_t height) override { _picture.emplace(width, height); }

 private:
  std::optional<TestPicture> _picture;
  std::uint32_t _number = ~std::uint32_t{0};  // before the first
};

class Clip final : public VideoSource {
 public:
  Clip(Y4MReader reader, const MediaSource& media) : _reader(std::move(reader)), _media(media) {}

  bool advance() override {
    if (_reader.nextFrame()) return true;
    if (_reader.isCutOff() && !std::exchange(_hasToldCutOff, true)) tellCutOff(_media.path);
    if (!_media.isLooped) return false;
    _reader.rewind();
    return _reader.nextFrame();
  }

  void drawInto(CVPixelBufferRef pixelBuffer) override {
    const Y4MHeader& header = _reader.header();
    if (CVPixelBufferGetWidth(pixelBuffer) == static_cast<std::size_t>(header.width) &&
        CVPixelBufferGetHeight(pixelBuffer) == static_cast<std::size_t>(header.height)) {
      _reader.drawInto(pixelBuffer);
    }
  }

  void setSize(std::int32_t, std::int32_t) override {}

 private:
  Y4MReader _reader;
  MediaSource _media;
  bool _hasToldCutOff = false;
};

class NoPictures final : public VideoSource {
 public:
  bool advance() override { return false; }
  void drawInto(CVPixelBufferRef) override {}
  void setSize(std::int32_t, std::int32_t) override {}
};

}  // namespace

std::unique_ptr<VideoSource> makeVideoSource(const PictureSource& description) {
  const auto* media = std::get_if<MediaSource>(&description);
  if (!media) return std::make_unique<TestPictures>();
  auto reader = Y4MReader::open(media->path);
  if (!reader) return std::make_unique<NoPictures>();
  return std::make_unique<Clip>(std::move(*reader), *media);
}

}  // namespace hardware::simulated
