#include "listing/Identity.h"

#include <pipewire/keys.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <map>
#include <numeric>
#include <regex>
#include <set>
#include <string_view>
#include <tuple>
#include <utility>

namespace hardware::pipewire {
namespace {

/// Never destroyed: sources may come and go until the very end of the process.
const std::regex& pattern(const char* text) {
  return *new std::regex(text);
}

/// Numbers within a text count as such: video2 comes before video10.
bool naturallyLess(std::string_view a, std::string_view b) {
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  while (!a.empty() && !b.empty()) {
    if (isDigit(a.front()) && isDigit(b.front())) {
      std::uint64_t first = 0, second = 0;
      const auto endOfFirst = std::from_chars(a.data(), a.data() + a.size(), first).ptr;
      const auto endOfSecond = std::from_chars(b.data(), b.data() + b.size(), second).ptr;
      if (first != second) return first < second;
      a.remove_prefix(static_cast<std::size_t>(endOfFirst - a.data()));
      b.remove_prefix(static_cast<std::size_t>(endOfSecond - b.data()));
    } else if (a.front() != b.front()) {
      return a.front() < b.front();
    } else {
      a.remove_prefix(1);
      b.remove_prefix(1);
    }
  }
  return a.size() < b.size();
}

/// As session managers write a text within a name.
std::string sanitized(std::string_view text) {
  std::string name(text);
  for (char& c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-' && c != '.') c = '_';
  }
  return name;
}

/// Without the number that a session manager gives to the second of two that have the same name: which one of them
/// comes second is chance.
std::string withoutCounter(const std::string& name) {
  static const auto& counter = pattern(R"(\.[0-9]{1,2}$)");
  return std::regex_replace(name, counter, "");
}

/// The node's name without the counter that its device's name ends with.
std::string withoutDeviceCounter(std::string name, const Properties& properties) {
  const std::string device(valueOf(properties, PW_KEY_DEVICE_NAME));
  const std::string stem = device.substr(device.find('.') + 1);
  const std::string shorter = withoutCounter(stem);
  const std::size_t place = stem == shorter ? std::string::npos : name.find(stem);
  if (place != std::string::npos) name.replace(place, stem.size(), shorter);
  return withoutCounter(name);
}

/// What tells a source from all others, as far as its own properties go.
std::string ownID(const Properties& properties) {
  std::string name(valueOf(properties, PW_KEY_NODE_NAME));
  const std::string path(valueOf(properties, PW_KEY_DEVICE_BUS_PATH));
  if (!path.empty()) {
    const std::string written = sanitized(path);
    const std::size_t place = name.find(written);
    if (place == std::string::npos) return withoutDeviceCounter(name, properties) + "@" + path;
    const std::size_t end = place + written.size();
    return name.substr(0, end) + withoutCounter(name.substr(end));
  }
  const std::string serial(valueOf(properties, PW_KEY_DEVICE_SERIAL));
  if (serial.empty() || name.find(sanitized(serial)) != std::string::npos) return name;
  return withoutDeviceCounter(name, properties) + "@" + serial;
}

/// In the order of the buses and of the kernel's numbers, or of what programs call themselves; at last, in that of
/// arrival.
bool comesBefore(const Source& a, const Source& b) {
  for (const char* key : {PW_KEY_DEVICE_SYSFS_PATH, "api.v4l2.path", "api.alsa.path", PW_KEY_NODE_NAME,
                          PW_KEY_NODE_DESCRIPTION, PW_KEY_APP_PROCESS_BINARY, PW_KEY_MEDIA_NAME}) {
    const std::string_view first = valueOf(a.properties, key), second = valueOf(b.properties, key);
    if (first != second) return naturallyLess(first, second);
  }
  return naturallyLess(a.serial, b.serial);
}

std::vector<std::size_t> inOrder(std::span<const Source> sources) {
  std::vector<std::size_t> order(sources.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t a, std::size_t b) { return comesBefore(sources[a], sources[b]); });
  return order;
}

/// "pci-0000:00:14.0-usb-0:2.1:1.0" is port 2.1 of a controller; the last number is the interface's.
std::string housingOfBusPath(const std::string& path) {
  static const auto& usb = pattern(R"(^(?:pci-|platform-)?(.*)-usb(?:v[0-9])?-[0-9]+:([0-9.]+):[0-9]+\.[0-9]+$)");
  static const auto& pciFunction = pattern(R"(^pci-(.*)\.[0-7]$)");
  std::smatch found;
  if (std::regex_match(path, found, usb)) return "usb " + found.str(1) + " " + found.str(2);
  if (std::regex_match(path, found, pciFunction)) return "pci " + found.str(1);
  return path;
}

/// ".../0000:00:14.0/usb1/1-2/1-2.1/1-2.1:1.0/video4linux/video0" is the same port, of the first bus.
std::string housingOfSystemPath(const std::string& path) {
  static const auto& usb =
      pattern(R"(^.*/([^/]+)/usb[0-9]+/(?:.*/)?([0-9]+-[0-9.]+)/[0-9]+-[0-9.]+:[0-9]+\.[0-9]+(?:/.*)?$)");
  static const auto& pci = pattern(R"(^.*/([0-9a-f]+:[0-9a-f]+:[0-9a-f]+)\.[0-7](?:/(?:sound|video4linux)/.*)?$)");
  std::smatch found;
  if (std::regex_match(path, found, usb)) return "usb " + found.str(1) + " " + found.str(2);
  if (std::regex_match(path, found, pci)) return "pci " + found.str(1);
  return {};
}

/// "[ 20736, 20737 ]", or a single number.
std::set<std::string> numbersIn(std::string_view text) {
  static const auto& number = pattern("[0-9]+");
  const std::string copy(text);
  std::set<std::string> numbers;
  for (std::sregex_iterator found(copy.begin(), copy.end(), number), end; found != end; ++found)
    numbers.insert(found->str());
  return numbers;
}

/// "0x046d" or "046d".
std::string fourDigits(std::string_view text) {
  if (text.starts_with("0x")) text.remove_prefix(2);
  return std::string(text);
}

}  // namespace

std::string displayName(const Properties& properties) {
  static const auto& interface = pattern(R"( \((V4L2|libcamera)\)$)");
  for (const char* key : {PW_KEY_NODE_DESCRIPTION, PW_KEY_NODE_NICK, PW_KEY_DEVICE_DESCRIPTION, PW_KEY_NODE_NAME}) {
    std::string name = std::regex_replace(std::string(valueOf(properties, key)), interface, "");
    if (!name.empty()) return name;
  }
  return "Unnamed";
}

std::vector<std::string> uniqueIDs(std::span<const Source> sources) {
  std::vector<std::string> ids(sources.size());
  std::set<std::string> taken;
  for (std::size_t i = 0; i < sources.size(); ++i) {
    ids[i] = sources[i].knownID;
    taken.insert(ids[i]);
  }
  for (const std::size_t i : inOrder(sources)) {
    if (!ids[i].empty()) continue;
    const std::string own = ownID(sources[i].properties);
    ids[i] = own;
    for (int number = 2; !taken.insert(ids[i]).second; ++number) ids[i] = own + "#" + std::to_string(number);
  }
  return ids;
}

std::string housingOf(const Properties& properties) {
  if (valueOf(properties, PW_KEY_DEVICE_API) == "bluez5" || valueOf(properties, PW_KEY_DEVICE_BUS) == "bluetooth")
    return {};
  if (auto housing = housingOfSystemPath(std::string(valueOf(properties, PW_KEY_DEVICE_SYSFS_PATH))); !housing.empty())
    return housing;
  if (const std::string path(valueOf(properties, PW_KEY_DEVICE_BUS_PATH)); !path.empty()) return housingOfBusPath(path);
  const std::string device(valueOf(properties, PW_KEY_DEVICE_ID));
  return device.empty() ? device : "device " + device;
}

bool isSameCamera(const Properties& v4l2, const Properties& libcamera) {
  const auto first = numbersIn(valueOf(v4l2, "device.devids")), second = numbersIn(valueOf(libcamera, "device.devids"));
  if (!first.empty() && !second.empty()) {
    return std::any_of(first.begin(), first.end(), [&](const auto& number) { return second.contains(number); });
  }
  // What libcamera calls a USB camera ends in its port, interface, vendor and product.
  static const auto& usb = pattern(R"(^.*-([0-9.]+:[0-9]+\.[0-9]+)-([0-9a-f]{4}):([0-9a-f]{4})$)");
  const std::string path(valueOf(libcamera, "api.libcamera.path"));
  std::smatch found;
  return std::regex_match(path, found, usb) && valueOf(v4l2, PW_KEY_DEVICE_BUS_PATH).ends_with(":" + found.str(1)) &&
         fourDigits(valueOf(v4l2, PW_KEY_DEVICE_VENDOR_ID)) == found.str(2) &&
         fourDigits(valueOf(v4l2, PW_KEY_DEVICE_PRODUCT_ID)) == found.str(3);
}

std::vector<std::vector<std::string>> linksOf(std::span<const Source> sources, std::span<const std::string> ids) {
  struct Housing {
    std::vector<std::size_t> cameras, microphones;
  };
  std::map<std::string, Housing> housings;
  for (const std::size_t i : inOrder(sources)) {
    const std::string housing = housingOf(sources[i].properties);
    if (housing.empty()) continue;
    auto& members = housings[housing];
    (sources[i].kind == Source::Kind::camera ? members.cameras : members.microphones).push_back(i);
  }
  std::vector<std::vector<std::string>> links(sources.size());
  const auto link = [&](std::size_t camera, std::size_t microphone) {
    links[camera].push_back(ids[microphone]);
    links[microphone].push_back(ids[camera]);
  };
  for (const auto& [name, housing] : housings) {
    const auto& [cameras, microphones] = housing;
    if (microphones.size() == 1) {
      for (const std::size_t camera : cameras) link(camera, microphones.front());
    } else {
      for (std::size_t i = 0; i < std::min(cameras.size(), microphones.size()); ++i) link(cameras[i], microphones[i]);
    }
  }
  return links;
}

}  // namespace hardware::pipewire
