#include "Studio.h"

#include <Foundation/MainLoop.h>
#include <Foundation/NSNotification.h>
#include <lumora/zBuffer.h>
#include <lumora/zRecord.h>
#include <lumora/zThread.h>
#include <lumora/zTrace.h>
#include <lumora/zXML.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <utility>

#include "AVDeviceManager.h"

// The outputs' own counts, which a source does not show.
namespace {

Ref<AVCaptureOutput> videoOutput(AV::Device& source);
Ref<AVCaptureOutput> audioOutput(AV::Device& source);

template <auto Video, auto Audio>
struct Outputs {
  friend Ref<AVCaptureOutput> videoOutput(AV::Device& source) { return source.*Video; }
  friend Ref<AVCaptureOutput> audioOutput(AV::Device& source) { return source.*Audio; }
};

template struct Outputs<&AV::Device::_pVideoOutput, &AV::Device::_pAudioOutput>;

}  // namespace

namespace test {
namespace {

constexpr const char* CameraId = "c";
constexpr const char* MicrophoneId = "m";
constexpr const char* CamcorderId = "k";

/// Ends the program, and with it the run, where something does not hold: the explorer says how to come here again.
void require(bool holds, const char* rule) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", rule);
  std::abort();
}

std::string settingsText(const char* name, int value) {
  zRecord record("settings");
  auto* parameter = new zRecord("parameter");
  parameter->SetCString("name", name, 0);
  parameter->SetInt32("value", value, 0);
  record.AddChild(parameter, zRecord::AtEnd);
  zBuffer buffer(0, 0);
  zXML::RecordToBuffer(&buffer, record, zXML::Format, true, false);
  return {buffer.Data(), buffer.Length()};
}

}  // namespace

/// One registration of a data callback.
struct Studio::Context {
  Studio& studio;
  std::string source;
  bool isVideo;
  bool isRegistered = true;
  bool isBeingRegistered = true;  ///< Perhaps with a source that comes back under its name.
  bool isSilent = false;  ///< The source is stopped.
  bool isInCall = false;
  bool isActing = false;  ///< Within the call, in an entry point.
};

struct Studio::LogContext {
  bool isRegistered = true;
};

Studio::Studio(Chooser& chooser, const Plan& plan)
    : _plan(plan), _chooser(chooser), _scheduler(&chooser, Time::Free), _provider(std::make_shared<fake::Provider>()) {
  _devices = {fake::camera("Camera", CameraId, {MicrophoneId}), fake::microphone("Mic", MicrophoneId, {CameraId})};
  if (plan.hasCamcorder) _devices.push_back(fake::camcorder("Deck", CamcorderId));
  for (std::size_t i = 0; i < _devices.size(); ++i) {
    _isPlugged[i] = true;
    _provider->plug(_devices[i]);
  }
  hardware::installSystemProvider(_provider);
  zThread::SetSleepFunction([](unsigned microseconds) {
    auto& scheduler = runtime::Scheduler::current();
    scheduler.sleepUntil(scheduler.now() + microseconds * 1000);
  });
  zTrace::Default().SetSink([](const char*) {});
}

Studio::~Studio() {
  zTrace::Default().SetSink({});
  zThread::SetSleepFunction(nullptr);
  hardware::installSystemProvider(nullptr);
}

std::uint64_t Studio::run() {
  begin();
  const auto first = sources().front();
  registerVideo(first, true);
  registerAudio(first, true);

  start("camera", &Studio::camera);
  start("plugs", &Studio::plugs);
  if (_plan.hostIsMainThread) {
    host();
  } else {
    start("host", &Studio::host);
  }
  mainThread();
  // The rest, down to the signal of a loop that has not been waited for.
  _scheduler.setTime(Time::InOrder);
  NSRunLoop::mainRunLoop().runForSeconds(1);
  check();
  checkEverybodyIsThere();
  end();
  return _scheduler.trace();
}

// The lines

void Studio::start(const char* name, void (Studio::*body)()) {
  ++_linesLeft;
  _scheduler.start(name, [this, body] {
    (this->*body)();
    --_linesLeft;
  });
}

std::size_t Studio::choose(std::size_t count) {
  return count > 1 ? _chooser.choose(count) : 0;
}

/// Something that tells one run from another.
void Studio::step(const char* what, const std::string& object) {
  static const bool isShown = std::getenv("SIMULATION_STEPS");
  if (isShown) std::fprintf(stderr, "%12.6f  %s %s\n", static_cast<double>(_scheduler.now()) / 1e9, what, object.c_str());
  _scheduler.note(std::hash<std::string_view>()(what));
  _scheduler.note(std::hash<std::string_view>()(object));
}

void Studio::host() {
  for (int i = 0; i < _plan.hostActions; ++i) {
    if (i > 0) _scheduler.yield();
    while (_isCalling) _scheduler.waitUntil([](void* studio) { return !static_cast<Studio*>(studio)->_isCalling; }, this);
    _isCalling = true;
    act();
    step("host done");
    _isCalling = false;
    check();
  }
}

void Studio::camera() {
  static const std::array<std::int16_t, 64> silence{};
  for (int i = 0; i < _plan.cameraActions; ++i) {
    if (i > 0) _scheduler.yield();
    const CMTime time = CMTimeMake(++_ticks, 30);
    const auto& pictures = _devices[_devices.size() > 2 ? 2 * choose(2) : 0];
    const auto& sound = pictures == _devices[0] ? _devices[1] : pictures;
    switch (choose(3)) {
      case 0:
        step("a frame is taken by", pictures->described.name);
        pictures->captureFrame(time);
        break;
      case 1:
        step("a frame is lost by", pictures->described.name);
        pictures->loseFrame(time);
        break;
      case 2:
        step("sound is taken by", sound->described.name);
        sound->captureSound(time, silence.data(), 32);
        break;
    }
    step("taken");
  }
}

void Studio::plugs() {
  for (int i = 0; i < _plan.plugActions; ++i) {
    if (i > 0) _scheduler.yield();
    const std::size_t which = choose(_devices.size());
    const auto& device = _devices[which];
    _isPlugged[which] = !_isPlugged[which];
    step(_isPlugged[which] ? "plug" : "unplug", device->described.name);
    _isPlugged[which] ? _provider->plug(device) : _provider->unplug(device);
    step("plugged");
  }
}

void Studio::mainThread() {
  const auto hasToRun = [](void* studio) {
    return MainLoop::instance().waitingCount() > 0 || static_cast<Studio*>(studio)->_linesLeft == 0;
  };
  while (_linesLeft > 0) {
    _scheduler.waitUntil(hasToRun, this);
    if (!NSRunLoop::mainRunLoop().runOneBlock(0)) continue;
    step("main thread ran a block");
    check();
  }
}

// What the host does

void Studio::begin() {
  BRV_IntitializeLibrary();
  registerLog();
  BRV_RegisterDeviceStateChangedCallback(nullptr, onState, this);
}

void Studio::act() {
  enum { Video, NoVideo, Audio, NoAudio, VideoFormat, AudioFormat, Disconnect, Log, Restart, Ask, Turn, Count };
  const std::size_t action = choose(_plan.hostIsMainThread ? Count : Count - 1);
  switch (action) {
    case Video:
    case NoVideo:
      return registerVideo(chooseSource(), action == Video);
    case Audio:
    case NoAudio:
      return registerAudio(chooseSource(), action == Audio);
    case VideoFormat:
      return set(chooseSource(), "Video Settings");
    case AudioFormat:
      return set(chooseSource(), "Audio Settings");
    case Disconnect:
      return disconnect();
    case Log:
      return registerLog();
    case Restart:
      end();
      return begin();
    case Ask:
      return ask();
    case Turn:
      NSRunLoop::mainRunLoop().runOneBlock(0);
  }
}

void Studio::registerVideo(const std::string& source, bool isWanted) {
  step(isWanted ? "register video of" : "unregister video of", source);
  Context* const context = prepare(source, true, isWanted);
  BRV_RegisterVideoDataArrivedCallback(nullptr, source.c_str(), isWanted ? onVideo : nullptr, context);
  retireOthers(source, true, context);
}

void Studio::registerAudio(const std::string& source, bool isWanted) {
  step(isWanted ? "register audio of" : "unregister audio of", source);
  Context* const context = prepare(source, false, isWanted);
  BRV_RegisterAudioDataArrivedCallback(nullptr, source.c_str(), isWanted ? onAudio : nullptr, context);
  retireOthers(source, false, context);
}

/// The context of a registration, which wakes the whole source up.
Studio::Context* Studio::prepare(const std::string& source, bool isVideo, bool isWanted) {
  if (!isWanted) return nullptr;
  wake(source);
  return _contexts.emplace_back(new Context{*this, source, isVideo}).get();
}

/// Behind a registration: the former callback is not running and will not be called, and without a new one the whole
/// source is stopped.
void Studio::retireOthers(const std::string& source, bool isVideo, Context* registered) {
  if (registered) registered->isBeingRegistered = false;
  for (const auto& context : _contexts) {
    if (context->source != source || context.get() == registered) continue;
    if (!registered) context->isSilent = true;
    if (context->isVideo == isVideo) retire(*context);
  }
}

void Studio::retire(Context& context) {
  require(!context.isInCall || context.isActing, "when a registration has ended, its callback is not running");
  context.isRegistered = false;
}

void Studio::wake(const std::string& source) {
  for (const auto& context : _contexts) {
    if (context->source == source) context->isSilent = false;
  }
}

void Studio::set(const std::string& source, const char* parameter) {
  static const std::map<std::string, std::string> texts{{"Video Settings", settingsText("Video Settings", 0)},
                                                        {"Audio Settings", settingsText("Audio Settings", 1)}};
  step(parameter, source);
  wake(source);
  BRV_SetSourceSettings(nullptr, source.c_str(), texts.at(parameter).c_str());
}

void Studio::disconnect() {
  step("disconnect");
  BRV_DisconnectDevice();
  for (const auto& context : _contexts) context->isSilent = true;
}

void Studio::registerLog() {
  step("register log");
  _logs.push_back(std::make_unique<LogContext>());
  BRV_RegisterLogCallback(nullptr, onLog, _logs.back().get());
  for (const auto& log : _logs) log->isRegistered = log == _logs.back();
}

void Studio::end() {
  step("uninitialise");
  BRV_UninitializeLibrary();
  for (const auto& context : _contexts) retire(*context);
  for (const auto& log : _logs) log->isRegistered = false;
}

void Studio::ask() {
  step("ask");
  ++_asking;
  for (const auto& source : sources()) {
    BRV_SourceSupportsProperty(nullptr, source.c_str(), "ProvidesAudio");
    BRV_GetTimescaleTicksPerSec(nullptr, source.c_str());
    BRV_GetProperty(nullptr, [](void*, int, const void*) {}, "frame_duration", "", source.c_str());
  }
  --_asking;
}

std::vector<std::string> Studio::sources() const {
  std::vector<std::string> found;
  for (int i = 0; i < BRV_GetSourceCount(); ++i) {
    // Large enough for any of them: where this is not the main thread, they may change between the two calls.
    std::array<char, 64> text{};
    int length = 0;
    BRV_GetSourceId(nullptr, i, nullptr, &length);
    BRV_GetSourceId(nullptr, i, text.data(), &length);
    found.emplace_back(text.data());
  }
  return found;
}

std::string Studio::chooseSource() {
  const auto all = sources();
  return all.empty() ? "Camera Video" : all[choose(all.size())];
}

// The host's callbacks

void Studio::onVideo(void* context, BRV_VideoBuffer* buffer) {
  require(buffer->width == 64, "pictures have their size");
  receive(*static_cast<Context*>(context));
}

void Studio::onAudio(void* context, BRV_AudioBuffer* buffer) {
  require(buffer->sampleRate == 44100, "sound has its rate");
  receive(*static_cast<Context*>(context));
}

void Studio::receive(Context& context) {
  Studio& self = context.studio;
  require(context.isRegistered, "calls go to registered contexts");
  require(!context.isSilent, "a source that is stopped makes no calls");
  require(!std::exchange(context.isInCall, true), "calls for one source come one at a time");
  self.step(context.isVideo ? "video arrives of" : "audio arrives of", context.source);
  self._scheduler.yield();
  if (self._plan.callbackAction != CallbackAction::Nothing) self.actInCallback(context);
  self.step("arrived");
  context.isInCall = false;
}

void Studio::actInCallback(Context& context) {
  if (_plan.callbackAction == CallbackAction::Asks) return ask();
  if (_isCalling) return;
  _isCalling = context.isActing = true;
  switch (_plan.callbackAction) {
    case CallbackAction::UnregistersItself:
    case CallbackAction::RegistersAnew: {
      const bool isWanted = _plan.callbackAction == CallbackAction::RegistersAnew;
      context.isVideo ? registerVideo(context.source, isWanted) : registerAudio(context.source, isWanted);
      break;
    }
    case CallbackAction::UnregistersTheOther:
      context.isVideo ? registerAudio(context.source, false) : registerVideo(context.source, false);
      break;
    default:
      disconnect();
  }
  _isCalling = context.isActing = false;
}

/// When the host hears that a device is gone, so is every source without one.
void Studio::onState(void* studio, int state) {
  auto& self = *static_cast<Studio*>(studio);
  self.step(state == BRV_DEVICE_STATE_REMOVED ? "told of a removal" : "told of an arrival");
  const auto present = self.sources();
  if (state != BRV_DEVICE_STATE_REMOVED) return;
  for (const auto& context : self._contexts) {
    const bool isGone = std::ranges::find(present, context->source) == present.end();
    if (isGone && !context->isBeingRegistered) self.retire(*context);
  }
}

void Studio::onLog(void* context, int, const char*, ...) {
  require(static_cast<LogContext*>(context)->isRegistered, "the log goes to the registered context");
}

// What must hold

/// In the pauses: an entry point, or a pass on the main thread, may be in the middle of a change.
void Studio::check() {
  if (_isCalling || _asking > 0 || !_scheduler.isMainThreadIdle()) return;
  _scheduler.setInterruptible(false);
  std::vector<Ref<AVCaptureOutput>> outputs;
  const auto& manager = *AV::DeviceManager::instance();
  for (int i = 0; i < manager.getDeviceCount(); ++i) {
    AV::Device& source = *manager.getDeviceWithIndex(i);
    require(manager.getIndexOfDeviceWithName(source.getDeviceName()) == i, "a name is in the list once");
    require(manager.getDeviceWithName(source.getDeviceName()) == &source, "a source in the list is found by its name");
    for (const auto& id : {source.getVideoDeviceID(), source.getAudioDeviceID()}) {
      require(id.empty() || manager._getDeviceFromTotalDevice(id) == &source, "a device leads to its source");
    }
    // A device that went in the very moment in which it was to join the source: the side stays taken.
    _wasRefused |= source.hasVideoStream() && source.getVideoDeviceID().empty();
    _wasRefused |= source.hasAudioStream() && source.getAudioDeviceID().empty();
    outputs.push_back(videoOutput(source));
    outputs.push_back(audioOutput(source));
  }
  for (const auto& device : _devices) {
    const auto& id = device->described.uniqueID;
    require((manager._getDeviceFromTotalDevice(id) == nullptr) == (manager.getIndexOfDeviceID(id) == -1),
            "a device's entry and its source go together");
  }
  _scheduler.setInterruptible(true);

  // Last, for it may have to wait for one of them.
  for (const auto& output : outputs) {
    if (!output) continue;
    const auto counts = output->statistics();
    require(counts.captured == counts.delivered + counts.dropped() + counts.pending, "every sample ends in one count");
  }
}

/// When nothing is left to do: what is plugged in has a source, and every source has something that is plugged in.
void Studio::checkEverybodyIsThere() {
  const auto& manager = *AV::DeviceManager::instance();
  for (std::size_t i = 0; i < _devices.size(); ++i) {
    const auto& id = _devices[i]->described.uniqueID;
    require(!_isPlugged[i] || _wasRefused || manager._getDeviceFromTotalDevice(id), "what is plugged in has a source");
  }
  for (int i = 0; i < manager.getDeviceCount(); ++i) {
    const AV::Device& source = *manager.getDeviceWithIndex(i);
    const bool isPresent = std::ranges::any_of(_provider->devices(), [&](const auto& device) {
      const auto& id = device->description().uniqueID;
      return id == source.getVideoDeviceID() || id == source.getAudioDeviceID();
    });
    require(isPresent, "a source has a device that is there");
  }
}

}  // namespace test
