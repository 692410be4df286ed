#pragma once

// A host, the machine's devices and the main thread, as lines of a simulated run: each does what is chosen for it when
// it is chosen, and after every step what must hold is checked.

#include <AVFoundation/AVCaptureOutput.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "BRV_AVCapture.h"
#include "support/FakeHardware.h"
#include "support/SimulationScheduler.h"

namespace test {

/// What a data callback does besides receiving. Registering from one is more than a host may do; it holds all the same.
enum class CallbackAction { Nothing, Asks, UnregistersItself, RegistersAnew, DisconnectsAll, UnregistersTheOther };

struct Plan {
  int hostActions = 2;
  int cameraActions = 1;  ///< frames taken, frames lost, sound
  int plugActions = 1;
  bool hostIsMainThread = false;
  bool hasCamcorder = false;  ///< beside the camera and the microphone that is linked with it
  CallbackAction callbackAction = CallbackAction::Nothing;
};

class Studio {
 public:
  Studio(Chooser& chooser, const Plan& plan);
  ~Studio();

  /// One run, from initialisation to the end of the library; returns what tells it from other runs.
  std::uint64_t run();

 private:
  struct Context;
  struct LogContext;

  // The lines.
  void host();
  void camera();
  void plugs();
  void mainThread();
  std::size_t choose(std::size_t count);
  void step(const char* what, const std::string& object = {});
  void start(const char* name, void (Studio::*body)());

  // What the host does.
  void begin();
  void act();
  void registerVideo(const std::string& source, bool isWanted);
  void registerAudio(const std::string& source, bool isWanted);
  void set(const std::string& source, const char* parameter);
  void disconnect();
  void registerLog();
  void end();
  void ask();
  Context* prepare(const std::string& source, bool isVideo, bool isWanted);
  void retireOthers(const std::string& source, bool isVideo, Context* registered);
  void retire(Context& context);
  void wake(const std::string& source);
  std::string chooseSource();
  std::vector<std::string> sources() const;

  // The host's callbacks.
  static void onVideo(void* context, BRV_VideoBuffer* buffer);
  static void onAudio(void* context, BRV_AudioBuffer* buffer);
  static void onState(void* context, int state);
  static void onLog(void* context, int level, const char* format, ...);
  static void receive(Context& context);
  void actInCallback(Context& context);

  // What must hold.
  void check();
  void checkEverybodyIsThere();

  const Plan _plan;
  Chooser& _chooser;
  SimulationScheduler _scheduler;
  std::vector<std::shared_ptr<fake::Device>> _devices;
  std::shared_ptr<fake::Provider> _provider;
  std::array<bool, 3> _isPlugged{};
  std::int64_t _ticks = 0;

  std::vector<std::unique_ptr<Context>> _contexts;
  std::vector<std::unique_ptr<LogContext>> _logs;
  int _linesLeft = 0;
  bool _wasRefused = false;  ///< A source has a side that could not be opened.
  int _asking = 0;          ///< How many lines are asking for properties.
  bool _isCalling = false;  ///< The host is in an entry point: it makes one call at a time.
};

}  // namespace test
