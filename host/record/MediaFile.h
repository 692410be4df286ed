#pragma once

// One file of a recording, or one stream to a URL: picture and sound encoded, in their container. One thread at a time.

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <variant>

#include "capture/Sources.h"
#include "picture/Rational.h"
#include "record/AV.h"
#include "record/Encoding.h"
#include "record/NetworkStream.h"
#include "record/OutputFile.h"
#include "record/TakeOptions.h"

namespace brvhost {

/// What stays the same in a file from picture to picture.
struct PictureFormat {
  std::size_t width = 0;
  std::size_t height = 0;
  Rational pixelAspect;
  FrameTiming timing;  ///< stamps count in its ticks
  AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED;
  AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;
  AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED;

  /// Whether pictures of both formats can stand in one file. Times are told apart by their stamps.
  bool looksLike(const PictureFormat& other) const {
    return width == other.width && height == other.height && pixelAspect == other.pixelAspect &&
           matrix == other.matrix && primaries == other.primaries && transfer == other.transfer;
  }
};

/// Of a picture that counts by `timing`.
PictureFormat formatOf(const brv::Frame& frame, const FrameTiming& timing);

class MediaFile {
 public:
  /// What is written: a file, or a connection to a URL.
  using Target = std::variant<OutputFile, std::unique_ptr<NetworkStream>>;

  /// Writes what stands at the beginning; `name` is the target's. Without a `picture` it has none, without `hasSound`
  /// no sound. Throws Failure.
  MediaFile(const std::string& name, Target target, const Encoding& encoding,
            const std::optional<PictureFormat>& picture, bool hasSound);
  MediaFile(const MediaFile&) = delete;
  MediaFile& operator=(const MediaFile&) = delete;

  const std::optional<PictureFormat>& picture() const { return _picture; }
  /// What is in it, for people.
  std::string description() const;

  /// `stamp` in ticks since the file's beginning, above the last one. Throws Failure.
  void writePicture(const brv::Frame& frame, std::int64_t stamp);

  /// The next sound, left and right in turn. Throws Failure.
  void writeSound(std::span<const std::int16_t> samples);
  /// Of so many frames.
  void writeSilence(std::int64_t frames);
  /// How much sound was written, in frames of SoundRate. `stretchSound` lets it become so much longer, or shorter,
  /// over the next ten seconds.
  std::int64_t soundFrames() const;
  void stretchSound(std::int64_t frames);

  /// Writes what encoders still hold, and the end of the file. Throws Failure when it did not reach the disk.
  void close();
  /// What was written, but did not come as far as the file: pictures, and sound in frames of SoundRate. After a
  /// Failure.
  std::int64_t lostPictures() const { return _givenPictures - arrived(_pictures); }
  std::int64_t lostSound() const;

  /// Bytes written by now. Any thread.
  std::int64_t size() const { return _size; }

 private:
  struct Track {
    av::CodecContext encoder;
    AVStream* stream = nullptr;
    std::int64_t duration = 0;  ///< of a packet that has none, in the encoder's time base
    std::int64_t packed = 0;    ///< pictures, or frames of sound at the encoder's rate, in packets
    /// The last of them, each with what there was before it, and where it ends among the bytes of all packets.
    std::deque<std::pair<std::int64_t, std::int64_t>> underWay;
  };

  template <typename Describe>
  Track makeTrack(const AVCodec& codec, bool isLive, Describe&& describe);
  void addPictureTrack(const AVCodec& codec, bool isLive);
  void addSoundTrack(const AVCodec& codec, bool isLive);
  void openTarget(bool isLive);
  void encode(Track& track, const AVFrame* frame);
  void encodeSound(bool isLast);
  void handOver(Track& track);
  /// How much of what was packed is in the file: what the container adds is little, and leaves the file the longer.
  std::int64_t arrived(const Track& track) const;
  void checkWritten(int result);
  static int writeBytes(void* self, std::uint8_t* bytes, int count);
  static std::int64_t seek(void* self, std::int64_t offset, int whence);

  const std::string _target;
  const std::optional<PictureFormat> _picture;
  const bool _isMatroska;
  const bool _hasSteadyRate;  ///< pictures have no stamps in such a file
  std::atomic<std::int64_t> _size = 0;

  Target _output;
  OutputFile* const _file;  ///< null for a connection
  std::string _failure;     ///< of writing to it
  std::unique_ptr<AVIOContext, void (*)(AVIOContext*)> _channel{nullptr, nullptr};
  av::FormatContext _container;
  av::Packet _packet;
  Track _pictures, _sound;

  std::int64_t _packedBytes = 0;
  std::int64_t _givenPictures = 0;
  av::Pool _planes;
  AVPixelFormat _pixelFormat = AV_PIX_FMT_NONE;
  int _pictureBytes = 0;
  av::Scaler _scaler;

  av::Resampler _resampler;
  av::Fifo _samples;                  ///< converted, until they fill a frame of the encoder
  std::int64_t _convertedFrames = 0;  ///< at the encoder's rate
  std::int64_t _encodedFrames = 0;
  bool _isOpen = false;
};

}  // namespace brvhost
