#include "AVSettings.h"

#include <lumora/zString.h>
#include <lumora/zXML.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>

#include "AVDeviceManager.h"
#include "AVGuard.h"
#include "AVLog.h"
#include "common/CommonSDK.h"

namespace AV {
namespace {

constexpr const char* VideoSettings = "Video Settings";
constexpr const char* VideoFPS = "Video FPS";
constexpr const char* AudioSettings = "Audio Settings";

/// Options carry their index in 16 bits.
constexpr int MostOptions = std::numeric_limits<std::uint16_t>::max() + 1;

/// Appends a new record to `parent`, which owns it.
zRecord& addChild(zRecord& parent, const char* name) {
  auto* const child = new zRecord(name);
  parent.AddChild(child, zRecord::AtEnd);
  return *child;
}

void addOption(zRecord& parameter, int index, const std::optional<std::string>& title,
               const std::string& languageCode) {
  zRecord& option = addChild(parameter, "option");
  option.SetUInt16("value", static_cast<std::uint16_t>(index), 0);
  if (!title) return;
  zRecord& titleRecord = addChild(option, "title");
  titleRecord.SetCString("lang", languageCode.c_str(), 0);
  titleRecord.SetCString("value", title->c_str(), 0);
}

/// Options 0 to count - 1 with the titles that `titleOf` gives; or one that says, by its key, why there is none.
template <typename TitleOf>
void addOptions(zRecord& parameter, int count, const char* fallbackKey, const std::string& languageCode,
                TitleOf&& titleOf) {
  for (int i = 0; i < std::min(count, MostOptions); ++i) addOption(parameter, i, titleOf(i), languageCode);
  if (count > 0) return;
  addOption(parameter, 0, CSDK::CopyTranslatedString(fallbackKey), languageCode);
}

void addSetting(zRecord& settings, const char* name, int value) {
  if (value == -1) return;
  zRecord& parameter = addChild(settings, "parameter");
  parameter.SetCString("name", name, 0);
  parameter.SetInt32("value", value, 0);
}

void addValidValues(zRecord& source, const char* name, int count) {
  zRecord& parameter = addChild(source, "parameter");
  parameter.SetCString("name", name, 0);
  for (int i = 0; i < count; ++i) addChild(parameter, "option").SetInt32("value", i, 0);
}

/// Whether the parameter applies to this source, and if so whether it could be set.
std::optional<bool> apply(Device& source, const char* name, int value) {
  if (std::strcmp(name, VideoSettings) == 0 && source.hasVideoStream()) {
    const bool succeeded = source.setSupportedVideoFormat(value);
    std::string error;
    if (!succeeded && source.getErrorString(error)) AV_LOG(LevelOther, "%s", error.c_str());
    return succeeded;
  }
  if (std::strcmp(name, AudioSettings) == 0 && source.hasAudioStream()) return source.setSupportedAudioFormat(value);
  if (std::strcmp(name, VideoFPS) == 0 && source.hasVideoStream()) return source.setVideoFPSIndex(value);
  return std::nullopt;
}

}  // namespace

std::unique_ptr<zRecord> makeOptionsRecord(Device& source, const char* parameterName, const std::string& languageCode) {
  auto parameter = std::make_unique<zRecord>("parameter");
  parameter->SetCString("name", parameterName, 0);
  parameter->SetCString("type", "int", 0);
  parameter->SetCString("global", "false", 0);

  using Title = std::optional<std::string>;
  std::string text;
  if (zString::string_equal(parameterName, VideoSettings)) {
    addOptions(*parameter, source.supportedVideoFormatListCount(), "av_source_no_video_settings", languageCode,
               [&](int i) { return source.getSupportedVideoFormatString(i, &text) ? Title(text) : Title(); });
  } else if (zString::string_equal(parameterName, AudioSettings)) {
    addOptions(*parameter, source.supportedAudioFormatListCount(), "av_source_no_audio_settings", languageCode,
               [&](int i) { return source.getSupportedAudioFormatString(i, &text) ? Title(text) : Title(); });
  } else if (zString::string_equal(parameterName, VideoFPS)) {
    addOptions(*parameter, source.supportedVideoFPSCount(), "av_source_no_fps_settings", languageCode,
               [&](int i) { return Title(source.getSupportedVideoFPSTitle(i)); });
  }
  return parameter;
}

std::unique_ptr<zRecord> makeSettingsRecord(Device& source) {
  auto settings = std::make_unique<zRecord>("settings");
  const bool hasVideo = source.hasVideoStream();
  addSetting(*settings, VideoSettings, hasVideo ? source.getSelectedVideoFormatIndex() : 0);
  addSetting(*settings, VideoFPS, hasVideo ? source.getSelectedVideoFPSIndex() : 0);
  addSetting(*settings, AudioSettings, source.hasAudioStream() ? source.getSelectedAudioFormatIndex() : 0);
  return settings;
}

std::unique_ptr<zRecord> makeValidValuesRecord(Device& source) {
  auto record = std::make_unique<zRecord>("source");
  if (source.hasVideoStream()) {
    addValidValues(*record, VideoSettings, source.supportedVideoFormatListCount());
    addValidValues(*record, VideoFPS, std::max(1, source.supportedVideoFPSCount()));
  }
  if (source.hasAudioStream())
    addValidValues(*record, AudioSettings, std::max(1, source.supportedAudioFormatListCount()));
  return record;
}

std::unique_ptr<zRecord> makeUnofferedRecord(const DeviceManager& manager) {
  auto devices = std::make_unique<zRecord>("devices");
  for (const auto& [name, reason] : manager.unofferedDevices()) {
    zRecord& device = addChild(*devices, "device");
    device.SetCString("name", name.c_str(), 0);
    device.SetCString("reason", reason.c_str(), 0);
  }
  return devices;
}

std::unique_ptr<zRecord> makeAccountRecord(const Account& account, bool isSound) {
  const AVCaptureOutputStatistics& counts = account.counts;
  const auto set = [](zRecord& record, const char* name, std::uint64_t count) {
    record.SetCString(name, std::to_string(count).c_str(), 0);
  };
  auto record = std::make_unique<zRecord>("account");
  set(*record, "captured", counts.captured);
  set(*record, "delivered", counts.delivered);
  set(*record, "late", counts.droppedLate);
  set(*record, "no_buffer", counts.droppedNoBuffer);
  set(*record, "lost_by_device", counts.droppedByDevice);
  set(*record, "not_converted", counts.droppedConversion);
  set(*record, "invalid_time", account.invalidTime);
  set(*record, "stopped", counts.droppedStopped);
  set(*record, "unheard", account.unheard);
  set(*record, "pending", counts.pending);
  if (!isSound) return record;
  zRecord& frames = addChild(*record, "frames");
  set(frames, "captured", counts.frames.captured);
  set(frames, "dropped", counts.frames.dropped);
  set(frames, "converted", counts.frames.converted);
  set(frames, "produced", counts.frames.produced);
  set(frames, "delivered", counts.frames.delivered);
  set(frames, "undelivered", counts.frames.undelivered);
  set(frames, "pending", counts.frames.pending);
  return record;
}

int failureOf(const DeviceManager& manager, const Device& source) {
  return -manager.getIndexOfDeviceWithName(source.getDeviceName());
}

int applySettings(DeviceManager& manager, Device& source, const zRecord& settings) {
  int result = 1;
  for (unsigned i = 0; i < settings.ChildCount(); ++i) {
    const zRecord& parameter = *settings.Child(i);
    char scratch[64];
    const char* const name = parameter.AsCString("name", "", &scratch);
    const int value = static_cast<int>(parameter.AsInt32("value", -1));
    // What runs out of memory half way has not been set.
    const auto succeeded = guarded(std::optional(false), [&] { return apply(source, name, value); });
    if (succeeded) result = *succeeded ? 1 : failureOf(manager, source);
  }
  return result;
}

bool RecordText::write(const zRecord& record) {
  _text.MakeEmpty();
  return zXML::RecordToBuffer(&_text, record, zXML::Format, true, false) == zXML::Success;
}

void RecordText::moveTo(char* buffer, int length) {
  const int count = std::clamp(length, 0, this->length());
  std::memcpy(buffer, _text.Data(), static_cast<std::size_t>(count));
  _text.MakeEmpty();
}

}  // namespace AV
