#pragma once

// Delivers a camera's frames as pixel buffers.

#include <AVFoundation/AVCaptureOutput.h>

#include <memory>

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
  /// The delegate is borrowed, the queue retained. Both null: frames are dropped. Frames that wait for an earlier
  /// delegate are dropped as well, and after the return that one is not being called and will not be. Only a call from
  /// its own queue returns, of course, with the delegate's call still in progress. Needs no memory.
  void setSampleBufferDelegate(AVCaptureVideoDataOutputSampleBufferDelegate* sampleBufferDelegate,
                               dispatch_queue_t queue);

  AVCaptureOutputStatistics statistics() const override;
  std::uint32_t samplesInDelivery() const override;
  AVMediaType mediaType() const override { return AVMediaTypeVideo; }

 private:
  ~AVCaptureVideoDataOutput() override;

  hardware::Sink& sink() override;
  void setConnection(AVCaptureConnection* connection) override;
  void finish() override;

  struct Implementation;
  std::unique_ptr<Implementation> _implementation;
};
