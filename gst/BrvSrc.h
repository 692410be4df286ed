#pragma once

// The element "brvsrc": a source of the capture module, its pictures on the pad "video" and its sound on "audio". Both
// are request pads, so that only what is linked is captured.

#include <gst/gst.h>

G_BEGIN_DECLS

#define BRV_TYPE_SRC brv_src_get_type()
G_DECLARE_FINAL_TYPE(BrvSrc, brv_src, BRV, SRC, GstElement)

G_END_DECLS

namespace brvgst {

/// The caps of the pad templates.
inline constexpr const char* VideoCaps =
    "video/x-raw, format = (string) YUY2, width = (int) [ 1, 32768 ], height = (int) [ 1, 32768 ], "
    "framerate = (fraction) [ 0/1, 2147483647/1 ]";
inline constexpr const char* AudioCaps =
    "audio/x-raw, format = (string) S16LE, rate = (int) 44100, channels = (int) 2, layout = (string) interleaved";

}  // namespace brvgst
