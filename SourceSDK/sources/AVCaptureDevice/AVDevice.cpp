#include "AVDevice.h"

#include <CoreVideo/CVPixelBuffer.h>
#include <Foundation/NSValue.h>
#include <lumora/zTrace.h>

#include <exception>
#include <new>
#include <optional>
#include <utility>

#include "AVCaptureDevice+VDIGCategory.h"
#include "AVDeviceManager.h"
#include "AVGuard.h"
#include "AVLog.h"

namespace AV {
namespace {

constexpr std::int64_t UnsupportedMediaError = 1000;

std::optional<Device::eMediaType> classify(const AVCaptureDevice& device) {
  if (device.hasMediaType(AVMediaTypeVideo)) return Device::video;
  if (device.hasMediaType(AVMediaTypeAudio)) return Device::audio;
  if (device.hasMediaType(AVMediaTypeMuxed)) return Device::muxed;
  return std::nullopt;
}

Ref<NSDictionary> videoSettings() {
  return makeRef<NSDictionary>(std::initializer_list<NSDictionary::Entry>{
      {kCVPixelBufferPixelFormatTypeKey, NSNumber::numberWithUnsignedInt(kCVPixelFormatType_422YpCbCr8_yuvs)},
      {kCVPixelBufferIOSurfacePropertiesKey, makeRef<NSDictionary>()},
  });
}

/// Runs `block` where a delegate's deliveries run, so that none is in progress.
template <typename Block>
void onQueue(const CFRef<dispatch_queue_t>& queue, Block block) {
  if (dispatch_queue_is_current(queue.get())) {
    block();
  } else {
    dispatch_sync(queue.get(), block);
  }
}

/// Lets go of a delegate when none of its deliveries is in progress: on its queue, and from within one of them later.
template <typename Delegate>
void releaseOnQueue(const CFRef<dispatch_queue_t>& queue, Ref<Delegate>& delegate) noexcept {
  if (!dispatch_queue_is_current(queue.get())) return dispatch_sync(queue.get(), [&] { delegate = {}; });
  const auto release = [](void* released) { static_cast<Delegate*>(released)->release(); };
  try {
    dispatch_async_f(queue.get(), delegate.get(), release);
  } catch (const std::exception&) {
    // Without memory for that it stays, rather than go under the delivery's feet.
  }
  static_cast<void>(delegate.leak());
}

CFRef<dispatch_queue_t> makeQueue(const std::string& label) {
  auto queue = CFRef<dispatch_queue_t>::adopt(dispatch_queue_create(label.c_str(), DISPATCH_QUEUE_SERIAL));
  if (!queue) throw std::bad_alloc();
  return queue;
}

}  // namespace

/// Everything that a source's sound consists of but the input.
struct Device::AudioGraph {
  Ref<AVCaptureDevice> device;  ///< null for the sound of a muxed device
  std::string deviceID;
  Ref<AVCaptureAudioDataOutput> output;
  CFRef<dispatch_queue_t> queue;
  Ref<ACaptureDelegate> delegate;
};

Ref<NSDictionary> GetAudioSettings() {
  return makeRef<NSDictionary>(std::initializer_list<NSDictionary::Entry>{
      {AVFormatIDKey, NSNumber::numberWithUnsignedInt(kAudioFormatLinearPCM)},
      {AVSampleRateKey, NSNumber::numberWithInt(44100)},
      {AVLinearPCMBitDepthKey, NSNumber::numberWithInt(16)},
      {AVLinearPCMIsFloatKey, NSNumber::numberWithBool(false)},
      {AVLinearPCMIsNonInterleaved, NSNumber::numberWithBool(false)},
      {AVNumberOfChannelsKey, NSNumber::numberWithInt(2)},
  });
}

Device::Device(DeviceManager* manager, AVCaptureDevice* device)
    : _name("Untitled Device"), _pDeviceManager(manager), _pSession(makeRef<AVCaptureSession>()) {
  try {
    build(*device);
  } catch (...) {
    _pDeviceManager->_removeFromTotalDeviceTable(this);
    dismantle();
    throw;
  }
}

Device::~Device() {
  dismantle();
}

void Device::build(AVCaptureDevice& device) {
  observeFailures();
  const auto type = classify(device);
  if (!type) {
    zTrace::Default().TraceNote("AV::Device::Device() Device %s doesn't contain and supported Media\n",
                                device.localizedName().c_str());
    setError(NSError::errorWithDomain(NSCocoaErrorDomain, UnsupportedMediaError));
    return;
  }
  _name = _GenerateName(device.localizedName(), *type);
  // One that has sound and muxed media is named after its sound, and has pictures all the same.
  const bool hasPictures = *type != audio || device.hasMediaType(AVMediaTypeMuxed);
  const auto side = Ref<AVCaptureDevice>::retain(&device);
  setError(hasPictures ? _CreateVideoDevice(side) : _CreateAudioDevice(side));
  _pLock = zCritical::Factory(1);
}

/// Of a camera or microphone that cannot go on while it runs.
void Device::observeFailures() {
  const auto isOwn = [this](const NSObject* object) {
    bool isFound = false;
    forEachCaptureDevice([&](const AVCaptureDevice& device) { isFound |= &device == object; });
    return isFound;
  };
  const auto note = [this, isOwn](NSNotification& notification) {
    if (!isOwn(notification.object())) return;
    const auto* error = dynamic_cast<NSError*>(notification.userInfo()->objectForKey(AVCaptureDeviceErrorKey));
    guarded([&] { noteFailure("Running", error->localizedDescription().c_str(), notification.object()); });
  };
  const auto takeBack = [this, isOwn](NSNotification& notification) {
    if (!isOwn(notification.object())) return;
    guarded([&] { noteRecovery(notification.object()); });
  };
  auto& center = NSNotificationCenter::defaultCenter();
  _pFailureObserver = center.addObserverForName(AVCaptureDeviceRuntimeErrorNotification, nullptr, nullptr, note);
  _pRecoveryObserver =
      center.addObserverForName(AVCaptureDeviceRuntimeErrorEndedNotification, nullptr, nullptr, takeBack);
}

void Device::dismantle() noexcept {
  stopDevice();
  for (auto* observer : {&_pFailureObserver, &_pRecoveryObserver}) {
    NSNotificationCenter::defaultCenter().removeObserver(observer->get());
    *observer = {};
  }
  _pSession = {};
  _pVideoDevice = {};
  _pAudioDevice = {};
  _pVideoInput = {};
  _pAudioInput = {};

  if (_pVideoOutput) _pVideoOutput->setSampleBufferDelegate(nullptr, nullptr);
  _pVideoOutput = {};
  if (_pAudioOutput) _pAudioOutput->setSampleBufferDelegate(nullptr, nullptr);
  _pAudioOutput = {};

  // A delegate goes on its own queue, where no delivery can be in progress.
  if (_audioQueue && _pAudioDelegate) releaseOnQueue(_audioQueue, _pAudioDelegate);
  _audioQueue = {};
  if (_videoQueue && _pVideoDelegate) releaseOnQueue(_videoQueue, _pVideoDelegate);
  _videoQueue = {};

  setSourceChangeCallback(nullptr, nullptr);
  delete _pLock;
  _pLock = nullptr;
  _pAudioFormats.clear();
}

std::string Device::_GenerateName(const std::string& baseName, eMediaType type) const {
  return _pDeviceManager->unusedName(baseName, type == video ? " Video" : type == audio ? " Audio" : "");
}

/// Null when the video side was built. Otherwise the reason why the device cannot be opened, and nothing of it is kept.
Ref<NSError> Device::_CreateVideoDevice(const Ref<AVCaptureDevice>& device) {
  Ref<NSError> error;
  auto input = AVCaptureDeviceInput::initWithDevice(device.get(), &error);
  if (!input) return error;
  auto output = makeRef<AVCaptureVideoDataOutput>();
  output->setVideoSettings(videoSettings().get());
  output->setAlwaysDiscardsLateVideoFrames(true);
  auto queue = makeQueue(_name);
  auto delegate = VCaptureDelegate::initWithDevice(this);
  delegate->setCaptureDevice(device.get());
  output->setSampleBufferDelegate(delegate.get(), queue.get());
  std::string deviceID = device->uniqueID();
  const std::string soundID = deviceID;

  _pSession->addInput(input.get());
  bool bringsSound = false;
  {
    std::lock_guard lock(_graphLock);
    _pVideoDevice = device;
    _pVideoInput = std::move(input);
    _pVideoOutput = output;
    _videoQueue = std::move(queue);
    _pVideoDelegate = delegate;
    _videoDeviceID = std::move(deviceID);
    // A microphone that is there already stays what the source is heard through.
    bringsSound = device->hasMediaType(AVMediaTypeMuxed) && !_pAudioDevice;
  }
  try {
    _pSession->addOutput(output.get());
    if (bringsSound) {
      createAudioOutput({}, delegate.get(), _name + " Audio Track", soundID);
    } else {
      _pDeviceManager->_addToTotalDeviceTable(this);
    }
  } catch (...) {
    releaseVideoGraph();
    throw;
  }
  return {};
}

/// Takes a video side that could not be completed away again.
void Device::releaseVideoGraph() noexcept {
  std::unique_lock lock(_graphLock);
  const auto device = std::exchange(_pVideoDevice, {});
  const auto input = std::exchange(_pVideoInput, {});
  const auto output = std::exchange(_pVideoOutput, {});
  const auto queue = std::exchange(_videoQueue, {});
  auto delegate = std::exchange(_pVideoDelegate, {});
  _videoDeviceID.clear();
  lock.unlock();
  _pSession->removeOutput(output.get());
  _pSession->removeInput(input.get());
  output->setSampleBufferDelegate(nullptr, nullptr);
  releaseOnQueue(queue, delegate);
}

/// As for the video side.
Ref<NSError> Device::_CreateAudioDevice(Ref<AVCaptureDevice> device) {
  Ref<NSError> error;
  auto input = AVCaptureDeviceInput::initWithDevice(device.get(), &error);
  if (!input) return error;
  std::string deviceID = device->uniqueID();
  _pSession->addInput(input.get());
  try {
    createAudioOutput(std::move(device), nullptr, _name, std::move(deviceID));
  } catch (...) {
    _pSession->removeInput(input.get());
    throw;
  }
  {
    std::lock_guard lock(_graphLock);
    _pAudioInput = std::move(input);
  }
  return {};
}

/// The audio branch of the session: that of `device`, or with a video delegate that of a muxed device. Once it is
/// there, the source is entered under its IDs. The sound of a muxed device gives way to that of a microphone, which
/// takes over the host's callback.
void Device::createAudioOutput(Ref<AVCaptureDevice> device, VCaptureDelegate* videoDelegate,
                               const std::string& queueLabel, std::string deviceID) {
  auto output = makeRef<AVCaptureAudioDataOutput>();
  auto delegate = ACaptureDelegate::init();
  delegate->setVideoDelegate(videoDelegate);
  output->setAudioSettings(GetAudioSettings().get());
  auto queue = makeQueue(queueLabel);
  output->setSampleBufferDelegate(delegate.get(), queue.get());
  _pSession->addOutput(output.get());

  AudioGraph graph{std::move(device), std::move(deviceID), std::move(output), queue, delegate};
  exchangeAudioGraph(graph);
  try {
    _pDeviceManager->_addToTotalDeviceTable(this);
  } catch (...) {
    exchangeAudioGraph(graph);
    releaseAudioGraph(std::move(graph));
    throw;
  }
  if (!graph.output) return;
  const AudioCallback callback = releaseAudioGraph(std::move(graph));
  onQueue(queue, [&] {
    delegate->setAudioDataArrivedCallback(callback.callback);
    delegate->setAudioDataArrivedContext(callback.context);
  });
}

/// `graph` becomes the source's, and the source's becomes `graph`.
void Device::exchangeAudioGraph(AudioGraph& graph) noexcept {
  std::lock_guard lock(_graphLock);
  std::swap(_pAudioDevice, graph.device);
  std::swap(_audioDeviceID, graph.deviceID);
  std::swap(_pAudioOutput, graph.output);
  std::swap(_audioQueue, graph.queue);
  std::swap(_pAudioDelegate, graph.delegate);
  _pFormerAudioOutput = graph.output;
  _pFormerAudioDelegate = graph.delegate;
}

/// Takes an audio branch that is not the source's any more down, and hands out the callback that the host had in it.
Device::AudioCallback Device::releaseAudioGraph(AudioGraph former) noexcept {
  _pSession->removeOutput(former.output.get());
  former.output->setSampleBufferDelegate(nullptr, nullptr);
  AudioCallback callback;
  onQueue(former.queue, [&] {
    callback = {former.delegate->audioDataArrivedCallback(), former.delegate->audioDataArrivedContext()};
  });
  const Account account = former.delegate->withheld().accountOf(*former.output);
  {
    std::lock_guard lock(_graphLock);
    _formerAudio += account;
    _pFormerAudioOutput = {};
    _pFormerAudioDelegate = {};
  }
  releaseOnQueue(former.queue, former.delegate);
  return callback;
}

Account Device::videoAccount() const {
  Ref<AVCaptureVideoDataOutput> output;
  Ref<VCaptureDelegate> delegate;
  {
    std::lock_guard lock(_graphLock);
    output = _pVideoOutput;
    delegate = _pVideoDelegate;
  }
  return output && delegate ? delegate->withheld().accountOf(*output) : Account();
}

Account Device::audioAccount() const {
  std::pair<Ref<AVCaptureAudioDataOutput>, Ref<ACaptureDelegate>> branches[2];
  Account account;
  {
    std::lock_guard lock(_graphLock);
    branches[0] = {_pFormerAudioOutput, _pFormerAudioDelegate};
    branches[1] = {_pAudioOutput, _pAudioDelegate};
    account = _formerAudio;
  }
  for (const auto& [output, delegate] : branches) {
    if (output && delegate) account += delegate->withheld().accountOf(*output);
  }
  return account;
}

std::int32_t Device::getAudioTimescale() const {
  const auto delegate = audioDelegate();
  return delegate ? delegate->timescale() : 0;
}

Ref<NSError> Device::setAudioTrackDevice(AVCaptureDevice* device) {
  std::unique_lock rebuild(_rebuildLock);
  if (!audioDevice()) return _CreateAudioDevice(Ref<AVCaptureDevice>::retain(device));
  rebuild.unlock();
  AV_LOG(LevelRefusal, "Already has an Audio Device Associated with it!\n");
  return {};
}

Ref<NSError> Device::setVideoTrackDevice(AVCaptureDevice* device) {
  std::unique_lock rebuild(_rebuildLock);
  if (!videoDevice()) return _CreateVideoDevice(Ref<AVCaptureDevice>::retain(device));
  rebuild.unlock();
  AV_LOG(LevelRefusal, "Already has a Video Device Associated with it!\n");
  return {};
}

void Device::startDevice() {
  if (isRunning()) return;
  reconnectAudioOutput();
  startSession();
  if (_videoFormatSelected) return;
  Ref<NSError> error;
  _SetSupportedVideoFormat(getBestSupportedVideoFormatIndex(), &error);
  if (error) noteFailure("Starting", error->localizedDescription().c_str());
}

void Device::stopDevice() {
  // Also when another thread has just stopped it: what that lets arrive is waited for.
  _pSession->stopRunning();
}

void Device::restartDevice() {
  if (isRunning()) {
    _pSession->stopRunning();
    reconnectAudioOutput();
  }
  startSession();
}

void Device::startSession() {
  std::lock_guard lock(_startLock);
  if (!_isRetired) _pSession->startRunning();
}

void Device::retireDevice() {
  {
    std::lock_guard lock(_startLock);
    _isRetired = true;
  }
  stopDevice();
}

bool Device::isRunning() const {
  return _pSession->isRunning();
}

void Device::reconnectAudioOutput() {
  std::lock_guard rebuild(_rebuildLock);
  Ref<AVCaptureAudioDataOutput> output;
  {
    std::lock_guard lock(_graphLock);
    output = _pAudioOutput;
  }
  if (!output) return;
  _pSession->removeOutput(output.get());
  try {
    _pSession->addOutput(output.get());
  } catch (...) {
    _pSession->stopRunning();  // so that the next start is one, and connects the output
    throw;
  }
}

void Device::disconnectOutput() {
  std::unique_lock lock(_graphLock);
  const auto output = _pVideoOutput;
  lock.unlock();
  if (output) _pSession->removeOutput(output.get());
}

void Device::reconnectOutput() {
  std::unique_lock lock(_graphLock);
  const auto output = _pVideoOutput;
  lock.unlock();
  if (output) _pSession->addOutput(output.get());
}

void Device::setSourceChangeCallback(BRV_SourceChangedCallback callback, void* context) {
  zCriticalScope lock(_pLock);
  if (const auto delegate = videoDelegate()) {
    delegate->setNotifySourceChangeCallback(callback);
    delegate->setNotifySourceChangeContext(context);
  }
  if (const auto delegate = audioDelegate()) {
    delegate->setNotifySourceChangeCallback(callback);
    delegate->setNotifySourceChangeContext(context);
  }
  _pSourceChangeCallback = callback;
  _pSourceChangeContext = context;
}

void Device::notifySourceChange(int code) {
  zCriticalScope lock(_pLock);
  if (_pSourceChangeCallback && _pSourceChangeContext) _pSourceChangeCallback(_pSourceChangeContext, code);
}

void Device::setVideoDataArriveCallback(BRV_VideoDataArrivedCallback callback, void* context) {
  std::lock_guard rebuild(_rebuildLock);
  std::unique_lock lock(_graphLock);
  const auto delegate = _pVideoDelegate;
  const auto queue = _videoQueue;
  lock.unlock();
  if (!delegate) return;
  onQueue(queue, [&] {
    delegate->setVideoDataArrivedCallback(callback);
    delegate->setVideoDataArrivedContext(context);
  });
}

void Device::setAudioDataArrivedCallback(BRV_AudioDataArrivedCallback callback, void* context) {
  std::lock_guard rebuild(_rebuildLock);
  std::unique_lock lock(_graphLock);
  const auto delegate = _pAudioDelegate;
  const auto queue = _audioQueue;
  lock.unlock();
  if (!delegate) return;
  onQueue(queue, [&] {
    delegate->setAudioDataArrivedCallback(callback);
    delegate->setAudioDataArrivedContext(context);
  });
}

std::string Device::pendingError() const {
  std::unique_lock lock(_graphLock);
  const auto error = _pError;
  lock.unlock();
  return error ? error->localizedDescription() : std::string();
}

bool Device::getErrorString(std::string& text) {
  std::unique_lock lock(_graphLock);
  auto error = _pError;
  lock.unlock();
  if (!error) return false;
  text = error->localizedDescription();
  lock.lock();
  if (_pError == error) _pError = {};
  return true;
}

void Device::setError(Ref<NSError> error, const NSObject* failedDevice) {
  std::lock_guard lock(_graphLock);
  std::swap(_pError, error);
  _pFailedDevice = failedDevice;
}

void Device::noteFailure(const char* what, const char* reason, const NSObject* failedDevice) {
  AV_LOG(LevelOther, "Error %s Source %s: %s\n", what, _name.c_str(), reason);
  setError(NSError::errorWithDomain(AVFoundationErrorDomain, AVErrorSessionNotRunning, reason), failedDevice);
}

/// The error of a device that sends again is over, unless another one has taken its place.
void Device::noteRecovery(const NSObject* device) {
  AV_LOG(LevelOther, "Source %s runs again\n", _name.c_str());
  Ref<NSError> error;
  std::lock_guard lock(_graphLock);
  if (_pFailedDevice == device) std::swap(_pError, error);
}

std::string Device::getAudioDeviceID() const {
  std::lock_guard lock(_graphLock);
  return _audioDeviceID;
}

std::string Device::getVideoDeviceID() const {
  std::lock_guard lock(_graphLock);
  return _videoDeviceID;
}

bool Device::hasVideoOrAudioID(const std::string& id) const {
  std::lock_guard lock(_graphLock);
  return _videoDeviceID == id || _audioDeviceID == id;
}

bool Device::hasAudioStream() const {
  std::lock_guard lock(_graphLock);
  return _pAudioDevice || (_pVideoDevice && _pVideoDevice->hasMediaType(AVMediaTypeMuxed));
}

bool Device::hasVideoStream() const {
  std::lock_guard lock(_graphLock);
  return bool{_pVideoDevice};
}

bool Device::_HasVideoDigitizerComponents() const {
  const auto device = videoDevice();
  return device && hasVDIGComponent(*device);
}

Ref<AVCaptureDevice> Device::videoDevice() const {
  std::lock_guard lock(_graphLock);
  return _pVideoDevice;
}

Ref<AVCaptureDevice> Device::audioDevice() const {
  std::lock_guard lock(_graphLock);
  return _pAudioDevice;
}

Ref<VCaptureDelegate> Device::videoDelegate() const {
  std::lock_guard lock(_graphLock);
  return _pVideoDelegate;
}

Ref<ACaptureDelegate> Device::audioDelegate() const {
  std::lock_guard lock(_graphLock);
  return _pAudioDelegate;
}

}  // namespace AV
