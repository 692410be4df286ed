#include "listing/Catalog.h"

#include <pipewire/keys.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "listing/Identity.h"

namespace hardware::pipewire {
namespace {

bool isSameFormat(const CameraFormat& a, const CameraFormat& b) {
  return a.code == b.code && a.statesRates == b.statesRates && a.format.width == b.format.width &&
         a.format.height == b.format.height && a.format.frameRates == b.format.frameRates;
}

bool isSameFormat(const SoundFormat& a, const SoundFormat& b) {
  return a.sampleFormat == b.sampleFormat && a.positions == b.positions && a.format.firstInput == b.format.firstInput &&
         a.format.layout == b.format.layout && a.format.stream.mSampleRate == b.format.stream.mSampleRate &&
         a.format.stream.mChannelsPerFrame == b.format.stream.mChannelsPerFrame;
}

template <typename Format>
bool areSameFormats(const std::vector<Format>& a, const std::vector<Format>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](const Format& one, const Format& other) { return isSameFormat(one, other); });
}

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

bool isThrough(const Source& source, std::string_view api) {
  return source.kind == Source::Kind::camera && valueOf(source.properties, PW_KEY_DEVICE_API) == api;
}

class Writer {
 public:
  explicit Writer(std::span<const Source> sources)
      : _sources(sources), _ids(uniqueIDs(sources)), _links(linksOf(sources, _ids)) {}

  Catalog write() {
    for (std::size_t i = 0; i < _sources.size(); ++i) {
      const Source& source = _sources[i];
      if (isThrough(source, "libcamera") && isOfferedThroughV4L2(source)) continue;
      source.kind == Source::Kind::camera ? addCamera(i) : addMicrophone(i);
    }
    return std::move(_catalog);
  }

 private:
  bool isOfferedThroughV4L2(const Source& camera) const {
    return std::any_of(_sources.begin(), _sources.end(), [&](const Source& other) {
      return isThrough(other, "v4l2") && isSameCamera(other.properties, camera.properties) &&
             !offerOf(other).formats.empty();
    });
  }

  static std::vector<const spa_pod*> podsOf(const Source& source) {
    std::vector<const spa_pod*> pods;
    for (const Pod& pod : source.formats) pods.push_back(pod.get());
    return pods;
  }

  static CameraOffer offerOf(const Source& source) { return readCameraFormats(podsOf(source)); }

  ListedDevice described(std::size_t index) const {
    ListedDevice device;
    device.serial = _sources[index].serial;
    device.description.name = displayName(_sources[index].properties);
    device.description.uniqueID = _ids[index];
    device.description.linkedDevices = _links[index];
    return device;
  }

  void addCamera(std::size_t index) {
    CameraOffer offer = offerOf(_sources[index]);
    ListedDevice device = described(index);
    if (offer.formats.empty()) {
      return addUnoffered(device, offer.unreadable.empty() ? "PipeWire tells no format of it"
                                                           : "it offers only " + joined(offer.unreadable));
    }
    device.description.hasVideo = true;
    for (const CameraFormat& line : offer.formats) device.description.videoFormats.push_back(line.format);
    device.description.initialVideoFormat = automaticFormat(offer.formats);
    device.cameraFormats = std::move(offer.formats);
    _catalog.devices.push_back(std::move(device));
  }

  void addMicrophone(std::size_t index) {
    ListedDevice device = described(index);
    device.soundFormats = readSoundFormats(podsOf(_sources[index]));
    if (device.soundFormats.empty()) {
      return addUnoffered(device, _sources[index].formats.empty() ? "PipeWire tells no format of it"
                                                                  : "it offers no uncompressed sound");
    }
    device.description.hasAudio = true;
    device.awaitsCamera = _links[index].empty() && housingOf(_sources[index].properties).starts_with("usb ");
    for (const SoundFormat& line : device.soundFormats) device.description.audioFormats.push_back(line.format);
    _catalog.devices.push_back(std::move(device));
  }

  void addUnoffered(const ListedDevice& device, std::string reason) {
    _catalog.unoffered.push_back({device.description.name, std::move(reason)});
  }

  const std::span<const Source> _sources;
  const std::vector<std::string> _ids;
  const std::vector<std::vector<std::string>> _links;
  Catalog _catalog;
};

}  // namespace

bool isSameDevice(const ListedDevice& a, const ListedDevice& b) {
  return a.serial == b.serial && a.description.uniqueID == b.description.uniqueID &&
         a.description.linkedDevices == b.description.linkedDevices &&
         areSameFormats(a.cameraFormats, b.cameraFormats) && areSameFormats(a.soundFormats, b.soundFormats);
}

Catalog catalogOf(std::span<const Source> sources) {
  return Writer(sources).write();
}

}  // namespace hardware::pipewire
