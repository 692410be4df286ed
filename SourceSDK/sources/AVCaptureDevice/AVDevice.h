#pragma once

// One source as the host sees it: a camera, a microphone, or both, with the capture session that carries them. Made,
// paired, marked and destroyed by the device manager; started, stopped and configured on the host's thread.
//
// Pairing may add the second medium on the main thread while the host's thread and the capture queues look at the
// source, so everything that pairing changes is guarded by a lock that is only ever held to read or write those fields.

#include <AVFoundation/AVFoundation.h>
#include <CoreFoundation/CFRef.h>
#include <dispatch/dispatch.h>
#include <lumora/zCritical.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "AVCaptureDelegate.h"
#include "BRV_AVCapture.h"

namespace AV {

class DeviceManager;

/// The output settings of every audio data output: what the host's records hold.
Ref<NSDictionary> GetAudioSettings();

class Device : public std::enable_shared_from_this<Device> {
 public:
  /// What a source is made from.
  enum eMediaType { video = 0, audio = 1, muxed = 2 };

  /// Builds a source around `device`, names it so that no source of `manager` has the name, and enters it into the
  /// manager's table of devices in use. A failure is held for getErrorString.
  Device(DeviceManager* manager, AVCaptureDevice* device);

  /// Stops, and returns when no callback of the host is running for this source.
  ~Device();
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  // Pairing. A side that is there already stays, and the refusal is logged. When the device cannot be opened, the
  // source stays as it was, and the reason is returned; else null.

  Ref<NSError> setAudioTrackDevice(AVCaptureDevice* audioDevice);
  Ref<NSError> setVideoTrackDevice(AVCaptureDevice* videoDevice);

  // Running

  /// Starts the session, and applies the automatic choice of video format until the host has made one, which blocks
  /// for 100 ms; what keeps that from being applied is logged, and kept for getErrorString. No-op while running.
  void startDevice();
  /// Stops the session: after the return no sample is being delivered, unless called from the delivery. No-op while
  /// stopped.
  void stopDevice();
  /// Stops a running session, and starts it in every case. Leaves the video format alone.
  void restartDevice();
  /// Stops the session for good: starting does nothing from now on.
  void retireDevice();
  bool isRunning() const;

  /// Takes the video output out of the session, and puts it back. Without video nothing happens.
  void disconnectOutput();
  void reconnectOutput();

  // Callbacks of the host

  void setSourceChangeCallback(BRV_SourceChangedCallback callback, void* context);
  /// Calls the source-change callback when it has a context, under the lock that guards it.
  void notifySourceChange(int code);

  /// After the return the former callback is not running, unless called from it, and will not be called.
  void setVideoDataArriveCallback(BRV_VideoDataArrivedCallback callback, void* context);
  void setAudioDataArrivedCallback(BRV_AudioDataArrivedCallback callback, void* context);

  // Identity

  /// Hands out the last error once: false, and `text` as it was, when there is none.
  bool getErrorString(std::string& text);
  /// The same, and the error stays to be handed out; empty when there is none. Any thread.
  std::string pendingError() const;
  /// Logs what failed in "Starting" or "Running" the source, and keeps it for getErrorString; the failure of a capture
  /// device, until that sends again.
  void noteFailure(const char* what, const char* reason, const NSObject* failedDevice = nullptr);

  const std::string& getDeviceName() const { return _name; }
  /// Unique IDs of the capture devices; empty for a side that is absent. Equal for a muxed device.
  std::string getAudioDeviceID() const;
  std::string getVideoDeviceID() const;
  /// Calls `look` with the capture device of each side that is there, in place: without memory, and with the lock held.
  template <typename Look>
  void forEachCaptureDevice(Look look) const {
    std::lock_guard lock(_graphLock);
    if (_pVideoDevice) look(std::as_const(*_pVideoDevice));
    if (_pAudioDevice) look(std::as_const(*_pAudioDevice));
  }
  bool hasVideoOrAudioID(const std::string& id) const;
  bool isHDV() const { return _isHDV.load(std::memory_order_relaxed); }
  void setIsHDV(bool isHDV) { _isHDV.store(isHDV, std::memory_order_relaxed); }
  bool hasAudioStream() const;
  bool hasVideoStream() const;

  // Sound formats: those of the audio device that can be mixed with other sound, in its order. An index is a position
  // in that list; -1 stands for none. What is set here changes what the hardware captures; records keep their format.
  // Host thread only.

  /// Built at the first use that finds a format, and kept for the life of the source.
  const std::vector<Ref<AVCaptureDeviceFormat>>& get_supported_audio_formats();
  std::size_t get_supported_audio_format_count() { return get_supported_audio_formats().size(); }
  int supportedAudioFormatListCount() { return static_cast<int>(get_supported_audio_format_count()); }
  bool getSupportedAudioFormatString(int index, std::string* out);
  /// Applies a format and starts the source, or starts it again.
  bool setSupportedAudioFormat(int index);
  /// The index last applied with success; -1 before.
  int getSelectedAudioFormatIndex() const { return static_cast<std::int32_t>(_selectedAudioFormatIndex); }
  /// The name of what the audio device runs at. False, and `out` as it was, without an audio device or when the format
  /// has no name.
  bool getSelectedAudioFormatString(std::string* out) const;

  // Video formats and frame rates. An index is a position in the device's list of formats, or in the active format's
  // list of frame-rate ranges; -1 stands for none. Reading with an index outside the list changes nothing and yields
  // false, "" or 0.

  int supportedVideoFormatListCount() const;
  bool getSupportedVideoFormatString(int index, std::string* out) const;
  /// The first format with the most pixels, up to 1920 x 1080; 0 when there is none.
  int getBestSupportedVideoFormatIndex() const;
  bool getBestSupportedVideoFormatString(std::string* out) const;
  bool isVideoFormatPotentiallyTooLarge(int index) const;
  /// Applies a format on behalf of the host: from now on, even when it fails, there is no automatic choice any more.
  /// Blocks for 100 ms.
  bool setSupportedVideoFormat(int index);
  /// The first format whose name is that of the active one.
  int getSelectedVideoFormatIndex() const;
  /// False, and `out` as it was, without video or when the active format has no name.
  bool getSelectedVideoFormatString(std::string* out) const;

  int supportedVideoFPSCount() const;
  /// Lowest rate of the range, in frames per second.
  float getSupportedVideoFPS(int index) const;
  std::string getSupportedVideoFPSTitle(int index) const;
  /// Runs the camera at the range's highest rate. Blocks for 100 ms. The next record of each medium carries the
  /// format-change flag.
  bool setVideoFPSIndex(int index);
  int getSelectedVideoFPSIndex() const;

  /// Ticks per second of the time stamps; -1 before the first sample, 0 for a source without media.
  std::int32_t getDeviceTimescale() const;
  /// Duration of a frame in ticks of the timescale: 0 while the timescale is not known, -1 for a source without media.
  std::int64_t getDeviceFrameDuration() const;
  /// Size of the active format in pixels; 0 without video.
  int getDeviceWidth() const;
  int getDeviceHeight() const;

  /// What became of the samples of a medium since the source was made; of another microphone before this one, too. All
  /// 0 for a medium that it lacks. Any thread.
  Account videoAccount() const;
  Account audioAccount() const;
  /// Ticks per second of the sound's time stamps; -1 before the first, 0 without sound.
  std::int32_t getAudioTimescale() const;

  /// Whether CoreMediaIO says that a video digitizer backs the camera; false without video.
  bool _HasVideoDigitizerComponents() const;

 private:
  struct AudioCallback {
    BRV_AudioDataArrivedCallback callback = nullptr;
    void* context = nullptr;
  };

  void build(AVCaptureDevice& device);
  void dismantle() noexcept;
  void observeFailures();
  std::string _GenerateName(const std::string& baseName, eMediaType type) const;
  Ref<NSError> _CreateVideoDevice(const Ref<AVCaptureDevice>& device);
  Ref<NSError> _CreateAudioDevice(Ref<AVCaptureDevice> device);
  void createAudioOutput(Ref<AVCaptureDevice> device, VCaptureDelegate* videoDelegate, const std::string& queueLabel,
                         std::string deviceID);
  void releaseVideoGraph() noexcept;
  bool _SetSupportedVideoFormat(int index, Ref<NSError>* error);

  void startSession();

  Ref<AVCaptureDevice> videoDevice() const;
  Ref<AVCaptureDevice> audioDevice() const;
  Ref<VCaptureDelegate> videoDelegate() const;
  Ref<ACaptureDelegate> audioDelegate() const;
  void setError(Ref<NSError> error, const NSObject* failedDevice = nullptr);
  void noteRecovery(const NSObject* device);
  void reconnectAudioOutput();
  struct AudioGraph;
  void exchangeAudioGraph(AudioGraph& graph) noexcept;
  AudioCallback releaseAudioGraph(AudioGraph former) noexcept;

  std::string _name;
  std::string _audioDeviceID;
  std::string _videoDeviceID;
  zCritical* _pLock = nullptr;  ///< guards the source-change pair
  BRV_SourceChangedCallback _pSourceChangeCallback = nullptr;
  void* _pSourceChangeContext = nullptr;
  Ref<NSError> _pError;
  const NSObject* _pFailedDevice = nullptr;  ///< the capture device whose failure the error is; compared alone
  DeviceManager* _pDeviceManager;
  Ref<AVCaptureSession> _pSession;
  Ref<AVCaptureVideoDataOutput> _pVideoOutput;
  Ref<AVCaptureAudioDataOutput> _pAudioOutput;
  Ref<AVCaptureDevice> _pVideoDevice;
  Ref<AVCaptureDeviceInput> _pVideoInput;
  Ref<AVCaptureDevice> _pAudioDevice;
  Ref<AVCaptureDeviceInput> _pAudioInput;
  Ref<VCaptureDelegate> _pVideoDelegate;
  Ref<ACaptureDelegate> _pAudioDelegate;
  // The branch that was the source's before, until its last sample is counted.
  Ref<AVCaptureAudioDataOutput> _pFormerAudioOutput;
  Ref<ACaptureDelegate> _pFormerAudioDelegate;
  Account _formerAudio;  ///< of those before
  Ref<NSObject> _pFailureObserver;
  Ref<NSObject> _pRecoveryObserver;
  CFRef<dispatch_queue_t> _audioQueue;
  CFRef<dispatch_queue_t> _videoQueue;
  std::atomic<bool> _isHDV{false};
  std::uint64_t _selectedAudioFormatIndex = ~std::uint64_t{0};
  std::atomic<bool> _videoFormatSelected{false};
  std::vector<Ref<AVCaptureDeviceFormat>> _pAudioFormats;

  /// Held while the session starts, so that none starts after its retirement.
  std::mutex _startLock;
  bool _isRetired = false;

  /// Held while pairing rebuilds the graph, and by whatever changes callbacks or reconnects the audio output, so that
  /// neither undoes the other. Capture queues are waited for with it held: nothing that a host may call from its data
  /// callbacks takes it.
  std::mutex _rebuildLock;

  /// Guards the IDs, the error, devices, inputs, outputs, delegates and queues. Nothing is called with it held that
  /// takes another lock.
  mutable std::mutex _graphLock;
};

}  // namespace AV
