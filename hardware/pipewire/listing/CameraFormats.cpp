#include "listing/CameraFormats.h"

#include <spa/debug/types.h>
#include <spa/param/format-utils.h>
#include <spa/param/format.h>
#include <spa/param/video/color.h>
#include <spa/param/video/type-info.h>
#include <spa/pod/builder.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>
#include <tuple>

#include "listing/Choice.h"

namespace hardware::pipewire {
namespace {

struct Codec {
  std::uint32_t code;
  Packing packing;
  FourCharCode subType;  ///< as the frameworks call it
  const char* name;
};

constexpr FourCharCode fourCC(const char (&code)[5]) {
  return static_cast<FourCharCode>(code[0]) << 24 | static_cast<FourCharCode>(code[1]) << 16 |
         static_cast<FourCharCode>(code[2]) << 8 | static_cast<FourCharCode>(code[3]);
}

// In the order of what they cost: what needs no conversion first.
constexpr std::array Codecs{Codec{SPA_VIDEO_FORMAT_YUY2, Packing::YUY2, fourCC("yuvs"), "YUYV"},
                            Codec{SPA_VIDEO_FORMAT_UYVY, Packing::UYVY, fourCC("2vuy"), "UYVY"},
                            Codec{SPA_VIDEO_FORMAT_NV12, Packing::NV12, fourCC("420v"), "NV12"},
                            Codec{SPA_VIDEO_FORMAT_NV21, Packing::NV21, fourCC("NV21"), "NV21"},
                            Codec{SPA_VIDEO_FORMAT_I420, Packing::I420, fourCC("y420"), "I420"},
                            Codec{SPA_VIDEO_FORMAT_YV12, Packing::YV12, fourCC("YV12"), "YV12"},
                            Codec{SPA_VIDEO_FORMAT_GRAY8, Packing::gray, 40, "Gray"},
                            Codec{SPA_VIDEO_FORMAT_BGRx, Packing::BGRx, fourCC("BGRA"), "BGRx"},
                            Codec{SPA_VIDEO_FORMAT_BGRA, Packing::BGRx, fourCC("BGRA"), "BGRA"},
                            Codec{SPA_VIDEO_FORMAT_RGBx, Packing::RGBx, fourCC("RGBA"), "RGBx"},
                            Codec{SPA_VIDEO_FORMAT_RGBA, Packing::RGBx, fourCC("RGBA"), "RGBA"},
                            Codec{SPA_VIDEO_FORMAT_xRGB, Packing::xRGB, 32, "xRGB"},
                            Codec{SPA_VIDEO_FORMAT_ARGB, Packing::xRGB, 32, "ARGB"},
                            Codec{SPA_VIDEO_FORMAT_xBGR, Packing::xBGR, fourCC("ABGR"), "xBGR"},
                            Codec{SPA_VIDEO_FORMAT_ABGR, Packing::xBGR, fourCC("ABGR"), "ABGR"},
                            Codec{SPA_VIDEO_FORMAT_RGB, Packing::RGB, 24, "RGB"},
                            Codec{SPA_VIDEO_FORMAT_BGR, Packing::BGR, fourCC("24BG"), "BGR"},
                            Codec{SPA_VIDEO_FORMAT_ENCODED, Packing::JPEG, fourCC("dmb1"), "Motion JPEG"}};

const Codec* codecOf(std::uint32_t code) {
  const auto found =
      std::find_if(Codecs.begin(), Codecs.end(), [code](const Codec& codec) { return codec.code == code; });
  return found == Codecs.end() ? nullptr : &*found;
}

// A source that takes any rate or size says so with numbers of its own. These bounds are a camera's.
constexpr spa_fraction SlowestRate{1, 1};
constexpr spa_fraction UsualFastestRate{60, 1};
constexpr double FastestRate = 1000;
constexpr std::uint32_t LargestSide = 16384;
constexpr std::array<spa_rectangle, 8> UsualSizes{
    {{3840, 2160}, {2560, 1440}, {1920, 1080}, {1280, 720}, {800, 600}, {640, 480}, {640, 360}, {320, 240}}};

bool isRate(spa_fraction rate) {
  constexpr std::uint32_t most = std::numeric_limits<std::int32_t>::max();
  return rate.num > 0 && rate.denom > 0 && rate.num <= most && rate.denom <= most;
}

double perSecond(spa_fraction rate) {
  return static_cast<double>(rate.num) / rate.denom;
}

CMTime durationOf(spa_fraction rate) {
  return CMTimeMake(rate.denom, static_cast<std::int32_t>(rate.num));
}

FrameRateRange rangeOf(spa_fraction slow, spa_fraction fast) {
  return {perSecond(slow), perSecond(fast), durationOf(fast), durationOf(slow)};
}

/// Nothing where the offer states no rate.
std::vector<FrameRateRange> frameRates(const Choice<spa_fraction>& offered) {
  std::vector<FrameRateRange> ranges;
  if (offered.isRange) {
    const spa_fraction slow = isRate(offered.lowest()) ? offered.lowest() : SlowestRate;
    const bool isBounded = isRate(offered.highest()) && perSecond(offered.highest()) <= FastestRate;
    const spa_fraction fast = isBounded ? offered.highest() : UsualFastestRate;
    if (perSecond(slow) <= perSecond(fast)) ranges.push_back(rangeOf(slow, fast));
    return ranges;
  }
  for (const spa_fraction rate : offered.values) {
    if (isRate(rate) && perSecond(rate) <= FastestRate) ranges.push_back(rangeOf(rate, rate));
  }
  return ranges;
}

bool isSize(spa_rectangle size) {
  return size.width > 0 && size.height > 0 && size.width <= LargestSide && size.height <= LargestSide;
}

std::vector<spa_rectangle> sizes(const Choice<spa_rectangle>& offered) {
  std::vector<spa_rectangle> found;
  const auto add = [&found](spa_rectangle size) {
    const auto isSame = [size](spa_rectangle other) {
      return other.width == size.width && other.height == size.height;
    };
    if (isSize(size) && std::none_of(found.begin(), found.end(), isSame)) found.push_back(size);
  };
  if (!offered.isRange) {
    for (const spa_rectangle size : offered.values) add(size);
    return found;
  }
  const auto isAmong = [](std::uint32_t side, std::uint32_t lowest, std::uint32_t highest, std::uint32_t step) {
    return side >= lowest && side <= highest && (step == 0 || (side - lowest) % step == 0);
  };
  const spa_rectangle low = offered.lowest(), high = offered.highest();
  const spa_rectangle step = offered.hasStep() ? offered.step() : spa_rectangle{0, 0};
  add(offered.preferred());
  for (const spa_rectangle size : UsualSizes) {
    if (isAmong(size.width, low.width, high.width, step.width) &&
        isAmong(size.height, low.height, high.height, step.height)) {
      add(size);
    }
  }
  add(high);  // where it is no camera's limit, it is no size either
  return found;
}

const char* nameOfSubtype(std::uint32_t subtype) {
  switch (subtype) {
    case SPA_MEDIA_SUBTYPE_h264:
      return "H.264";
    case SPA_MEDIA_SUBTYPE_vp8:
      return "VP8";
    case SPA_MEDIA_SUBTYPE_vp9:
      return "VP9";
    case SPA_MEDIA_SUBTYPE_bayer:
      return "raw Bayer pictures";
    case SPA_MEDIA_SUBTYPE_dv:
      return "DV";
    case SPA_MEDIA_SUBTYPE_mpegts:
      return "MPEG transport streams";
    default:
      return "codecs that are not known here";
  }
}

class Reader {
 public:
  void read(const spa_pod* pod) {
    std::uint32_t media = 0, subtype = 0;
    if (spa_format_parse(pod, &media, &subtype) < 0 || media != SPA_MEDIA_TYPE_video) return;
    if (subtype == SPA_MEDIA_SUBTYPE_mjpg) {
      add(pod, SPA_VIDEO_FORMAT_ENCODED);
    } else if (subtype == SPA_MEDIA_SUBTYPE_raw) {
      for (const std::uint32_t code : choiceOf<std::uint32_t>(pod, SPA_FORMAT_VIDEO_format, SPA_TYPE_Id).values) {
        add(pod, code);
      }
    } else {
      addUnreadable(nameOfSubtype(subtype));
    }
  }

  CameraOffer take() {
    for (CameraFormat& line : _offer.formats) finishRates(line);
    std::stable_sort(_offer.formats.begin(), _offer.formats.end(),
                     [](const CameraFormat& a, const CameraFormat& b) { return rank(a) < rank(b); });
    return std::move(_offer);
  }

 private:
  void add(const spa_pod* pod, std::uint32_t code) {
    const Codec* codec = codecOf(code);
    if (!codec) {
      const char* name = spa_debug_type_find_short_name(spa_type_video_format, code);
      return addUnreadable(name ? name : "packings that are not known here");
    }
    const auto rates = frameRates(choiceOf<spa_fraction>(pod, SPA_FORMAT_VIDEO_framerate, SPA_TYPE_Fraction));
    for (const spa_rectangle size : sizes(choiceOf<spa_rectangle>(pod, SPA_FORMAT_VIDEO_size, SPA_TYPE_Rectangle))) {
      VideoFormat& format = lineFor(*codec, size).format;
      format.frameRates.insert(format.frameRates.end(), rates.begin(), rates.end());
    }
  }

  /// A packing at a size has one line, however often it is offered: its title names it.
  CameraFormat& lineFor(const Codec& codec, spa_rectangle size) {
    const auto width = static_cast<std::int32_t>(size.width), height = static_cast<std::int32_t>(size.height);
    for (CameraFormat& line : _offer.formats) {
      if (line.code == codec.code && line.format.width == width && line.format.height == height) return line;
    }
    CameraFormat line;
    line.code = codec.code;
    line.format.mediaSubType = codec.subType;
    line.format.width = width;
    line.format.height = height;
    line.format.name = codec.name;
    _offer.formats.push_back(std::move(line));
    return _offer.formats.back();
  }

  void addUnreadable(std::string name) {
    auto& names = _offer.unreadable;
    if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(std::move(name));
  }

  static void finishRates(CameraFormat& line) {
    auto& rates = line.format.frameRates;
    line.statesRates = !rates.empty();
    if (rates.empty()) rates.push_back(rangeOf(SlowestRate, UsualFastestRate));
    std::stable_sort(rates.begin(), rates.end(), [](const FrameRateRange& a, const FrameRateRange& b) {
      return std::tie(a.maxFrameRate, a.minFrameRate) < std::tie(b.maxFrameRate, b.minFrameRate);
    });
    rates.erase(std::unique(rates.begin(), rates.end()), rates.end());
  }

  /// Rates that differ by less than one frame in a second count as the same.
  static std::tuple<std::int64_t, std::int32_t, std::int64_t, std::ptrdiff_t> rank(const CameraFormat& line) {
    const std::int64_t pixels = std::int64_t{line.format.width} * line.format.height;
    const std::int64_t fastest = line.statesRates ? std::llround(line.format.frameRates.back().maxFrameRate) : 0;
    return {-pixels, -line.format.width, -fastest, codecOf(line.code) - Codecs.data()};
  }

  CameraOffer _offer;
};

const spa_pod* build(spa_pod_builder& builder, std::span<const std::uint32_t> codes, const VideoFormat* size,
                     CMTime frameDuration) {
  spa_pod_frame object, choice;
  const bool isJPEG = codes.front() == SPA_VIDEO_FORMAT_ENCODED;
  spa_pod_builder_push_object(&builder, &object, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
  spa_pod_builder_add(&builder, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype,
                      SPA_POD_Id(isJPEG ? SPA_MEDIA_SUBTYPE_mjpg : SPA_MEDIA_SUBTYPE_raw), 0);
  if (!isJPEG) {
    spa_pod_builder_prop(&builder, SPA_FORMAT_VIDEO_format, 0);
    spa_pod_builder_push_choice(&builder, &choice, codes.size() > 1 ? SPA_CHOICE_Enum : SPA_CHOICE_None, 0);
    if (codes.size() > 1) spa_pod_builder_id(&builder, codes.front());
    for (const std::uint32_t code : codes) spa_pod_builder_id(&builder, code);
    spa_pod_builder_pop(&builder, &choice);
  }
  if (size) {
    const spa_rectangle pixels{static_cast<std::uint32_t>(size->width), static_cast<std::uint32_t>(size->height)};
    spa_pod_builder_add(&builder, SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&pixels), 0);
  }
  if (CMTIME_IS_NUMERIC(frameDuration) && frameDuration.value > 0) {
    const auto divisor = std::gcd<std::int64_t, std::int64_t>(frameDuration.value, frameDuration.timescale);
    const spa_fraction rate{static_cast<std::uint32_t>(frameDuration.timescale / divisor),
                            static_cast<std::uint32_t>(frameDuration.value / divisor)};
    spa_pod_builder_add(&builder, SPA_FORMAT_VIDEO_framerate, SPA_POD_Fraction(&rate), 0);
  }
  return static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &object));
}

/// One of PipeWire's enumerations in a format that is settled; 0, which stands for unknown, where it has none.
std::uint32_t settled(const spa_pod* format, std::uint32_t key) {
  const auto value = choiceOf<std::uint32_t>(format, key, SPA_TYPE_Id);
  return value.isEmpty() ? 0 : value.preferred();
}

template <typename Meaning>
struct Term {
  std::uint32_t value;
  Meaning meaning;
};

template <typename Meaning, std::size_t Count>
std::optional<Meaning> meaningOf(std::uint32_t value, const Term<Meaning> (&terms)[Count]) {
  for (const auto& term : terms) {
    if (term.value == value) return term.meaning;
  }
  return std::nullopt;
}

std::optional<VideoColor> colorOf(const spa_pod* format) {
  using Matrix = VideoColor::Matrix;
  using Primaries = VideoColor::Primaries;
  using Transfer = VideoColor::Transfer;
  using Range = VideoColor::Range;
  constexpr Term<Matrix> matrices[] = {{SPA_VIDEO_COLOR_MATRIX_BT601, Matrix::ITU_R_601_4},
                                       {SPA_VIDEO_COLOR_MATRIX_BT709, Matrix::ITU_R_709_2},
                                       {SPA_VIDEO_COLOR_MATRIX_SMPTE240M, Matrix::SMPTE_240M_1995},
                                       {SPA_VIDEO_COLOR_MATRIX_BT2020, Matrix::ITU_R_2020}};
  constexpr Term<Primaries> primaries[] = {{SPA_VIDEO_COLOR_PRIMARIES_BT709, Primaries::ITU_R_709_2},
                                           {SPA_VIDEO_COLOR_PRIMARIES_BT470BG, Primaries::EBU_3213},
                                           {SPA_VIDEO_COLOR_PRIMARIES_SMPTE170M, Primaries::SMPTE_C},
                                           {SPA_VIDEO_COLOR_PRIMARIES_SMPTE240M, Primaries::SMPTE_C},
                                           {SPA_VIDEO_COLOR_PRIMARIES_BT2020, Primaries::ITU_R_2020}};
  constexpr Term<Transfer> transfers[] = {{SPA_VIDEO_TRANSFER_BT709, Transfer::ITU_R_709_2},
                                          {SPA_VIDEO_TRANSFER_SMPTE240M, Transfer::SMPTE_240M_1995},
                                          {SPA_VIDEO_TRANSFER_SRGB, Transfer::sRGB},
                                          {SPA_VIDEO_TRANSFER_BT2020_12, Transfer::ITU_R_2020}};
  constexpr Term<Range> ranges[] = {{SPA_VIDEO_COLOR_RANGE_0_255, Range::full},
                                    {SPA_VIDEO_COLOR_RANGE_16_235, Range::video}};
  VideoColor color;
  color.matrix = meaningOf(settled(format, SPA_FORMAT_VIDEO_colorMatrix), matrices);
  color.primaries = meaningOf(settled(format, SPA_FORMAT_VIDEO_colorPrimaries), primaries);
  color.transfer = meaningOf(settled(format, SPA_FORMAT_VIDEO_transferFunction), transfers);
  color.range = meaningOf(settled(format, SPA_FORMAT_VIDEO_colorRange), ranges);
  if (!color.matrix && !color.primaries && !color.transfer && !color.range) return std::nullopt;
  return color;
}

}  // namespace

CameraOffer readCameraFormats(std::span<const spa_pod* const> offered) {
  Reader reader;
  for (const spa_pod* pod : offered) reader.read(pod);
  return reader.take();
}

std::size_t automaticFormat(std::span<const CameraFormat> formats) {
  constexpr std::int64_t mostPixels = std::int64_t{1920} * 1080;
  const auto isAllowed = [](const CameraFormat& line) {
    return std::int64_t{line.format.width} * line.format.height <= mostPixels;
  };
  const auto found = std::find_if(formats.begin(), formats.end(), isAllowed);
  return found == formats.end() ? 0 : static_cast<std::size_t>(found - formats.begin());
}

CMTime heldWithin(const VideoFormat& format, CMTime duration) {
  CMTime nearest = kCMTimeInvalid;
  for (const FrameRateRange& range : format.frameRates) {
    const bool isAsked = CMTIME_IS_NUMERIC(duration) && duration.value > 0;
    CMTime held = isAsked ? duration : range.minFrameDuration;
    if (CMTimeCompare(held, range.minFrameDuration) < 0) held = range.minFrameDuration;
    if (CMTimeCompare(held, range.maxFrameDuration) > 0) held = range.maxFrameDuration;
    const auto distance = [&](CMTime time) {
      return isAsked ? std::abs(CMTimeGetSeconds(time) - CMTimeGetSeconds(duration)) : CMTimeGetSeconds(time);
    };
    if (!CMTIME_IS_NUMERIC(nearest) || distance(held) < distance(nearest)) nearest = held;
  }
  return nearest;
}

std::vector<const spa_pod*> requestFor(const CameraFormat& format, CMTime frameDuration, spa_pod_builder& builder) {
  const std::array own{format.code};
  constexpr std::array encoded{static_cast<std::uint32_t>(SPA_VIDEO_FORMAT_ENCODED)};
  std::vector<std::uint32_t> raw;
  for (const Codec& codec : Codecs) {
    if (codec.code != SPA_VIDEO_FORMAT_ENCODED) raw.push_back(codec.code);
  }
  std::vector<const spa_pod*> request;
  if (format.statesRates) request.push_back(build(builder, own, &format.format, frameDuration));
  request.push_back(build(builder, own, &format.format, kCMTimeInvalid));
  request.push_back(build(builder, raw, nullptr, kCMTimeInvalid));
  request.push_back(build(builder, encoded, nullptr, kCMTimeInvalid));
  return request;
}

NegotiatedPicture readNegotiated(const spa_pod* format) {
  NegotiatedPicture negotiated;
  std::uint32_t media = 0, subtype = 0;
  if (spa_format_parse(format, &media, &subtype) < 0 || media != SPA_MEDIA_TYPE_video) return negotiated;
  const auto size = choiceOf<spa_rectangle>(format, SPA_FORMAT_VIDEO_size, SPA_TYPE_Rectangle);
  if (size.isEmpty() || !isSize(size.preferred())) return negotiated;
  negotiated.width = static_cast<std::int32_t>(size.preferred().width);
  negotiated.height = static_cast<std::int32_t>(size.preferred().height);
  const auto rate = choiceOf<spa_fraction>(format, SPA_FORMAT_VIDEO_framerate, SPA_TYPE_Fraction);
  if (!rate.isEmpty() && isRate(rate.preferred())) negotiated.frameDuration = durationOf(rate.preferred());
  if (subtype == SPA_MEDIA_SUBTYPE_mjpg) {
    negotiated.packing = Packing::JPEG;
  } else if (subtype == SPA_MEDIA_SUBTYPE_raw) {
    const Codec* codec = codecOf(settled(format, SPA_FORMAT_VIDEO_format));
    if (codec) negotiated.packing = codec->packing;
    negotiated.color = colorOf(format);
  }
  return negotiated;
}

}  // namespace hardware::pipewire
