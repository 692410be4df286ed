#include <gtest/gtest.h>

#include <map>
#include <random>

#include "AVDeviceManager.h"
#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"

namespace {

using Devices = std::vector<std::shared_ptr<fake::Device>>;

struct Source {
  std::string name, videoID, audioID;
  bool hasVideo = false, hasAudio = false, isMuxed = false;
};

/// Detection as the rules say it, without an index: whatever is asked, it walks over everything.
class PlainManager {
 public:
  std::vector<Source*> list;
  std::map<std::string, Source*> byName, table;

  void detect(const Devices& devices) {
    const auto visit = [&](auto isListed, auto joins) {
      for (const auto& device : devices) {
        const auto& description = device->description();
        if (isListed(description) && !table.contains(description.uniqueID) && !joins(*device, devices)) add(*device);
      }
    };
    const auto joinsAudio = [this](auto& device, auto& present) { return joinsLinkedAudio(device, present); };
    visit([](auto& description) { return description.hasVideo; }, joinsAudio);
    visit([](auto& description) { return description.isMuxed; }, joinsAudio);
    visit([](auto& description) { return description.hasAudio; },
          [this](auto& device, auto& present) { return joinsLinkedVideo(device, present); });
  }

  void removeAbsent(const Devices& devices) {
    for (auto entry = table.begin(); entry != table.end();) {
      Source* const source = entry->second;
      const bool isPresent = std::any_of(devices.begin(), devices.end(), [&](const auto& device) {
        const std::string& id = device->description().uniqueID;
        return id == source->videoID || id == source->audioID;
      });
      if (isPresent) {
        ++entry;
        continue;
      }
      if (source->hasVideo) table.erase(source->videoID);
      if (source->hasAudio || source->isMuxed) table.erase(source->audioID);
      byName.erase(source->name);
      std::erase(list, source);
      entry = table.begin();
    }
  }

  Source* withID(const std::string& id) const {
    for (const auto& [name, source] : byName) {
      if (source->videoID == id || source->audioID == id) return source;
    }
    return nullptr;
  }

 private:
  static std::vector<const hardware::DeviceDescription*> linked(const fake::Device& device, const Devices& present) {
    std::vector<const hardware::DeviceDescription*> found;
    for (const std::string& id : device.description().linkedDevices) {
      for (const auto& other : present) {
        if (other->description().uniqueID == id) found.push_back(&other->description());
      }
    }
    return found;
  }

  bool joinsLinkedAudio(const fake::Device& device, const Devices& present) {
    const auto links = linked(device, present);
    const auto audio = std::find_if(links.begin(), links.end(), [](auto* link) { return link->hasAudio; });
    if (audio == links.end()) return !links.empty();
    Source* const source = withID((*audio)->uniqueID);
    if (source && !source->hasVideo) setVideo(*source, device);
    return source != nullptr;
  }

  bool joinsLinkedVideo(const fake::Device& device, const Devices& present) {
    const auto links = linked(device, present);
    bool allHaveSources = !links.empty();
    for (const auto* link : links) {
      if (!link->hasVideo) continue;
      Source* const source = withID(link->uniqueID);
      allHaveSources &= source != nullptr;
      if (source && !source->hasAudio) setAudio(*source, device);
    }
    return allHaveSources;
  }

  void add(const fake::Device& device) {
    if (device.openError) return;
    const auto& description = device.description();
    const bool startsAsAudio = !description.hasVideo && description.hasAudio;
    const std::string suffix = description.hasVideo ? " Video" : startsAsAudio ? " Audio" : "";
    std::string name = description.name + suffix;
    for (int n = 1; byName.contains(name); ++n) name = description.name + " " + std::to_string(n) + suffix;
    Source* const source = _sources.emplace_back(std::make_unique<Source>(Source{name, {}, {}})).get();
    startsAsAudio ? setAudio(*source, device) : setVideo(*source, device);
    byName[name] = source;
    list.push_back(source);
  }

  void setVideo(Source& source, const fake::Device& device) {
    source.hasVideo = true;
    source.isMuxed = device.description().isMuxed;
    if (device.openError) return;
    source.videoID = device.description().uniqueID;
    if (source.isMuxed && !source.hasAudio) source.audioID = source.videoID;
    enter(source);
  }

  void setAudio(Source& source, const fake::Device& device) {
    source.hasAudio = true;
    if (device.openError) return;
    source.audioID = device.description().uniqueID;
    enter(source);
  }

  void enter(Source& source) {
    if (source.hasVideo) table.try_emplace(source.videoID, &source);
    if (source.hasAudio || source.isMuxed) table.try_emplace(source.audioID, &source);
  }

  std::vector<std::unique_ptr<Source>> _sources;
};

constexpr unsigned PoolSize = 12;

/// Devices of all kinds with few names, so that they meet, and links as they come.
Devices randomPool(std::mt19937& random) {
  const char* const names[] = {"Cam", "Cam", "Cam 1", "Cam Video", "Mic"};
  Devices pool;
  for (unsigned i = 0; i < PoolSize; ++i) {
    hardware::DeviceDescription description;
    description.name = names[random() % std::size(names)];
    description.uniqueID = i == 0 ? "" : std::to_string(i);
    const auto kind = random() % 8;
    description.hasVideo = kind < 3 || kind == 7;
    description.hasAudio = (kind >= 3 && kind < 6) || kind == 7;
    description.isMuxed = kind == 6 || random() % 8 == 0;
    for (auto links = random() % 5; links > 2; --links) {
      description.linkedDevices.push_back(std::to_string(random() % PoolSize));
    }
    pool.push_back(std::make_shared<fake::Device>(std::move(description)));
  }
  return pool;
}

class DetectionModelTest : public FrameworkTest {};

TEST_F(DetectionModelTest, PassesOverRandomRigsEndAsPlainWalksWould) {
  for (unsigned rig = 0; rig < 300; ++rig) {
    std::mt19937 random(rig);
    const Devices pool = randomPool(random);
    const std::unique_ptr<AV::DeviceManager> manager(AV::DeviceManager::instance());
    PlainManager plain;
    for (int round = 0; round < 8; ++round) {
      SCOPED_TRACE("rig " + std::to_string(rig) + ", round " + std::to_string(round));
      Devices present = pool;
      std::shuffle(present.begin(), present.end(), random);
      present.resize(random() % (PoolSize + 1));
      for (const auto& device : pool) device->openError.reset();
      if (!present.empty() && random() % 2) present.front()->openError = "Taken.";
      fake::install(present);

      if (random() % 4) {
        manager->_DetectDeviceDisconnect();
        plain.removeAbsent(present);
      }
      if (random() % 4) {
        manager->detectDeviceConnect();
        plain.detect(present);
      }

      const auto nameOf = [](const auto* source, auto name) { return source ? name(*source) : std::string("none"); };
      const auto ours = [&](const AV::Device* s) { return nameOf(s, [](auto& each) { return each.getDeviceName(); }); };
      const auto theirs = [&](const Source* s) { return nameOf(s, [](auto& each) { return each.name; }); };
      ASSERT_EQ(manager->getDeviceCount(), static_cast<int>(plain.list.size()));
      for (int i = 0; i < manager->getDeviceCount(); ++i) {
        const AV::Device& source = *manager->getDeviceWithIndex(i);
        const Source& expected = *plain.list[static_cast<std::size_t>(i)];
        ASSERT_EQ(source.getDeviceName(), expected.name);
        ASSERT_EQ(source.getVideoDeviceID(), expected.videoID);
        ASSERT_EQ(source.getAudioDeviceID(), expected.audioID);
      }
      for (const auto& device : pool) {
        const std::string& id = device->description().uniqueID;
        const auto entry = plain.table.find(id);
        ASSERT_EQ(ours(manager->getDeviceWithID(id)), theirs(plain.withID(id))) << id;
        ASSERT_EQ(ours(manager->_getDeviceFromTotalDevice(id)),
                  theirs(entry == plain.table.end() ? nullptr : entry->second))
            << id;
      }
    }
  }
}

}  // namespace
