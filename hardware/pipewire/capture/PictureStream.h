#pragma once

// The pictures of a camera. They are drawn straight from the server's memory, and its buffers go back at once: a camera
// has a handful of them for all its programs, and stands still for all when one program keeps them.

#include <Hardware.h>

#include "capture/Admission.h"
#include "capture/Stamps.h"
#include "capture/StreamHandler.h"
#include "listing/CameraFormats.h"
#include "pictures/PictureReader.h"

namespace hardware::pipewire {

class PictureStream final : public StreamHandler {
 public:
  PictureStream(Sink& sink, Admission& admission, EventLoop& loop, CameraFormat format, CMTime frameDuration);

  /// What the next request asks for.
  void select(CameraFormat format, CMTime frameDuration);

  Connection::Use use() const override { return Connection::Use::pictures; }
  Properties properties() const override;
  pw_stream_flags flags() const override;
  std::vector<const spa_pod*> request(spa_pod_builder& builder) const override;
  void attach(pw_stream* stream) override;
  runtime::Nanoseconds longestSilence() const override;

  /// What a buffer holds; without planes where that is no whole picture.
  static PackedPicture pictureIn(const spa_buffer& buffer, const NegotiatedPicture& format);

 private:
  void negotiated(const spa_pod* format);
  void process();
  void deliver(const spa_buffer& buffer);

  Sink& _sink;
  Admission& _admission;
  EventLoop& _loop;
  CameraFormat _wanted;
  CMTime _wantedDuration;

  pw_stream* _stream = nullptr;
  spa_hook _listener{};
  NegotiatedPicture _format;
  std::int32_t _timescale = 0;
  CMTime _duration = kCMTimeInvalid;  ///< of a frame, in the timescale
  PictureClock _clock;
  mutable PictureReader _reader;
};

}  // namespace hardware::pipewire
