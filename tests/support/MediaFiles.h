#pragma once

// Small media files, byte by byte.

#include <cstdint>
#include <string>

/// The number in little-endian bytes.
template <typename Number>
std::string littleEndian(Number number) {
  std::string bytes;
  for (std::size_t i = 0; i < sizeof(number); ++i) bytes += static_cast<char>(number >> (8 * i) & 0xFF);
  return bytes;
}

inline std::string chunk(const std::string& code, const std::string& content) {
  const auto size = static_cast<std::uint32_t>(content.size());
  return code + littleEndian(size) + content + std::string(size % 2, '\0');
}

/// The content of a plain format chunk.
inline std::string waveFormat(std::uint16_t code, std::uint16_t channels, std::uint32_t rate, std::uint16_t bits) {
  const auto bytesPerFrame = static_cast<std::uint16_t>(channels * bits / 8);
  return littleEndian(code) + littleEndian(channels) + littleEndian(rate) + littleEndian(rate * bytesPerFrame) +
         littleEndian(bytesPerFrame) + littleEndian(bits);
}

inline std::string waveFile(const std::string& format, const std::string& samples) {
  return chunk("RIFF", "WAVE" + chunk("fmt ", format) + chunk("data", samples));
}

/// A 4 x 2 clip in 4:2:2 at 25 frames a second whose frame i is filled with the byte i.
inline std::string smallClip(int frames) {
  std::string clip = "YUV4MPEG2 W4 H2 F25:1 Ip A1:1 C422\n";
  for (int i = 0; i < frames; ++i) clip += "FRAME\n" + std::string(16, static_cast<char>(i));
  return clip;
}
