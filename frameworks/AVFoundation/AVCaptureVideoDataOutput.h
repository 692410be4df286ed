#pragma once

// Delivers a camera's frames as pixel buffers.

#include <AVFoundation/AVCaptureOutput.h>

#include <memory>

namespace hardware {
class VideoFrame;
}

/// Buffers come from a pool of at most 16 a size; when the delegate's side holds all of them, frames are dropped
/// until it lets go, but for devices that are paced by their consumer: those wait. Configure on one thread at a time.
class AVCaptureVideoDataOutput final : public AVCaptureOutput {
 public:
  AVCaptureVideoDataOutput();

  // setVideoSettings:
  /// kCVPixelBufferPixelFormatTypeKey names the pixel format of the frames; 'yuvs' is the only one offered, and
  /// what is delivered without settings. False, and the earlier settings stay, for any other.
  bool setVideoSettings(const NSDictionary* videoSettings);

  // setAlwaysDiscardsLateVideoFrames:
  /// When set (as it is at first), a frame that arrives while the delegate is busy and another frame already
  /// waits for it is dropped. When not, frames wait as long as the pool lasts.
  void setAlwaysDiscardsLateVideoFrames(bool alwaysDiscardsLateVideoFrames);

  // setSampleBufferDelegate:queue:
  /// The delegate is borrowed: take it away again, then let `queue` run empty, before it goes. The queue is retained.
  /// Frames that wait for an earlier delegate are dropped. Both null: frames are dropped.
  void setSampleBufferDelegate(AVCaptureVideoDataOutputSampleBufferDelegate* sampleBufferDelegate,
                               dispatch_queue_t queue);

  AVCaptureOutputStatistics statistics() const override;
  AVMediaType mediaType() const override { return AVMediaTypeVideo; }

 private:
  friend class CaptureStream;
  ~AVCaptureVideoDataOutput() override;

  bool hasRoom() override;
  void finish() override;

  /// Called on the device's lane.
  void receive(const hardware::VideoFrame& frame, CFDictionaryRef pixelAspectRatio, AVCaptureConnection* connection);
  void receiveLost(CMTime presentationTime, CMTime duration, AVCaptureConnection* connection);

  struct Implementation;
  std::unique_ptr<Implementation> _implementation;
};
