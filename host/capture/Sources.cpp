#include "capture/Sources.h"

#include <algorithm>
#include <charconv>
#include <system_error>

#include "common/ASCIICase.h"
#include "common/Failure.h"

namespace brvhost {

namespace {

template <typename Predicate>
std::vector<std::size_t> indexesWhere(const std::vector<std::string>& identifiers, Predicate&& matches) {
  std::vector<std::size_t> found;
  for (std::size_t i = 0; i < identifiers.size(); ++i) {
    if (matches(std::string_view(identifiers[i]))) found.push_back(i);
  }
  return found;
}

const char* kindOf(const brv::Source& source) {
  if (source.hasVideo()) return source.hasAudio() ? "video+audio" : "video";
  return source.hasAudio() ? "audio" : "no media";
}

}  // namespace

std::vector<std::size_t> matchSource(const std::vector<std::string>& identifiers, std::string_view wanted) {
  if (wanted.empty()) return {};
  auto found = indexesWhere(identifiers, [&](std::string_view name) { return name == wanted; });
  if (!found.empty()) return found;

  std::size_t index = 0;
  const auto [end, error] = std::from_chars(wanted.data(), wanted.data() + wanted.size(), index);
  if (error == std::errc() && end == wanted.data() + wanted.size() && index < identifiers.size()) return {index};

  found = indexesWhere(identifiers, [&](std::string_view name) { return equalsAnyCase(name, wanted); });
  if (!found.empty()) return found;
  return indexesWhere(identifiers, [&](std::string_view name) { return beginsWithAnyCase(name, wanted); });
}

brv::Source findSource(const brv::Library& library, const std::string& wanted) {
  std::vector<brv::Source> known = library.sources();
  std::vector<std::string> identifiers;
  identifiers.reserve(known.size());
  for (const brv::Source& source : known) identifiers.push_back(source.id());
  const std::vector<std::size_t> matches = matchSource(identifiers, wanted);
  if (matches.size() == 1) return std::move(known[matches.front()]);

  std::string message = "\"" + wanted;
  if (known.empty()) throw UsageError(message + "\" is no source; there are none");
  message += matches.empty() ? "\" is no source; there are:" : "\" fits several sources:";
  for (std::size_t i = 0; i < identifiers.size(); ++i) {
    const bool isListed = matches.empty() || std::find(matches.begin(), matches.end(), i) != matches.end();
    if (isListed) message += formatted("\n  %zu  ", i) + identifiers[i];
  }
  throw UsageError(message);
}

void requirePluggedIn(const brv::Source& source) {
  if (!source.isPluggedIn()) throw Failure(unpluggedText(source));
}

std::string unpluggedText(const brv::Source& source) {
  return source.id() + " was unplugged";
}

std::string describe(const brv::Source& source) {
  return source.id() + "  (" + kindOf(source) + (source.isHDV() ? ", HDV" : "") + ")";
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
