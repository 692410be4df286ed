#include "Y4MReader.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <limits>
#include <numeric>
#include <optional>
#include <utility>

#include "Rig.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace hardware::simulated {
namespace {

constexpr std::size_t LongestHeader = 1024;
constexpr std::size_t LongestFrameHeader = 256;
constexpr std::string_view Signature = "YUV4MPEG2";
constexpr std::string_view FrameSignature = "FRAME";
constexpr std::uint8_t NeutralChroma = 128;
constexpr std::uint8_t BlackLuma = 16;

std::optional<std::int64_t> parseNumber(std::string_view text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

struct Fraction {
  std::int32_t numerator;
  std::int32_t denominator;
};

// "30000:1001", reduced; nothing unless both are positive and, reduced, fit 31 bits.
std::optional<Fraction> parseFraction(std::string_view text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  const auto numerator = parseNumber(text.substr(0, colon));
  const auto denominator = parseNumber(text.substr(colon + 1));
  if (!numerator || !denominator || *numerator <= 0 || *denominator <= 0) return std::nullopt;
  const std::int64_t divisor = std::gcd(*numerator, *denominator);
  constexpr std::int64_t largest = std::numeric_limits<std::int32_t>::max();
  if (*numerator / divisor > largest || *denominator / divisor > largest) return std::nullopt;
  return Fraction{static_cast<std::int32_t>(*numerator / divisor), static_cast<std::int32_t>(*denominator / divisor)};
}

std::optional<std::int32_t> parseSize(std::string_view text) {
  const auto number = parseNumber(text);
  if (!number || *number < 1 || *number > MaximumPictureSize) return std::nullopt;
  return static_cast<std::int32_t>(*number);
}

std::optional<Chroma> parseChroma(std::string_view text) {
  struct Entry {
    std::string_view name;
    Chroma chroma;
  };
  static constexpr Entry entries[] = {
      {"420", Chroma::yuv420}, {"420jpeg", Chroma::yuv420}, {"420mpeg2", Chroma::yuv420}, {"420paldv", Chroma::yuv420},
      {"422", Chroma::yuv422}, {"444", Chroma::yuv444},     {"mono", Chroma::none},
  };
  for (const Entry& entry : entries) {
    if (entry.name == text) return entry.chroma;
  }
  return std::nullopt;
}

// Reads one parameter of the header line; the reason why not.
std::optional<Failure> readParameter(std::string_view parameter, Y4MHeader& header) {
  const std::string_view value = parameter.substr(1);
  switch (parameter.front()) {
    case 'W':
    case 'H': {
      const auto size = parseSize(value);
      if (!size) return Failure{"bad picture size '" + std::string(parameter) + "'"};
      (parameter.front() == 'W' ? header.width : header.height) = *size;
      return std::nullopt;
    }
    case 'F': {
      const auto rate = parseFraction(value);
      if (!rate || rate->numerator > MaximumFrameRate * rate->denominator) {
        return Failure{"bad frame rate '" + std::string(parameter) + "'"};
      }
      header.frameDuration = CMTimeMake(rate->denominator, rate->numerator);
      return std::nullopt;
    }
    case 'A': {
      if (value == "0:0") return std::nullopt;  // unknown
      const auto aspect = parseFraction(value);
      if (!aspect) return Failure{"bad pixel aspect '" + std::string(parameter) + "'"};
      header.pixelAspectRatio = {aspect->numerator, aspect->denominator};
      return std::nullopt;
    }
    case 'C': {
      const auto chroma = parseChroma(value);
      if (!chroma) return Failure{"unsupported chroma format '" + std::string(value) + "'"};
      header.chroma = *chroma;
      return std::nullopt;
    }
    case 'I':
      if (value == "m") return Failure{"clips with mixed interlacing are not supported"};
      header.isInterlaced = value == "t" || value == "b";
      return std::nullopt;
    default:
      return std::nullopt;  // comments, and whatever else later writers add
  }
}

// One row of 4:2:2 planes as pixel pairs. An odd row's last pair repeats its only luma sample.
void interleave(const std::uint8_t* luma, const std::uint8_t* cb, const std::uint8_t* cr, std::size_t width,
                std::uint8_t* destination) {
  const std::size_t wholePairs = width / 2;
  std::size_t pair = 0;
#if defined(__SSE2__)
  for (; pair + 8 <= wholePairs; pair += 8) {
    const __m128i y = _mm_loadu_si128(reinterpret_cast<const __m128i*>(luma + 2 * pair));
    const __m128i chroma = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(cb + pair)),
                                             _mm_loadl_epi64(reinterpret_cast<const __m128i*>(cr + pair)));
    auto* out = reinterpret_cast<__m128i*>(destination + 4 * pair);
    _mm_storeu_si128(out, _mm_unpacklo_epi8(y, chroma));
    _mm_storeu_si128(out + 1, _mm_unpackhi_epi8(y, chroma));
  }
#endif
  for (; pair < wholePairs; ++pair) {
    std::uint8_t* out = destination + 4 * pair;
    out[0] = luma[2 * pair];
    out[1] = cb[pair];
    out[2] = luma[2 * pair + 1];
    out[3] = cr[pair];
  }
  if (width % 2 != 0) {
    std::uint8_t* out = destination + 4 * pair;
    out[0] = out[2] = luma[2 * pair];
    out[1] = cb[pair];
    out[3] = cr[pair];
  }
}

// The same from full-width chroma, averaged in pairs.
void interleaveFullChroma(const std::uint8_t* luma, const std::uint8_t* cb, const std::uint8_t* cr, std::size_t width,
                          std::uint8_t* destination) {
  for (std::size_t x = 0; x < width; x += 2) {
    const std::size_t right = std::min(x + 1, width - 1);
    std::uint8_t* out = destination + 2 * x;
    out[0] = luma[x];
    out[1] = static_cast<std::uint8_t>((cb[x] + cb[right] + 1) / 2);
    out[2] = luma[right];
    out[3] = static_cast<std::uint8_t>((cr[x] + cr[right] + 1) / 2);
  }
}

void interleaveLumaOnly(const std::uint8_t* luma, std::size_t width, std::uint8_t* destination) {
  for (std::size_t x = 0; x < width; x += 2) {
    std::uint8_t* out = destination + 2 * x;
    out[0] = luma[x];
    out[1] = out[3] = NeutralChroma;
    out[2] = luma[std::min(x + 1, width - 1)];
  }
}

// The chroma row that belongs to luma row `y`.
std::size_t chromaRow(const Y4MHeader& header, std::size_t y) {
  if (header.chroma != Chroma::yuv420) return y;
  const std::size_t row = header.isInterlaced ? y / 4 * 2 + y % 2 : y / 2;
  return std::min(row, header.chromaHeight() - 1);
}

void fillBlack(CVPixelBufferRef pixelBuffer) {
  auto* row = static_cast<std::uint8_t*>(CVPixelBufferGetBaseAddress(pixelBuffer));
  const std::size_t bytesPerRow = CVPixelBufferGetBytesPerRow(pixelBuffer);
  const std::size_t rowLength = (CVPixelBufferGetWidth(pixelBuffer) + 1) / 2 * 4;
  for (std::size_t y = 0; y < CVPixelBufferGetHeight(pixelBuffer); ++y, row += bytesPerRow) {
    for (std::size_t x = 0; x < rowLength; x += 2) {
      row[x] = BlackLuma;
      row[x + 1] = NeutralChroma;
    }
  }
}

}  // namespace

std::size_t Y4MHeader::chromaWidth() const noexcept {
  const auto fullWidth = static_cast<std::size_t>(width);
  switch (chroma) {
    case Chroma::none:
      return 0;
    case Chroma::yuv444:
      return fullWidth;
    default:
      return (fullWidth + 1) / 2;
  }
}

std::size_t Y4MHeader::chromaHeight() const noexcept {
  const auto fullHeight = static_cast<std::size_t>(height);
  return chroma == Chroma::yuv420 ? (fullHeight + 1) / 2 : fullHeight;
}

std::size_t Y4MHeader::frameSize() const noexcept {
  return static_cast<std::size_t>(width) * static_cast<std::size_t>(height) + 2 * chromaWidth() * chromaHeight();
}

Result<Y4MHeader> parseY4MHeader(std::string_view line) {
  if (line.substr(0, Signature.size()) != Signature ||
      (line.size() > Signature.size() && line[Signature.size()] != ' ')) {
    return Failure{"not a Y4M file"};
  }
  Y4MHeader header;
  for (std::size_t begin = Signature.size(); begin < line.size();) {
    const std::size_t end = std::min(line.find(' ', begin), line.size());
    const std::string_view parameter = line.substr(begin, end - begin);
    begin = end + 1;
    if (parameter.empty()) continue;
    if (auto failure = readParameter(parameter, header)) return *failure;
  }
  if (header.width == 0 || header.height == 0) return Failure{"the header gives no picture size"};
  if (!CMTIME_IS_VALID(header.frameDuration)) return Failure{"the header gives no frame rate"};
  return header;
}

void packFrame(const Y4MHeader& header, const std::uint8_t* frame, std::uint8_t* destination, std::size_t bytesPerRow) {
  const auto width = static_cast<std::size_t>(header.width);
  const auto height = static_cast<std::size_t>(header.height);
  const std::uint8_t* cbPlane = frame + width * height;
  const std::uint8_t* crPlane = cbPlane + header.chromaWidth() * header.chromaHeight();
  for (std::size_t y = 0; y < height; ++y) {
    const std::uint8_t* luma = frame + y * width;
    const std::size_t chromaOffset = chromaRow(header, y) * header.chromaWidth();
    std::uint8_t* row = destination + y * bytesPerRow;
    switch (header.chroma) {
      case Chroma::none:
        interleaveLumaOnly(luma, width, row);
        break;
      case Chroma::yuv444:
        interleaveFullChroma(luma, cbPlane + chromaOffset, crPlane + chromaOffset, width, row);
        break;
      default:
        interleave(luma, cbPlane + chromaOffset, crPlane + chromaOffset, width, row);
        break;
    }
  }
}

Result<Y4MReader> Y4MReader::open(const std::string& path) {
  auto file = MediaFile::open(path);
  if (!file) return Failure{path + ": " + file.reason()};

  std::array<std::uint8_t, LongestHeader> bytes;
  const std::size_t count = file->read(0, bytes);
  const std::string_view start(reinterpret_cast<const char*>(bytes.data()), count);
  const std::size_t lineEnd = start.find('\n');
  if (start.substr(0, Signature.size()) != Signature) return Failure{path + ": not a Y4M file"};
  if (lineEnd == std::string_view::npos) return Failure{path + ": the header has no end"};
  auto header = parseY4MHeader(start.substr(0, lineEnd));
  if (!header) return Failure{path + ": " + header.reason()};

  Y4MReader reader(std::move(*file), *header, lineEnd + 1);
  if (!reader.nextFrame()) return Failure{path + ": the clip does not hold a whole frame"};
  reader.rewind();
  return reader;
}

Y4MReader::Y4MReader(MediaFile file, Y4MHeader header, std::uint64_t firstFrame)
    : _file(std::move(file)), _header(header), _firstFrame(firstFrame), _nextFrame(firstFrame) {}

bool Y4MReader::nextFrame() {
  if (findFrame()) return true;
  _isCutOff = _nextFrame < _file.size();
  return false;
}

bool Y4MReader::findFrame() {
  std::array<std::uint8_t, LongestFrameHeader> bytes;
  const std::size_t count = _file.read(_nextFrame, bytes);
  const std::string_view line(reinterpret_cast<const char*>(bytes.data()), count);
  const std::size_t lineEnd = line.find('\n');
  if (lineEnd == std::string_view::npos || line.substr(0, FrameSignature.size()) != FrameSignature) return false;

  const std::uint64_t pixels = _nextFrame + lineEnd + 1;
  if (pixels > _file.size() || _file.size() - pixels < _header.frameSize()) return false;
  _pixels = pixels;
  _nextFrame = pixels + _header.frameSize();
  return true;
}

void Y4MReader::rewind() noexcept {
  _nextFrame = _firstFrame;
}

void Y4MReader::drawInto(CVPixelBufferRef pixelBuffer) {
  _frame.resize(_header.frameSize());
  if (_file.read(_pixels, _frame) < _frame.size()) {
    fillBlack(pixelBuffer);
    return;
  }
  packFrame(_header, _frame.data(), static_cast<std::uint8_t*>(CVPixelBufferGetBaseAddress(pixelBuffer)),
            CVPixelBufferGetBytesPerRow(pixelBuffer));
}

}  // namespace hardware::simulated
