#pragma once

// The two sample-buffer delegates of a source: sample buffers in, host records out. A source owns one for each medium;
// the output calls it on its serial queue, one sample at a time. Records are rewritten for every delivery and
// neither pixels nor samples in the host's format are copied.
//
// Callbacks and contexts are read by deliveries, so they are set on the delegate's queue, or before it has one.
// `timescale`, `dirtyFormat` and `withheld` may be used on any thread.

#include <AVFoundation/AVFoundation.h>
#include <AudioToolbox/AudioConverter.h>
#include <CoreFoundation/CFRef.h>
#include <CoreVideo/CVImageBuffer.h>
#include <runtime/NSObject.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>

#include "AVAccount.h"
#include "BRV_AVCapture.h"

namespace AV {
class Device;
}

/// A mark that any thread sets and a delivery takes, never lost in between.
class DirtyMark {
 public:
  void set() noexcept { _isSet.store(true, std::memory_order_relaxed); }
  /// Costs a load while the mark is not set.
  bool take() noexcept {
    return _isSet.load(std::memory_order_relaxed) && _isSet.exchange(false, std::memory_order_relaxed);
  }

 private:
  std::atomic<bool> _isSet{false};
};

/// The shape of a picture's pixels. A camera attaches one dictionary, which never changes, to all its pictures: it is
/// held, and read when another one comes, which saves a frame the look-ups and conversions of two numbers.
class PixelAspectRatio {
 public:
  /// Width divided by height; 1 where the picture does not say both, or says what cannot be.
  float of(CVImageBufferRef image);

 private:
  [[gnu::cold]] void read(CFDictionaryRef attached);

  CFRef<CFDictionaryRef> _lastAttached;
  float _ratio = 1.0F;
};

class VCaptureDelegate final : public NSObject, public AVCaptureVideoDataOutputSampleBufferDelegate {
 public:
  // initWithDevice:
  static Ref<VCaptureDelegate> initWithDevice(AV::Device* device);

  void captureOutputDidOutputSampleBuffer(AVCaptureOutput* output, CMSampleBufferRef sampleBuffer,
                                          AVCaptureConnection* connection) override;
  void captureOutputDidDropSampleBuffer(AVCaptureOutput* output, CMSampleBufferRef sampleBuffer,
                                        AVCaptureConnection* connection) override;

  /// The next record carries the format-change flag.
  void dirtyFormat() noexcept { _dirty.set(); }

  /// Ticks per second of the most recent sample's time; -1 before the first.
  std::int32_t timescale() const noexcept { return _timescale.load(std::memory_order_relaxed); }
  void setTimescale(std::int32_t timescale) noexcept { _timescale.store(timescale, std::memory_order_relaxed); }

  const AV::Withheld& withheld() const noexcept { return _withheld; }

  AV::Device* device() const noexcept { return _pDevice; }
  void setDevice(AV::Device* device) noexcept { _pDevice = device; }
  /// Not retained.
  AVCaptureDevice* captureDevice() const noexcept { return _pCaptureDevice; }
  void setCaptureDevice(AVCaptureDevice* device) noexcept { _pCaptureDevice = device; }

  BRV_SourceChangedCallback notifySourceChangeCallback() const noexcept { return _pSourceChangeCallback; }
  void setNotifySourceChangeCallback(BRV_SourceChangedCallback callback) noexcept { _pSourceChangeCallback = callback; }
  void* notifySourceChangeContext() const noexcept { return _pSourceChangeContext; }
  void setNotifySourceChangeContext(void* context) noexcept { _pSourceChangeContext = context; }

  BRV_VideoDataArrivedCallback videoDataArrivedCallback() const noexcept { return _pVideoDataArriveCallback; }
  void setVideoDataArrivedCallback(BRV_VideoDataArrivedCallback callback) noexcept {
    _pVideoDataArriveCallback = callback;
  }
  void* videoDataArrivedContext() const noexcept { return _pVideoDataArriveContext; }
  void setVideoDataArrivedContext(void* context) noexcept { _pVideoDataArriveContext = context; }

 private:
  explicit VCaptureDelegate(AV::Device* device) noexcept : _pDevice(device) {}
  ~VCaptureDelegate() override = default;

  void fillRecord(CVImageBufferRef image, std::int64_t timeStamp);
  void markFormatChange();

  std::atomic<std::int32_t> _timescale{-1};
  std::int32_t _oldTimescale = -1;
  AV::Device* _pDevice;
  AVCaptureDevice* _pCaptureDevice = nullptr;
  BRV_SourceChangedCallback _pSourceChangeCallback = nullptr;
  void* _pSourceChangeContext = nullptr;
  BRV_VideoDataArrivedCallback _pVideoDataArriveCallback = nullptr;
  void* _pVideoDataArriveContext = nullptr;
  BRV_VideoBuffer _videoBuffer{};
  PixelAspectRatio _pixelAspectRatio;
  DirtyMark _dirty;
  AV::Withheld _withheld;
};

class ACaptureDelegate final : public NSObject, public AVCaptureAudioDataOutputSampleBufferDelegate {
 public:
  static Ref<ACaptureDelegate> init();

  void captureOutputDidOutputSampleBuffer(AVCaptureOutput* output, CMSampleBufferRef sampleBuffer,
                                          AVCaptureConnection* connection) override;

  /// The next record carries the format-change flag.
  void dirtyFormat() noexcept { _dirty.set(); }

  /// Ticks per second of the most recent buffer's time, or of the paired video; -1 before the first.
  std::int32_t timescale() const noexcept { return _timescale.load(std::memory_order_relaxed); }
  void setTimescale(std::int32_t timescale) noexcept { _timescale.store(timescale, std::memory_order_relaxed); }

  const AV::Withheld& withheld() const noexcept { return _withheld; }

  /// The delegate of the same muxed source's pictures, in whose timescale the sound is then stamped; sound is dropped
  /// while that has no valid one, which is logged once. Set before the delegate has a queue.
  VCaptureDelegate* videoDelegate() const noexcept { return _videoDelegate.get(); }
  void setVideoDelegate(VCaptureDelegate* delegate) { _videoDelegate = Ref<VCaptureDelegate>::retain(delegate); }

  BRV_SourceChangedCallback notifySourceChangeCallback() const noexcept { return _pSourceChangeCallback; }
  void setNotifySourceChangeCallback(BRV_SourceChangedCallback callback) noexcept { _pSourceChangeCallback = callback; }
  void* notifySourceChangeContext() const noexcept { return _pSourceChangeContext; }
  void setNotifySourceChangeContext(void* context) noexcept { _pSourceChangeContext = context; }

  BRV_AudioDataArrivedCallback audioDataArrivedCallback() const noexcept { return _pAudioDataArriveCallback; }
  void setAudioDataArrivedCallback(BRV_AudioDataArrivedCallback callback) noexcept {
    _pAudioDataArriveCallback = callback;
  }
  void* audioDataArrivedContext() const noexcept { return _pAudioDataArriveContext; }
  void setAudioDataArrivedContext(void* context) noexcept { _pAudioDataArriveContext = context; }

  // GetAudioConverter:outputASDB:
  /// The converter for this input, made again when the input has changed; null, and a line in the log, when there can
  /// be none. Owned by the delegate.
  AudioConverterRef GetAudioConverter(AudioStreamBasicDescription inputASDB, AudioStreamBasicDescription outputASDB);

  // GetAudioConverterErrorString:
  /// What a status of the converter means, a constant; empty for 0.
  static const char* GetAudioConverterErrorString(std::int32_t status);

 private:
  ACaptureDelegate();
  ~ACaptureDelegate() override;

  /// Fills the record; otherwise says why the sound is not handed on.
  std::optional<AV::Withheld::Reason> prepare(CMSampleBufferRef sampleBuffer, CMTime& time);
  bool takeTime(CMTime& time);
  bool passThrough(CMBlockBufferRef block, char* bytes, std::size_t lengthAtStart, std::size_t totalLength);
  bool convert(AudioConverterRef converter, CMSampleBufferRef sampleBuffer, std::uint32_t frames);
  bool fillOutputBuffer(AudioConverterRef converter, AudioBufferList* input, std::uint32_t frames);
  bool reserveOutputBuffer(std::uint32_t size);
  void setData(void* data, std::uint32_t length);
  bool deliver(std::int64_t timeStamp);

  std::atomic<std::int32_t> _timescale{-1};
  std::int32_t _oldTimescale = 0;
  BRV_SourceChangedCallback _pSourceChangeCallback = nullptr;
  void* _pSourceChangeContext = nullptr;
  BRV_AudioDataArrivedCallback _pAudioDataArriveCallback = nullptr;
  void* _pAudioDataArriveContext = nullptr;
  BRV_AudioBuffer _audioBuffer{};
  std::uint32_t _outputBufferSize = 0;
  /// Grows to the largest conversion and never shrinks.
  std::unique_ptr<std::uint8_t[]> _pOutputBuffer;
  const AudioStreamBasicDescription _destinationDescription;
  AudioConverterRef fAudioConverter = nullptr;
  /// What the cached converter was made for.
  AudioStreamBasicDescription fLastInputASDB{};
  Ref<VCaptureDelegate> _videoDelegate;
  DirtyMark _dirty;
  AV::Withheld _withheld;
  bool _saidThatSoundWaits = false;
};

/// The input of one conversion: the whole of a buffer list, handed over once.
struct AudioFillContext {
  std::int32_t framesLeft;
  const AudioBufferList* input;
};

/// Input callback of AudioConverterFillComplexBuffer; `userData` is an AudioFillContext.
OSStatus fill_complex_input_proc(AudioConverterRef converter, UInt32* ioNumberDataPackets, AudioBufferList* ioData,
                                 AudioStreamPacketDescription** outDataPacketDescription, void* userData);
