// PipeWire's part of MediaServer.h.

#include <pipewire/pipewire.h>
#include <spa/debug/types.h>
#include <spa/param/format-utils.h>
#include <spa/param/type-info.h>
#include <spa/param/video/type-info.h>

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <span>

#include "capture/MediaServer.h"
#include "common/Failure.h"

namespace brvhost {

namespace {

constexpr timespec Patience{2, 0};

using Properties = std::map<std::string, std::string>;

Properties copyOf(const spa_dict* dict) {
  Properties copy;
  for (std::uint32_t i = 0; dict && i < dict->n_items; ++i) copy[dict->items[i].key] = dict->items[i].value;
  return copy;
}

std::string valueOf(const Properties& properties, const char* key) {
  const auto found = properties.find(key);
  return found == properties.end() ? "" : found->second;
}

/// What one property of a format may be, each as a text.
struct Choices {
  std::vector<std::string> values;
  bool isRange = false;

  std::string text() const {
    std::string joined;
    for (const std::string& value : values) joined += (joined.empty() ? "" : isRange ? " to " : ", ") + value;
    return joined;
  }
};

template <typename Value, typename Describe>
Choices choicesOf(const spa_pod* format, std::uint32_t key, Describe&& describe) {
  Choices choices;
  const spa_pod_prop* const property = spa_pod_find_prop(format, nullptr, key);
  if (!property) return choices;
  std::uint32_t count = 0, kind = SPA_CHOICE_None;
  const spa_pod* const values = spa_pod_get_values(&property->value, &count, &kind);
  if (SPA_POD_BODY_SIZE(values) < sizeof(Value)) return choices;
  choices.isRange = kind == SPA_CHOICE_Range || kind == SPA_CHOICE_Step;
  // The first of several is the one that is preferred, and comes again; after it stand the limits.
  const std::uint32_t first = kind == SPA_CHOICE_None || count < 2 ? 0 : 1;
  const std::uint32_t end = choices.isRange ? std::min(count, 3U) : count;
  const auto* const bodies = static_cast<const Value*>(SPA_POD_BODY_CONST(values));
  for (std::uint32_t i = first; i < end; ++i) choices.values.push_back(describe(bodies[i]));
  return choices;
}

std::string nameOf(const spa_type_info* types, std::uint32_t type) {
  const char* const name = spa_debug_type_find_short_name(types, type);
  return name ? name : std::to_string(type);
}

/// A device with its formats by encoding, while they come.
struct Node {
  ServerDevice device;
  std::uint32_t id = 0;
  std::map<std::string, std::vector<std::string>> byEncoding;
  bool isAsked = false;
  pw_proxy* proxy = nullptr;
  spa_hook listener{};

  void add(const spa_pod* format) {
    std::uint32_t media = 0, subtype = 0;
    if (!format || spa_format_parse(format, &media, &subtype) < 0) return;
    const bool isPicture = media == SPA_MEDIA_TYPE_video, isRaw = subtype == SPA_MEDIA_SUBTYPE_raw;
    const auto number = [](std::int32_t value) { return std::to_string(value); };
    std::string encoding = nameOf(spa_type_media_subtype, subtype), text;
    if (isPicture) {
      const auto packing = [](std::uint32_t value) { return nameOf(spa_type_video_format, value); };
      if (isRaw) encoding = choicesOf<std::uint32_t>(format, SPA_FORMAT_VIDEO_format, packing).text();
      const Choices sizes = choicesOf<spa_rectangle>(format, SPA_FORMAT_VIDEO_size, [](const spa_rectangle& size) {
        return formatted("%u x %u", size.width, size.height);
      });
      const Choices rates = choicesOf<spa_fraction>(format, SPA_FORMAT_VIDEO_framerate, [](const spa_fraction& rate) {
        return formatted("%.4g", rate.denom > 0 ? static_cast<double>(rate.num) / rate.denom : 0);
      });
      device.hasAnySize = device.hasAnySize || sizes.isRange;
      device.sizes.insert(sizes.values.begin(), sizes.values.end());
      text = sizes.text() + (rates.values.empty() ? "" : " (" + rates.text() + ")");
    } else {
      const auto packing = [](std::uint32_t value) { return nameOf(spa_type_audio_format, value); };
      if (isRaw) encoding = choicesOf<std::uint32_t>(format, SPA_FORMAT_AUDIO_format, packing).text();
      text = choicesOf<std::int32_t>(format, SPA_FORMAT_AUDIO_rate, number).text() + " Hz, " +
             choicesOf<std::int32_t>(format, SPA_FORMAT_AUDIO_channels, number).text() + " channels";
    }
    byEncoding[encoding].push_back(text);
  }

  void finish() {
    for (const auto& [encoding, texts] : byEncoding) {
      std::string line = encoding + ": ";
      for (const std::string& text : texts) line += (&text == &texts.front() ? "" : "; ") + text;
      device.formats.push_back(std::move(line));
    }
  }
};

/// One connection, for as long as it takes.
class Inquiry {
 public:
  Inquiry() {
    pw_init(nullptr, nullptr);
    _loop = pw_main_loop_new(nullptr);
    if (_loop) _context = pw_context_new(pw_main_loop_get_loop(_loop), nullptr, 0);
    if (_context) _core = pw_context_connect(_context, nullptr, 0);
  }
  ~Inquiry() {
    for (Node& node : _nodes) pw_proxy_destroy(node.proxy);
    if (_registry) pw_proxy_destroy(reinterpret_cast<pw_proxy*>(_registry));
    if (_core) pw_core_disconnect(_core);
    if (_context) pw_context_destroy(_context);
    if (_loop) pw_main_loop_destroy(_loop);
    pw_deinit();
  }
  Inquiry(const Inquiry&) = delete;
  Inquiry& operator=(const Inquiry&) = delete;

  MediaServer ask() {
    _answer.problem = "no PipeWire server can be reached: is it running, and is XDG_RUNTIME_DIR set?";
    if (!_core) return std::move(_answer);
    static const pw_core_events coreEvents = [] {
      pw_core_events made{};
      made.version = PW_VERSION_CORE_EVENTS;
      made.info = [](void* self, const pw_core_info* info) { static_cast<Inquiry*>(self)->coreInfoCame(*info); };
      made.done = [](void* self, std::uint32_t, int) { static_cast<Inquiry*>(self)->answersCame(); };
      made.error = [](void* self, std::uint32_t id, int, int, const char* message) {
        static_cast<Inquiry*>(self)->errorCame(id, message ? message : "");
      };
      return made;
    }();
    static const pw_registry_events registryEvents = [] {
      pw_registry_events made{};
      made.version = PW_VERSION_REGISTRY_EVENTS;
      made.global = [](void* self, std::uint32_t id, std::uint32_t, const char* type, std::uint32_t,
                       const spa_dict* properties) {
        static_cast<Inquiry*>(self)->objectAppeared(id, type, copyOf(properties));
      };
      return made;
    }();
    pw_core_add_listener(_core, &_coreListener, &coreEvents, this);
    _registry = pw_core_get_registry(_core, PW_VERSION_REGISTRY, 0);
    pw_registry_add_listener(_registry, &_registryListener, &registryEvents, this);
    pw_core_sync(_core, PW_ID_CORE, 0);
    pw_loop* const loop = pw_main_loop_get_loop(_loop);
    spa_source* const timer = pw_loop_add_timer(
        loop, [](void* self, std::uint64_t) { pw_main_loop_quit(static_cast<Inquiry*>(self)->_loop); }, this);
    timespec patience = Patience;
    pw_loop_update_timer(loop, timer, &patience, nullptr, false);
    pw_main_loop_run(_loop);
    pw_loop_destroy_source(loop, timer);
    finish();
    return std::move(_answer);
  }

 private:
  void coreInfoCame(const pw_core_info& info) {
    _answer.problem.clear();
    _answer.name = std::string("PipeWire ") + info.version + " (" + info.name + ")";
  }

  void errorCame(std::uint32_t id, const std::string& message) {
    if (id != PW_ID_CORE) return;
    _answer.problem = "PipeWire: " + message;
    pw_main_loop_quit(_loop);
  }

  void objectAppeared(std::uint32_t id, const std::string& type, Properties properties) {
    const std::string mediaClass = valueOf(properties, PW_KEY_MEDIA_CLASS);
    if (type == PW_TYPE_INTERFACE_Node && (mediaClass == "Video/Source" || mediaClass == "Audio/Source")) {
      Node& node = _nodes.emplace_back();
      node.id = id;
      node.device.name = valueOf(properties, PW_KEY_NODE_NAME);
      node.device.description = valueOf(properties, PW_KEY_NODE_DESCRIPTION);
      bind(node);
    }
    _objects[id] = {type, std::move(properties)};
  }

  void bind(Node& node) {
    static const pw_node_events events = [] {
      pw_node_events made{};
      made.version = PW_VERSION_NODE_EVENTS;
      made.info = [](void* data, const pw_node_info* info) {
        Node& asked = *static_cast<Node*>(data);
        const std::span params(info->params, info->n_params);
        const bool tells = std::ranges::any_of(params, [](const spa_param_info& each) {
          return each.id == SPA_PARAM_EnumFormat && (each.flags & SPA_PARAM_INFO_READ) != 0;
        });
        if (!tells || asked.isAsked) return;
        asked.isAsked = true;
        pw_node_enum_params(reinterpret_cast<pw_node*>(asked.proxy), 0, SPA_PARAM_EnumFormat, 0, UINT32_MAX, nullptr);
      };
      made.param = [](void* data, int, std::uint32_t, std::uint32_t, std::uint32_t, const spa_pod* format) {
        static_cast<Node*>(data)->add(format);
      };
      return made;
    }();
    node.proxy =
        static_cast<pw_proxy*>(pw_registry_bind(_registry, node.id, PW_TYPE_INTERFACE_Node, PW_VERSION_NODE, 0));
    pw_proxy_add_object_listener(node.proxy, &node.listener, &events, &node);
  }

  /// First what there is, then what each says of itself, then its formats.
  void answersCame() {
    if (++_rounds == 3) pw_main_loop_quit(_loop);
    pw_core_sync(_core, PW_ID_CORE, 0);
  }

  std::string programOf(const std::string& nodeID) const {
    const auto propertiesOf = [&](const std::string& id) {
      const auto found = _objects.find(static_cast<std::uint32_t>(std::atoi(id.c_str())));
      return found == _objects.end() ? Properties{} : found->second.second;
    };
    const Properties node = propertiesOf(nodeID), client = propertiesOf(valueOf(node, PW_KEY_CLIENT_ID));
    std::string name = valueOf(client, PW_KEY_APP_NAME);
    if (name.empty()) name = valueOf(node, PW_KEY_NODE_NAME);
    const std::string process = valueOf(client, PW_KEY_SEC_PID);
    return name + (process.empty() ? "" : " (" + process + ")");
  }

  void finish() {
    for (const auto& [id, object] : _objects) {
      const auto& [type, properties] = object;
      const std::string program = valueOf(properties, PW_KEY_APP_NAME);
      const bool manages = program.starts_with("WirePlumber") || program.find("media-session") != program.npos;
      if (type == PW_TYPE_INTERFACE_Client && manages && _answer.sessionManager.empty())
        _answer.sessionManager = program;
      if (type != PW_TYPE_INTERFACE_Link) continue;
      for (Node& node : _nodes) {
        if (valueOf(properties, PW_KEY_LINK_OUTPUT_NODE) != std::to_string(node.id)) continue;
        const std::string user = programOf(valueOf(properties, PW_KEY_LINK_INPUT_NODE));
        if (std::ranges::find(node.device.users, user) == node.device.users.end()) node.device.users.push_back(user);
      }
    }
    for (Node& node : _nodes) {
      node.finish();
      _answer.devices.push_back(node.device);
    }
  }

  pw_main_loop* _loop = nullptr;
  pw_context* _context = nullptr;
  pw_core* _core = nullptr;
  pw_registry* _registry = nullptr;
  spa_hook _coreListener{}, _registryListener{};
  std::map<std::uint32_t, std::pair<std::string, Properties>> _objects;  ///< with their types
  std::deque<Node> _nodes;
  int _rounds = 0;
  MediaServer _answer;
};

}  // namespace

std::optional<MediaServer> askMediaServer() {
  return Inquiry().ask();
}

}  // namespace brvhost
