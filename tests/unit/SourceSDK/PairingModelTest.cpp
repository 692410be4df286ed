#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <random>

#include "SourceTest.h"

namespace {

using Devices = std::vector<std::shared_ptr<fake::Device>>;

/// The pairing rules by themselves: sources are named, and have the sides that they have.
class PairingModel {
 public:
  void detect(const Devices& present) {
    for (const bool muxed : {false, true}) {
      for (const auto& device : present) {
        if ((muxed ? device->described.isMuxed : device->described.hasVideo) && isNew(*device)) {
          takeVideo(*device, linksOf(*device, present));
        }
      }
    }
    for (const auto& device : present) {
      if (device->described.hasAudio && isNew(*device)) takeAudio(*device, linksOf(*device, present));
    }
  }

  void remove(const Devices& present) {
    const auto isPresent = [&](const fake::Device* side) {
      return std::ranges::any_of(present, [&](const auto& device) { return device.get() == side; });
    };
    std::erase_if(_order, [&](const std::string& name) {
      const Source& source = _sources.at(name);
      if (isPresent(source.video) || isPresent(source.audio)) return false;
      _sources.erase(name);
      return true;
    });
  }

  bool uses(const fake::Device& device) const {
    return std::ranges::any_of(_sources, [&](const auto& entry) { return entry.second.has(&device); });
  }

  /// "NAME: VIDEO, AUDIO" for each source in its order.
  std::string description() const {
    const auto idOf = [](const fake::Device* side) { return side ? side->described.uniqueID : ""; };
    std::string text;
    for (const std::string& name : _order) {
      const auto& [video, audio] = _sources.at(name);
      const auto* const sound = audio || !video || !video->described.isMuxed ? audio : video;
      text += name + ": " + idOf(video) + ", " + idOf(sound) + '\n';
    }
    return text;
  }

 private:
  struct Source {
    const fake::Device* video = nullptr;
    const fake::Device* audio = nullptr;
    bool has(const fake::Device* device) const { return video == device || audio == device; }
  };
  using Links = std::vector<const fake::Device*>;

  static Links linksOf(const fake::Device& device, const Devices& present) {
    Links links;
    for (const std::string& id : device.described.linkedDevices) {
      for (const auto& other : present) {
        if (other->described.uniqueID == id) links.push_back(other.get());
      }
    }
    return links;
  }

  bool isNew(const fake::Device& device) const {
    return !device.described.name.starts_with("Intensity") && !uses(device);
  }

  Source* sourceOf(const fake::Device* device) {
    const auto found = std::ranges::find_if(_sources, [&](const auto& entry) { return entry.second.has(device); });
    return found == _sources.end() ? nullptr : &found->second;
  }

  Source& add(const fake::Device& device, const char* suffix) {
    return _sources[_order.emplace_back(device.described.name + suffix)];
  }

  void takeVideo(const fake::Device& device, const Links& links) {
    Source* source = nullptr;
    if (!links.empty()) {
      const auto audio = std::ranges::find_if(links, [](auto* link) { return link->described.hasAudio; });
      if (audio == links.end()) return;
      source = sourceOf(*audio);
    }
    if (device.openError || (source && source->video)) return;
    (source ? *source : add(device, device.described.isMuxed ? "" : " Video")).video = &device;
  }

  void takeAudio(const fake::Device& device, const Links& links) {
    bool becomesSource = links.empty();
    for (const auto* link : links) {
      if (!link->described.hasVideo) continue;
      Source* const source = sourceOf(link);
      becomesSource |= !source;
      if (source && !source->audio && !device.openError) source->audio = &device;
    }
    if (becomesSource && !device.openError) add(device, " Audio").audio = &device;
  }

  std::map<std::string, Source> _sources;
  std::vector<std::string> _order;
};

class PairingModelTest : public SourceTest {
 protected:
  static std::shared_ptr<fake::Device> device(unsigned kind, bool isRefused, std::size_t index) {
    const std::string id = std::to_string(index), name = (isRefused ? "Intensity " : "Device ") + id;
    return kind == 0 ? fake::camera(name, id) : kind == 1 ? fake::microphone(name, id) : fake::camcorder(name, id);
  }

  /// What is there after each of some plugs and unplugs, with devices that cannot be opened for a time, is what the
  /// rules say; and with nothing plugged in there is nothing.
  void run(const Devices& devices, std::mt19937& random) {
    detect({});
    PairingModel model;
    Devices present;
    const auto toggle = [&](const std::shared_ptr<fake::Device>& device) {
      if (std::erase(present, device) > 0) {
        provider->unplug(device);
        model.remove(present);
      } else {
        present.push_back(device);
        provider->plug(device);
        model.detect(present);
      }
      ASSERT_EQ(sources(), model.description());
      for (const auto& each : devices) {
        ASSERT_EQ(manager->_getDeviceFromTotalDevice(each->described.uniqueID) != nullptr, model.uses(*each));
      }
    };
    for (int step = 0; step < 5; ++step) {
      auto& failing = devices[random() % devices.size()]->openError;
      failing = failing ? std::nullopt : std::optional<std::string>("Taken.");
      ASSERT_NO_FATAL_FAILURE(toggle(devices[random() % devices.size()])) << "step " << step;
    }
    for (const Devices left = present; const auto& device : left) ASSERT_NO_FATAL_FAILURE(toggle(device));
    ASSERT_EQ(manager->getDeviceCount(), 0);
  }

  std::string sources() const {
    std::string text;
    for (int i = 0; i < manager->getDeviceCount(); ++i) {
      const auto source = manager->getDeviceWithIndex(i);
      text += source->getDeviceName() + ": " + source->getVideoDeviceID() + ", " + source->getAudioDeviceID() + '\n';
    }
    return text;
  }
};

TEST_F(PairingModelTest, WhateverIsPluggedInAndOutTheSourcesAreThoseOfTheRules) {
  constexpr unsigned Count = 3, Kinds = 27, Refusals = 8, Links = 64, Orders = 3;
  for (unsigned topology = 0; topology < Kinds * Refusals * Links; ++topology) {
    Devices devices;
    unsigned kinds = topology % Kinds, refusals = topology / Kinds % Refusals, links = topology / Kinds / Refusals;
    for (std::size_t i = 0; i < Count; ++i, kinds /= 3, refusals /= 2) {
      devices.push_back(device(kinds % 3, refusals % 2, i));
      for (std::size_t other = 0; other < Count; ++other) {
        if (other == i) continue;
        if (links % 2) devices[i]->described.linkedDevices.push_back(std::to_string(other));
        links /= 2;
      }
    }
    std::mt19937 random(topology);
    for (unsigned order = 0; order < Orders; ++order) {
      ASSERT_NO_FATAL_FAILURE(run(devices, random)) << "topology " << topology << ", order " << order;
    }
  }
}

TEST_F(PairingModelTest, SoAreThoseOfFourDevices) {
  for (unsigned seed = 0; seed < 8'000; ++seed) {
    std::mt19937 random(seed);
    Devices devices;
    for (std::size_t i = 0; i < 4; ++i) {
      devices.push_back(device(static_cast<unsigned>(random() % 3), random() % 6 == 0, i));
      for (std::size_t other = 0; other < 4; ++other) {
        if (other != i && random() % 2) devices[i]->described.linkedDevices.push_back(std::to_string(other));
      }
    }
    ASSERT_NO_FATAL_FAILURE(run(devices, random)) << "seed " << seed;
  }
}

}  // namespace
