// The whole C interface: a host that calls whatever it likes in any order, right and wrong, while its machine's devices
// capture, lose, come and go.

#include <CoreVideo/CVPixelBuffer.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <functional>

#include "Machine.h"
#include "support/FakeHardware.h"

namespace {

constexpr const char* Names[] = {"Video Settings", "Video FPS", "Audio Settings", "frame_duration", "device_id",
                                 "ProvidesAudio",  "HDV",       nullptr};

class Host {
 public:
  Host(fuzz::Input& input, fake::Provider& provider) : _input(input), _provider(provider) {
    _devices = {fake::camera("Camera", "c", {"m"}), fake::microphone("Mic", "m", {"c"}), fake::camcorder("Deck", "k")};
    for (const auto& device : _devices) {
      if (!device->described.videoFormats.empty()) addFormat(device->described.videoFormats);
      for (auto& format : device->described.audioFormats) {
        if (input.ConsumeBool()) format.stream = input.stream();
      }
    }
    plug();
    if (input.ConsumeBool()) begin();
  }

  void act() {
    _source = chooseSource();
    const std::function<void()> actions[] = {
        [] { begin(); },
        [this] { plug(); },
        [this] { capture(); },
        [this] { ask(); },
        [this] { set(); },
        [this] { test::SimulationScheduler::sleepFor(_input.ConsumeIntegral<std::uint16_t>() * 100u); },
        [this] { runMainLoop(_input.ConsumeIntegral<std::uint8_t>() / 100.0); },
        [this] { BRV_RegisterLocalizeStringCallback(maybe(translate)); },
        [this] { BRV_RegisterPreferenceCallback(maybe(getPreference), maybe(setPreference), maybe(this)); },
        [this] { BRV_RegisterLogCallback(nullptr, maybe(log), maybe(this)); },
        [this] { BRV_RegisterDeviceStateChangedCallback(nullptr, maybe(change), maybe(this)); },
        [this] { BRV_RegisterSourceChangedCallback(nullptr, _source, maybe(change), maybe(this)); },
        [this] { BRV_RegisterVideoDataArrivedCallback(nullptr, _source, maybe(video), maybe(this)); },
        [this] { BRV_RegisterAudioDataArrivedCallback(nullptr, _source, maybe(audio), maybe(this)); },
        [] { BRV_DisconnectDevice(); },
        [] { BRV_UninitializeLibrary(); },
        [this] { BRV_DeleteString(_input.ConsumeBool() ? new char[3] : nullptr); },
        [this] { text([this](char* to, int* length) { BRV_GetDeviceGroupDisplayName(_source, to, length); }); },
        [this] { text([](char* to, int* length) { BRV_GetDeviceId(nullptr, to, length); }); },
        [this] { text([this](char* to, int* length) { BRV_GetSourceId(nullptr, _number, to, length); }); },
        [this] { text([this](char* to, int* n) { BRV_GetSourceDisplayName(nullptr, _source, nullptr, to, n); }); },
        [this] { text([this](char* to, int* n) { BRV_GetErrorMessage(nullptr, nullptr, _number, to, n); }); },
        [this] { text([this](char* to, int* n) { BRV_QueryParameterOptions(nullptr, _source, _name, to, n); }, true); },
        [this] { text([this](char* to, int* n) { BRV_GetSourceSettings(nullptr, _source, to, n); }, true); },
        [this] { text([this](char* to, int* n) { BRV_GetValidParameterValues(nullptr, _source, to, n); }, true); },
    };
    _number = _input.number();
    _name = _input.PickValueInArray(Names);
    actions[_input.ConsumeIntegralInRange<std::size_t>(0, std::size(actions) - 1)]();
  }

 private:
  void addFormat(std::vector<hardware::VideoFormat>& formats) {
    const int most = std::numeric_limits<int>::max();
    auto format = formats.front();
    format.frameRates.push_back({_input.real(), _input.real(), _input.time(), _input.time()});
    format.width = _input.PickValueInArray({64, 0, -1, 65536, most});
    format.height = _input.PickValueInArray({48, 0, -1, 65536, most});
    format.presentationWidth = format.presentationHeight = _input.real();
    formats.push_back(format);
  }

  /// Plugs or unplugs devices, and breaks or repairs them.
  void plug() {
    for (const auto& device : _devices) {
      const bool isPlugged = std::ranges::count(_provider.devices(), device) > 0;
      if (_input.ConsumeBool()) isPlugged ? _provider.unplug(device) : _provider.plug(device);
      if (_input.ConsumeBool()) device->openError = _input.ConsumeRandomLengthString(8);
      if (_input.ConsumeBool()) device->configurationError = device->openError;
      if (_input.ConsumeBool()) device->openError.reset();
    }
  }

  void capture() {
    fake::Device& from = *_devices[_input.ConsumeIntegralInRange<std::size_t>(0, 2)];
    const CMTime time = _input.time();
    if (from.described.hasAudio || (from.described.isMuxed && _input.ConsumeBool())) {
      // Enough for the largest description that is let through.
      static const std::vector<std::uint8_t> samples(64 * 9 * 256, 0x41);
      const auto& stream = from.described.audioFormats[from.selectedAudioFormat].stream;
      if (stream.mBytesPerFrame > 64) return;
      for (int i = 0; i < 3; ++i) from.captureSound(time, samples.data(), _input.ConsumeIntegral<std::uint8_t>());
    } else {
      _input.ConsumeBool() ? from.captureFrame(time) : from.loseFrame(time);
    }
  }

  template <typename T>
  T* maybe(T* argument) {
    return _input.ConsumeBool() ? argument : nullptr;
  }

  static void begin() {
    BRV_IntitializeLibrary();
    BRV_RegisterLogCallback(nullptr, nullptr, nullptr);
  }

  const char* chooseSource() {
    if (_input.ConsumeIntegralInRange(0, 7) == 0)
      return _input.PickValueInArray<const char*>({nullptr, "", "Camera", "Deck"});
    int length = 0;
    const int index = _input.ConsumeIntegralInRange(0, 2);
    BRV_GetSourceId(nullptr, index, nullptr, &length);
    _sourceText.assign(static_cast<std::size_t>(length), ' ');
    BRV_GetSourceId(nullptr, index, _sourceText.data(), &length);
    return _sourceText.c_str();
  }

  void set() {
    std::string text = R"(<record name="settings">)";
    for (int i = _input.ConsumeIntegralInRange(0, 3); i > 0; --i) {
      const std::string value = std::to_string(_input.ConsumeBool() ? _input.ConsumeIntegralInRange(0, 2) : _number);
      text += R"(<record name="parameter"><text name="name" value=")";
      text += Names[_input.ConsumeIntegralInRange(0, 3)];
      text += R"("/><int32 name="value" value=")" + value + R"("/></record>)";
    }
    BRV_SetSourceSettings(nullptr, _source, maybe((text + "</record>").c_str()));
  }

  /// Both calls, the copy into exactly as much memory as the first one said. Of a record, another length may be asked
  /// for.
  void text(const std::function<void(char*, int*)>& function, bool isRecord = false) {
    int length = 0;
    function(nullptr, &length);
    fuzz::require(length >= 0);
    std::vector<char> buffer(static_cast<std::size_t>(length) + 1, 'x');
    if (isRecord && _number <= length) length = _number;
    function(nullptr, nullptr);
    if (_input.ConsumeBool()) function(buffer.data(), &length);
  }

  void ask() {
    BRV_GetProperty(this, maybe(property), _name, maybe(this), _source);
    BRV_SourceSupportsProperty(nullptr, _source, _name);
    BRV_GetTimescaleTicksPerSec(nullptr, _source);
    fuzz::require(BRV_GetSourceState() == BRV_SOURCE_STATE && BRV_ShowCustomConfigDialog() == 0);
    fuzz::require(BRV_GetDeviceState() == BRV_DEVICE_STATE && BRV_GetDeviceCount() == 1 && BRV_ConnectDevice() == 1);
    fuzz::require(BRV_GetSourceCount() >= 0 && BRV_GetSourceCount() <= 3);
  }

  static const char* translate(const char* key) { return *key == 'a' ? nullptr : key; }
  static void getPreference(void*, const char*, char* buffer, int* length) {
    if (!buffer) *length = 1;
    if (buffer && *length > 0) *buffer = 'v';
  }
  static void setPreference(void*, const char*, const char*) {}
  static void change(void*, int) { BRV_GetSourceCount(); }
  static void property(void*, int type, const void* value) {
    // A device that could not be opened has no identifier.
    fuzz::require(type == BRV_PROPERTY_INT64 || std::strlen(static_cast<const char*>(value)) <= 1);
  }
  static void log(void*, int, const char* format, ...) {
    std::array<char, 600> line;
    va_list arguments;
    va_start(arguments, format);
    fuzz::require(std::vsnprintf(line.data(), line.size(), format, arguments) >= 0);
    va_end(arguments);
  }
  static void video(void*, BRV_VideoBuffer* record) {
    auto* const picture = static_cast<CVPixelBufferRef>(record->data);
    CVPixelBufferLockBaseAddress(picture, 0);
    const auto* const bytes = static_cast<const char*>(CVPixelBufferGetBaseAddress(picture));
    fuzz::require(std::string(bytes, CVPixelBufferGetDataSize(picture)).find_first_not_of('\0') == std::string::npos);
    CVPixelBufferUnlockBaseAddress(picture, 0);
  }
  static void audio(void*, BRV_AudioBuffer* record) {
    const auto* const bytes = static_cast<const char*>(record->data);
    fuzz::require(record->dataLength > 0 &&
                  std::string(bytes, static_cast<std::size_t>(record->dataLength)).size() % 4 == 0);
  }

  fuzz::Input& _input;
  fake::Provider& _provider;
  std::vector<std::shared_ptr<fake::Device>> _devices;

  std::string _sourceText;
  const char* _source = nullptr;
  const char* _name = nullptr;
  int _number = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const auto provider = std::make_shared<fake::Provider>();
  const fuzz::Machine machine(provider);
  Host host(input, *provider);
  for (int calls = 0; calls < 64 && input.isLeft(); ++calls) host.act();
  return 0;
}
