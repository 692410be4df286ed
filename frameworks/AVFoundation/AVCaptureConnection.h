#pragma once

// One way from an input to an output, for one medium.

#include <AVFoundation/AVCaptureInput.h>
#include <AVFoundation/AVCaptureOutput.h>

/// Made by the session. Immutable.
class AVCaptureConnection final : public NSObject {
 public:
  AVCaptureConnection(Ref<AVCaptureDeviceInput> input, Ref<AVCaptureOutput> output)
      : _input(std::move(input)), _output(std::move(output)) {}

  AVCaptureDeviceInput& input() const noexcept { return *_input; }
  AVCaptureOutput& output() const noexcept { return *_output; }

  /// For the frameworks: where its samples come from, the stream of the input's device.
  CaptureStream& stream() const noexcept { return _input->device().stream(); }

 private:
  Ref<AVCaptureDeviceInput> _input;
  Ref<AVCaptureOutput> _output;
};
