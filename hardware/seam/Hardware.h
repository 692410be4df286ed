#pragma once

// What the frameworks know of the machine's capture hardware. A provider lists devices and says when one
// comes or goes; a device opens, runs, and hands pictures and sound to its sink. Two providers stand beside this
// header: PipeWire's devices, and simulated ones. Time stamps of both are the host's monotonic clock
// (runtime::Scheduler::now()): those of two devices can be compared.

#include <CoreAudio/CoreAudioTypes.h>
#include <CoreMedia/CMTime.h>
#include <CoreVideo/CVPixelBuffer.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace hardware {

struct FrameRateRange {
  double minFrameRate = 0;  ///< frames per second
  double maxFrameRate = 0;
  CMTime minFrameDuration{};  ///< exact duration at maxFrameRate
  CMTime maxFrameDuration{};  ///< exact duration at minFrameRate

  friend bool operator==(const FrameRateRange& a, const FrameRateRange& b) {
    return CMTimeCompare(a.minFrameDuration, b.minFrameDuration) == 0 &&
           CMTimeCompare(a.maxFrameDuration, b.maxFrameDuration) == 0;
  }
};

struct VideoFormat {
  FourCharCode mediaSubType = 0;  ///< the device's native codec or pixel format
  std::int32_t width = 0;         ///< coded size in pixels; may be 0 x 0 where a device reports none
  std::int32_t height = 0;
  std::optional<std::string> name;  ///< for people
  double presentationWidth = 0;     ///< display size where it differs from the coded one, else 0
  double presentationHeight = 0;
  std::vector<FrameRateRange> frameRates;

  friend bool operator==(const VideoFormat&, const VideoFormat&) = default;
};

struct AudioFormat {
  AudioStreamBasicDescription stream{};
  AudioChannelLayoutTag layout = kAudioChannelLayoutTag_Unknown;
  std::optional<std::string> name;
  /// Where these are some of an interface's inputs, which have nothing to do with the others: the place of the first of
  /// them, from 0.
  std::optional<std::uint32_t> firstInput{};

  friend bool operator==(const AudioFormat& a, const AudioFormat& b) {
    const auto values = [](const AudioFormat& format) {
      const auto& s = format.stream;
      return std::tie(s.mSampleRate, s.mFormatID, s.mFormatFlags, s.mBytesPerPacket, s.mFramesPerPacket,
                      s.mBytesPerFrame, s.mChannelsPerFrame, s.mBitsPerChannel, format.layout, format.name,
                      format.firstInput);
    };
    return values(a) == values(b);
  }
};

struct PixelAspectRatio {
  std::int32_t horizontal = 1;
  std::int32_t vertical = 1;

  friend bool operator==(const PixelAspectRatio&, const PixelAspectRatio&) = default;
};

/// What never changes about a device while it is plugged in.
struct DeviceDescription {
  std::string name;
  std::string uniqueID;
  bool hasVideo = false;
  bool hasAudio = false;
  bool isMuxed = false;                    ///< one stream of picture and sound; its formats are video formats
  bool isScreenCapture = false;            ///< listed only once screen-capture devices are admitted
  bool isKnownToCoreMediaIO = true;        ///< whether that layer has an object for the device, if it has pictures
  bool hasVideoDigitizer = false;          ///< a component that makes digital pictures of an analogue signal
  std::vector<std::string> linkedDevices;  ///< unique IDs
  std::vector<VideoFormat> videoFormats;
  std::vector<AudioFormat> audioFormats;
  std::size_t initialVideoFormat = 0;  ///< what the device runs at when it is plugged in
  std::size_t initialAudioFormat = 0;
  std::optional<PixelAspectRatio> pixelAspectRatio;

  friend bool operator==(const DeviceDescription&, const DeviceDescription&) = default;
};

/// How the numbers of a picture stand for colours, in the terms of CoreVideo's attachments. What nobody states is
/// absent.
struct VideoColor {
  enum class Matrix { ITU_R_601_4, ITU_R_709_2, SMPTE_240M_1995, ITU_R_2020 };
  enum class Primaries { ITU_R_709_2, EBU_3213, SMPTE_C, ITU_R_2020 };
  enum class Transfer { ITU_R_709_2, SMPTE_240M_1995, sRGB, ITU_R_2020 };
  enum class Range { video, full };

  std::optional<Matrix> matrix;
  std::optional<Primaries> primaries;
  std::optional<Transfer> transfer;
  std::optional<Range> range;
};

/// A picture that a camera has taken. Valid only during the sink's call.
class VideoFrame {
 public:
  CMTime presentationTime{};
  CMTime duration{};
  std::int32_t width = 0;
  std::int32_t height = 0;
  /// False for a sample that carries no picture.
  bool hasImage = true;
  /// Of the picture as it lies in the buffer once it is drawn.
  std::optional<VideoColor> color;

  /// Writes the picture into a locked 'yuvs' pixel buffer of this frame's size. Nothing is drawn for frames that nobody
  /// takes. A buffer recycled from the same stream still holds what was last drawn into it, and a camera may make
  /// use of that. False when the picture cannot be decoded: the frame is dropped, and counted. Throws nothing.
  virtual bool drawInto(CVPixelBufferRef pixelBuffer) const = 0;

 protected:
  ~VideoFrame() = default;
};

/// A run of sound from a microphone, in the device's format. Valid only during the sink's call.
struct AudioChunk {
  CMTime presentationTime{};  ///< of the first frame
  std::uint32_t frameCount = 0;
  const AudioFormat* format = nullptr;
  const AudioBufferList* buffers = nullptr;  ///< one buffer, or one a channel for planar formats
};

/// Where a device's samples go. Called on the device's own lane, one call at a time. Throws nothing: what there is no
/// memory for is dropped, and counted.
class Sink {
 public:
  virtual void videoFrameCaptured(const VideoFrame& frame) = 0;
  /// The device itself lost a frame; it counts as captured and dropped.
  virtual void videoFrameLost(CMTime presentationTime, CMTime duration) = 0;
  virtual void audioChunkCaptured(const AudioChunk& chunk) = 0;
  /// The device itself lost a run of sound, in an overrun; its frames count as captured and dropped. The time stamps of
  /// what comes next leave a gap for it.
  virtual void audioChunkLost(CMTime presentationTime, std::uint32_t frameCount) {
    static_cast<void>(presentationTime), static_cast<void>(frameCount);
  }

  /// Capture cannot go on for now: another program holds the device, or it is broken. The reason is for display. The
  /// device goes on trying by itself; the next sample says that it is over.
  virtual void deviceFailed(std::string_view reason) { static_cast<void>(reason); }

  /// Whether the next sample could be taken without dropping one. Devices that are paced by their consumer ask
  /// before each sample and, after a no, wait for Device::sinkHasRoom.
  virtual bool hasRoomForVideo() = 0;
  virtual bool hasRoomForAudio() = 0;

 protected:
  ~Sink() = default;
};

/// One device plugged into the machine. Any thread may call it.
class Device {
 public:
  virtual ~Device() = default;

  virtual const DeviceDescription& description() const = 0;

  /// Whether the device can be opened for capture; otherwise the reason, for people.
  virtual std::optional<std::string> openFailure() = 0;

  /// Whether its configuration may be changed now; otherwise the reason, for people.
  virtual std::optional<std::string> configurationFailure() = 0;

  /// Selects what the device runs at, from its next sample on. The index is one of the description's formats. The
  /// duration need not be one of the format's ranges: it is held within them; an invalid one stands for the shortest.
  /// Selecting what is already selected changes nothing.
  virtual void selectVideoFormat(std::size_t index, CMTime frameDuration) = 0;
  virtual void selectAudioFormat(std::size_t index) = 0;

  /// Starts delivering to `sink`, which is borrowed until `stop` returns. No-op while running.
  virtual void start(Sink& sink) = 0;

  /// Stops. After the return no call of the sink is running or will come, except when called from such a
  /// call: then that one is the last. No-op while stopped.
  virtual void stop() = 0;

  /// The sink has room again (see Sink::hasRoomForVideo). Cheap.
  virtual void sinkHasRoom() = 0;
};

struct FireWireUnit {
  std::uint64_t guid = 0;
  bool isDV = false;
  bool isMPEG = false;
};

struct FireWireBus {
  /// What opening the bus results in; 0 for success.
  int openStatus = 0;
  /// The units plugged in now; absent when the bus cannot be listed.
  std::optional<std::vector<FireWireUnit>> units;
};

enum class DeviceEvent { attached, detached };

/// Something plugged in that no source can be made of, and why; both for display.
struct UnofferedDevice {
  std::string name;
  std::string reason;
};

/// Everything plugged into the machine. Any thread may call it.
class Provider {
 public:
  using EventHandler = std::function<void(DeviceEvent event, const std::shared_ptr<Device>& device)>;

  virtual ~Provider() = default;

  /// False where what is plugged in cannot be found out: `devices` is empty then, but not because nothing is there.
  virtual bool canListDevices() { return true; }

  /// The devices plugged in now, in the order in which the system lists them.
  virtual std::vector<std::shared_ptr<Device>> devices() = 0;

  /// Who hears of devices that come and go, from now on; null for nobody. The handler is called on a thread of the
  /// provider or on the one that plugged, never with a lock held, after `devices` shows the change. A detached device
  /// has stopped before its event is sent. When this call returns, the earlier handler is not running and will not run.
  virtual void setEventHandler(EventHandler handler) = 0;

  virtual FireWireBus fireWireBus() = 0;

  /// Where its devices come from, for display: "PipeWire", "the demonstration", "rig FILE".
  virtual std::string origin() { return "nowhere"; }

  /// What is plugged in and cannot be offered.
  virtual std::vector<UnofferedDevice> unofferedDevices() { return {}; }
};

/// The provider of this machine: the one installed last, or else what the environment asks for (hardware/README.md).
std::shared_ptr<Provider> systemProvider();

/// Puts another provider in place, or with null the machine's own again. For tests; the frameworks take notice at once.
void installSystemProvider(std::shared_ptr<Provider> provider);

/// Calls `handler` after each installSystemProvider; null for nobody.
void setProviderChangeHandler(std::function<void()> handler);

}  // namespace hardware
