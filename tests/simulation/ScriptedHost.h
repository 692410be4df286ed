#pragma once

// A host and its machine that do what they are told, a line of text for each step, and tell what comes of it.

#include <CoreFoundation/CFRef.h>
#include <CoreVideo/CVPixelBuffer.h>
#include <lumora/zRecord.h>
#include <lumora/zThread.h>
#include <lumora/zTrace.h>
#include <lumora/zXML.h>
#include <simulated/SimulatedProvider.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <regex>
#include <sstream>

#include "BRV_AVCapture.h"
#include "Require.h"
#include "brv.hpp"
#include "support/FakeHardware.h"
#include "support/MainLoop.h"
#include "support/SimulationScheduler.h"

namespace test {

inline std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));
inline std::string format(const char* pattern, ...) {
  char text[1'024];
  std::va_list arguments;
  va_start(arguments, pattern);
  std::vsnprintf(text, sizeof text, pattern, arguments);
  va_end(arguments);
  return text;
}

/// A record, one line for each record, indented by its depth.
inline std::string outline(const zRecord& record, int depth = 0) {
  std::string text(static_cast<std::size_t>(depth) * 2, ' ');
  text += record.Name();
  for (const zField& field : record.Fields()) {
    text += " " + field.name + "=";
    if (const auto* string = std::get_if<std::string>(&field.value)) text += "'" + *string + "'";
    if (const auto* number = std::get_if<std::uint16_t>(&field.value)) text += "u" + std::to_string(*number);
    if (const auto* number = std::get_if<std::int32_t>(&field.value)) text += "i" + std::to_string(*number);
  }
  for (unsigned i = 0; i < record.ChildCount(); ++i) text += "\n" + outline(*record.Child(i), depth + 1);
  return text;
}

/// A time as it is written here: 1001/30000, or "invalid".
inline CMTime timeOf(const std::string& text) {
  const std::size_t slash = text.find('/');
  return slash == text.npos ? kCMTimeInvalid : CMTimeMake(std::stoll(text), std::stoi(text.substr(slash + 1)));
}

inline std::vector<std::string> listed(const std::string& text) {
  std::vector<std::string> items;
  std::istringstream all(text);
  for (std::string item; std::getline(all >> std::ws, item, ',');) items.push_back(item);
  return items;
}

/// To be made with a scheduler in force. After "start" the rig's devices capture by themselves, and what arrives is
/// told in sum after each step; after "start by hand" they do what the steps say, and tell what is asked of them.
class ScriptedHost {
 public:
  /// A "run" is cut off after `longestRun` seconds.
  explicit ScriptedHost(hardware::simulated::Rig rig, double longestRun = 60)
      : _rig(std::move(rig)), _longestRun(longestRun) {
    zThread::SetSleepFunction(SimulationScheduler::sleepFor);
    zTrace::Default().SetSink([](const char* line) { self->tell("trace: " + std::string(line)); });
    self = this;
  }
  ~ScriptedHost() {
    BRV_UninitializeLibrary();
    BRV_RegisterLocalizeStringCallback(nullptr);
    hardware::installSystemProvider(nullptr);
    zTrace::Default().SetSink({});
    zThread::SetSleepFunction(nullptr);
    self = nullptr;
  }
  ScriptedHost(const ScriptedHost&) = delete;
  ScriptedHost& operator=(const ScriptedHost&) = delete;

  /// Makes a step; returns what came of it, in lines.
  std::string make(const std::string& step) {
    try {
      perform(step);
    } catch (const std::exception&) {
      tell("there is no such step");
    }
    endRepetition();
    return std::exchange(_written, {});
  }

 private:
  using Words = std::smatch;

  /// What a medium of a source brought in the step so far.
  struct Stream {
    std::int64_t count = 0, size = 0, first = 0, last = 0, step = 0;
    double loudest = 0;
  };

  void tell(const std::string& line) {
    if (line == _lastLine) {
      ++_repetitions;
      return;
    }
    endRepetition();
    _written += line + (line.ends_with('\n') ? "" : "\n");
    _lastLine = line;
  }
  void endRepetition() {
    if (_repetitions > 0) _written += "(and " + std::to_string(_repetitions) + " more)\n";
    _repetitions = 0;
    _lastLine.clear();
  }

  void perform(const std::string& step) {
    static const std::pair<std::regex, void (ScriptedHost::*)(const Words&)> steps[] = {
        {std::regex("start( by hand)?"), &ScriptedHost::start},
        {std::regex("end"), &ScriptedHost::end},
        {std::regex("log"), &ScriptedHost::log},
        {std::regex("translate to (.*)"), &ScriptedHost::translate},
        {std::regex("sources"), &ScriptedHost::sources},
        {std::regex("facts of (.*)"), &ScriptedHost::facts},
        {std::regex("(no )?(video|sound) of (.*)"), &ScriptedHost::receive},
        {std::regex("disconnect"), &ScriptedHost::disconnect},
        {std::regex("options of (.*): (.*)"), &ScriptedHost::options},
        {std::regex("settings of (.*)"), &ScriptedHost::settings},
        {std::regex("values of (.*)"), &ScriptedHost::values},
        {std::regex("set (.*?): (.*)"), &ScriptedHost::set},
        {std::regex("error (.*)"), &ScriptedHost::error},
        {std::regex("account of (.*)"), &ScriptedHost::account},
        {std::regex("unoffered"), &ScriptedHost::unoffered},
        {std::regex("run (.*)"), &ScriptedHost::run},
        {std::regex("keep( nothing)?"), &ScriptedHost::keep},
        {std::regex("(elsewhere )?((un)?plug .*)"), &ScriptedHost::plug},
        {std::regex("(\\S+) (takes|loses|hears|misses) (.*)"), &ScriptedHost::capture},
        {std::regex("(\\S+) (fails|cannot be opened|cannot be configured|cannot start): ?(.*)"),
         &ScriptedHost::trouble},
    };
    Words words;
    const auto found =
        std::ranges::find_if(steps, [&](const auto& each) { return std::regex_match(step, words, each.first); });
    if (found == std::end(steps)) throw std::invalid_argument(step);
    const auto begin = _scheduler.now();
    (this->*found->second)(words);
    const auto spent = static_cast<double>(_scheduler.now() - begin) / 1e9;
    if (!step.starts_with("run") && spent > 1e-3) tell("which takes " + format("%g s", spent));
    _scheduler.sleepUntil(_scheduler.now() + 1);  // what is due is done
    endRepetition();
    for (const auto& [what, stream] : std::exchange(_streams, {})) tellOf(what, stream);
    endRepetition();
  }

  // The machine

  void start(const Words& words) {
    if (!_provider && !_hands) install(words[1].matched);
    tell(BRV_IntitializeLibrary() == 1 ? "1" : "0");
    BRV_RegisterDeviceStateChangedCallback(nullptr, onState, this);
    log(words);
  }

  void install(bool isByHand) {
    if (!isByHand) {
      _provider = std::make_shared<hardware::simulated::Provider>(_rig);
      hardware::installSystemProvider(_provider);
      return;
    }
    _hands = fake::install({});
    _hands->bus = _rig.bus;
    for (const auto& each : _rig.devices) {
      const auto device = _devices[each.description.uniqueID] = std::make_shared<fake::Device>(each.description);
      const std::string id = each.description.uniqueID;
      device->openError = each.openFailure;
      device->configurationError = each.configurationFailure;
      device->whileStarting = [device = device.get(), id] { self->tellStart(*device, id); };
      device->whileStopping = [device = device.get(), id] {
        if (device->isRunning()) self->tell(id + " stops");
      };
      if (each.fireWireUnit) _hands->bus.units->push_back(*each.fireWireUnit);
      if (each.isPluggedAtFirst) _hands->plug(device);
    }
  }

  void tellStart(const fake::Device& device, const std::string& id) {
    const auto& [pictures, sounds] = std::tie(device.described.videoFormats, device.described.audioFormats);
    std::string what = id + " starts";
    if (!pictures.empty()) {
      const auto& chosen = pictures[device.selectedVideoFormat];
      const CMTime duration = device.selectedFrameDuration;
      what += format(" %dx%d", chosen.width, chosen.height);
      if (CMTIME_IS_VALID(duration))
        what += format(" each %lld/%d s", static_cast<long long>(duration.value), duration.timescale);
    }
    if (!sounds.empty()) what += format(" %g Hz", sounds[device.selectedAudioFormat].stream.mSampleRate);
    tell(what);
    if (const auto found = _startFailures.find(id); found != _startFailures.end() && !found->second.empty())
      throw std::runtime_error(found->second);
  }

  void plug(const Words& words) {
    const std::string all = words[2];
    const auto change = [this, all] {
      for (const std::string& each : listed(all)) {
        const bool isIn = each.starts_with("plug ");
        const std::string id = each.substr(each.find(' ') + 1);
        const auto device = _devices.find(id);
        const auto plugged = hardware::systemProvider()->devices();
        if (device != _devices.end() && isIn == (std::ranges::count(plugged, device->second) == 0)) {
          isIn ? _hands->plug(device->second) : _hands->unplug(device->second);
        } else if (!_provider || !(isIn ? _provider->plug(id) : _provider->unplug(id))) {
          tell("nothing to " + each);
        }
      }
    };
    words[1].matched ? _scheduler.start("elsewhere", change) : change();
  }

  void capture(const Words& words) {
    fake::Device& device = *_devices.at(words[1]);
    const std::string what = words[2], when = words[3];
    if ((what == "takes" || what == "loses" ? device.described.videoFormats.empty()
                                            : device.described.audioFormats.empty()))
      return tell("it has nothing of the kind");
    for (const std::string& each : listed(when)) {
      const CMTime time = timeOf(each);
      const std::vector<std::uint8_t> silence(441 * 64);
      if (what == "takes") device.captureFrame(time);
      if (what == "loses") device.loseFrame(time);
      if (what == "hears") device.captureSound(time, silence.data(), 441);
      if (what == "misses") device.loseSound(time, 441);
      _scheduler.sleepUntil(_scheduler.now() + 1);
    }
  }

  void trouble(const Words& words) {
    fake::Device& device = *_devices.at(words[1]);
    const std::string what = words[2], reason = words[3];
    const auto given = reason.empty() ? std::nullopt : std::optional(reason);
    if (what == "fails") device.fail(reason);
    if (what == "cannot be opened") device.openError = given;
    if (what == "cannot be configured") device.configurationError = given;
    if (what == "cannot start") _startFailures[words[1]] = reason;
  }

  void run(const Words& words) { runMainLoop(std::clamp(std::stod(words[1]), 0.0, _longestRun)); }

  // The host

  void end(const Words&) { BRV_UninitializeLibrary(); }

  void log(const Words&) { BRV_RegisterLogCallback(nullptr, onLog, this); }
  void translate(const Words& words) {
    BRV_RegisterLocalizeStringCallback([](const char* key) {
      static std::string translated;
      return (translated = "<" + std::string(key) + ">").c_str();
    });
    const std::string language = words[1];
    tell(text([&](char* buffer, int* length) { BRV_GetDeviceGroupDisplayName(language.c_str(), buffer, length); }));
  }

  void sources(const Words&) {
    for (int i = 0; i < BRV_GetSourceCount(); ++i)
      tell(text([i](char* buffer, int* length) { BRV_GetSourceId(nullptr, i, buffer, length); }));
  }

  void facts(const Words& words) {
    const std::string source = words[1];
    std::string all = text(
        [&](char* buffer, int* length) { BRV_GetSourceDisplayName(nullptr, source.c_str(), nullptr, buffer, length); });
    for (const char* name : {"ProvidesVideo", "ProvidesAudio", "HDV", "ProvidesSmell"})
      if (BRV_SourceSupportsProperty(nullptr, source.c_str(), name)) all += std::string(", ") + name;
    tell(all + ", " + std::to_string(BRV_GetTimescaleTicksPerSec(nullptr, source.c_str())) + " ticks");
    all.clear();
    for (const char* name : {"device_id", "video_device_id", "audio_device_id", "frame_duration", "audio_timescale",
                             "provider", "error"}) {
      const auto& [result, value] = property(source, name);
      if (result != 0 || !value.empty()) all += (all.empty() ? "" : ", ") + std::string(name) + "=" + value;
    }
    if (!all.empty()) tell(all);
  }

  void receive(const Words& words) {
    const bool isWanted = !words[1].matched;
    std::string& source = _sources[words[3]] = words[3];
    if (words[2] == "video") {
      BRV_RegisterVideoDataArrivedCallback(nullptr, source.c_str(), isWanted ? onVideo : nullptr, &source);
    } else {
      BRV_RegisterAudioDataArrivedCallback(nullptr, source.c_str(), isWanted ? onAudio : nullptr, &source);
    }
  }
  /// Holds on to pictures that arrive, or lets go of them.
  void keep(const Words& words) {
    _keeps = !words[1].matched;
    if (!_keeps) _kept.clear();
  }
  void disconnect(const Words&) { BRV_DisconnectDevice(); }

  void options(const Words& words) {
    const std::string source = words[1], parameter = words[2];
    tellRecord([&](char* buffer, int* length) {
      BRV_QueryParameterOptions(nullptr, source.c_str(), parameter.c_str(), buffer, length);
    });
  }
  void settings(const Words& words) {
    const std::string source = words[1];
    tellRecord([&](char* buffer, int* length) { BRV_GetSourceSettings(nullptr, source.c_str(), buffer, length); });
  }
  void values(const Words& words) {
    const std::string source = words[1];
    tellRecord(
        [&](char* buffer, int* length) { BRV_GetValidParameterValues(nullptr, source.c_str(), buffer, length); });
  }

  /// "Video Settings=1, Video FPS=0", or a text as it is.
  void set(const Words& words) {
    const std::string source = words[1], values = words[2];
    std::string record = values;
    if (!values.starts_with('<') && !values.empty()) {
      record = "<record name=\"settings\">";
      for (const std::string& each : listed(values)) {
        const std::size_t at = each.find('=');
        record += "<record name=\"any\"><text name=\"name\" value=\"" + each.substr(0, at) +
                  "\"/><int32 name=\"value\" value=\"" + each.substr(at + 1) + "\"/></record>";
      }
      record += "</record>";
    }
    tell(std::to_string(BRV_SetSourceSettings(nullptr, source.c_str(), record.c_str())));
  }

  void error(const Words& words) {
    const int code = std::stoi(words[1]);
    const std::string message =
        text([=](char* buffer, int* length) { BRV_GetErrorMessage(nullptr, nullptr, code, buffer, length); });
    tell(message.empty() ? "none" : message);
  }

  /// What there is any of.
  void account(const Words& words) {
    for (const char* medium : {"video", "audio"}) {
      std::string all;
      for (const brv::Field& field : brv::fieldsOf(property(words[1], medium + std::string("_account")).second)) {
        if (field.record == "frames" && field.name.empty()) all += "; frames";
        if (!field.name.empty() && field.value != "0") all += " " + field.name + " " + field.value;
      }
      if (!all.empty()) tell(medium + std::string(":") + all);
    }
  }

  void unoffered(const Words&) {
    for (const brv::Field& field : brv::fieldsOf(property("p_source_systemdevice", "unoffered_devices").second))
      if (!field.name.empty()) tell(field.name + " " + field.value);
  }

  // What the host is told

  static void onState(void*, int state) { self->tell(state == BRV_DEVICE_STATE_ATTACHED ? "attached" : "removed"); }

  static void onLog(void*, int level, const char* pattern, ...) {
    char line[1'024];
    std::va_list arguments;
    va_start(arguments, pattern);
    std::vsnprintf(line, sizeof line, pattern, arguments);
    va_end(arguments);
    self->tell("log " + std::to_string(level) + ": " + (std::strstr(line, "    ") + 4));
  }

  static void onVideo(void* context, BRV_VideoBuffer* buffer) {
    const auto image = static_cast<CVPixelBufferRef>(buffer->data);
    if (self->_keeps) self->_kept.push_back(CFRef<CVPixelBufferRef>::retain(image));
    const OSType type = CVPixelBufferGetPixelFormatType(image);
    std::string what = *static_cast<std::string*>(context) + ": pictures " + std::to_string(buffer->width) + "x" +
                       std::to_string(buffer->height);
    for (int shift = 24; shift >= 0; shift -= 8) what += (shift == 24 ? " " : "") + std::string(1, char(type >> shift));
    if (buffer->pixelAspectRatio != 1) what += format(", pixels %.4f", buffer->pixelAspectRatio);
    self->arrived(what + format(", flags %#x", buffer->flags), buffer->timeStamp, 1);
  }

  static void onAudio(void* context, BRV_AudioBuffer* buffer) {
    const std::string what = *static_cast<std::string*>(context) + ": sound " + std::to_string(buffer->sampleRate) +
                             " Hz, " + std::to_string(buffer->channels) + " x " +
                             std::to_string(buffer->bitsPerSample) + " bits";
    double loudest = 0;
    for (int i = 0; i < buffer->dataLength / 2; ++i) {
      std::int16_t sample = 0;
      std::memcpy(&sample, static_cast<const char*>(buffer->data) + 2 * i, sizeof sample);
      loudest = std::max(loudest, std::abs(sample / 32768.0));
    }
    self->arrived(what + format(", flags %#x", buffer->flags), buffer->timeStamp, buffer->dataLength / 4, loudest);
  }

  void arrived(const std::string& what, std::int64_t stamp, std::int64_t size, double loudest = 0) {
    Stream& stream = _streams[what];
    if (stream.count++ == 0) {
      stream.first = stamp;
    } else {
      stream.step = stream.count == 2 ? stamp - stream.last : std::min(stream.step, stamp - stream.last);
    }
    stream.last = stamp, stream.size += size, stream.loudest = std::max(stream.loudest, loudest);
    if (_hands) tellOf(what, std::exchange(_streams, {})[what]);
  }

  void tellOf(const std::string& what, const Stream& stream) {
    std::string text = what;
    if (stream.size > stream.count) text += format(", %lld frames", static_cast<long long>(stream.size));
    if (stream.loudest > 0) text += format(", %.1f dB", 20 * std::log10(stream.loudest));
    text += format(", at %lld", static_cast<long long>(stream.first));
    if (stream.count > 1)
      text += format(" to %lld by %lld: %lld", static_cast<long long>(stream.last), static_cast<long long>(stream.step),
                     static_cast<long long>(stream.count));
    tell(text);
  }

  /// Text of the two-call convention.
  static std::string text(const std::function<void(char*, int*)>& call) {
    int length = 0;
    call(nullptr, nullptr);
    call(nullptr, &length);
    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    call(text.data(), &length);
    text.resize(static_cast<std::size_t>(length));
    return text;
  }
  /// A copy call copies what there is and no more than it is asked for, and forgets it.
  void tellRecord(const std::function<void(char*, int*)>& call) {
    const std::string written = text(call);
    const int whole = static_cast<int>(written.size());
    for (const auto& [room, copied] : {std::pair(whole + 8, whole), {whole / 2, whole / 2}, {-5, 0}}) {
      std::string buffer(written.size() + 9, '#');
      int length = 0;
      call(nullptr, &length);
      call(buffer.data(), &(length = room));
      require(buffer.find_last_not_of('#') + 1 == static_cast<std::size_t>(copied),
              "as much is copied as is asked for");
      call(buffer.assign(buffer.size(), '#').data(), &(length = whole));
      require(buffer.find_first_not_of('#') == buffer.npos, "a record is handed out once");
    }
    zRecord record;
    const bool isRecord =
        zXML::ParseBuffer(zXML::Mode, &record, written.data(), static_cast<int>(written.size())) == zXML::Success;
    tell(isRecord ? outline(record) : written.empty() ? "nothing" : "no record: " + written);
  }

  /// What the call returns, and the value as text.
  static std::pair<int, std::string> property(const std::string& source, const std::string& name) {
    std::string value;
    const auto receive = [](void* context, int type, const void* given) {
      *static_cast<std::string*>(context) = type == BRV_PROPERTY_INT64
                                                ? std::to_string(*static_cast<const std::int64_t*>(given))
                                                : static_cast<const char*>(given);
    };
    const int result = BRV_GetProperty(&value, receive, name.c_str(), "", source.c_str());
    return {result, value};
  }

  static inline ScriptedHost* self = nullptr;

  SimulationScheduler& _scheduler = *SimulationScheduler::active();
  const hardware::simulated::Rig _rig;
  const double _longestRun;
  std::shared_ptr<hardware::simulated::Provider> _provider;
  std::shared_ptr<fake::Provider> _hands;  ///< in its place
  std::map<std::string, std::shared_ptr<fake::Device>> _devices;
  std::map<std::string, std::string> _startFailures;
  std::map<std::string, std::string> _sources;  ///< contexts of callbacks
  std::string _written, _lastLine;
  int _repetitions = 0;
  bool _keeps = false;
  std::vector<CFRef<CVPixelBufferRef>> _kept;
  std::map<std::string, Stream> _streams;
};

}  // namespace test
