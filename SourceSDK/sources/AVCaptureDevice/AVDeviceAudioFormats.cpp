// Sound formats of a source.

#include "AVCaptureDeviceFormat+AVRecorderAdditions.h"
#include "AVDevice.h"
#include "common/CommonSDK.h"

namespace AV {

const std::vector<Ref<AVCaptureDeviceFormat>>& Device::get_supported_audio_formats() {
  const auto device = audioDevice();
  if (_pAudioFormats.empty() && device) {
    std::vector<Ref<AVCaptureDeviceFormat>> mixable;
    for (const auto& format : device->formats()) {
      if (isMixable(*format)) mixable.push_back(format);
    }
    _pAudioFormats = std::move(mixable);
  }
  return _pAudioFormats;
}

bool Device::getSupportedAudioFormatString(int index, std::string* out) {
  const auto& formats = get_supported_audio_formats();
  if (index < 0 || static_cast<std::size_t>(index) >= formats.size()) return false;
  if (const auto name = localizedName(*formats[static_cast<std::size_t>(index)])) {
    *out = *name;
  } else {
    *out = _name + " - " + CSDK::CopyTranslatedString("av_source_no_audio_format_name");
  }
  return true;
}

bool Device::setSupportedAudioFormat(int index) {
  const auto device = audioDevice();
  const auto& formats = get_supported_audio_formats();
  if (index < 0 || static_cast<std::size_t>(index) >= formats.size()) return false;

  Ref<NSError> error;
  if (!device->lockForConfiguration(&error)) {
    setError(std::move(error));
    return false;
  }
  device->setActiveFormat(formats[static_cast<std::size_t>(index)].get());
  device->unlockForConfiguration();
  restartDevice();
  _selectedAudioFormatIndex = static_cast<std::uint64_t>(index);
  return true;
}

bool Device::getSelectedAudioFormatString(std::string* out) const {
  const auto device = audioDevice();
  const auto format = device ? device->activeFormat() : Ref<AVCaptureDeviceFormat>();
  const auto name = format ? localizedName(*format) : std::nullopt;
  if (!name) return false;
  *out = *name;
  return true;
}

}  // namespace AV
