#pragma once

// A host, the machine's devices and the main thread, as lines of a simulated run: each does what is chosen for it when
// it is chosen, and after every step what must hold is checked.

#include <AVFoundation/Capture/SampleLedger.h>
#include <lumora/zThread.h>
#include <lumora/zTrace.h>
#include <runtime/MainLoop.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "AVDeviceManager.h"
#include "AVLog.h"
#include "BRV_AVCapture.h"
#include "Require.h"
#include "support/FakeHardware.h"
#include "support/MainLoop.h"
#include "support/SimulationScheduler.h"

namespace test {

// The outputs of a source, which it does not show.
Ref<AVCaptureOutput> videoOutput(AV::Device& source);
Ref<AVCaptureOutput> audioOutput(AV::Device& source);

template <auto Video, auto Audio>
struct Outputs {
  friend Ref<AVCaptureOutput> videoOutput(AV::Device& source) { return source.*Video; }
  friend Ref<AVCaptureOutput> audioOutput(AV::Device& source) { return source.*Audio; }
};
template struct Outputs<&AV::Device::_pVideoOutput, &AV::Device::_pAudioOutput>;

/// What a data callback does besides receiving. Registering from one is more than a host may do; it holds all the same.
enum class CallbackAction { Nothing, Asks, UnregistersItself, RegistersAnew, DisconnectsAll, UnregistersTheOther };

struct Plan {
  int hostActions = 2;
  int cameraActions = 1;  ///< frames taken, frames lost, sound
  int plugActions = 1;
  bool hostIsMainThread = false;
  bool hasMainQueueThread = false;  ///< in the main thread's place
  bool hasCamcorder = false;        ///< beside the camera and the microphone that is linked with it
  CallbackAction callbackAction = CallbackAction::Nothing;
};

class Studio {
 public:
  Studio(Chooser& chooser, const Plan& plan) : _plan(plan), _chooser(chooser), _scheduler(&chooser, Time::Free) {
    _devices = {fake::camera("Camera", "c", {"m"}), fake::microphone("Mic", "m", {"c"})};
    if (plan.hasCamcorder) _devices.push_back(fake::camcorder("Deck", "k"));
    _provider = fake::install(_devices);
    zThread::SetSleepFunction(SimulationScheduler::sleepFor);
    zTrace::Default().SetSink([](const char*) {});
  }

  ~Studio() {
    zTrace::Default().SetSink({});
    zThread::SetSleepFunction(nullptr);
    hardware::installSystemProvider(nullptr);
  }

  /// One run, from initialisation to the end of the library; returns what tells it from other runs.
  std::uint64_t run() {
    if (_plan.hasMainQueueThread) require(CFRunLoopStartThread(CFRunLoopGetMain()), "a thread serves the main queue");
    begin();
    const auto first = sources().front();
    registerData(first, true, true);
    registerData(first, false, true);

    _firstAction = chooseAction();
    _scheduler.setInterruptible(true);
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
    _scheduler.setInterruptible(false);
    if (_plan.hasMainQueueThread) _scheduler.sleepUntil(_scheduler.now() + runtime::NanosecondsPerSecond);
    runMainLoop(1);
    check();
    checkEverybodyIsThere();
    end();
    if (_plan.hasMainQueueThread) CFRunLoopEndThread(CFRunLoopGetMain());
    for (const AVMediaType medium : {AVMediaTypeVideo, AVMediaTypeAudio}) {
      const auto sums = SampleLedger::of(medium).ended;
      require(sums.isBalanced() && sums.pending == 0, "outputs that are gone have given every sample an end");
    }
    return _scheduler.trace();
  }

 private:
  /// One registration of a data callback.
  struct Context {
    Studio& studio;
    std::string source;
    bool isVideo;
    bool isRegistered = true;
    bool isBeingRegistered = true;  ///< Perhaps with a source that comes back under its name.
    bool isSilent = false;          ///< The source is stopped.
    bool isInCall = false;
    bool isActing = false;  ///< Within the call, in an entry point.
  };
  struct LogContext {
    bool isRegistered = true;
  };

  // The lines

  void start(const char* name, void (Studio::*body)()) {
    ++_linesLeft;
    _scheduler.start(name, [this, body] {
      (this->*body)();
      --_linesLeft;
    });
  }

  std::size_t choose(std::size_t count) { return count > 1 ? _chooser.choose(count) : 0; }

  /// Something that tells one run from another.
  void step(const char* what, const std::string& object = {}) {
    static const bool isShown = std::getenv("SIMULATION_STEPS");
    const double seconds = static_cast<double>(_scheduler.now()) / 1e9;
    if (isShown) std::fprintf(stderr, "%12.6f  %s %s\n", seconds, what, object.c_str());
    _scheduler.note(std::hash<std::string_view>()(what));
    _scheduler.note(std::hash<std::string_view>()(object));
  }

  void host() {
    for (int i = 0; i < _plan.hostActions; ++i) {
      if (i > 0) _scheduler.yield();
      while (_isCalling)
        _scheduler.waitUntil([](void* studio) { return !static_cast<Studio*>(studio)->_isCalling; }, this);
      _isCalling = true;
      act(i == 0 ? _firstAction : chooseAction());
      step("host done");
      _isCalling = false;
      check();
    }
  }

  void camera() {
    static const std::array<std::int16_t, 64> quiet{};
    for (int i = 0; i < _plan.cameraActions; ++i) {
      if (i > 0) _scheduler.yield();
      const CMTime time = CMTimeMake(++_ticks, 30);
      const auto& pictures = _devices[_devices.size() > 2 ? 2 * choose(2) : 0];
      const auto& sound = pictures == _devices[0] ? _devices[1] : pictures;
      const std::size_t what = choose(3);
      static constexpr std::array<const char*, 3> steps{"a frame is taken by", "a frame is lost by",
                                                        "sound is taken by"};
      step(steps[what], (what < 2 ? pictures : sound)->described.name);
      if (what == 0) pictures->captureFrame(time);
      if (what == 1) pictures->loseFrame(time);
      if (what == 2) sound->captureSound(time, quiet.data(), 32);
      step("taken");
    }
  }

  void plugs() {
    for (int i = 0; i < _plan.plugActions; ++i) {
      if (i > 0) _scheduler.yield();
      const std::size_t which = choose(_devices.size());
      const auto& device = _devices[which];
      _isUnplugged[which] = !_isUnplugged[which];
      step(_isUnplugged[which] ? "unplug" : "plug", device->described.name);
      _isUnplugged[which] ? _provider->unplug(device) : _provider->plug(device);
      step("plugged");
    }
  }

  void mainThread() {
    const auto hasToRun = [](void* studio) {
      const auto& self = *static_cast<Studio*>(studio);
      const bool hasBlock = !self._plan.hasMainQueueThread && MainLoop::instance().waitingCount() > 0;
      return hasBlock || self._linesLeft == 0;
    };
    while (_linesLeft > 0) {
      _scheduler.waitUntil(hasToRun, this);
      if (!runOneBlock()) continue;
      step("main thread ran a block");
      check();
    }
  }

  // What the host does

  void begin() {
    BRV_IntitializeLibrary();
    registerLog();
    BRV_RegisterDeviceStateChangedCallback(nullptr, onState, this);
  }

  void end() {
    step("uninitialise");
    BRV_UninitializeLibrary();
    for (const auto& context : _contexts) retire(*context);
    for (const auto& log : _logs) log->isRegistered = false;
    AV_LOG(2, "Nobody hears this.\n");
  }

  std::size_t chooseAction() { return choose(_plan.hostIsMainThread ? 11 : 10); }

  void act(std::size_t action) {
    static const std::function<void(Studio&)> actions[] = {
        [](Studio& self) { self.registerData(self.chooseSource(), true, true); },
        [](Studio& self) { self.registerData(self.chooseSource(), true, false); },
        [](Studio& self) { self.registerData(self.chooseSource(), false, true); },
        [](Studio& self) { self.registerData(self.chooseSource(), false, false); },
        [](Studio& self) { self.set(self.chooseSource(), "Video Settings", 0); },
        [](Studio& self) { self.set(self.chooseSource(), "Audio Settings", 1); },
        [](Studio& self) { self.disconnect(); },
        [](Studio& self) { self.registerLog(); },
        [](Studio& self) { self.end(), self.begin(); },
        [](Studio& self) { self._plan.hasMainQueueThread ? self.askOnTheMainThread() : self.ask(); },
        [](Studio&) { runOneBlock(); },  // of a host on the main thread
    };
    actions[action](*this);
  }

  /// Behind a registration the former callback is not running and will not be called, and without a new one the whole
  /// source is stopped.
  void registerData(const std::string& source, bool isVideo, bool isWanted) {
    step(isWanted ? "register" : "unregister", (isVideo ? "video of " : "audio of ") + source);
    Context* const registered = isWanted ? _contexts.emplace_back(new Context{*this, source, isVideo}).get() : nullptr;
    if (isWanted) wake(source);
    if (isVideo) {
      BRV_RegisterVideoDataArrivedCallback(nullptr, source.c_str(), isWanted ? onVideo : nullptr, registered);
    } else {
      BRV_RegisterAudioDataArrivedCallback(nullptr, source.c_str(), isWanted ? onAudio : nullptr, registered);
    }
    for (const auto& context : _contexts) {
      if (context->source != source || context.get() == registered) continue;
      if (!isWanted) silence(*context);
      if (context->isVideo == isVideo) retire(*context);
    }
    if (isWanted) registered->isBeingRegistered = false;
  }

  void set(const std::string& source, const char* parameter, int value) {
    step(parameter, source);
    wake(source);
    const std::string text = R"(<record name="settings"><record name="parameter"><text name="name" value=")" +
                             std::string(parameter) + R"("/><int32 name="value" value=")" + std::to_string(value) +
                             R"("/></record></record>)";
    BRV_SetSourceSettings(nullptr, source.c_str(), text.c_str());
  }

  void disconnect() {
    step("disconnect");
    BRV_DisconnectDevice();
    for (const auto& context : _contexts) silence(*context);
  }

  void registerLog() {
    step("register log");
    _logs.push_back(std::make_unique<LogContext>());
    BRV_RegisterLogCallback(nullptr, onLog, _logs.back().get());
    for (const auto& log : _logs) log->isRegistered = log == _logs.back();
  }

  void wake(const std::string& source) {
    for (const auto& context : _contexts) context->isSilent &= context->source != source;
  }

  void silence(Context& context) {
    require(!context.isInCall || context.isActing, "when a source has stopped, none of its callbacks is running");
    context.isSilent = true;
  }

  void retire(Context& context) {
    require(!context.isInCall || context.isActing, "when a registration has ended, its callback is not running");
    context.isRegistered = false;
  }

  void ask() {
    step("ask");
    ++_asking;
    for (const auto& source : sources()) {
      BRV_SourceSupportsProperty(nullptr, source.c_str(), "ProvidesAudio");
      BRV_GetTimescaleTicksPerSec(nullptr, source.c_str());
      BRV_GetProperty(
          nullptr, [](void*, int, const void*) {}, "frame_duration", "", source.c_str());
    }
    --_asking;
  }

  void askOnTheMainThread() {
    const auto askForAll = [](void* studio) {
      auto& self = *static_cast<Studio*>(studio);
      self.ask();
      const auto present = self.sources();
      require(std::ranges::find(present, "") == present.end(), "no source goes between calls on the main thread");
    };
    require(CFRunLoopPerformAndWait(CFRunLoopGetMain(), askForAll, this), "a call is made on the main thread");
  }

  std::vector<std::string> sources() const {
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

  std::string chooseSource() {
    const auto all = sources();
    return all.empty() ? "Camera Video" : all[choose(all.size())];
  }

  // The host's callbacks

  static void onVideo(void* context, BRV_VideoBuffer* buffer) {
    require(buffer->width == 64, "pictures have their size");
    receive(*static_cast<Context*>(context));
  }

  static void onAudio(void* context, BRV_AudioBuffer* buffer) {
    require(buffer->sampleRate == 44100, "sound has its rate");
    receive(*static_cast<Context*>(context));
  }

  static void receive(Context& context) {
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

  void actInCallback(Context& context) {
    if (_plan.callbackAction == CallbackAction::Asks) return ask();
    if (_isCalling) return;
    _isCalling = context.isActing = true;
    if (_plan.callbackAction == CallbackAction::DisconnectsAll) {
      disconnect();
    } else {
      registerData(context.source, context.isVideo != (_plan.callbackAction == CallbackAction::UnregistersTheOther),
                   _plan.callbackAction == CallbackAction::RegistersAnew);
    }
    _isCalling = context.isActing = false;
  }

  /// When the host hears that a device is gone, so is every source without one.
  static void onState(void* studio, int state) {
    auto& self = *static_cast<Studio*>(studio);
    self.step(state == BRV_DEVICE_STATE_REMOVED ? "told of a removal" : "told of an arrival");
    const auto present = self.sources();
    if (state != BRV_DEVICE_STATE_REMOVED) return;
    for (const auto& context : self._contexts) {
      const bool isGone = std::ranges::find(present, context->source) == present.end();
      if (isGone && !context->isBeingRegistered) self.retire(*context);
    }
  }

  static void onLog(void* context, int, const char*, ...) {
    require(static_cast<LogContext*>(context)->isRegistered, "the log goes to the registered context");
  }

  // What must hold

  /// In the pauses: an entry point, or a pass on the main thread, may be in the middle of a change.
  void check() {
    if (_isCalling || _asking > 0 || !_scheduler.isMainThreadIdle()) return;
    const bool wasInterruptible = _scheduler.setInterruptible(false);
    std::vector<Ref<AVCaptureOutput>> outputs;
    const auto& manager = *AV::DeviceManager::instance();
    for (int i = 0; i < manager.getDeviceCount(); ++i) {
      AV::Device& source = *manager.getDeviceWithIndex(i);
      require(manager.getIndexOfDeviceWithName(source.getDeviceName()) == i, "a name is in the list once");
      require(manager.getDeviceWithName(source.getDeviceName()).get() == &source,
              "a source in the list is found by its name");
      for (const auto& id : {source.getVideoDeviceID(), source.getAudioDeviceID()}) {
        require(id.empty() || manager._getDeviceFromTotalDevice(id).get() == &source, "a device leads to its source");
      }
      require(source.hasVideoStream() != source.getVideoDeviceID().empty(), "a side that is there has its device");
      require(source.hasAudioStream() != source.getAudioDeviceID().empty(), "a side that is there has its device");
      outputs.push_back(videoOutput(source));
      outputs.push_back(audioOutput(source));
    }
    for (const auto& device : _devices) {
      const auto& id = device->described.uniqueID;
      require((manager._getDeviceFromTotalDevice(id) == nullptr) == (manager.getIndexOfDeviceID(id) == -1),
              "a device's entry and its source go together");
    }
    _scheduler.setInterruptible(wasInterruptible);

    // Last, for it may have to wait for one of them.
    for (const auto& output : outputs) {
      if (!output) continue;
      require(output->statistics().isBalanced(), "every sample ends in one count");
    }
  }

  /// When nothing is left to do: what is plugged in has a source, and every source has something that is plugged in.
  void checkEverybodyIsThere() {
    const auto& manager = *AV::DeviceManager::instance();
    for (std::size_t i = 0; i < _devices.size(); ++i) {
      const auto& id = _devices[i]->described.uniqueID;
      require(_isUnplugged[i] || manager._getDeviceFromTotalDevice(id), "what is plugged in has a source");
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

  const Plan _plan;
  Chooser& _chooser;
  SimulationScheduler _scheduler;
  std::vector<std::shared_ptr<fake::Device>> _devices;
  std::shared_ptr<fake::Provider> _provider;
  std::array<bool, 3> _isUnplugged{};
  std::int64_t _ticks = 0;
  std::size_t _firstAction = 0;

  std::vector<std::unique_ptr<Context>> _contexts;
  std::vector<std::unique_ptr<LogContext>> _logs;
  int _linesLeft = 0;
  int _asking = 0;          ///< How many lines are asking for properties.
  bool _isCalling = false;  ///< The host is in an entry point: it makes one call at a time.
};

}  // namespace test
