#include "record/WAVWriter.h"

#include <cstring>
#include <limits>
#include <utility>

#include "common/Failure.h"

namespace brvhost {

namespace {

/// Appends little-endian fields to a header of known size.
class HeaderBuilder {
 public:
  void tag(const char (&text)[5]) {
    std::memcpy(_bytes.data() + _used, text, 4);
    _used += 4;
  }

  void number(std::uint64_t value, std::size_t byteCount) {
    for (std::size_t i = 0; i < byteCount; ++i) _bytes[_used++] = static_cast<std::uint8_t>(value >> (8 * i));
  }

  const std::array<std::uint8_t, WAVHeaderBytes>& bytes() const { return _bytes; }

 private:
  std::array<std::uint8_t, WAVHeaderBytes> _bytes{};
  std::size_t _used = 0;
};

constexpr std::uint64_t BytesBehindRIFFSize = WAVHeaderBytes - 8;
/// Stands for a size that is told elsewhere, or that nobody knows.
constexpr std::uint32_t NoSize = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint64_t WideSizesBytes = 28;

}  // namespace

std::array<std::uint8_t, WAVHeaderBytes> wavHeader(const PCMFormat& format, std::uint64_t dataBytes) {
  const std::uint64_t riffBytes = BytesBehindRIFFSize + dataBytes;
  const bool isUnknown = dataBytes == UnknownDataBytes;
  const bool isWide = !isUnknown && riffBytes >= NoSize;
  const auto frameBytes = static_cast<std::uint64_t>(format.bytesPerFrame());
  const auto sampleRate = static_cast<std::uint64_t>(format.sampleRate);

  HeaderBuilder header;
  isWide ? header.tag("RF64") : header.tag("RIFF");
  header.number(isWide || isUnknown ? NoSize : riffBytes, 4);
  header.tag("WAVE");

  // A reader passes over "JUNK"; the same bytes hold the 64-bit sizes once they are needed.
  isWide ? header.tag("ds64") : header.tag("JUNK");
  header.number(WideSizesBytes, 4);
  header.number(isWide ? riffBytes : 0, 8);
  header.number(isWide ? dataBytes : 0, 8);
  header.number(isWide ? format.framesIn(dataBytes) : 0, 8);
  header.number(0, 4);

  header.tag("fmt ");
  header.number(16, 4);
  header.number(1, 2);  // PCM
  header.number(static_cast<std::uint64_t>(format.channels), 2);
  header.number(sampleRate, 4);
  header.number(sampleRate * frameBytes, 4);
  header.number(frameBytes, 2);
  header.number(static_cast<std::uint64_t>(format.bitsPerSample), 2);

  header.tag("data");
  header.number(isWide || isUnknown ? NoSize : dataBytes, 4);
  return header.bytes();
}

WAVWriter::WAVWriter(OutputFile file, const PCMFormat& format) : _file(std::move(file)), _format(format) {
  if (_format.sampleRate <= 0 || _format.channels <= 0 || _format.bitsPerSample != 16) {
    throw Failure(formatted("%s cannot hold sound of %d Hz, %d channels, %d bits", _file.path().c_str(),
                            _format.sampleRate, _format.channels, _format.bitsPerSample));
  }
  const auto header = wavHeader(_format, _file.isSeekable() ? 0 : UnknownDataBytes);
  _file.write(header.data(), header.size());
}

std::int64_t WAVWriter::frameCount() const {
  return static_cast<std::int64_t>(_format.framesIn(_dataBytes));
}

void WAVWriter::write(const void* samples, std::size_t bytes) {
  _file.write(samples, bytes);
  _dataBytes += bytes;
  const auto bytesPerSecond =
      static_cast<std::uint64_t>(_format.sampleRate) * static_cast<std::uint64_t>(_format.bytesPerFrame());
  if (_dataBytes - _dataBytesInHeader >= bytesPerSecond) updateHeader();
}

void WAVWriter::close() {
  updateHeader();
  _file.close();
}

void WAVWriter::updateHeader() {
  if (_dataBytes == _dataBytesInHeader || !_file.isSeekable()) return;
  const auto header = wavHeader(_format, _dataBytes);
  _file.overwrite(0, header.data(), header.size());
  _dataBytesInHeader = _dataBytes;
}

}  // namespace brvhost
