#include "commands/Facts.h"

#include <nlohmann/json.hpp>

#include "capture/FrameGrabber.h"
#include "capture/Sources.h"
#include "common/Failure.h"
#include "common/Interrupt.h"

namespace brvhost {

namespace {

void addTiming(Json& facts, const FrameTiming& timing) {
  if (timing.isKnown()) {
    facts["frame_rate"] = timing.frameRate().value();
    facts["frame_duration"] = timing.frameDuration;
  }
  if (timing.ticksPerSecond > 0) facts["ticks_per_second"] = timing.ticksPerSecond;
}

std::string line(const char* name, const std::string& value) {
  return formatted("     %-11s ", name) + value + "\n";
}

std::string deviceLines(const Json& source) {
  const std::string camera = source.value("video_device_id", ""), microphone = source.value("audio_device_id", "");
  if (camera == microphone) return line("device", camera);
  return (camera.empty() ? "" : line("camera", camera)) + (microphone.empty() ? "" : line("microphone", microphone));
}

std::string pictureText(const Json& source) {
  std::string text;
  if (source.contains("width")) text = formatted("%d x %d", source["width"].get<int>(), source["height"].get<int>());
  if (source.contains("frame_rate")) {
    text +=
        formatted("%s%.5g frames/s (%lld of %d ticks)", text.empty() ? "" : ", ", source["frame_rate"].get<double>(),
                  source["frame_duration"].get<long long>(), source["ticks_per_second"].get<int>());
  }
  return text;
}

}  // namespace

Json factsOf(const brv::Source& source) {
  Json facts{{"id", source.id()}, {"video", source.hasVideo()}, {"audio", source.hasAudio()}, {"hdv", source.isHDV()}};
  if (source.hasVideo()) facts["video_device_id"] = deviceId(source, "video");
  if (source.hasAudio()) facts["audio_device_id"] = deviceId(source, "audio");
  addTiming(facts, timingOf(source));
  return facts;
}

void addSamples(Json& facts, const brv::Library& library, const brv::Source& source, double timeoutSeconds) {
  if (!source.hasVideo()) return addTiming(facts, awaitTiming(library, source, timeoutSeconds));
  const brv::Frame frame = grabFrame(library, source, 1, timeoutSeconds);
  if (!frame) return;
  facts["width"] = frame.record().width;
  facts["height"] = frame.record().height;
  addTiming(facts, timingOf(source));
}

void addError(Json& facts, const brv::Source& source) {
  if (const std::string error = source.error(); !error.empty()) facts["error"] = error;
}

void addFormats(Json& facts, const brv::Source& source) {
  source.apply({});         // a start, which chooses a format where none is set
  addError(facts, source);  // before a refusal takes it
  const auto format = source.selected(brv::VideoSettings), rate = source.selected(brv::VideoFPS);
  Json formats = Json::array();
  for (const brv::Option& option : source.options(brv::VideoSettings)) {
    if (Interrupt::requested()) break;
    Json rates = Json::array();
    if (source.apply({{brv::VideoSettings, option.index}})) {
      for (const brv::Option& each : source.options(brv::VideoFPS)) rates.push_back(each.title);
    }
    formats.push_back({{"index", option.index}, {"title", option.title}, {"rates", std::move(rates)}});
  }
  if (format) source.apply({{brv::VideoSettings, *format}, {brv::VideoFPS, rate.value_or(0)}});
  facts["formats"] = std::move(formats);
}

Json unofferedOf(const brv::Library& library) {
  Json devices = Json::array();
  for (const brv::Field& field : brv::fieldsOf(library.property("unoffered_devices").value_or(""))) {
    if (field.record != "device") continue;
    if (field.name.empty())
      devices.push_back(Json::object());
    else
      devices.back()[field.name] = field.value;
  }
  return devices;
}

std::string titleOf(const Json& source) {
  const bool hasAudio = source["audio"], isHDV = source["hdv"];
  const char* const kind = !source["video"] ? hasAudio ? "audio" : "no media" : hasAudio ? "video+audio" : "video";
  return source["id"].get<std::string>() + "  (" + kind + (isHDV ? ", HDV" : "") + ")";
}

std::string textOf(const Json& source) {
  std::string text = titleOf(source) + "\n" + deviceLines(source);
  if (const std::string picture = pictureText(source); !picture.empty())
    text += line("picture", picture);
  else if (source.contains("ticks_per_second"))
    text += line("time stamps", formatted("%d ticks/s", source["ticks_per_second"].get<int>()));
  for (const Json& format : source.value("formats", Json::array())) {
    std::string rates;
    for (const Json& rate : format["rates"]) rates += (rates.empty() ? ": " : ", ") + rate.get<std::string>();
    text +=
        line(formatted("format %d", format["index"].get<int>()).c_str(), format["title"].get<std::string>() + rates);
  }
  if (source.contains("error")) text += line("error", source["error"]);
  return text;
}

void writeJSON(std::ostream& out, const Json& json, int indent) {
  out << json.dump(indent, ' ', false, Json::error_handler_t::replace) << std::endl;
}

}  // namespace brvhost
