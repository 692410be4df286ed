#pragma once

// What is simulated: devices, the FireWire bus, and what happens to them over time. Plain data, written by hand
// in tests or read from a rig file (RigParser.h). hardware/README.md describes each property.

#include <Hardware.h>

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace hardware::simulated {

/// Colour bars, a frame counter and something that moves.
struct TestPictureSource {};

/// A sine on all channels.
struct ToneSource {
  double frequency = 1000;       ///< Hz
  double levelInDecibels = -20;  ///< of the peak; 0 is full scale
};

/// A clip: a Y4M file for pictures, a WAV file for sound. It begins again each time the device starts.
struct MediaSource {
  std::string path;
  bool isLooped = true;
};

using PictureSource = std::variant<TestPictureSource, MediaSource>;
using SoundSource = std::variant<ToneSource, MediaSource>;

enum class Pacing {
  realTime,  ///< samples come when the clock says so, whether or not anyone can take them
  consumer,  ///< samples come as fast as the sink has room, and none is lost
};

/// Something that goes wrong with single samples: video frames, or buffers of sound.
struct Fault {
  enum class Kind {
    lost,         ///< reported as lost
    noImage,      ///< delivered without a picture; pictures only
    undecodable,  ///< cannot be drawn; pictures only
    invalidTime,  ///< delivered with kCMTimeInvalid
    timescale,    ///< time stamps in another timescale from here on; with everySamples, by turns
  };
  enum class Trigger {
    atSample,      ///< the sample of this index, counted from 0 at each start
    atTime,        ///< the first sample at or after this time since the start
    everySamples,  ///< each sample that ends a run of this many
  };

  Kind kind = Kind::lost;
  Trigger trigger = Trigger::atSample;
  std::uint64_t samples = 0;   ///< index or count
  double seconds = 0;          ///< for atTime
  std::int32_t timescale = 0;  ///< for Kind::timescale
};

/// A time in which a running device cannot go on: it says why, and sends nothing.
struct RunningFailure {
  std::string reason;
  double from;  ///< seconds since the start
  double duration;
};

/// What the pictures of a video format are really like, beyond what the format tells of itself.
struct PictureBehaviour {
  std::int32_t width = 0;  ///< of the delivered pictures; 0 for the format's size
  std::int32_t height = 0;
  bool neverDelivers = false;
};

struct RigDevice {
  DeviceDescription description;
  std::vector<PictureBehaviour> pictures;  ///< one for each video format; missing ones are ordinary

  PictureSource picture;
  SoundSource sound;
  Pacing pacing = Pacing::realTime;

  std::int32_t videoTimescale = 0;        ///< of time stamps; 0 for one in which the format's frame duration is exact
  std::int32_t audioTimescale = 0;        ///< 0 for the sample rate
  std::uint32_t audioBufferLength = 512;  ///< in frames
  double driftInPartsPerMillion = 0;      ///< positive: the device's clock is fast
  double jitterInSeconds = 0;             ///< each sample is early or late by up to this much

  std::optional<std::string> openFailure;
  std::optional<std::string> configurationFailure;
  std::vector<RunningFailure> runningFailures;
  std::vector<Fault> videoFaults;
  std::vector<Fault> audioFaults;

  std::optional<FireWireUnit> fireWireUnit;  ///< on the bus while the device is plugged in
  bool isPluggedAtFirst = true;
};

struct ScriptedEvent {
  double seconds = 0;  ///< since the provider was made
  DeviceEvent event = DeviceEvent::attached;
  std::string uniqueID;
};

struct Rig {
  std::vector<RigDevice> devices;
  FireWireBus bus{0, std::vector<FireWireUnit>{}};  ///< without the units of devices
  std::vector<ScriptedEvent> script;
};

inline constexpr std::int32_t MaximumPictureSize = 16384;  ///< in either direction
inline constexpr std::uint32_t MaximumChannels = 32;
inline constexpr double MaximumFrameRate = 1000;
inline constexpr double MinimumSampleRate = 1000;
inline constexpr double MaximumSampleRate = 768000;

}  // namespace hardware::simulated
