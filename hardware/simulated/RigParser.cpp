#include "RigParser.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "DeviceMedia.h"
#include "MediaFile.h"
#include "RigFormats.h"
#include "RigValues.h"

namespace hardware::simulated {
namespace {

constexpr std::uint64_t LargestRigFile = 1 << 20;

struct Entry {
  int line;
  std::string_view key;
  std::string_view value;
};

struct Section {
  int line;
  std::string_view name;
  std::vector<Entry> entries;
};

// Thrown within this file and caught in parseRig: an error ends the reading wherever it is found.
struct ParseFailure {
  int line;
  std::string reason;
};

[[noreturn]] void fail(int line, std::string reason) {
  throw ParseFailure{line, std::move(reason)};
}

template <typename T>
T require(Result<T> result, int line) {
  if (!result) fail(line, result.reason());
  return std::move(*result);
}

std::string inQuotes(std::string_view text) {
  return "'" + std::string(text) + "'";
}

std::vector<Section> readSections(std::string_view text) {
  constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
  if (text.starts_with(byteOrderMark)) text.remove_prefix(byteOrderMark.size());

  std::vector<Section> sections;
  for (int number = 1; !text.empty(); ++number) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = trimmed(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));

    if (const auto failure = textFailure(line)) fail(number, failure->reason);
    if (line.empty() || line.front() == '#') continue;
    if (line.front() == '[') {
      if (line.back() != ']') fail(number, "the section's closing bracket is missing");
      sections.push_back({number, trimmed(line.substr(1, line.size() - 2)), {}});
      continue;
    }
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos) fail(number, "this is neither a [section] nor a key = value line");
    if (sections.empty()) fail(number, "a line before the first section");
    const Entry entry{number, trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1))};
    if (entry.key.empty()) fail(number, "there is no key before the equals sign");
    if (entry.value.empty()) fail(number, inQuotes(entry.key) + " has no value");
    sections.back().entries.push_back(entry);
  }
  return sections;
}

// A device under construction, with the lines that later checks refer to.
struct DeviceDraft {
  RigDevice device;
  int line = 0;
  std::map<std::string_view, int> lines;  // of the keys given, the last one of each
  bool hasActiveVideoFormat = false;
  bool hasActiveAudioFormat = false;

  int lineOf(std::string_view key) const {
    const auto found = lines.find(key);
    return found == lines.end() ? line : found->second;
  }
  bool has(std::string_view key) const { return lines.contains(key); }
};

using DeviceReader = void (*)(DeviceDraft& draft, const Entry& entry, const std::string& folder);

struct DeviceKey {
  std::string_view name;
  bool mayRepeat;
  DeviceReader read;
};

void readMedia(DeviceDraft& draft, const Entry& entry, const std::string&) {
  for (const std::string_view medium : require(parseClauses(entry.value), entry.line)) {
    DeviceDescription& described = draft.device.description;
    if (medium == "video") {
      described.hasVideo = true;
    } else if (medium == "audio") {
      described.hasAudio = true;
    } else if (medium == "muxed") {
      described.isMuxed = true;
    } else {
      fail(entry.line, inQuotes(medium) + " is none of video, audio and muxed");
    }
  }
}

void readLinks(DeviceDraft& draft, const Entry& entry, const std::string&) {
  for (const std::string_view link : require(parseClauses(entry.value), entry.line)) {
    draft.device.description.linkedDevices.emplace_back(link);
  }
}

void readVideoFormat(DeviceDraft& draft, const Entry& entry, const std::string&) {
  auto line = require(parseVideoFormat(entry.value), entry.line);
  DeviceDescription& described = draft.device.description;
  if (line.isActive) {
    if (std::exchange(draft.hasActiveVideoFormat, true)) fail(entry.line, "another format is active already");
    described.initialVideoFormat = described.videoFormats.size();
  }
  described.videoFormats.push_back(std::move(line.format));
  draft.device.pictures.push_back(line.picture);
}

void readAudioFormat(DeviceDraft& draft, const Entry& entry, const std::string&) {
  auto line = require(parseAudioFormat(entry.value), entry.line);
  DeviceDescription& described = draft.device.description;
  if (line.isActive) {
    if (std::exchange(draft.hasActiveAudioFormat, true)) fail(entry.line, "another format is active already");
    described.initialAudioFormat = described.audioFormats.size();
  }
  described.audioFormats.push_back(std::move(line.format));
}

void readPacing(DeviceDraft& draft, const Entry& entry, const std::string&) {
  if (entry.value == "real time") {
    draft.device.pacing = Pacing::realTime;
  } else if (entry.value == "consumer") {
    draft.device.pacing = Pacing::consumer;
  } else {
    fail(entry.line, inQuotes(entry.value) + " is neither real time nor consumer");
  }
}

constexpr DeviceKey DeviceKeys[] = {
    {"id", false,
     [](DeviceDraft& draft, const Entry& entry, const std::string&) {
       draft.device.description.uniqueID = entry.value;
     }},
    {"name", false,
     [](DeviceDraft& draft, const Entry& entry, const std::string&) { draft.device.description.name = entry.value; }},
    {"media", false, readMedia},
    {"links", false, readLinks},
    {"screen capture", false,
     [](DeviceDraft& draft, const Entry& entry, const std::string&) {
       draft.device.description.isScreenCapture = require(parseYesNo(entry.value), entry.line);
     }},
    {"core media io", false,
     [](DeviceDraft& draft, const Entry& entry, const std::string&) {
       draft.device.description.isKnownToCoreMediaIO = require(parseYesNo(entry.value), entry.line);
     }},
    {"video digitizer", false,
     [](DeviceDraft& draft, const Entry& entry, const std::string&) {
       draft.device.description.hasVideoDigitizer = require(parseYesNo(entry.value), entry.line);
     }},
    {"plugged in", false,
     [](DeviceDraft& draft, const Entry& entry, const std::string&) {
       draft.device.isPluggedAtFirst = require(parseYesNo(entry.value), entry.line);
     }},
    {"video format", true, readVideoFormat},
    {"audio format", true, readAudioFormat},
    {"pixel aspect", false,
     [](DeviceDraft& draft, const Entry& entry, const std::string&) {
       draft.device.description.pixelAspectRatio = require(parseAspect(entry.value), entry.line);
     }},
    {"video timescale", false,
     [](DeviceDraft& draft, const Entry& entry, const std::string&) {
       draft.device.videoTimescale = require(parseTimescale(entry.value), entry.line);
     }},
    {"audio timescale", false,
     [](DeviceDraft& draft, const Entry& entry, const std::string&) {
       draft.device.audioTimescale = require(parseTimescale(entry.value), entry.line);
     }},
    {"audio buffer", false,
     [](DeviceDraft& draft, const Entry& entry, const std::string&) {
       draft.device.audioBufferLength =
           static_cast<std::uint32_t>(require(parseCount(entry.value, 1, 65536), entry.line));
     }},
    {"picture", false,
     [](DeviceDraft& draft, const Entry& entry, const std::string& folder) {
       draft.device.picture = require(parsePictureSource(entry.value, folder), entry.line);
     }},
    {"sound", false,
     [](DeviceDraft& draft, const Entry& entry, const std::string& folder) {
       draft.device.sound = require(parseSoundSource(entry.value, folder), entry.line);
     }},
    {"pacing", false, readPacing},
    {"clock drift", false,
     [](DeviceDraft& draft, const Entry& entry, const std::string&) {
       draft.device.driftInPartsPerMillion = require(parseDecimal(entry.value, "ppm", -100000, 100000), entry.line);
     }},
    {"clock jitter", false,
     [](DeviceDraft& draft, const Entry& entry, const std::string&) {
       draft.device.jitterInSeconds = require(parseDecimal(entry.value, "ms", 0, 1000), entry.line) / 1000;
     }},
    {"open failure", false,
     [](DeviceDraft& draft, const Entry& entry, const std::string&) { draft.device.openFailure = entry.value; }},
    {"configuration failure", false,
     [](DeviceDraft& draft, const Entry& entry, const std::string&) {
       draft.device.configurationFailure = entry.value;
     }},
    {"running failure", true,
     [](DeviceDraft& draft, const Entry& entry, const std::string&) {
       draft.device.runningFailures.push_back(require(parseRunningFailure(entry.value), entry.line));
     }},
    {"video fault", true,
     [](DeviceDraft& draft, const Entry& entry, const std::string&) {
       draft.device.videoFaults.push_back(require(parseFault(entry.value, FaultyMedium::pictures), entry.line));
     }},
    {"audio fault", true,
     [](DeviceDraft& draft, const Entry& entry, const std::string&) {
       draft.device.audioFaults.push_back(require(parseFault(entry.value, FaultyMedium::sound), entry.line));
     }},
    {"firewire unit", false,
     [](DeviceDraft& draft, const Entry& entry, const std::string&) {
       draft.device.fireWireUnit = require(parseFireWireUnit(entry.value), entry.line);
     }},
};

// Notes where keys stand, and that those which may not be repeated are not.
void note(std::map<std::string_view, int>& lines, const Entry& entry, bool mayRepeat) {
  const bool isNew = lines.insert_or_assign(entry.key, entry.line).second;
  if (!isNew && !mayRepeat) fail(entry.line, inQuotes(entry.key) + " is given twice");
}

void checkMediaKeys(const DeviceDraft& draft) {
  const DeviceDescription& described = draft.device.description;
  const bool hasPictures = described.hasVideo || described.isMuxed;
  const bool hasSound = described.hasAudio || described.isMuxed;
  for (const std::string_view key : {"video format", "picture", "video timescale", "video fault", "pixel aspect",
                                     "core media io", "video digitizer"}) {
    if (!hasPictures && draft.has(key)) fail(draft.lineOf(key), "the device has no pictures");
  }
  for (const std::string_view key : {"audio format", "sound", "audio timescale", "audio fault", "audio buffer"}) {
    if (!hasSound && draft.has(key)) fail(draft.lineOf(key), "the device has no sound");
  }
}

// A camcorder's own sound, where the rig says nothing of it.
AudioFormat camcorderSound() {
  return parseAudioFormat("48000 Hz, 16-bit integer, stereo")->format;
}

// Says which of a device's two clips does not play.
void adoptClips(DeviceDraft& draft) {
  RigDevice& device = draft.device;
  RigDevice picturesOnly = device;
  picturesOnly.sound = ToneSource{};
  if (auto reason = mediaFailure(picturesOnly)) fail(draft.lineOf("picture"), *reason);
  if (auto reason = adoptMediaFormats(device)) fail(draft.lineOf("sound"), *reason);
}

void finish(DeviceDraft& draft) {
  DeviceDescription& described = draft.device.description;
  if (!draft.has("id")) fail(draft.line, "the device has no id");
  if (!draft.has("name")) fail(draft.line, "the device has no name");
  if (!draft.has("media")) fail(draft.line, "the device has no media");
  checkMediaKeys(draft);
  if (draft.has("running failure") && draft.device.pacing == Pacing::consumer) {
    fail(draft.lineOf("running failure"), "a device that is paced by its consumer does not fail at a time");
  }
  adoptClips(draft);
  if ((described.hasVideo || described.isMuxed) && described.videoFormats.empty()) {
    fail(draft.line, "the device has no video format");
  }
  if (described.isMuxed && described.audioFormats.empty()) described.audioFormats.push_back(camcorderSound());
  if (described.hasAudio && described.audioFormats.empty()) fail(draft.line, "the device has no audio format");
}

DeviceDraft readDevice(const Section& section, const std::string& folder) {
  DeviceDraft draft;
  draft.line = section.line;
  for (const Entry& entry : section.entries) {
    const auto* key = std::find_if(std::begin(DeviceKeys), std::end(DeviceKeys),
                                   [&](const DeviceKey& candidate) { return candidate.name == entry.key; });
    if (key == std::end(DeviceKeys)) fail(entry.line, "a device has no " + inQuotes(entry.key));
    note(draft.lines, entry, key->mayRepeat);
    key->read(draft, entry, folder);
  }
  finish(draft);
  return draft;
}

void readBus(const Section& section, FireWireBus& bus) {
  std::map<std::string_view, int> lines;
  for (const Entry& entry : section.entries) {
    note(lines, entry, entry.key == "unit");
    if (entry.key == "open status") {
      constexpr double largest = std::numeric_limits<std::int32_t>::max();
      bus.openStatus = static_cast<int>(require(parseDecimal(entry.value, "", -largest, largest), entry.line));
    } else if (entry.key == "list") {
      if (entry.value != "absent") fail(entry.line, "the only thing to say of the list is that it is absent");
      bus.units.reset();
    } else if (entry.key == "unit") {
      const FireWireUnit unit = require(parseFireWireUnit(entry.value), entry.line);
      if (!bus.units) fail(entry.line, "a bus without a list has no units");
      bus.units->push_back(unit);
    } else {
      fail(entry.line, "the bus has no " + inQuotes(entry.key));
    }
  }
}

struct ScriptLine {
  int line;
  ScriptedEvent event;
};

// "at 5 s = unplug ID".
ScriptLine readScriptLine(const Entry& entry) {
  constexpr double longest = 1e6;
  ScriptLine result{entry.line, {}};
  std::string_view when = entry.key;
  if (!takeWord(when, "at")) fail(entry.line, "a line of the script is like: at 5 s = unplug ID");
  result.event.seconds = require(parseDecimal(when, "s", 0, longest), entry.line);
  std::string_view what = entry.value;
  if (takeWord(what, "plug")) {
    result.event.event = DeviceEvent::attached;
  } else if (takeWord(what, "unplug")) {
    result.event.event = DeviceEvent::detached;
  } else {
    fail(entry.line, inQuotes(entry.value) + " is neither plug ID nor unplug ID");
  }
  result.event.uniqueID = what;
  return result;
}

void checkIDs(const std::vector<DeviceDraft>& drafts, const std::vector<ScriptLine>& script) {
  std::set<std::string_view> known;
  for (const DeviceDraft& draft : drafts) {
    const std::string& id = draft.device.description.uniqueID;
    if (!known.insert(id).second) fail(draft.lineOf("id"), "another device has the id " + inQuotes(id));
  }
  for (const DeviceDraft& draft : drafts) {
    for (const std::string& link : draft.device.description.linkedDevices) {
      if (link == draft.device.description.uniqueID) fail(draft.lineOf("links"), "a device is not linked to itself");
      if (!known.contains(link)) fail(draft.lineOf("links"), "there is no device " + inQuotes(link));
    }
  }
  for (const ScriptLine& line : script) {
    if (!known.contains(line.event.uniqueID)) fail(line.line, "there is no device " + inQuotes(line.event.uniqueID));
  }
}

// A link said on one side holds on both.
void makeLinksMutual(std::vector<RigDevice>& devices) {
  std::map<std::string_view, RigDevice*> known;
  for (RigDevice& device : devices) known.emplace(device.description.uniqueID, &device);
  for (const RigDevice& device : devices) {
    for (const std::string& link : device.description.linkedDevices) {
      auto& backLinks = known.at(link)->description.linkedDevices;
      if (std::find(backLinks.begin(), backLinks.end(), device.description.uniqueID) == backLinks.end()) {
        backLinks.push_back(device.description.uniqueID);
      }
    }
  }
}

Rig readRig(std::string_view text, const std::string& folder) {
  Rig rig;
  std::vector<DeviceDraft> drafts;
  std::vector<ScriptLine> script;
  bool hasBus = false;
  for (const Section& section : readSections(text)) {
    if (section.name == "device") {
      drafts.push_back(readDevice(section, folder));
    } else if (section.name == "firewire bus") {
      if (std::exchange(hasBus, true)) fail(section.line, "there is one bus only");
      readBus(section, rig.bus);
    } else if (section.name == "script") {
      for (const Entry& entry : section.entries) script.push_back(readScriptLine(entry));
    } else {
      fail(section.line, "unknown section " + inQuotes(section.name));
    }
  }
  checkIDs(drafts, script);
  for (DeviceDraft& draft : drafts) rig.devices.push_back(std::move(draft.device));
  for (ScriptLine& line : script) rig.script.push_back(std::move(line.event));
  makeLinksMutual(rig.devices);
  return rig;
}

}  // namespace

std::string RigError::message() const {
  return file + (line > 0 ? ":" + std::to_string(line) : "") + ": " + reason;
}

std::variant<Rig, RigError> parseRig(std::string_view text, const std::string& fileName) {
  try {
    return readRig(text, std::filesystem::path(fileName).parent_path().string());
  } catch (const ParseFailure& failure) {
    return RigError{fileName, failure.line, failure.reason};
  } catch (const std::exception& exception) {
    return RigError{fileName, 0, exception.what()};
  }
}

std::variant<Rig, RigError> loadRig(const std::string& path) {
  const auto file = MediaFile::open(path);
  if (!file) return RigError{path, 0, file.reason()};
  if (file->size() > LargestRigFile) return RigError{path, 0, "the file is too large for a rig"};
  std::string text(file->size(), '\0');
  text.resize(file->read(0, std::span(reinterpret_cast<std::uint8_t*>(text.data()), text.size())));
  return parseRig(text, path);
}

}  // namespace hardware::simulated
