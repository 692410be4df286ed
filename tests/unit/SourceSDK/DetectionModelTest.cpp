#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <random>

#include "AVDeviceManager.h"
#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"

namespace {

using Devices = std::vector<std::shared_ptr<fake::Device>>;
using hardware::DeviceDescription;

struct PlainSource {
  std::string name, videoID, audioID;
  bool hasVideo = false, hasAudio = false, isMuxed = false;

  const std::string& getDeviceName() const { return name; }
  const std::string& getVideoDeviceID() const { return videoID; }
  const std::string& getAudioDeviceID() const { return audioID; }
};

/// Detection and removal as the rules say it, without an index: whatever is asked, it walks over everything.
class PlainManager {
 public:
  void detectDeviceConnect(const Devices& present) {
    pass(present, &DeviceDescription::hasVideo, &PlainManager::joinsLinkedAudio);
    pass(present, &DeviceDescription::isMuxed, &PlainManager::joinsLinkedAudio);
    pass(present, &DeviceDescription::hasAudio, &PlainManager::joinsLinkedVideo);
  }

  void _DetectDeviceDisconnect(const Devices& present) {
    for (auto entry = table.begin(); entry != table.end();) {
      PlainSource* const source = entry->second;
      const bool isPresent = std::any_of(present.begin(), present.end(), [&](const auto& device) {
        return device->described.uniqueID == source->videoID || device->described.uniqueID == source->audioID;
      });
      ++entry;
      if (isPresent) continue;
      if (source->hasVideo) table.erase(source->videoID);
      if (source->hasAudio || source->isMuxed) table.erase(source->audioID);
      byName.erase(source->name);
      std::erase(list, source);
      entry = table.begin();
    }
  }

  int getDeviceCount() const { return static_cast<int>(list.size()); }
  const PlainSource* getDeviceWithIndex(int index) const { return list[static_cast<std::size_t>(index)]; }
  const PlainSource* _getDeviceFromTotalDevice(const std::string& id) const {
    return table.contains(id) ? table.at(id) : nullptr;
  }
  PlainSource* getDeviceWithID(const std::string& id) const {
    const auto found = std::find_if(byName.begin(), byName.end(), [&](const auto& entry) {
      return entry.second->videoID == id || entry.second->audioID == id;
    });
    return found == byName.end() ? nullptr : found->second;
  }

 private:
  using Links = std::vector<const DeviceDescription*>;

  void pass(const Devices& present, bool DeviceDescription::*isListed,
            bool (PlainManager::*joins)(const fake::Device&, const Links&)) {
    for (const auto& device : present) {
      Links links;
      for (const std::string& id : device->described.linkedDevices) {
        for (const auto& other : present) {
          if (other->described.uniqueID == id) links.push_back(&other->described);
        }
      }
      const bool isNew = device->described.*isListed && !table.contains(device->described.uniqueID);
      if (isNew && (links.empty() || !(this->*joins)(*device, links)) && !device->openError) add(*device);
    }
  }

  bool joinsLinkedAudio(const fake::Device& device, const Links& links) {
    const auto audio = std::find_if(links.begin(), links.end(), [](auto* link) { return link->hasAudio; });
    if (audio == links.end()) return true;
    PlainSource* const source = getDeviceWithID((*audio)->uniqueID);
    if (source && !source->hasVideo) setVideo(*source, device);
    return source != nullptr;
  }

  bool joinsLinkedVideo(const fake::Device& device, const Links& links) {
    bool allHaveSources = true;
    for (const auto* link : links) {
      if (!link->hasVideo) continue;
      PlainSource* const source = getDeviceWithID(link->uniqueID);
      allHaveSources &= source != nullptr;
      if (source && !source->hasAudio) setAudio(*source, device);
    }
    return allHaveSources;
  }

  void add(const fake::Device& device) {
    const auto& [base, hasVideo, hasAudio] =
        std::tie(device.described.name, device.described.hasVideo, device.described.hasAudio);
    const std::string suffix = hasVideo ? " Video" : hasAudio ? " Audio" : "";
    std::string name = base + suffix;
    for (int n = 1; byName.contains(name); ++n) name = base + " " + std::to_string(n) + suffix;
    PlainSource& source = sources.emplace_back(PlainSource{name, {}, {}});
    hasVideo || device.described.isMuxed ? setVideo(source, device) : setAudio(source, device);
    byName[name] = &source;
    list.push_back(&source);
  }

  void setVideo(PlainSource& source, const fake::Device& device) {
    source.hasVideo = true;
    source.isMuxed = device.described.isMuxed;
    if (device.openError) return;
    source.videoID = device.described.uniqueID;
    if (source.isMuxed && !source.hasAudio) source.audioID = source.videoID;
    enter(source);
  }

  void setAudio(PlainSource& source, const fake::Device& device) {
    source.hasAudio = true;
    if (device.openError) return;
    source.audioID = device.described.uniqueID;
    enter(source);
  }

  void enter(PlainSource& source) {
    if (source.hasVideo) table.try_emplace(source.videoID, &source);
    if (source.hasAudio || source.isMuxed) table.try_emplace(source.audioID, &source);
  }

  std::deque<PlainSource> sources;
  std::vector<PlainSource*> list;
  std::map<std::string, PlainSource*> byName, table;
};

/// Devices of all kinds with few names, so that they meet, and links as they come.
Devices randomDevices(std::mt19937& random) {
  constexpr unsigned Count = 12;
  const char* const names[] = {"Cam", "Cam", "Cam 1", "Cam Video", "Mic"};
  Devices devices;
  for (unsigned i = 0; i < Count; ++i) {
    auto device = fake::device(names[random() % std::size(names)], i == 0 ? "" : std::to_string(i));
    const auto kind = random() % 8;
    device->described.hasVideo = kind < 3 || kind == 7;
    device->described.hasAudio = (kind >= 3 && kind < 6) || kind == 7;
    device->described.isMuxed = kind == 6 || random() % 8 == 0;
    for (auto links = random() % 5; links > 2; --links) {
      device->described.linkedDevices.push_back(std::to_string(random() % Count));
    }
    devices.push_back(std::move(device));
  }
  return devices;
}

template <typename Manager>
std::string describe(const Manager& manager, const Devices& devices) {
  const auto nameOf = [](const auto* source) { return source ? source->getDeviceName() : "none"; };
  std::string text;
  for (int i = 0; i < manager.getDeviceCount(); ++i) {
    const auto& source = *manager.getDeviceWithIndex(i);
    text += source.getDeviceName() + ": " + source.getVideoDeviceID() + ", " + source.getAudioDeviceID() + '\n';
  }
  for (const auto& device : devices) {
    const std::string& id = device->described.uniqueID;
    text +=
        id + " = " + nameOf(manager.getDeviceWithID(id)) + ", " + nameOf(manager._getDeviceFromTotalDevice(id)) + '\n';
  }
  return text;
}

class DetectionModelTest : public FrameworkTest {};

TEST_F(DetectionModelTest, PassesOverRandomRigsEndAsPlainWalksWould) {
  for (unsigned rig = 0; rig < 300; ++rig) {
    std::mt19937 random(rig);
    const Devices devices = randomDevices(random);
    const std::unique_ptr<AV::DeviceManager> manager(AV::DeviceManager::instance());
    PlainManager plain;
    for (int round = 0; round < 8; ++round) {
      Devices present = devices;
      std::shuffle(present.begin(), present.end(), random);
      present.resize(random() % (devices.size() + 1));
      for (const auto& device : devices) device->openError.reset();
      if (!present.empty() && random() % 2) present.front()->openError = "Taken.";
      fake::install(present);

      if (random() % 4) {
        manager->_DetectDeviceDisconnect();
        plain._DetectDeviceDisconnect(present);
      }
      if (random() % 4) {
        manager->detectDeviceConnect();
        plain.detectDeviceConnect(present);
      }

      ASSERT_EQ(describe(*manager, devices), describe(plain, devices)) << "rig " << rig << ", round " << round;
    }
  }
}

}  // namespace
