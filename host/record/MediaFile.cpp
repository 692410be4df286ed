#include "record/MediaFile.h"

#include <libyuv.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <thread>
#include <utility>

#include "capture/Sources.h"

namespace brvhost {

namespace {

constexpr int BytesOfBuffer = 1 << 18;
constexpr int Channels = 2;
/// What closing a connection at once would lose: SRT's packets wait 120 ms for those that are sent again.
constexpr std::chrono::milliseconds LastWay(300);

template <typename Tag, std::size_t Count>
Tag tagOf(CVPixelBufferRef picture, CFStringRef key, const std::pair<CFStringRef, Tag> (&names)[Count], Tag unknown) {
  const CFTypeRef attached = CVBufferGetAttachment(picture, key, nullptr);
  for (const auto& [name, tag] : names) {
    if (attached == name) return tag;
  }
  return unknown;
}

bool isAnyOf(const Encoding& encoding, std::initializer_list<std::string_view> names) {
  return std::find(names.begin(), names.end(), encoding.container->name) != names.end();
}

/// In which of the encoder's formats pictures are to come.
AVPixelFormat pixelFormatFor(const AVCodec& encoder) {
  if (!encoder.pix_fmts) return AV_PIX_FMT_YUV422P;
  const bool isForPlayers = encoder.id == AV_CODEC_ID_H264 || encoder.id == AV_CODEC_ID_HEVC ||
                            encoder.id == AV_CODEC_ID_VP8 || encoder.id == AV_CODEC_ID_VP9;
  return isForPlayers ? AV_PIX_FMT_YUV420P
                      : avcodec_find_best_pix_fmt_of_list(encoder.pix_fmts, AV_PIX_FMT_YUYV422, 0, nullptr);
}

AVRational rational(const Rational& value) {
  AVRational reduced{0, 1};
  av_reduce(&reduced.num, &reduced.den, value.numerator, value.denominator, INT_MAX);
  return reduced;
}

}  // namespace

PictureFormat formatOf(const brv::Frame& frame, const FrameTiming& timing) {
  constexpr AVColorSpace Matrices[] = {AVCOL_SPC_SMPTE170M, AVCOL_SPC_BT709, AVCOL_SPC_SMPTE240M, AVCOL_SPC_BT2020_NCL};
  const std::pair<CFStringRef, AVColorPrimaries> primaries[] = {
      {kCVImageBufferColorPrimaries_ITU_R_709_2, AVCOL_PRI_BT709},
      {kCVImageBufferColorPrimaries_EBU_3213, AVCOL_PRI_BT470BG},
      {kCVImageBufferColorPrimaries_SMPTE_C, AVCOL_PRI_SMPTE170M},
      {kCVImageBufferColorPrimaries_ITU_R_2020, AVCOL_PRI_BT2020}};
  const std::pair<CFStringRef, AVColorTransferCharacteristic> transfers[] = {
      {kCVImageBufferTransferFunction_ITU_R_709_2, AVCOL_TRC_BT709},
      {kCVImageBufferTransferFunction_SMPTE_240M_1995, AVCOL_TRC_SMPTE240M},
      {kCVImageBufferTransferFunction_sRGB, AVCOL_TRC_IEC61966_2_1},
      {kCVImageBufferTransferFunction_ITU_R_2020, AVCOL_TRC_BT2020_10}};
  CVPixelBufferRef const picture = frame.pixelBuffer();
  return {CVPixelBufferGetWidth(picture),
          CVPixelBufferGetHeight(picture),
          pixelAspectOf(frame),
          timing,
          Matrices[static_cast<std::size_t>(colorMatrix(picture))],
          tagOf(picture, kCVImageBufferColorPrimariesKey, primaries, AVCOL_PRI_UNSPECIFIED),
          tagOf(picture, kCVImageBufferTransferFunctionKey, transfers, AVCOL_TRC_UNSPECIFIED)};
}

MediaFile::MediaFile(const std::string& name, Target target, const Encoding& encoding,
                     const std::optional<PictureFormat>& picture, bool hasSound)
    : _target(name),
      _picture(picture),
      _isMatroska(isAnyOf(encoding, {"matroska", "webm"})),
      _hasSteadyRate(isAnyOf(encoding, {"yuv4mpegpipe"})),
      _output(std::move(target)),
      _file(std::get_if<OutputFile>(&_output)) {
  AVFormatContext* container = nullptr;
  av::check(avformat_alloc_output_context2(&container, encoding.container, nullptr, name.c_str()), "write " + _target);
  _container.reset(container);
  _packet.reset(av::check(av_packet_alloc()));
  if (_picture && encoding.video) addPictureTrack(*encoding.video, encoding.isLive);
  if (hasSound && encoding.audio) addSoundTrack(*encoding.audio, encoding.isLive);
  openTarget(encoding.isLive);
}

template <typename Describe>
MediaFile::Track MediaFile::makeTrack(const AVCodec& codec, bool isLive, Describe&& describe) {
  Track track;
  track.encoder.reset(av::check(avcodec_alloc_context3(&codec)));
  AVCodecContext& encoder = *track.encoder;
  describe(encoder);
  tune(encoder, isLive);
  if (_container->oformat->flags & AVFMT_GLOBALHEADER) encoder.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  av::check(avcodec_open2(&encoder, &codec, nullptr), std::string("encode with ") + codec.name);
  track.stream = av::check(avformat_new_stream(_container.get(), nullptr));
  av::check(avcodec_parameters_from_context(track.stream->codecpar, &encoder), "write " + _target);
  track.stream->time_base = encoder.time_base;
  return track;
}

void MediaFile::addPictureTrack(const AVCodec& codec, bool isLive) {
  const PictureFormat& format = *_picture;
  _pixelFormat = pixelFormatFor(codec);
  _pictures = makeTrack(codec, isLive, [&](AVCodecContext& encoder) {
    encoder.width = static_cast<int>(format.width);
    encoder.height = static_cast<int>(format.height);
    encoder.pix_fmt = _pixelFormat;
    encoder.sample_aspect_ratio = rational(format.pixelAspect);
    encoder.framerate = rational(format.timing.frameRate());
    encoder.time_base = _hasSteadyRate ? av_inv_q(encoder.framerate) : AVRational{1, format.timing.ticksPerSecond};
    encoder.gop_size = std::max(1, static_cast<int>(2 * format.timing.frameRate().value()));
    encoder.color_range = _pixelFormat == AV_PIX_FMT_YUVJ422P ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
    encoder.colorspace = format.matrix;
    encoder.color_primaries = format.primaries;
    encoder.color_trc = format.transfer;
  });
  _pictures.duration = _hasSteadyRate ? 1 : format.timing.frameDuration;
  _pictures.stream->avg_frame_rate = _pictures.stream->r_frame_rate = _pictures.encoder->framerate;
  _pictures.stream->sample_aspect_ratio = _pictures.encoder->sample_aspect_ratio;
  _pictureBytes =
      av::check(av_image_get_buffer_size(_pixelFormat, _pictures.encoder->width, _pictures.encoder->height, 64),
                "encode such pictures");
  _planes.reset(
      av::check(av_buffer_pool_init(static_cast<std::size_t>(_pictureBytes) + AV_INPUT_BUFFER_PADDING_SIZE, nullptr)));
  if (_pixelFormat == AV_PIX_FMT_YUV422P) return;
  _scaler.reset(av::check(sws_getContext(_pictures.encoder->width, _pictures.encoder->height, AV_PIX_FMT_YUYV422,
                                         _pictures.encoder->width, _pictures.encoder->height, _pixelFormat, SWS_POINT,
                                         nullptr, nullptr, nullptr)));
}

void MediaFile::addSoundTrack(const AVCodec& codec, bool isLive) {
  _sound = makeTrack(codec, isLive, [&](AVCodecContext& encoder) {
    const int* const rates = codec.supported_samplerates;
    encoder.sample_rate = SoundRate;
    for (const int* rate = rates; rate && *rate; ++rate) {
      if (rate == rates || *rate == SoundRate) encoder.sample_rate = *rate;
    }
    encoder.sample_fmt = codec.sample_fmts ? codec.sample_fmts[0] : AV_SAMPLE_FMT_S16;
    encoder.ch_layout = AV_CHANNEL_LAYOUT_STEREO;
    encoder.time_base = {1, encoder.sample_rate};
    encoder.strict_std_compliance = FF_COMPLIANCE_NORMAL;
  });
  const AVCodecContext& encoder = *_sound.encoder;
  AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
  SwrContext* resampler = nullptr;
  av::check(swr_alloc_set_opts2(&resampler, &stereo, encoder.sample_fmt, encoder.sample_rate, &stereo,
                                AV_SAMPLE_FMT_S16, SoundRate, 0, nullptr),
            "convert sound");
  _resampler.reset(resampler);
  av::check(swr_init(resampler), "convert sound");
  _samples.reset(av::check(av_audio_fifo_alloc(encoder.sample_fmt, Channels, SoundRate)));
}

void MediaFile::openTarget(bool isLive) {
  if (_isMatroska) _container->avoid_negative_ts = AVFMT_AVOID_NEG_TS_DISABLED;
  _container->max_interleave_delta = AV_TIME_BASE;  // what waits for the other medium is in memory
  if (_file) {
    auto* const buffer = static_cast<unsigned char*>(av::check(av_malloc(BytesOfBuffer)));
    _channel = {avio_alloc_context(buffer, BytesOfBuffer, 1, this, nullptr, writeBytes, seek),
                [](AVIOContext* channel) {
                  av_freep(&channel->buffer);
                  avio_context_free(&channel);
                }};
    _container->pb = av::check(_channel.get());
    _container->pb->seekable = _file->isSeekable() ? AVIO_SEEKABLE_NORMAL : 0;
    if (!_file->isSeekable()) _container->flags |= AVFMT_FLAG_FLUSH_PACKETS;
  } else {
    _container->pb = std::get<std::unique_ptr<NetworkStream>>(_output)->get();
  }
  AVDictionary* options = nullptr;
  // So that what is written plays, whatever happens next.
  av_dict_set(&options, "movflags", "frag_keyframe+delay_moov+default_base_moof", 0);
  av_dict_set(&options, "min_frag_duration", "1000000", 0);
  if (_pictures.stream) av_dict_set_int(&options, "video_track_timescale", _pictures.encoder->time_base.den, 0);
  if (isLive || (_file && !_file->isSeekable())) av_dict_set(&options, "live", "1", 0);
  const int result = avformat_write_header(_container.get(), &options);
  av_dict_free(&options);
  checkWritten(result);
  _isOpen = true;
}

std::string MediaFile::description() const {
  std::string text;
  if (_pictures.stream) {
    const Rational rate = _picture->timing.frameRate();
    const Rational& aspect = _picture->pixelAspect;
    text = formatted("%zu x %zu, %.5g frames a second", _picture->width, _picture->height, rate.value());
    if (aspect.isKnown() && aspect.numerator != aspect.denominator) {
      text += formatted(", pixels %lld:%lld", static_cast<long long>(aspect.numerator),
                        static_cast<long long>(aspect.denominator));
    }
    const bool isPlain = _pictures.encoder->codec_id == AV_CODEC_ID_WRAPPED_AVFRAME;
    text += formatted(", %s", isPlain ? "uncompressed" : _pictures.encoder->codec->name);
  }
  if (_sound.stream) text += (text.empty() ? "" : "; ") + std::string("sound ") + _sound.encoder->codec->name;
  return text;
}

void MediaFile::writePicture(const brv::Frame& frame, std::int64_t stamp) {
  const av::Frame planar(av::check(av_frame_alloc()));
  planar->width = _pictures.encoder->width;
  planar->height = _pictures.encoder->height;
  planar->format = _pixelFormat;
  planar->pts = _hasSteadyRate ? _givenPictures : stamp;
  ++_givenPictures;
  planar->sample_aspect_ratio = _pictures.encoder->sample_aspect_ratio;
  planar->buf[0] = av::check(av_buffer_pool_get(_planes.get()));
  av_image_fill_arrays(planar->data, planar->linesize, planar->buf[0]->data, _pixelFormat, planar->width,
                       planar->height, 64);
  const brv::Pixels pixels = frame.pixels();
  const int rowBytes = static_cast<int>(pixels.rowBytes());
  const std::uint8_t* const packed = pixels.bytes().data();
  if (_scaler) {
    sws_scale(_scaler.get(), &packed, &rowBytes, 0, planar->height, planar->data, planar->linesize);
  } else {
    libyuv::YUY2ToI422(packed, rowBytes, planar->data[0], planar->linesize[0], planar->data[1], planar->linesize[1],
                       planar->data[2], planar->linesize[2], planar->width, planar->height);
  }
  encode(_pictures, planar.get());
}

void MediaFile::writeSound(std::span<const std::int16_t> samples) {
  const auto* input = reinterpret_cast<const std::uint8_t*>(samples.data());
  const int frames = static_cast<int>(samples.size()) / Channels;
  const int room = swr_get_out_samples(_resampler.get(), frames);
  const av::Frame converted(av::check(av_frame_alloc()));
  converted->format = _sound.encoder->sample_fmt;
  converted->ch_layout = _sound.encoder->ch_layout;
  converted->nb_samples = std::max(room, 1);
  av::check(av_frame_get_buffer(converted.get(), 0), "convert sound");
  const int made = av::check(
      swr_convert(_resampler.get(), converted->data, room, frames > 0 ? &input : nullptr, frames), "convert sound");
  av::check(av_audio_fifo_write(_samples.get(), reinterpret_cast<void**>(converted->data), made), "keep sound");
  _convertedFrames += made;
  encodeSound(false);
}

void MediaFile::writeSilence(std::int64_t frames) {
  static constexpr std::array<std::int16_t, 8'192> Silence{};
  while (frames > 0) {
    const auto run = std::min<std::int64_t>(frames, Silence.size() / Channels);
    writeSound(std::span(Silence).first(static_cast<std::size_t>(run) * Channels));
    frames -= run;
  }
}

std::int64_t MediaFile::soundFrames() const {
  return av_rescale(_convertedFrames, SoundRate, _sound.encoder->sample_rate) +
         swr_get_delay(_resampler.get(), SoundRate);
}

void MediaFile::stretchSound(std::int64_t frames) {
  const int rate = _sound.encoder->sample_rate;
  swr_set_compensation(_resampler.get(), static_cast<int>(av_rescale(frames, rate, SoundRate)), 10 * rate);
}

void MediaFile::encodeSound(bool isLast) {
  const AVCodecContext& encoder = *_sound.encoder;
  for (int ready; (ready = av_audio_fifo_size(_samples.get())) > 0;) {
    const int wanted = encoder.frame_size > 0 ? encoder.frame_size : ready;
    if (ready < wanted && !isLast) return;
    const av::Frame frame(av::check(av_frame_alloc()));
    frame->format = encoder.sample_fmt;
    frame->ch_layout = encoder.ch_layout;
    frame->sample_rate = encoder.sample_rate;
    frame->nb_samples = std::min(ready, wanted);
    frame->pts = std::exchange(_encodedFrames, _encodedFrames + frame->nb_samples);
    av::check(av_frame_get_buffer(frame.get(), 0), "encode sound");
    av::check(av_audio_fifo_read(_samples.get(), reinterpret_cast<void**>(frame->data), frame->nb_samples),
              "encode sound");
    encode(_sound, frame.get());
  }
}

/// Null flushes the encoder.
void MediaFile::encode(Track& track, const AVFrame* frame) {
  const auto what = "encode for " + _target;
  av::check(avcodec_send_frame(track.encoder.get(), frame), what);
  for (;;) {
    const int result = avcodec_receive_packet(track.encoder.get(), _packet.get());
    if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return;
    av::check(result, what);
    if (_packet->duration == 0) _packet->duration = track.duration;
    // The header says how much an encoder puts in front of the sound, and stamps count from there.
    if (_isMatroska && &track == &_sound) _packet->pts = _packet->dts = _packet->pts + track.encoder->initial_padding;
    av_packet_rescale_ts(_packet.get(), track.encoder->time_base, track.stream->time_base);
    _packet->stream_index = track.stream->index;
    handOver(track);
  }
}

void MediaFile::handOver(Track& track) {
  const AVCodecContext& encoder = *track.encoder;
  const bool isPlain = encoder.codec_id == AV_CODEC_ID_WRAPPED_AVFRAME;
  _packedBytes += isPlain ? av_image_get_buffer_size(encoder.pix_fmt, encoder.width, encoder.height, 1) : _packet->size;
  track.underWay.emplace_back(track.packed, _packedBytes);
  track.packed +=
      &track == &_pictures ? 1 : av_rescale_q(_packet->duration, track.stream->time_base, encoder.time_base);
  checkWritten(av_interleaved_write_frame(_container.get(), _packet.get()));
  while (!track.underWay.empty() && track.underWay.front().second <= _size) track.underWay.pop_front();
}

std::int64_t MediaFile::arrived(const Track& track) const {
  for (const auto& [before, end] : track.underWay) {
    if (end > _size) return before;
  }
  return track.packed;
}

std::int64_t MediaFile::lostSound() const {
  if (!_sound.stream) return 0;
  return std::max<std::int64_t>(soundFrames() - av_rescale(arrived(_sound), SoundRate, _sound.encoder->sample_rate), 0);
}

void MediaFile::close() {
  if (!std::exchange(_isOpen, false)) return;
  std::string failure;
  try {
    if (_pictures.stream) encode(_pictures, nullptr);
    if (_sound.stream) {
      writeSound({});
      encodeSound(true);
      encode(_sound, nullptr);
    }
  } catch (const Failure& reason) {
    failure = reason.what();  // the end is written all the same
  }
  const int result = av_write_trailer(_container.get());
  avio_flush(_container->pb);
  if (!failure.empty()) throw Failure(failure);
  checkWritten(result);
  if (_file) {
    _file->close();
  } else {
    std::this_thread::sleep_for(LastWay);
  }
}

/// Throws what the file said, which is clearer, or else what the library makes of it.
void MediaFile::checkWritten(int result) {
  if (!_failure.empty()) throw Failure(_failure);
  av::check(result < 0 ? result : _container->pb->error, "write to " + _target);
  if (!_file) _size = avio_tell(_container->pb);
}

int MediaFile::writeBytes(void* self, std::uint8_t* bytes, int count) {
  auto& file = *static_cast<MediaFile*>(self);
  try {
    file._file->write(bytes, static_cast<std::size_t>(count));
    file._size = static_cast<std::int64_t>(file._file->size());
    return count;
  } catch (const std::exception& reason) {
    if (file._failure.empty()) file._failure = reason.what();
    return AVERROR(EIO);
  }
}

std::int64_t MediaFile::seek(void* self, std::int64_t offset, int whence) {
  OutputFile& file = *static_cast<MediaFile*>(self)->_file;
  if (whence == AVSEEK_SIZE) return static_cast<std::int64_t>(file.size());
  if (whence != SEEK_SET || offset < 0) return AVERROR(EINVAL);
  file.seek(static_cast<std::uint64_t>(offset));
  return offset;
}

}  // namespace brvhost
