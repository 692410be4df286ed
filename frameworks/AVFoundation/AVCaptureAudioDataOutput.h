#pragma once

// Delivers a microphone's sound in the format that was asked for.

#include <AVFoundation/AVAudioSettings.h>
#include <AVFoundation/AVCaptureOutput.h>

#include <memory>

/// The device runs at its own rate and layout; what it delivers is converted as one continuous stream, so that
/// buffers follow each other without a seam. The time stamp of a buffer is that of its first frame. After a
/// gap in the device's time stamps the stream starts again. Sound in a format that the converter does not take is
/// dropped, and reported once (NSLog). Configure on one thread at a time.
class AVCaptureAudioDataOutput final : public AVCaptureOutput {
 public:
  AVCaptureAudioDataOutput();

  // setAudioSettings:
  /// Linear PCM by the keys of AVAudioSettings.h: rate, channels, bit depth, float, interleaving, byte order; what is
  /// not named is as the device has it. Null: the device's own format. Takes effect with the next buffer. False, and
  /// the earlier settings stay, for anything but linear PCM.
  bool setAudioSettings(const NSDictionary* audioSettings);

  // setSampleBufferDelegate:queue:
  /// As for the video output.
  void setSampleBufferDelegate(AVCaptureAudioDataOutputSampleBufferDelegate* sampleBufferDelegate,
                               dispatch_queue_t queue);

  AVCaptureOutputStatistics statistics() const override;
  std::uint32_t samplesInDelivery() const override;
  AVMediaType mediaType() const override { return AVMediaTypeAudio; }

 private:
  ~AVCaptureAudioDataOutput() override;

  hardware::Sink& sink() override;
  void setConnection(AVCaptureConnection* connection) override;
  void finish() override;

  struct Implementation;
  std::unique_ptr<Implementation> _implementation;
};
