#include "server/ServerMirror.h"

#include <spa/param/param.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

namespace hardware::pipewire {
namespace {

Pod copyOf(const spa_pod* pod) {
  Pod copy;
  copy.words.resize((SPA_POD_SIZE(pod) + sizeof(std::uint64_t) - 1) / sizeof(std::uint64_t));
  std::memcpy(copy.words.data(), pod, SPA_POD_SIZE(pod));
  return copy;
}

}  // namespace

/// A node that is a camera or a microphone, a port of one, or the device that a node belongs to.
struct ServerMirror::Object {
  enum class Kind { camera, microphone, port, device };

  Object(ServerMirror& owner, Kind what, const spa_dict* dict) : mirror(owner), kind(what) { merge(dict, properties); }

  EventLoop& loop() const { return mirror._connection.loop(); }
  bool isSource() const { return kind == Kind::camera || kind == Kind::microphone; }

  void bind(pw_registry* registry, std::uint32_t id, const char* type);
  void infoCame(const spa_dict* changedProperties, const spa_param_info* params, std::uint32_t count);
  void formatCame(int sequence, const spa_pod* format);

  ServerMirror& mirror;
  const Kind kind;
  Properties properties;
  std::vector<Pod> formats;  ///< what was offered when it was last asked

 private:
  void askForFormats();

  std::optional<std::uint32_t> _formatFlags;  ///< change with the formats
  int _inquiry = 0;                           ///< what the answers to the last question are marked with
  std::vector<Pod> _incoming;
  std::unique_ptr<Proxy> _proxy;
};

void ServerMirror::Object::bind(pw_registry* registry, std::uint32_t id, const char* type) {
  if (kind == Kind::device) {
    static const pw_device_events events = [] {
      pw_device_events made{};
      made.version = PW_VERSION_DEVICE_EVENTS;
      made.info = [](void* object, const pw_device_info* info) {
        auto& self = *static_cast<Object*>(object);
        self.loop().guard([&] { self.infoCame(info->props, nullptr, 0); });
      };
      return made;
    }();
    _proxy = std::make_unique<Proxy>(pw_registry_bind(registry, id, type, PW_VERSION_DEVICE, 0), events, this);
  } else if (kind == Kind::port) {
    static const pw_port_events events = [] {
      pw_port_events made{};
      made.version = PW_VERSION_PORT_EVENTS;
      made.info = [](void* object, const pw_port_info* info) {
        auto& self = *static_cast<Object*>(object);
        self.loop().guard([&] { self.infoCame(info->props, info->params, info->n_params); });
      };
      made.param = [](void* object, int sequence, std::uint32_t, std::uint32_t, std::uint32_t, const spa_pod* pod) {
        auto& self = *static_cast<Object*>(object);
        self.loop().guard([&] { self.formatCame(sequence, pod); });
      };
      return made;
    }();
    _proxy = std::make_unique<Proxy>(pw_registry_bind(registry, id, type, PW_VERSION_PORT, 0), events, this);
  } else {
    static const pw_node_events events = [] {
      pw_node_events made{};
      made.version = PW_VERSION_NODE_EVENTS;
      made.info = [](void* object, const pw_node_info* info) {
        auto& self = *static_cast<Object*>(object);
        self.loop().guard([&] { self.infoCame(info->props, info->params, info->n_params); });
      };
      made.param = [](void* object, int sequence, std::uint32_t, std::uint32_t, std::uint32_t, const spa_pod* pod) {
        auto& self = *static_cast<Object*>(object);
        self.loop().guard([&] { self.formatCame(sequence, pod); });
      };
      return made;
    }();
    _proxy = std::make_unique<Proxy>(pw_registry_bind(registry, id, type, PW_VERSION_NODE, 0), events, this);
  }
  mirror.awaitAnswers();
}

void ServerMirror::Object::infoCame(const spa_dict* changedProperties, const spa_param_info* params,
                                    std::uint32_t count) {
  merge(changedProperties, properties);
  for (std::uint32_t i = 0; i < count; ++i) {
    if (params[i].id != SPA_PARAM_EnumFormat || !(params[i].flags & SPA_PARAM_INFO_READ)) continue;
    if (_formatFlags != params[i].flags) {
      _formatFlags = params[i].flags;
      askForFormats();
    }
  }
  mirror.awaitAnswers();
}

void ServerMirror::Object::askForFormats() {
  _incoming.clear();
  _inquiry = kind == Kind::port
                 ? pw_port_enum_params(_proxy->as<pw_port>(), 0, SPA_PARAM_EnumFormat, 0, UINT32_MAX, nullptr)
                 : pw_node_enum_params(_proxy->as<pw_node>(), 0, SPA_PARAM_EnumFormat, 0, UINT32_MAX, nullptr);
  const auto found = std::find_if(mirror._objects.begin(), mirror._objects.end(),
                                  [this](const auto& entry) { return entry.second.get() == this; });
  mirror._connection.afterAnswers([&mirror = mirror, id = found->first, inquiry = _inquiry] {
    const auto object = mirror._objects.find(id);
    if (object == mirror._objects.end() || object->second->_inquiry != inquiry) return;
    // One that tells nothing for a while, as cameras do that are being opened, still has the formats that it had.
    if (!object->second->_incoming.empty()) object->second->formats = std::move(object->second->_incoming);
    object->second->_incoming.clear();
  });
}

void ServerMirror::Object::formatCame(int sequence, const spa_pod* format) {
  if (sequence == _inquiry && format) _incoming.push_back(copyOf(format));
}

ServerMirror::ServerMirror(Connection& connection, std::function<void()> onSettled)
    : _connection(connection), _onSettled(std::move(onSettled)) {
  static const pw_registry_events events = [] {
    pw_registry_events made{};
    made.version = PW_VERSION_REGISTRY_EVENTS;
    made.global = [](void* mirror, std::uint32_t id, std::uint32_t, const char* type, std::uint32_t,
                     const spa_dict* properties) {
      auto& self = *static_cast<ServerMirror*>(mirror);
      self._connection.loop().guard([&] { self.objectAppeared(id, type, properties); });
    };
    made.global_remove = [](void* mirror, std::uint32_t id) {
      auto& self = *static_cast<ServerMirror*>(mirror);
      self._connection.loop().guard([&] { self.objectDisappeared(id); });
    };
    return made;
  }();
  _registry = std::make_unique<Proxy>(_connection.makeRegistry(), events, this);
  awaitAnswers();
}

ServerMirror::~ServerMirror() = default;

void ServerMirror::awaitAnswers() {
  ++_awaited;
  _connection.afterAnswers([this] {
    if (--_awaited == 0) _onSettled();
  });
}

void ServerMirror::objectAppeared(std::uint32_t id, const char* type, const spa_dict* dict) {
  Properties properties;
  merge(dict, properties);
  const std::string_view interface = type;
  const std::string_view mediaClass = valueOf(properties, PW_KEY_MEDIA_CLASS);
  const bool isPortOfSource = [&] {
    const auto node = _objects.find(objectID(properties, PW_KEY_NODE_ID));
    return node != _objects.end() && node->second->isSource() && valueOf(properties, PW_KEY_PORT_DIRECTION) == "out";
  }();
  Object::Kind kind;
  // A subclass, as Audio/Source/Virtual is one, counts as well.
  if (interface == PW_TYPE_INTERFACE_Node && mediaClass.starts_with("Video/Source")) {
    kind = Object::Kind::camera;
  } else if (interface == PW_TYPE_INTERFACE_Node && mediaClass.starts_with("Audio/Source")) {
    kind = Object::Kind::microphone;
  } else if (interface == PW_TYPE_INTERFACE_Port && isPortOfSource) {
    kind = Object::Kind::port;
  } else if (interface == PW_TYPE_INTERFACE_Device) {
    kind = Object::Kind::device;
  } else {
    return;
  }
  auto& object = _objects[id] = std::make_unique<Object>(*this, kind, dict);
  object->bind(_registry->as<pw_registry>(), id, type);
}

void ServerMirror::objectDisappeared(std::uint32_t id) {
  if (_objects.erase(id) > 0) awaitAnswers();
}

std::vector<Source> ServerMirror::sources() const {
  std::vector<Source> sources;
  for (const auto& [id, object] : _objects) {
    if (!object->isSource()) continue;
    Source source;
    source.kind = object->kind == Object::Kind::camera ? Source::Kind::camera : Source::Kind::microphone;
    source.properties = object->properties;
    source.serial = valueOf(source.properties, PW_KEY_OBJECT_SERIAL);
    source.formats = object->formats;
    const auto device = _objects.find(objectID(source.properties, PW_KEY_DEVICE_ID));
    if (device != _objects.end() && device->second->kind == Object::Kind::device)
      source.properties.insert(device->second->properties.begin(), device->second->properties.end());
    // Where a source does not tell its formats itself, its ports do.
    for (auto port = _objects.begin(); port != _objects.end() && source.formats.empty(); ++port) {
      const bool isOwn =
          port->second->kind == Object::Kind::port && objectID(port->second->properties, PW_KEY_NODE_ID) == id;
      if (isOwn) source.formats = port->second->formats;
    }
    sources.push_back(std::move(source));
  }
  std::sort(sources.begin(), sources.end(), [](const Source& a, const Source& b) {
    return std::pair(a.serial.size(), a.serial) < std::pair(b.serial.size(), b.serial);  // as numbers
  });
  return sources;
}

}  // namespace hardware::pipewire
