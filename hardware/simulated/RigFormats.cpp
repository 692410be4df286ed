#include "RigFormats.h"

#include <cstdint>
#include <filesystem>
#include <limits>

#include "PCM.h"
#include "RigValues.h"

namespace hardware::simulated {
namespace {

constexpr double LongestTime = 1e6;  // seconds

Failure unknown(std::string_view clause) {
  return Failure{"unknown: '" + std::string(clause) + "'"};
}

Result<FourCharCode> parseCode(std::string_view text) {
  if (text.size() != 4) return Failure{"'" + std::string(text) + "' is not a code of four characters"};
  FourCharCode code = 0;
  for (const char character : text) code = code << 8 | static_cast<std::uint8_t>(character);
  return code;
}

// "1920x1080 2vuy".
std::optional<Failure> readSizeAndCode(std::string_view clause, VideoFormatLine& line) {
  const auto parts = words(clause);
  if (parts.size() != 2) return Failure{"a format begins with its size and its code, like 1920x1080 2vuy"};
  const auto size = parseSize(parts[0]);
  if (!size) return size.failure();
  const auto code = parseCode(unquoted(parts[1]));
  if (!code) return code.failure();
  line.format.width = size->width;
  line.format.height = size->height;
  line.format.mediaSubType = *code;
  return std::nullopt;
}

std::optional<Failure> readVideoClause(std::string_view clause, VideoFormatLine& line) {
  std::string_view rest = clause;
  if (takeWord(rest, "rates")) {
    for (const std::string_view word : words(rest)) {
      const auto range = parseFrameRateRange(word);
      if (!range) return range.failure();
      line.format.frameRates.push_back(*range);
    }
  } else if (takeWord(rest, "name")) {
    line.format.name = std::string(unquoted(rest));
  } else if (takeWord(rest, "presentation")) {
    const auto size = parseSize(rest);
    if (!size) return size.failure();
    line.format.presentationWidth = size->width;
    line.format.presentationHeight = size->height;
  } else if (takeWord(rest, "delivers")) {
    const auto size = parseSize(rest);
    if (!size) return size.failure();
    line.picture.width = size->width;
    line.picture.height = size->height;
  } else if (clause == "never delivers") {
    line.picture.neverDelivers = true;
  } else if (clause == "active") {
    line.isActive = true;
  } else {
    return unknown(clause);
  }
  return std::nullopt;
}

struct LayoutName {
  std::string_view name;
  AudioChannelLayoutTag tag;
};
constexpr LayoutName Layouts[] = {
    {"mono", kAudioChannelLayoutTag_Mono},
    {"stereo", kAudioChannelLayoutTag_Stereo},
    {"3.0", kAudioChannelLayoutTag_MPEG_3_0_A},
    {"4.0", kAudioChannelLayoutTag_MPEG_4_0_A},
    {"5.0", kAudioChannelLayoutTag_MPEG_5_0_A},
    {"5.1", kAudioChannelLayoutTag_MPEG_5_1_A},
    {"6.1", kAudioChannelLayoutTag_MPEG_6_1_A},
    {"7.1", kAudioChannelLayoutTag_MPEG_7_1_A},
    {"quadraphonic", kAudioChannelLayoutTag_Quadraphonic},
    {"unknown", kAudioChannelLayoutTag_Unknown},
};

// "16-bit integer", "8-bit unsigned", "32-bit float".
std::optional<Failure> readSampleType(std::string_view clause, PCMShape& shape) {
  const std::size_t dash = clause.find("-bit ");
  const auto bits = parseCount(clause.substr(0, dash), 8, 64);
  if (!bits) return bits.failure();
  const std::string_view type = trimmed(clause.substr(dash + 5));
  shape.bitsPerSample = static_cast<std::uint32_t>(*bits);
  shape.isFloat = type == "float";
  shape.isUnsigned = type == "unsigned";
  const bool isInteger = type == "integer" && (*bits == 8 || *bits == 16 || *bits == 24 || *bits == 32);
  const bool isFloat = shape.isFloat && (*bits == 32 || *bits == 64);
  const bool isUnsigned = shape.isUnsigned && *bits == 8;
  if (!isInteger && !isFloat && !isUnsigned) return Failure{"'" + std::string(clause) + "' is no type of samples"};
  return std::nullopt;
}

struct AudioClauses {
  PCMShape shape;
  std::optional<AudioChannelLayoutTag> layout;
  std::optional<std::string> name;
  bool isActive = false;
};

std::optional<Failure> readAudioClause(std::string_view clause, AudioClauses& clauses) {
  std::string_view rest = clause;
  if (clause.find("-bit ") != std::string_view::npos) return readSampleType(clause, clauses.shape);
  if (takeWord(rest, "name")) {
    clauses.name = std::string(unquoted(rest));
  } else if (takeWord(rest, "layout")) {
    for (const LayoutName& layout : Layouts) {
      if (layout.name == rest) clauses.layout = layout.tag;
    }
    if (!clauses.layout) return unknown(clause);
  } else if (clause == "planar") {
    clauses.shape.isPlanar = true;
  } else if (clause == "big endian") {
    clauses.shape.isBigEndian = true;
  } else if (clause == "non-mixable") {
    clauses.shape.isNonMixable = true;
  } else if (clause == "active") {
    clauses.isActive = true;
  } else if (clause == "mono") {
    clauses.shape.channels = 1;
  } else if (clause == "stereo") {
    clauses.shape.channels = 2;
  } else if (const auto parts = words(clause); parts.size() == 2 && parts[1] == "channels") {
    const auto channels = parseCount(parts[0], 1, MaximumChannels);
    if (!channels) return channels.failure();
    clauses.shape.channels = static_cast<std::uint32_t>(*channels);
  } else {
    return unknown(clause);
  }
  return std::nullopt;
}

AudioChannelLayoutTag usualLayout(std::uint32_t channels) {
  if (channels == 1) return kAudioChannelLayoutTag_Mono;
  if (channels == 2) return kAudioChannelLayoutTag_Stereo;
  return kAudioChannelLayoutTag_Unknown;
}

// What follows "media".
Result<MediaSource> parseMedia(std::string_view text, const std::string& folder) {
  if (text.empty()) return Failure{"the path of a clip is missing after media"};
  const auto clauses = parseClauses(text);
  if (!clauses) return clauses.failure();
  MediaSource media;
  for (std::size_t i = 1; i < clauses->size(); ++i) {
    if ((*clauses)[i] == "once") {
      media.isLooped = false;
    } else {
      return unknown((*clauses)[i]);
    }
  }
  const std::filesystem::path path(unquoted(clauses->front()));
  media.path = path.is_absolute() ? path.string() : (std::filesystem::path(folder) / path).string();
  return media;
}

std::optional<Failure> readFaultKind(std::string_view clause, FaultyMedium medium, Fault& fault) {
  std::string_view rest = clause;
  if (clause == (medium == FaultyMedium::pictures ? "lost frame" : "lost buffer")) {
    fault.kind = Fault::Kind::lost;
  } else if (clause == "no image" && medium == FaultyMedium::pictures) {
    fault.kind = Fault::Kind::noImage;
  } else if (clause == "undecodable" && medium == FaultyMedium::pictures) {
    fault.kind = Fault::Kind::undecodable;
  } else if (clause == "invalid time") {
    fault.kind = Fault::Kind::invalidTime;
  } else if (takeWord(rest, "timescale")) {
    const auto timescale = parseTimescale(rest);
    if (!timescale) return timescale.failure();
    fault.kind = Fault::Kind::timescale;
    fault.timescale = *timescale;
  } else {
    return unknown(clause);
  }
  return std::nullopt;
}

// "at frame 30", "at buffer 30", "at 2.5 s", "every 10".
std::optional<Failure> readFaultTrigger(std::string_view clause, FaultyMedium medium, Fault& fault) {
  constexpr std::uint64_t most = std::numeric_limits<std::uint32_t>::max();
  std::string_view rest = clause;
  if (takeWord(rest, "every")) {
    const auto count = parseCount(rest, 1, most);
    if (!count) return count.failure();
    fault.trigger = Fault::Trigger::everySamples;
    fault.samples = *count;
  } else if (!takeWord(rest, "at")) {
    return unknown(clause);
  } else if (takeWord(rest, medium == FaultyMedium::pictures ? "frame" : "buffer")) {
    const auto index = parseCount(rest, 0, most);
    if (!index) return index.failure();
    fault.trigger = Fault::Trigger::atSample;
    fault.samples = *index;
  } else {
    const auto seconds = parseDecimal(rest, "s", 0, LongestTime);
    if (!seconds) return seconds.failure();
    fault.trigger = Fault::Trigger::atTime;
    fault.seconds = *seconds;
  }
  return std::nullopt;
}

}  // namespace

Result<VideoFormatLine> parseVideoFormat(std::string_view text) {
  const auto clauses = parseClauses(text);
  if (!clauses) return clauses.failure();
  VideoFormatLine line;
  if (auto failure = readSizeAndCode(clauses->front(), line)) return *failure;
  for (std::size_t i = 1; i < clauses->size(); ++i) {
    if (auto failure = readVideoClause((*clauses)[i], line)) return *failure;
  }
  if (line.format.frameRates.empty()) return Failure{"the format has no rates"};
  if (line.format.width == 0 && line.picture.width == 0) {
    return Failure{"a format without a size needs to say what it delivers"};
  }
  return line;
}

Result<AudioFormatLine> parseAudioFormat(std::string_view text) {
  const auto clauses = parseClauses(text);
  if (!clauses) return clauses.failure();
  AudioClauses read;
  const auto rate = parseDecimal(clauses->front(), "Hz", MinimumSampleRate, MaximumSampleRate);
  if (!rate) return rate.failure();
  read.shape.sampleRate = *rate;
  for (std::size_t i = 1; i < clauses->size(); ++i) {
    if (auto failure = readAudioClause((*clauses)[i], read)) return *failure;
  }
  const AudioChannelLayoutTag layout = read.layout.value_or(usualLayout(read.shape.channels));
  if (layout != kAudioChannelLayoutTag_Unknown && (layout & 0xFFFF) != read.shape.channels) {
    return Failure{"the layout is not one of " + std::to_string(read.shape.channels) + " channels"};
  }
  return AudioFormatLine{{describePCM(read.shape), layout, read.name}, read.isActive};
}

Result<PictureSource> parsePictureSource(std::string_view text, const std::string& folder) {
  if (text == "test picture") return PictureSource(TestPictureSource{});
  if (!takeWord(text, "media")) return unknown(text);
  const auto media = parseMedia(text, folder);
  if (!media) return media.failure();
  return PictureSource(*media);
}

Result<SoundSource> parseSoundSource(std::string_view text, const std::string& folder) {
  if (takeWord(text, "media")) {
    const auto media = parseMedia(text, folder);
    if (!media) return media.failure();
    return SoundSource(*media);
  }
  if (!takeWord(text, "tone")) return unknown(text);
  const auto parts = words(text);
  if (parts.empty() || parts.size() > 2)
    return Failure{"a tone has a frequency, and a level if you like: tone 440 -20"};
  ToneSource tone;
  const auto frequency = parseDecimal(parts[0], "", 0, MaximumSampleRate / 2);
  if (!frequency) return frequency.failure();
  tone.frequency = *frequency;
  if (parts.size() == 2) {
    const auto level = parseDecimal(parts[1], "", -200, 0);
    if (!level) return level.failure();
    tone.levelInDecibels = *level;
  }
  return SoundSource(tone);
}

Result<Fault> parseFault(std::string_view text, FaultyMedium medium) {
  const auto clauses = parseClauses(text);
  if (!clauses) return clauses.failure();
  if (clauses->size() != 2) return Failure{"a fault says what and when, like lost frame, at frame 30"};
  Fault fault;
  if (auto failure = readFaultKind(clauses->front(), medium, fault)) return *failure;
  if (auto failure = readFaultTrigger(clauses->back(), medium, fault)) return *failure;
  return fault;
}

Result<RunningFailure> parseRunningFailure(std::string_view text) {
  const auto clauses = parseClauses(text);
  if (!clauses) return clauses.failure();
  if (clauses->size() == 3) {
    std::string_view from = (*clauses)[1], duration = (*clauses)[2];
    if (takeWord(from, "at") && takeWord(duration, "for")) {
      const auto start = parseDecimal(from, "s", 0, LongestTime);
      if (!start) return start.failure();
      const auto length = parseDecimal(duration, "s", 0, LongestTime);
      if (!length) return length.failure();
      return RunningFailure{std::string(unquoted(clauses->front())), *start, *length};
    }
  }
  return Failure{"a failure says why, when and how long, like The cable is loose., at 5 s, for 2 s"};
}

Result<FireWireUnit> parseFireWireUnit(std::string_view text) {
  const auto clauses = parseClauses(text);
  if (!clauses) return clauses.failure();
  const auto guid = parseGUID(clauses->front());
  if (!guid) return guid.failure();
  FireWireUnit unit{*guid, false, false};
  for (std::size_t i = 1; i < clauses->size(); ++i) {
    if ((*clauses)[i] == "dv") {
      unit.isDV = true;
    } else if ((*clauses)[i] == "mpeg") {
      unit.isMPEG = true;
    } else {
      return unknown((*clauses)[i]);
    }
  }
  return unit;
}

}  // namespace hardware::simulated
