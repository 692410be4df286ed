#include "WAVReader.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>

#include "PCM.h"
#include "Rig.h"

namespace hardware::simulated {
namespace {

constexpr std::uint16_t FormatPCM = 1;
constexpr std::uint16_t FormatFloat = 3;
constexpr std::uint16_t FormatExtensible = 0xFFFE;
constexpr std::size_t PlainFormatSize = 16;
constexpr std::size_t ExtensibleFormatSize = 40;
constexpr std::size_t ChunkHeaderSize = 8;
constexpr int MostChunks = 1024;

std::uint16_t read16(const std::uint8_t* bytes) {
  return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
}
std::uint32_t read32(const std::uint8_t* bytes) {
  return read16(bytes) | static_cast<std::uint32_t>(read16(bytes + 2)) << 16;
}
bool isCode(const std::uint8_t* bytes, const char* code) {
  return std::memcmp(bytes, code, 4) == 0;
}

AudioChannelLayoutTag layoutTag(std::uint32_t channels, std::uint32_t speakers) {
  constexpr std::uint32_t quadraphonic = 0x33;
  constexpr std::uint32_t backSurround = 0x3F;
  constexpr std::uint32_t sideSurround = 0x60F;
  if (channels == 1) return kAudioChannelLayoutTag_Mono;
  if (channels == 2) return kAudioChannelLayoutTag_Stereo;
  if (channels == 4 && speakers == quadraphonic) return kAudioChannelLayoutTag_Quadraphonic;
  if (channels == 6 && (speakers == backSurround || speakers == sideSurround)) return kAudioChannelLayoutTag_MPEG_5_1_A;
  return kAudioChannelLayoutTag_Unknown;
}

Result<AudioFormat> parseFormatChunk(std::span<const std::uint8_t> chunk) {
  if (chunk.size() < PlainFormatSize) return Failure{"the format chunk is too short"};
  std::uint16_t code = read16(&chunk[0]);
  const std::uint16_t channels = read16(&chunk[2]);
  const std::uint32_t sampleRate = read32(&chunk[4]);
  const std::uint16_t bytesPerFrame = read16(&chunk[12]);
  const std::uint16_t bits = read16(&chunk[14]);
  std::uint32_t speakers = 0;

  if (code == FormatExtensible) {
    if (chunk.size() < ExtensibleFormatSize) return Failure{"the extensible format chunk is too short"};
    // The rest of the subformat's GUID says that its first two bytes are one of the plain format codes.
    static constexpr std::uint8_t plainSuffix[14] = {0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71};
    if (std::memcmp(&chunk[26], plainSuffix, sizeof(plainSuffix)) != 0) return Failure{"unsupported subformat"};
    speakers = read32(&chunk[20]);
    code = read16(&chunk[24]);
  }

  const bool isFloat = code == FormatFloat;
  const bool isKnown = (code == FormatPCM && (bits == 8 || bits == 16 || bits == 24 || bits == 32)) ||
                       (isFloat && (bits == 32 || bits == 64));
  if (!isKnown) {
    return Failure{"unsupported sample format (code " + std::to_string(code) + ", " + std::to_string(bits) + " bits)"};
  }
  if (channels < 1 || channels > MaximumChannels) {
    return Failure{"unsupported number of channels (" + std::to_string(channels) + ")"};
  }
  if (sampleRate < MinimumSampleRate || sampleRate > MaximumSampleRate) {
    return Failure{"unsupported sample rate (" + std::to_string(sampleRate) + " Hz)"};
  }
  if (bytesPerFrame != channels * bits / 8) return Failure{"the frame size does not fit channels and bits"};

  PCMShape shape;
  shape.sampleRate = sampleRate;
  shape.bitsPerSample = bits;
  shape.channels = channels;
  shape.isFloat = isFloat;
  shape.isUnsigned = bits == 8;
  return AudioFormat{describePCM(shape), layoutTag(channels, speakers), std::nullopt};
}

double decode(const std::uint8_t* bytes, std::uint32_t bits, bool isFloat) {
  constexpr double fullScale = 2147483648.0;
  switch (bits) {
    case 8:
      return (bytes[0] - 128) / 128.0;
    case 16:
      return static_cast<std::int32_t>(static_cast<std::uint32_t>(read16(bytes)) << 16) / fullScale;
    case 24:
      return static_cast<std::int32_t>(static_cast<std::uint32_t>(read16(bytes)) << 8 |
                                       static_cast<std::uint32_t>(bytes[2]) << 24) /
             fullScale;
    case 32: {
      const std::uint32_t raw = read32(bytes);
      if (!isFloat) return static_cast<std::int32_t>(raw) / fullScale;
      float value;
      std::memcpy(&value, &raw, sizeof(value));
      return static_cast<double>(value);
    }
    default: {
      const std::uint64_t raw = read32(bytes) | static_cast<std::uint64_t>(read32(bytes + 4)) << 32;
      double value;
      std::memcpy(&value, &raw, sizeof(value));
      return value;
    }
  }
}

}  // namespace

Result<WAVReader> WAVReader::open(const std::string& path) {
  auto file = MediaFile::open(path);
  if (!file) return Failure{path + ": " + file.reason()};

  std::array<std::uint8_t, 12> start;
  if (file->read(0, start) < start.size() || !isCode(&start[0], "RIFF") || !isCode(&start[8], "WAVE")) {
    return Failure{path + ": not a WAVE file"};
  }

  std::optional<AudioFormat> format;
  std::uint64_t position = start.size();
  for (int chunk = 0; chunk < MostChunks; ++chunk) {
    std::array<std::uint8_t, ChunkHeaderSize> header;
    if (file->read(position, header) < header.size()) break;
    const std::uint64_t size = read32(&header[4]);
    position += header.size();

    if (isCode(&header[0], "fmt ")) {
      std::array<std::uint8_t, ExtensibleFormatSize> bytes;
      const std::size_t wanted = std::min<std::size_t>(static_cast<std::size_t>(size), bytes.size());
      const std::size_t count = file->read(position, std::span(bytes).first(wanted));
      auto parsed = parseFormatChunk(std::span(bytes).first(count));
      if (!parsed) return Failure{path + ": " + parsed.reason()};
      format = *parsed;
    } else if (isCode(&header[0], "data")) {
      if (!format) return Failure{path + ": the data comes before its format"};
      // Writers that never came back to fill in the size leave 0 or all ones there.
      const std::uint64_t present = file->size() > position ? file->size() - position : 0;
      const bool isSizeKnown = size != 0 && size != std::numeric_limits<std::uint32_t>::max();
      const std::uint64_t length = isSizeKnown ? std::min(size, present) : present;
      const bool isCutOff = (isSizeKnown && size > present) || length % format->stream.mBytesPerFrame != 0;
      const std::uint64_t frameCount = length / format->stream.mBytesPerFrame;
      if (frameCount == 0) return Failure{path + ": the file holds no sound"};
      return WAVReader(std::move(*file), *format, position, frameCount, isCutOff);
    }
    position += size + size % 2;
  }
  return Failure{path + (format ? ": there is no data chunk" : ": there is no format chunk")};
}

WAVReader::WAVReader(MediaFile file, AudioFormat format, std::uint64_t dataOffset, std::uint64_t frameCount,
                     bool isCutOff)
    : _file(std::move(file)),
      _format(std::move(format)),
      _dataOffset(dataOffset),
      _frameCount(frameCount),
      _isCutOff(isCutOff) {}

std::size_t WAVReader::read(std::uint64_t first, std::span<double> samples) {
  if (first >= _frameCount) return 0;
  const AudioStreamBasicDescription& stream = _format.stream;
  const std::uint64_t wanted = std::min<std::uint64_t>(samples.size() / channels(), _frameCount - first);
  _bytes.resize(static_cast<std::size_t>(wanted) * stream.mBytesPerFrame);
  const std::size_t count = _file.read(_dataOffset + first * stream.mBytesPerFrame, _bytes) / stream.mBytesPerFrame;

  const bool isFloat = (stream.mFormatFlags & kAudioFormatFlagIsFloat) != 0;
  const std::size_t bytesPerSample = stream.mBitsPerChannel / 8;
  for (std::size_t i = 0; i < count * channels(); ++i) {
    samples[i] = decode(&_bytes[i * bytesPerSample], stream.mBitsPerChannel, isFloat);
  }
  return count;
}

}  // namespace hardware::simulated
