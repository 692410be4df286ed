#pragma once

// The capture module for hosts in C++20: its sources, what can be set on them, their pictures and sound.
//
//   brv::Library library;
//   brv::Source camera = library.source("HD Webcam Video");
//   camera.select(brv::VideoSettings, "1280 x 720");
//   brv::Subscription pictures = camera.onVideo([&](const brv::Frame& frame) { show(frame.pixels()); });
//   while (running) {
//     if (library.poll(20ms)) list(library.sources());
//   }
//
// Everything is called on one thread, the main one if devices are to come and go while the host runs, but for what says
// that callbacks may call it too. Errors are thrown as brv::Error; nothing is thrown out of destructors. A host's
// callbacks run on threads of the module: what they throw ends the program. What BRV_AVCapture.h says about them holds
// here too; above all they may not wait for the thread that drives the module, nor end a subscription.
//
// Only BRV_AVCaptureLoader.h, the standard library and the frameworks' C headers are needed, and libcaptureframeworks.

#include <CoreFoundation/CFRunLoop.h>
#include <CoreVideo/CVPixelBuffer.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "BRV_AVCaptureLoader.h"

namespace brv {

class Error : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// When a sample was taken: the machine's monotonic clock, the same for all sources, so that a frame's age is
/// Time::clock::now() - frame.time(). Clips that play at the host's pace count from 0.
using Time = std::chrono::steady_clock::time_point;
using Seconds = std::chrono::duration<double>;

// ---- Records ----

/// A field of a record in the module's XML, and the name of the record that it stands in. Each record begins with a
/// Field of which `name` is empty.
struct Field {
  std::string record;
  std::string name;
  std::string value;

  bool operator==(const Field&) const = default;
};

namespace detail {

inline std::string unescaped(std::string_view text) {
  static constexpr std::pair<std::string_view, char> Entities[] = {{"&amp;", '&'},  {"&lt;", '<'},    {"&gt;", '>'},
                                                                   {"&quot;", '"'}, {"&apos;", '\''}, {"&#9;", '\t'},
                                                                   {"&#10;", '\n'}, {"&#13;", '\r'}};
  std::string plain;
  while (!text.empty()) {
    std::size_t length = 1;
    char character = text.front();
    for (const auto& [entity, meaning] : Entities) {
      if (text.starts_with(entity)) std::tie(length, character) = std::pair(entity.size(), meaning);
    }
    plain += character;
    text.remove_prefix(length);
  }
  return plain;
}

inline std::string escaped(std::string_view text) {
  std::string written;
  for (const char character : text) {
    if (character == '&')
      written += "&amp;";
    else if (character == '<')
      written += "&lt;";
    else if (character == '"')
      written += "&quot;";
    else
      written += character;
  }
  return written;
}

inline std::string attribute(std::string_view tag, std::string_view name) {
  const std::string start = " " + std::string(name) + "=\"";
  const std::size_t found = tag.find(start);
  if (found == tag.npos) return {};
  const std::string_view value = tag.substr(found + start.size());
  return unescaped(value.substr(0, value.find('"')));
}

/// Makes both calls of the two-call convention; `call` takes buffer and length.
template <typename Call>
std::string textOf(Call&& call) {
  int length = 0;
  call(nullptr, &length);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  if (length > 0) call(text.data(), &length);  // a terminator falls on the string's own
  return text;
}

}  // namespace detail

/// The fields of a record that the module wrote, in their order. For no other XML.
inline std::vector<Field> fieldsOf(std::string_view xml) {
  std::vector<Field> fields;
  std::vector<std::string> open;
  for (std::size_t at = xml.find('<'); at != xml.npos; at = xml.find('<', at + 1)) {
    const std::string_view tag = xml.substr(at, xml.find('>', at) - at);
    const bool isRecord = tag.starts_with("<record ");
    if (tag.starts_with("</") && !open.empty()) open.pop_back();
    if (tag.starts_with("</") || tag.starts_with("<?") || (!isRecord && open.empty())) continue;
    const std::string name = detail::attribute(tag, "name");
    if (isRecord)
      fields.push_back({name, "", ""});
    else
      fields.push_back({open.back(), name, detail::attribute(tag, "value")});
    if (isRecord && !tag.ends_with('/')) open.push_back(name);
  }
  return fields;
}

// ---- Samples ----

/// The bytes of a picture, readable as long as this exists.
class Pixels {
 public:
  explicit Pixels(CVPixelBufferRef buffer) : _buffer(buffer) {
    if (!buffer || CVPixelBufferLockBaseAddress(buffer, kCVPixelBufferLock_ReadOnly) != kCVReturnSuccess) {
      throw Error("a picture cannot be read");
    }
    CVPixelBufferRetain(buffer);
  }
  ~Pixels() {
    CVPixelBufferUnlockBaseAddress(_buffer, kCVPixelBufferLock_ReadOnly);
    CVPixelBufferRelease(_buffer);
  }
  Pixels(const Pixels&) = delete;
  Pixels& operator=(const Pixels&) = delete;

  std::size_t width() const { return CVPixelBufferGetWidth(_buffer); }
  std::size_t height() const { return CVPixelBufferGetHeight(_buffer); }
  std::size_t rowBytes() const { return CVPixelBufferGetBytesPerRow(_buffer); }
  /// All rows, rowBytes() from one to the next.
  std::span<const std::uint8_t> bytes() const { return {base(), rowBytes() * height()}; }
  /// A row of whole pairs Y0 Cb Y1 Cr.
  std::span<const std::uint8_t> row(std::size_t y) const { return {base() + y * rowBytes(), (width() + 1) / 2 * 4}; }

 private:
  const std::uint8_t* base() const { return static_cast<const std::uint8_t*>(CVPixelBufferGetBaseAddress(_buffer)); }

  CVPixelBufferRef _buffer;
};

/// A picture, or none. A copy of it keeps the picture, without copying pixels; keep a few only, since the source runs
/// out of buffers. It outlives its source and the library. Any thread.
class Frame {
 public:
  Frame() = default;
  Frame(const BRV_VideoBuffer& record, Time time) : _record(record), _time(time) { CVPixelBufferRetain(pixelBuffer()); }
  Frame(const Frame& other) : Frame(other._record, other._time) {}
  Frame(Frame&& other) noexcept { swap(other); }
  Frame& operator=(Frame other) noexcept {
    swap(other);
    return *this;
  }
  ~Frame() { CVPixelBufferRelease(pixelBuffer()); }

  explicit operator bool() const { return _record.data != nullptr; }
  /// Size for display, shape of a pixel, time stamp and flags, as the module sent them.
  const BRV_VideoBuffer& record() const { return _record; }
  Time time() const { return _time; }
  /// Borrowed, for CoreVideo's calls: attachments tell the colours.
  CVPixelBufferRef pixelBuffer() const { return static_cast<CVPixelBufferRef>(_record.data); }
  Pixels pixels() const { return Pixels(pixelBuffer()); }

 private:
  void swap(Frame& other) noexcept {
    std::swap(_record, other._record);
    std::swap(_time, other._time);
  }

  BRV_VideoBuffer _record{};
  Time _time{};
};

/// A run of sound, during the callback only: to keep it, copy the samples.
struct Sound {
  Sound(const BRV_AudioBuffer& from, std::span<const std::int16_t> run, std::optional<Time> when)
      : record(from), samples(run), time(when) {}
  Sound(const Sound&) = delete;
  Sound& operator=(const Sound&) = delete;

  const BRV_AudioBuffer& record;
  std::span<const std::int16_t> samples;  ///< left and right in turn, 44,100 pairs a second
  std::optional<Time> time;               ///< of the first sample; absent while the module cannot tell
};

// ---- Behind the interface ----

/// What hears a source, on its capture queues. What is empty hears nothing.
struct Handlers {
  std::function<void(const Frame&)> video = {};
  std::function<void(const Sound&)> audio = {};
  /// Called once, on the thread that subscribes, when the source has chosen its format and stands still: everything
  /// before is over, and the next sample is the first.
  std::function<void()> starting = {};
};

namespace detail {

enum Medium : std::size_t { Video, Audio };
struct Listener;
using Heard = std::array<Listener*, 2>;  ///< who hears the media of a source

/// One library in a process.
class OnlyOne {
 public:
  OnlyOne() {
    if (isTaken.exchange(true))
      throw Error("the library is in use: by another Library, or a Source or Subscription of it");
  }
  ~OnlyOne() { isTaken = false; }
  OnlyOne(const OnlyOne&) = delete;
  OnlyOne& operator=(const OnlyOne&) = delete;

 private:
  static inline std::atomic<bool> isTaken = false;
};

}  // namespace detail

/// What the module noticed on the machine; it may have changed no source.
enum class Change { Attached, Removed };

/// How a Library is opened.
struct Options {
  std::string module = {};                         ///< its path; empty: see BRV_OpenModule
  std::string language = "en";                     ///< of the titles of choices
  BRV_LocalizeStringCallback translate = nullptr;  ///< null: its keys stand for themselves
  /// A line of the log and its level. Any thread, perhaps several at once.
  std::function<void(int level, std::string_view line)> log = {};
  /// Ask for the sources again. On the main thread, while it polls.
  std::function<void(Change change)> changed = {};
};

namespace detail {

/// The library while a Library, Source or Subscription uses it. `listeners` has what is registered.
struct Core {
  explicit Core(Options chosen) : options(std::move(chosen)) {
    if (!BRV_OpenModule(&module, options.module.empty() ? nullptr : options.module.c_str())) throw Error(module.error);
    if (options.translate) module.BRV_RegisterLocalizeStringCallback(options.translate);
    module.BRV_IntitializeLibrary();
    module.BRV_RegisterDeviceStateChangedCallback(nullptr, stateChanged, this);
    module.BRV_RegisterLogCallback(nullptr, logLine, options.log ? this : nullptr);
    groupName = textOf([&](char* buffer, int* length) {  // which sets the language
      module.BRV_GetDeviceGroupDisplayName(options.language.c_str(), buffer, length);
    });
    groupId = textOf([&](char* buffer, int* length) { module.BRV_GetDeviceId(nullptr, buffer, length); });
  }
  ~Core() {
    module.BRV_UninitializeLibrary();
    BRV_CloseModule(&module);
  }
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;

  void listen(const std::string& source, Medium medium, Listener* listener);
  void start(Listener& listener);
  void end(Listener& listener);

  std::optional<std::string> property(const std::string& source, const char* name) const {
    std::optional<std::string> value;
    const auto receive = [](void* context, int type, const void* data) noexcept {
      auto& received = *static_cast<std::optional<std::string>*>(context);
      if (type == BRV_PROPERTY_STRING)
        received = static_cast<const char*>(data);
      else if (type == BRV_PROPERTY_INT64)
        received = std::to_string(*static_cast<const std::int64_t*>(data));
    };
    module.BRV_GetProperty(&value, receive, name, "", source.c_str());
    return value;
  }

  static void stateChanged(void* context, int state) {
    auto& self = *static_cast<Core*>(context);
    self.isChanged = true;
    if (self.options.changed) {
      self.options.changed(state == BRV_DEVICE_STATE_ATTACHED ? Change::Attached : Change::Removed);
    }
  }

  static void logLine(void* context, int level, const char* format, ...) {
    std::array<char, 1024> line{};
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line.data(), line.size(), format, arguments);
    va_end(arguments);
    static_cast<Core*>(context)->options.log(level, line.data());
  }

  OnlyOne only;
  Options options;
  BRV_Module module;
  std::string groupName, groupId;
  std::atomic<bool> isChanged = false;
  std::map<std::string, Heard, std::less<>> listeners;
};

/// The handlers of the host, registered for the media of a source that they hear, until they go.
struct Listener {
  Listener(std::shared_ptr<Core> library, std::string id, Handlers hearing)
      : core(std::move(library)), source(std::move(id)), handlers(std::move(hearing)), heard(core->listeners[source]) {}
  ~Listener() { core->end(*this); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  bool hears(Medium medium) const { return medium == Video ? bool(handlers.video) : bool(handlers.audio); }

  static Time timeOf(std::int64_t ticks, std::int64_t perSecond) {
    const std::chrono::seconds seconds(ticks / perSecond);
    const std::chrono::nanoseconds rest(ticks % perSecond * 1'000'000'000 / perSecond);
    return Time(seconds + rest);
  }

  static void videoArrived(void* context, BRV_VideoBuffer* record) noexcept {
    const auto& self = *static_cast<Listener*>(context);
    if (!self.isOn) return;
    const int perSecond = self.core->module.BRV_GetTimescaleTicksPerSec(nullptr, self.source.c_str());
    if (record->format == BRV_FORMAT_PIXEL_BUFFER && perSecond > 0) {
      self.handlers.video(Frame(*record, timeOf(record->timeStamp, perSecond)));
    }
  }

  static void audioArrived(void* context, BRV_AudioBuffer* record) noexcept {
    const auto& self = *static_cast<Listener*>(context);
    if (!self.isOn || record->format != BRV_FORMAT_PCM) return;
    const std::span samples(static_cast<const std::int16_t*>(record->data),
                            static_cast<std::size_t>(record->dataLength) / sizeof(std::int16_t));
    const long long perSecond = std::stoll(self.core->property(self.source, "audio_timescale").value_or("0"));
    std::optional<Time> time;
    if (perSecond > 0) time = timeOf(record->timeStamp, perSecond);
    self.handlers.audio(Sound(*record, samples, time));
  }

  const std::shared_ptr<Core> core;
  const std::string source;
  const Handlers handlers;
  Heard& heard;
  std::atomic<bool> isOn = false;  ///< whether samples are the listener's by now
};

/// Stops the source, and starts it with the listener unless there is none.
inline void Core::listen(const std::string& source, Medium medium, Listener* listener) {
  if (medium == Video) {
    module.BRV_RegisterVideoDataArrivedCallback(nullptr, source.c_str(), listener ? Listener::videoArrived : nullptr,
                                                listener);
  } else {
    module.BRV_RegisterAudioDataArrivedCallback(nullptr, source.c_str(), listener ? Listener::audioArrived : nullptr,
                                                listener);
  }
}

/// In the place of those that heard its media before.
inline void Core::start(Listener& listener) {
  for (const Medium medium : {Video, Audio}) {
    if (listener.hears(medium)) listener.heard[medium] = &listener;
  }
  const Medium first = listener.hears(Audio) ? Audio : Video, last = listener.hears(Video) ? Video : Audio;
  if (first != last || listener.handlers.starting) {
    listen(listener.source, first, &listener);
    listen(listener.source, last, nullptr);
  }
  if (listener.handlers.starting) listener.handlers.starting();
  listener.isOn = true;
  listen(listener.source, last, &listener);
}

/// Takes the listener back where no other took its place. What else listens to the source goes on.
inline void Core::end(Listener& listener) {
  Heard& heard = listener.heard;
  bool wasHeard = false;
  for (const Medium medium : {Video, Audio}) {
    if (heard[medium] != &listener) continue;
    heard[medium] = nullptr;
    listen(listener.source, medium, nullptr);
    wasHeard = true;
  }
  for (const Medium medium : {Video, Audio}) {
    if (wasHeard && heard[medium]) listen(listener.source, medium, heard[medium]);
  }
}

}  // namespace detail

// ---- The library and its sources ----

/// Handlers that are registered, as long as this exists: none is running when this has ended, or is called afterwards.
/// A source runs while there is a subscription to it. Keep it after what the handlers use, so that it ends first. It
/// may outlive the Library, whose module it keeps open.
class Subscription {
 public:
  Subscription() = default;
  void reset() { _listener.reset(); }
  explicit operator bool() const { return _listener != nullptr; }

 private:
  friend class Source;
  explicit Subscription(std::unique_ptr<detail::Listener> listener) : _listener(std::move(listener)) {}
  std::unique_ptr<detail::Listener> _listener;
};

/// The parameters of a source.
inline constexpr const char* VideoSettings = "Video Settings";
inline constexpr const char* VideoFPS = "Video FPS";
inline constexpr const char* AudioSettings = "Audio Settings";

/// A choice of a parameter. The choices of VideoFPS are those of the format in use.
struct Option {
  int index = 0;
  std::string title;
};

/// A parameter of a source, and the index of the choice that it shall have.
struct Setting {
  std::string parameter;
  int index = 0;

  bool operator==(const Setting&) const = default;
};

/// What the module says to settings: above 0 done, else with its message, if it has one.
struct Answer {
  int code = 0;
  std::string message = {};

  explicit operator bool() const { return code > 0; }
};

/// A camera, a microphone, or the two together, by its name. It may be unplugged at any time: questions to it have no
/// answer then, and attempts to use it throw. One that comes back under its name is to be subscribed to again.
class Source {
 public:
  const std::string& id() const { return _id; }
  bool hasVideo() const { return supports("ProvidesVideo"); }
  bool hasAudio() const { return supports("ProvidesAudio"); }
  bool isHDV() const { return supports("HDV"); }
  bool isPluggedIn() const { return index() >= 0; }

  /// A property as text, such as "device_id", and in records what fieldsOf reads. Callbacks may call it too.
  std::optional<std::string> property(const char* name) const { return _core->property(_id, name); }

  /// How time stamps count, and how many ticks a frame lasts: not above 0 before the first sample, and for sound alone
  /// the latter never. Callbacks may ask too.
  int ticksPerSecond() const { return module().BRV_GetTimescaleTicksPerSec(nullptr, _id.c_str()); }
  std::int64_t frameDuration() const { return std::stoll(property("frame_duration").value_or("0")); }

  /// Why the source delivers nothing, once; empty when nothing new is known.
  std::string error() const {
    const int at = index();
    if (at < 0) return _id + " is not plugged in";
    std::string pending = property("error").value_or("");
    if (!pending.empty()) message(-at);  // takes it
    return pending;
  }

  /// Starts the source for the handlers. They take the place of those that heard the same media, whose Subscription has
  /// no effect on these any more; another's medium goes on, after a restart. Blocks for some 100 ms for each start, and
  /// starts twice where there are handlers of both media, so that both begin together, or of `starting`.
  [[nodiscard]] Subscription listen(Handlers handlers) const {
    requirePluggedIn();
    if (handlers.video && !hasVideo()) throw Error(_id + " has no pictures");
    if (handlers.audio && !hasAudio()) throw Error(_id + " has no sound");
    if (!handlers.video && !handlers.audio) throw Error("nothing is to hear " + _id);
    auto listener = std::make_unique<detail::Listener>(_core, _id, std::move(handlers));
    _core->start(*listener);
    return Subscription(std::move(listener));
  }

  /// The same for pictures, or for sound, alone.
  [[nodiscard]] Subscription onVideo(std::function<void(const Frame&)> handler) const {
    return listen({.video = std::move(handler)});
  }
  [[nodiscard]] Subscription onAudio(std::function<void(const Sound&)> handler) const {
    return listen({.audio = std::move(handler)});
  }

  /// One picture, taken now. Throws when none comes in time, and when there is a subscription to the pictures already.
  Frame picture(Seconds timeout = std::chrono::seconds(5)) const;

  std::vector<Option> options(const char* parameter) const {
    const std::string record = detail::textOf([&](char* buffer, int* length) {
      module().BRV_QueryParameterOptions(nullptr, _id.c_str(), parameter, buffer, length);
    });
    std::vector<Option> found;
    for (const Field& field : fieldsOf(record)) {
      if (field.record == "option" && field.name.empty()) found.emplace_back();
      if (field.record == "option" && field.name == "value") found.back().index = std::stoi(field.value);
      if (field.record == "title" && field.name == "value") found.back().title = field.value;
    }
    return found;
  }

  /// The index of what is chosen; none when that is not known.
  std::optional<int> selected(const char* parameter) const {
    const std::string record = detail::textOf(
        [&](char* buffer, int* length) { module().BRV_GetSourceSettings(nullptr, _id.c_str(), buffer, length); });
    std::string name;
    for (const Field& field : fieldsOf(record)) {
      if (field.name == "name") name = field.value;
      if (field.name == "value" && name == parameter) return std::stoi(field.value);
    }
    return std::nullopt;
  }

  /// Applies settings in their order, while the source runs or for its next start; the answer is for the last one that
  /// applies. A frame rate lasts over a start only when the format was chosen before. Blocks for some 100 ms.
  Answer apply(const std::vector<Setting>& settings) const {
    std::string record = "<record name=\"settings\">";
    for (const Setting& setting : settings) {
      record += "<record name=\"parameter\"><text name=\"name\" value=\"" + detail::escaped(setting.parameter) +
                "\"/><int32 name=\"value\" value=\"" + std::to_string(setting.index) + "\"/></record>";
    }
    requirePluggedIn();
    Answer answer{module().BRV_SetSourceSettings(nullptr, _id.c_str(), (record + "</record>").c_str())};
    if (!answer) answer.message = error();
    const auto found = _core->listeners.find(_id);
    const bool isHeard = found != _core->listeners.end() && (found->second[0] || found->second[1]);
    if (!isHeard) _core->listen(_id, detail::Video, nullptr);  // stops what the call has started
    return answer;
  }

  /// The same for one, which throws when it is refused.
  void select(const char* parameter, int index) const {
    const Answer answer = apply({{parameter, index}});
    if (!answer) throw Error(_id + " refused " + parameter + " " + std::to_string(index) + ": " + answer.message);
  }

  /// The same by the title of the choice.
  void select(const char* parameter, std::string_view title) const {
    std::string titles;
    for (const Option& option : options(parameter)) {
      if (option.title == title) return select(parameter, option.index);
      titles += "\n  " + option.title;
    }
    throw Error(_id + " has no " + std::string(title) + " for " + parameter + ", but" + titles);
  }

 private:
  friend class Library;
  Source(std::shared_ptr<detail::Core> core, std::string id) : _core(std::move(core)), _id(std::move(id)) {}

  const BRV_Module& module() const { return _core->module; }
  bool supports(const char* name) const { return module().BRV_SourceSupportsProperty(nullptr, _id.c_str(), name) != 0; }
  int index() const;
  void requirePluggedIn() const {
    if (!isPluggedIn()) throw Error(_id + " is not plugged in");
  }
  std::string message(int code) const {
    return detail::textOf(
        [&](char* buffer, int* length) { module().BRV_GetErrorMessage(nullptr, nullptr, code, buffer, length); });
  }

  std::shared_ptr<detail::Core> _core;
  std::string _id;
};

/// The module, loaded and initialised: one at a time in a process. It is uninitialised when this and all that came from
/// it have gone.
class Library {
 public:
  explicit Library(Options options = {}) : _core(std::make_shared<detail::Core>(std::move(options))) {}

  /// The name of the group that all sources are in.
  const std::string& name() const { return _core->groupName; }
  /// A property of it: "provider", or "unoffered_devices", a record.
  std::optional<std::string> property(const char* name) const { return _core->property(_core->groupId, name); }

  /// The sources as of now.
  std::vector<Source> sources() const {
    std::vector<Source> found;
    for (std::string& id : idsOf(*_core)) found.push_back(Source(_core, std::move(id)));
    return found;
  }

  /// The source of that name. Throws when it is not plugged in.
  Source source(std::string_view id) const {
    Source found(_core, std::string(id));
    found.requirePluggedIn();
    return found;
  }

  /// Runs the main loop for so long; with 0, only what waits. True when devices came or went: ask for the sources
  /// again. On the main thread alone.
  bool poll(Seconds time = Seconds(0)) const {
    runMainLoop(time);
    return _core->isChanged.exchange(false);
  }

  /// The entry points, for what has no place here.
  const BRV_Module& module() const { return _core->module; }

 private:
  friend class Source;
  static void runMainLoop(Seconds time) {
    if (CFRunLoopRunInMode(kCFRunLoopDefaultMode, time.count(), false) == kCFRunLoopRunFinished) {
      throw Error("the main loop runs on the main thread alone");
    }
  }
  static std::vector<std::string> idsOf(const detail::Core& core) {
    std::vector<std::string> ids;
    const int count = core.module.BRV_GetSourceCount();
    ids.reserve(static_cast<std::size_t>(count));
    for (int index = 0; index < count; ++index) {
      ids.push_back(detail::textOf(
          [&](char* buffer, int* length) { core.module.BRV_GetSourceId(nullptr, index, buffer, length); }));
    }
    return ids;
  }

  std::shared_ptr<detail::Core> _core;
};

inline int Source::index() const {
  const std::vector<std::string> ids = Library::idsOf(*_core);
  for (std::size_t index = 0; index < ids.size(); ++index) {
    if (ids[index] == _id) return static_cast<int>(index);
  }
  return -1;
}

inline Frame Source::picture(Seconds timeout) const {
  const auto found = _core->listeners.find(_id);
  if (found != _core->listeners.end() && found->second[detail::Video]) throw Error(_id + " has a subscription already");
  std::mutex lock;
  Frame taken;
  const Subscription subscription = onVideo([&](const Frame& frame) {
    const std::lock_guard guard(lock);
    if (!taken) taken = frame;
  });
  const Time end = Time::clock::now() + std::chrono::duration_cast<Time::duration>(timeout);
  while (Time::clock::now() < end) {
    Library::runMainLoop(Seconds(0.01));
    const std::lock_guard guard(lock);
    if (taken) return taken;
  }
  const std::string reason = error();
  throw Error(_id + " sends no picture" + (reason.empty() ? "" : ": " + reason));
}

}  // namespace brv
