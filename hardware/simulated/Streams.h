#pragma once

// The two streams of a running device: pictures and sound. Each ties a clock to a source and to the rig's
// faults, and hands one sample at a time to the sink. A device makes them at its start and uses them on its lane alone.

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "AudioSource.h"
#include "FaultPlan.h"
#include "Rig.h"
#include "SampleClock.h"
#include "VideoSource.h"

namespace hardware::simulated {

/// What a format is to run at: `duration` within the format's ranges. A duration outside moves to the nearest bound; an
/// invalid one stands for the shortest; without ranges it is taken as it is, or 1/30 s.
CMTime heldWithin(const std::vector<FrameRateRange>& ranges, CMTime duration);

/// A timescale in which stamps at this frame duration are exact: 30,000 where it will do, else a multiple of the
/// duration's own that is not too coarse.
std::int32_t exactTimescale(CMTime frameDuration);

class VideoStream {
 public:
  /// `device` must outlive the stream.
  VideoStream(const RigDevice& device, runtime::Nanoseconds start, std::size_t format, CMTime frameDuration);

  /// From the next frame on.
  void select(std::size_t format, CMTime frameDuration);

  /// When the next frame is due; Never after the last.
  runtime::Nanoseconds due() const { return _hasEnded ? runtime::Never : _clock.due(); }

  /// Whether the format in use never delivers: its frames pass without a word.
  bool isSilent() const;

  /// Hands over the next frame; false when it passed without the sink's notice, as without a sink.
  bool deliver(Sink* sink);

 private:
  struct Frame;

  const RigDevice& _device;
  std::unique_ptr<VideoSource> _source;
  std::size_t _format;
  CMTime _frameDuration;
  std::int32_t _width = 0;
  std::int32_t _height = 0;
  SampleClock _clock;
  SamplePlace _place;
  bool _hasEnded = false;
};

class AudioStream {
 public:
  /// `device` must outlive the stream.
  AudioStream(const RigDevice& device, runtime::Nanoseconds start, std::size_t format);

  /// From the next buffer on.
  void select(std::size_t format);

  /// When the next buffer is full; Never after the last.
  runtime::Nanoseconds due() const;

  /// Hands over the next buffer; without a sink it passes without a word.
  void deliver(Sink* sink);

 private:
  void prepareBuffers();

  const RigDevice& _device;
  std::unique_ptr<AudioSource> _source;
  std::size_t _format;
  SampleClock _clock;
  SamplePlace _place;

  std::vector<double> _samples;
  std::vector<std::uint8_t> _bytes;
  std::vector<std::uint64_t> _list;  // an AudioBufferList of as many buffers as the format takes
};

}  // namespace hardware::simulated
