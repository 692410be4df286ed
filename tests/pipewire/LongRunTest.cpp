#include <malloc.h>
#include <runtime/Scheduler.h>
#include <unistd.h>

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "PipeWireTest.h"
#include "support/OpenDescriptors.h"

// Hours in real time: eight cameras and four microphones with their faults, of which one is replugged every few
// seconds; a server that crashes, programs that ask for other formats, a host that is slow at times. For a few seconds
// in every test run; PIPEWIRE_MINUTES in the environment asks for more.

namespace test::pipewire {
namespace {

using Counts = std::map<std::string, std::int64_t>;
constexpr const char* Reasons[] = {"late",         "no_buffer", "lost_by_device", "not_converted",
                                   "invalid_time", "stopped",   "unheard"};
constexpr std::int64_t Second = 1'000'000'000;

/// What a host receives of a medium of a source, held against what its device sent.
class Reception {
 public:
  Reception(const Host& host, std::string source, const char* medium)
      : _host(host), _source(std::move(source)), _medium(medium) {}
  virtual ~Reception() = default;

  virtual void listen() = 0;
  bool isThere() const { return _host.has(_source, *_medium == 'v' ? "ProvidesVideo" : "ProvidesAudio"); }

  Counts totals() const {
    std::lock_guard lock(_lock);
    return _totals;
  }
  std::atomic<std::uint64_t> received{0};
  std::atomic<std::int64_t> offset{0};  ///< ns by which the last stamp is later than what it tells

 protected:
  Counts account() const { return _host.account(_source, _medium); }
  void note(std::int64_t difference) {
    offset = difference;
    ++received;
  }
  void fail(const std::string& what) const { ADD_FAILURE() << _source << ", " << _medium << ": " << what; }

  const Host& _host;
  const std::string _source;
  const char* const _medium;
  mutable std::mutex _lock;
  Counts _totals;
};

class Eye final : public Reception {
 public:
  Eye(const Host& host, const Camera& camera, const CameraSettings& settings)
      : Reception(host, settings.description + " Video", "video"), _camera(camera), _pictures(settings.pictures) {}

  void listen() override { _host.registerVideo(_source, receive, this); }
  /// Holds the next callback up for that long.
  void pause(std::int64_t nanoseconds) { _pause = nanoseconds; }

 private:
  static void receive(void* context, BRV_VideoBuffer* buffer) {
    auto& self = *static_cast<Eye*>(context);
    if (const std::int64_t pause = self._pause.exchange(0)) runtime::Scheduler::current().sleepUntil(now() + pause);
    const std::int64_t time =
        std::llround(static_cast<double>(buffer->timeStamp) * 1e9 / self._host.timescale(self._source));
    const auto taken = self._camera.takenAt(time);
    const auto read = readPicture(*buffer, self._pictures);
    if (!taken || !read || read->first != taken->number % 256)
      return self.fail(!read ? "no picture of the camera's" : !taken ? "a stamp of no picture" : "another one's stamp");
    self.note(time - taken->time);
    self.count(*taken);
  }

  /// Where the camera has taken no later picture, all that are missing have to be counted by now, and no others.
  void count(const Camera::Taken& taken) {
    std::lock_guard lock(_lock);
    ++_delivered;
    Counts account = this->account();
    if (_camera.number() != taken.number + 1) return;
    if (_last && _last->run == taken.run) {
      const auto made = static_cast<std::int64_t>(taken.number - _last->number);
      std::int64_t lost = 0;
      for (const char* reason : Reasons) {
        const std::int64_t more = account[reason] - _account[reason];
        lost += more;
        if (more > 0) _totals[std::string("pictures ") + reason] += more;
      }
      _totals["pictures made"] += made, _totals["pictures delivered"] += _delivered;
      if (made != _delivered + lost)
        fail(std::to_string(made) + " were made, " + std::to_string(_delivered) + " delivered, and " +
             std::to_string(lost) + " counted as lost");
    }
    _last = taken, _account = std::move(account), _delivered = 0;
  }

  const Camera& _camera;
  const std::vector<Picture> _pictures;
  std::atomic<std::int64_t> _pause{0};
  std::optional<Camera::Taken> _last;  ///< with the account as of then
  Counts _account;
  std::int64_t _delivered = 0;  ///< since then
};

/// Counts frames. Of sound that is late the server makes silence; a graph that stumbles loses some that no microphone
/// has made.
class Ear final : public Reception {
 public:
  Ear(const Host& host, const Microphone& microphone, std::string source)
      : Reception(host, std::move(source), "audio"), _microphone(microphone) {}

  void listen() override {
    _host.registerAudio(_source, nullptr, nullptr);
    _next.reset();
    _host.registerAudio(_source, receive, this);
  }

 private:
  static void receive(void* context, BRV_AudioBuffer* buffer) {
    auto& self = *static_cast<Ear*>(context);
    const auto heard = self._microphone.heardAt(std::llround(static_cast<double>(buffer->timeStamp) * 1e9 / 44'100));
    if (!heard) return self.fail("a stamp of no sound");
    std::lock_guard lock(self._lock);
    if (heard->run != self._run) self._next.reset(), self._missing = 0;
    self._run = heard->run;
    for (std::int32_t i = 0; i < buffer->dataLength / 4; ++i) {
      std::uint16_t sample = 0;
      std::memcpy(&sample, static_cast<const std::uint8_t*>(buffer->data) + 4 * i, sizeof sample);
      const auto place = static_cast<std::uint16_t>(placeOf(sample, 0, 16));
      const bool isSilent = sample == 0 && self._next != place;
      if (i == 0 && !isSilent) self.note(static_cast<std::int16_t>(heard->place - place) * Second / 44'100);
      if (!isSilent && self._next && *self._next != place) self.miss(static_cast<std::uint16_t>(place - *self._next));
      self._next = static_cast<std::uint16_t>(place + 1);
      if (isSilent) self._next.reset();
      ++self._totals[isSilent ? "sound silent" : "sound delivered"];
    }
  }

  void miss(std::uint16_t frames) {
    _missing += frames, _totals["sound missing"] += frames;
    Counts counts = account();
    const std::int64_t counted = counts["frames dropped"] + counts["frames undelivered"];
    if (counted < _missing)
      fail(std::to_string(_missing) + " frames are missing, " + std::to_string(counted) + " counted as lost");
  }

  const Microphone& _microphone;
  std::uint64_t _run = 0;
  std::optional<std::uint16_t> _next;  ///< the place that comes next
  std::int64_t _missing = 0;           ///< since the microphone last began anew
};

/// What must not grow.
struct Footprint {
  std::int64_t bytes = 0, objects = 0;
  std::ptrdiff_t descriptors = 0, threads = 0;

  static Footprint now() {
    malloc_trim(0);
    std::int64_t pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return {resident * sysconf(_SC_PAGESIZE), NSObject::liveObjectCount(), openDescriptors(),
            std::distance(std::filesystem::directory_iterator("/proc/self/task"), {})};
  }
};

class LongRunTest : public PipeWireTest {
 protected:
  LongRunTest() {
    BRV_CALL(host.module, BRV_RegisterLogCallback)(nullptr, log, this);
    const auto named = [](auto settings, const char* kind, char letter, const char* interface) {
      settings.name = settings.description = std::string(kind) + letter;
      if (letter < 'C')  // of a pair
        settings.properties = {
            {PW_KEY_DEVICE_BUS_PATH, "pci-0000:00:14.0-usb-0:" + std::to_string(letter) + interface}};
      return settings;
    };
    const Picture small{SPA_VIDEO_FORMAT_YUY2, 64, 36}, wider{SPA_VIDEO_FORMAT_UYVY, 80, 36};
    CameraSettings settings[] = {
        {.pictures = {small}},
        {.pictures = {{MotionJPEG, 128, 64}}, .rate = {30'000, 1001}, .corruptEvery = 50},
        {.pictures = {{MotionJPEG, 144, 64}}, .loseEvery = 33, .corruptEvery = 7},
        {.pictures = {{SPA_VIDEO_FORMAT_NV12, 64, 36}}, .loseEvery = 10},
        {.pictures = {small, wider}},
        {.pictures = {small, wider}},
        {.pictures = {{SPA_VIDEO_FORMAT_I420, 64, 36}}, .rate = {60, 1}},
        {.pictures = {{SPA_VIDEO_FORMAT_RGB, 64, 36}}, .rate = {25, 1}},
    };
    for (char letter = 'A'; const CameraSettings& each : settings) {
      const CameraSettings whole = named(each, "Camera", letter++, ":1.0");
      cameras.push_back(std::make_unique<Camera>(whole));
      eyes.push_back(std::make_unique<Eye>(host, *cameras.back(), whole));
      devices.push_back(cameras.back().get()), receptions.push_back(eyes.back().get());
      connect(devices.size() - 1);
    }
    for (const char* source : {"CameraA Video", "CameraB Video", "MicrophoneS Audio", "MicrophoneT Audio"}) {
      const char letter = std::strchr(source, ' ')[-1];
      microphones.push_back(
          std::make_unique<Microphone>(named(MicrophoneSettings{.rate = 44'100}, "Microphone", letter, ":1.2")));
      ears.push_back(std::make_unique<Ear>(host, *microphones.back(), source));
      devices.push_back(microphones.back().get()), receptions.push_back(ears.back().get());
      connect(devices.size() - 1);
    }
  }
  ~LongRunTest() override { host.uninitialize(); }

  static void log(void* context, int, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    static_cast<LongRunTest*>(context)->logBytes += std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
  }

  bool waitFor(const std::function<bool()>& condition, std::size_t device) const {
    return until(condition) || ((ADD_FAILURE() << device << " of " << testing::PrintToString(host.sources())), false);
  }
  void connect(std::size_t i) const {
    waitFor([&] { return receptions[i]->isThere(); }, i);
    receptions[i]->listen();
  }
  /// Pulled and plugged in again; or a camera changes its formats, or another program is there first. Half of a pair
  /// comes back by itself.
  void replug(std::size_t i) {
    if (i == 4 && plugs % 2 == 0) return cameras[4]->offer({{SPA_VIDEO_FORMAT_UYVY, 80, 36}});
    const bool isOfPair = i % 8 < 2;
    const std::size_t before = hardware::systemProvider()->devices().size();
    devices[i]->pull();
    waitFor(
        [&] {
          return hardware::systemProvider()->devices().size() < before && (isOfPair || !receptions[i]->isThere());
        },
        i);
    devices[i]->plug();
    if (i == 5) {
      program = std::make_unique<Process>(std::vector<std::string>{"gst-launch-1.0", "-q", "pipewiresrc",
                                                                   "target-object=CameraF", "!",
                                                                   "video/x-raw,format=UYVY", "!", "fakesink"});
      const std::uint64_t sent = cameras[5]->sent();
      waitFor([&] { return cameras[5]->sent() > sent + 1; }, i);
    }
    if (!isOfPair) connect(i);
  }
  void restart() {
    program.reset();
    server.kill();
    EXPECT_TRUE(until([&] { return host.sources().empty(); }));
    for (Stream* device : devices) device->pull();
    server.start();
    // The sound of a pair after its pictures, whose name the source is to have.
    for (std::size_t i = 0; i < devices.size(); ++i) devices[i]->plug(), connect(i);
    ++restarts;
  }
  void expectThatAllIsHeard() const {
    for (std::size_t i = 0; i < devices.size(); ++i) {
      const std::uint64_t before = receptions[i]->received;
      waitFor([&] { return receptions[i]->received > before; }, i);
    }
  }

  Host host;
  std::vector<std::unique_ptr<Camera>> cameras;
  std::vector<std::unique_ptr<Microphone>> microphones;
  std::vector<std::unique_ptr<Eye>> eyes;
  std::vector<std::unique_ptr<Ear>> ears;
  std::vector<Stream*> devices;  ///< all of them, and what is received of each
  std::vector<Reception*> receptions;
  std::unique_ptr<Process> program;
  std::atomic<std::int64_t> logBytes{0};
  int plugs = 0, restarts = 0;
};

TEST_F(LongRunTest, EverySampleIsAccountedForAndNothingGrows) {
  const char* const wanted = std::getenv("PIPEWIRE_MINUTES");
  const double minutes = wanted ? std::atof(wanted) : 0.1;
  const auto length = static_cast<std::int64_t>(minutes * 60e9);
  const std::int64_t begin = now(), betweenPlugs = std::min(10 * Second, length / 12),
                     betweenRestarts = std::min(300 * Second, length / 3);
  std::int64_t nextRestart = begin + betweenRestarts, worstStep = 0;
  Footprint before;
  for (std::int64_t nextPlug = begin; restarts < 2 || now() < begin + length; nextPlug = now() + betweenPlugs) {
    expectThatAllIsHeard();
    if (restarts == 1 && before.threads == 0) before = Footprint::now();
    eyes[static_cast<std::size_t>(plugs) % eyes.size()]->pause(Second / 4);
    until(
        [&] {
          for (std::size_t i = 0; i < 2; ++i)
            worstStep = std::max(worstStep, std::abs(ears[i]->offset.load() - eyes[i]->offset.load()));
          return now() > nextPlug;
        },
        60);
    if (now() < nextRestart) {
      replug(static_cast<std::size_t>(plugs++) % devices.size());
    } else {
      restart();
      nextRestart = now() + betweenRestarts;
    }
  }
  program.reset();
  expectThatAllIsHeard();
  EXPECT_TRUE(until([&] { return openDescriptors() <= before.descriptors; }, 10));
  EXPECT_TRUE(until([&] { return Footprint::now().threads <= before.threads; }, 10));
  const Footprint after = Footprint::now();

  Counts sums;
  for (const Reception* reception : receptions)
    for (const auto& [name, count] : reception->totals()) sums[name] += count;
  std::printf("%.1f minutes, %d plugs, %d restarts of the server\n", minutes, plugs, restarts);
  for (const auto& [name, count] : sums) std::printf("  %-26s %10lld\n", name.c_str(), static_cast<long long>(count));
  const auto grown = [](const char* name, double from, double to) {
    std::printf("  %-26s %10.0f, in the end %.0f\n", name, from, to);
  };
  grown("resident kB", static_cast<double>(before.bytes) / 1e3, static_cast<double>(after.bytes) / 1e3);
  grown("descriptors", static_cast<double>(before.descriptors), static_cast<double>(after.descriptors));
  grown("threads", static_cast<double>(before.threads), static_cast<double>(after.threads));
  std::printf("  %-26s %10lld\n  %-26s %10.3f\n", "log bytes", static_cast<long long>(logBytes),
              "sound from picture, ms", static_cast<double>(worstStep) / 1e6);

  EXPECT_GT(sums["pictures made"], 0);
  EXPECT_LT(sums["sound silent"], sums["sound delivered"] / 50);
  EXPECT_LT(after.objects, before.objects + 40);
  EXPECT_LT(worstStep, Second / 50);
  EXPECT_LT(logBytes, 1000 * (plugs + 12 * restarts));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_LT(after.bytes, before.bytes + 16'000'000);
#endif
}

}  // namespace
}  // namespace test::pipewire
