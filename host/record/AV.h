#pragma once

// FFmpeg's libraries with owners for what they hand out, and failures for what they return.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/avstring.h>
#include <libavutil/base64.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <memory>
#include <string>

#include "common/Failure.h"

namespace brvhost::av {

template <auto Free>
struct Deleter {
  template <typename Type>
  void operator()(Type* owned) const {
    if constexpr (requires { Free(&owned); }) {
      Free(&owned);
    } else {
      Free(owned);
    }
  }
};

using CodecContext = std::unique_ptr<AVCodecContext, Deleter<avcodec_free_context>>;
using Fifo = std::unique_ptr<AVAudioFifo, Deleter<av_audio_fifo_free>>;
using FormatContext = std::unique_ptr<AVFormatContext, Deleter<avformat_free_context>>;
using Frame = std::unique_ptr<AVFrame, Deleter<av_frame_free>>;
using Packet = std::unique_ptr<AVPacket, Deleter<av_packet_free>>;
using Pool = std::unique_ptr<AVBufferPool, Deleter<av_buffer_pool_uninit>>;
using Resampler = std::unique_ptr<SwrContext, Deleter<swr_free>>;
using Scaler = std::unique_ptr<SwsContext, Deleter<sws_freeContext>>;

/// `result`, unless it is an error of the libraries: throws Failure, "cannot WHAT: reason".
inline int check(int result, const std::string& what) {
  if (result >= 0) return result;
  char reason[AV_ERROR_MAX_STRING_SIZE] = {};
  throw Failure("cannot " + what + ": " + av_make_error_string(reason, sizeof reason, result));
}

/// `owned`, unless there is no memory for it.
template <typename Type>
Type* check(Type* owned) {
  return owned ? owned : throw std::bad_alloc();
}

}  // namespace brvhost::av
