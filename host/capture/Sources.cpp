#include "capture/Sources.h"

#include <cstdlib>
#include <utility>

#include "common/Choice.h"
#include "common/Failure.h"

namespace brvhost {

std::string deviceId(const brv::Source& source, const char* medium) {
  return source.property((std::string(medium) + "_device_id").c_str()).value_or("");
}

brv::Source findSource(const brv::Library& library, const std::string& wanted) {
  std::vector<brv::Source> sources = library.sources();
  std::vector<Choice> choices;
  choices.reserve(sources.size());
  for (const brv::Source& source : sources) {
    choices.push_back({source.id(), {deviceId(source, "video"), deviceId(source, "audio")}});
  }
  return std::move(sources[choose("source", choices, wanted)]);
}

void requirePluggedIn(const brv::Source& source) {
  if (!source.isPluggedIn()) throw Failure(unpluggedText(source));
}

std::string unpluggedText(const brv::Source& source) {
  return source.id() + " was unplugged";
}

FrameTiming timingOf(const brv::Source& source) {
  return {source.ticksPerSecond(), source.frameDuration()};
}

PictureView viewOf(const brv::Pixels& pixels) {
  return {pixels.bytes().data(), pixels.rowBytes(), pixels.width(), pixels.height()};
}

Rational pixelAspectOf(const brv::Frame& frame) {
  const BRV_VideoBuffer& record = frame.record();
  return pixelAspect(record.pixelAspectRatio, record.width, record.height,
                     static_cast<std::int64_t>(CVPixelBufferGetWidth(frame.pixelBuffer())),
                     static_cast<std::int64_t>(CVPixelBufferGetHeight(frame.pixelBuffer())));
}

Drops dropsOf(const brv::Source& source, const char* medium) {
  const std::string name = std::string(medium) + "_account";
  Drops drops;
  for (const brv::Field& field : brv::fieldsOf(source.property(name.c_str()).value_or(""))) {
    const bool isDrop = field.record == "account" && !field.name.empty() && field.name != "captured" &&
                        field.name != "delivered" && field.name != "pending" && field.name != "unheard";
    if (isDrop) drops[field.name] = std::atoll(field.value.c_str());
  }
  return drops;
}

}  // namespace brvhost
