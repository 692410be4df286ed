#pragma once

// Sound that every converter gets: the same chunks in the same order, for the same output.

#include <CoreAudio/CoreAudioTypes.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include "Work.h"

namespace bench {

enum class Sample { Int16, Int32, Float };

struct SoundFormat {
  const char* name;
  double rate;
  Sample sample;
  unsigned channels;

  std::size_t bytesPerFrame() const { return channels * (sample == Sample::Int16 ? 2U : 4U); }
};

/// What a microphone may bring; all of it goes to 44.1 kHz in 16-bit integers, interleaved.
inline constexpr std::array<SoundFormat, 7> Streams{{{"48 kHz float stereo", 48000, Sample::Float, 2},
                                                     {"96 kHz 32-bit stereo", 96000, Sample::Int32, 2},
                                                     {"16 kHz 16-bit mono", 16000, Sample::Int16, 1},
                                                     {"32 kHz float stereo", 32000, Sample::Float, 2},
                                                     {"22.05 kHz float stereo", 22050, Sample::Float, 2},
                                                     {"8 kHz float stereo", 8000, Sample::Float, 2},
                                                     {"192 kHz float stereo", 192000, Sample::Float, 2}}};
inline constexpr double OutputRate = 44100;
inline constexpr std::size_t ChunkFrames = 1024;
inline constexpr std::size_t ChunkCount = 47;  ///< about a second of 48 kHz
/// More than any of the converters gives for a chunk.
inline constexpr std::size_t OutputCapacity = 16 * ChunkFrames;

/// Two tones and a little noise, interleaved; chunk `index` starts at `index * ChunkFrames * bytesPerFrame()`.
inline std::vector<std::byte> makeSound(const SoundFormat& format) {
  std::vector<std::byte> bytes(ChunkCount * ChunkFrames * format.bytesPerFrame());
  std::uint32_t random = 1;
  std::byte* next = bytes.data();
  for (std::size_t frame = 0; frame < ChunkCount * ChunkFrames; ++frame) {
    const double time = static_cast<double>(frame) / format.rate;
    const double tones =
        0.4 * std::sin(2 * std::numbers::pi * 997 * time) + 0.2 * std::sin(2 * std::numbers::pi * 3001 * time);
    for (unsigned channel = 0; channel < format.channels; ++channel) {
      random = random * 1664525 + 1013904223;
      const double value = tones + 0.01 * (static_cast<double>(random >> 8) / (1 << 23) - 1);
      const auto put = [&](auto sample) {
        std::memcpy(next, &sample, sizeof sample);
        next += sizeof sample;
      };
      switch (format.sample) {
        case Sample::Int16:
          put(static_cast<std::int16_t>(std::lround(value * 32767)));
          break;
        case Sample::Int32:
          put(static_cast<std::int32_t>(std::lround(value * 2147483647.0)));
          break;
        case Sample::Float:
          put(static_cast<float>(value));
          break;
      }
    }
  }
  return bytes;
}

/// Defines the continuous conversion of every stream by `Converter`, which is made from a SoundFormat, and whose
/// push(chunk) converts ChunkFrames frames. Figures are those of an output frame.
template <typename Converter>
void defineStreams(const std::string& who) {
  for (const SoundFormat& format : Streams) {
    works().push_back({std::string("stream ") + format.name + "/" + who, ChunkCount,
                       static_cast<double>(ChunkFrames) * OutputRate / format.rate, [format]() -> Run {
                         return repeat([converter = std::make_shared<Converter>(format), sound = makeSound(format),
                                        format, next = std::size_t{0}]() mutable {
                           converter->push(sound.data() + next * ChunkFrames * format.bytesPerFrame());
                           next = (next + 1) % ChunkCount;
                         });
                       }});
  }
}

/// The same for buffers that are converted one by one, each on its own: single(chunk) converts one and forgets it.
/// Figures are those of a buffer.
template <typename Converter>
void defineSingleBuffer(const std::string& who) {
  works().push_back({"single buffer/" + who, 8, 1, []() -> Run {
                       return repeat([converter = std::make_shared<Converter>(Streams[0]),
                                      sound = makeSound(Streams[0]), next = std::size_t{0}]() mutable {
                         converter->single(sound.data() + next * ChunkFrames * Streams[0].bytesPerFrame());
                         next = (next + 1) % ChunkCount;
                       });
                     }});
}

/// And for 44.1 kHz in planar stereo floats: planar(left, right) converts ChunkFrames frames. Figures are those of a
/// frame.
template <typename Converter>
void definePlanar(const std::string& who) {
  works().push_back({"planar float to 16-bit/" + who, ChunkCount, static_cast<double>(ChunkFrames), []() -> Run {
                       constexpr SoundFormat Mono{"", OutputRate, Sample::Float, 1};
                       return repeat([converter = std::make_shared<Converter>(), sound = makeSound(Mono),
                                      next = std::size_t{0}]() mutable {
                         const auto chunk = [&](std::size_t index) {
                           return sound.data() + index % ChunkCount * ChunkFrames * sizeof(float);
                         };
                         converter->planar(chunk(next), chunk(next + 1));
                         ++next;
                       });
                     }});
}

}  // namespace bench
