#pragma once

// Where a session's samples come out: the two data outputs and their delegates.

#include <AVFoundation/AVMediaFormat.h>
#include <CoreFoundation/CFRef.h>
#include <CoreMedia/CMSampleBuffer.h>
#include <Foundation/NSDictionary.h>
#include <dispatch/dispatch.h>
#include <runtime/NSObject.h>

#include <cstdint>
#include <memory>

class AVCaptureConnection;
class AVCaptureOutput;

/// What became of the samples that reached an output since it was made. Every one ends in exactly one of the other
/// counts: captured = delivered + dropped + pending.
struct AVCaptureOutputStatistics {
  std::uint64_t captured = 0;
  std::uint64_t delivered = 0;          ///< handed to the delegate
  std::uint64_t droppedLate = 0;        ///< the delegate was still busy with earlier ones
  std::uint64_t droppedNoBuffer = 0;    ///< every buffer of the pool was in use, or memory was short
  std::uint64_t droppedByDevice = 0;    ///< lost before it got here
  std::uint64_t droppedConversion = 0;  ///< sound that could not be converted to what was asked for
  std::uint64_t droppedStopped = 0;     ///< waiting when the session stopped from the delegate's queue, or no delegate
  std::uint64_t pending = 0;            ///< waiting for the delegate, or sound that has not filled a buffer yet

  /// Sound in frames; all 0 for pictures. What comes from the device, at its own rate: captured = arriving + dropped +
  /// converted. What comes out, at the rate asked for: produced = delivered + undelivered + pending. Between the two
  /// stands what the conversion still owes; it forgoes that when the stream ends.
  struct Frames {
    std::uint64_t captured = 0;
    std::uint64_t arriving = 0;  ///< on their way into the conversion
    std::uint64_t dropped = 0;
    std::uint64_t converted = 0;
    std::uint64_t produced = 0;
    std::uint64_t delivered = 0;
    std::uint64_t undelivered = 0;  ///< in buffers that were dropped
    std::uint64_t pending = 0;
    double owed = 0;
    double forgone = 0;

    bool isBalanced() const noexcept {
      return captured == arriving + dropped + converted && produced == delivered + undelivered + pending;
    }
  } frames;

  std::uint64_t dropped() const noexcept {
    return droppedLate + droppedNoBuffer + droppedByDevice + droppedConversion + droppedStopped;
  }
  bool isBalanced() const noexcept { return captured == delivered + dropped() + pending && frames.isBalanced(); }
};

/// What the outputs have in common. Inputs and outputs of a session are connected by the session alone.
class AVCaptureOutput : public NSObject {
 public:
  /// Any thread; the figures of one moment, balanced at each.
  virtual AVCaptureOutputStatistics statistics() const = 0;

  virtual AVMediaType mediaType() const = 0;

 protected:
  friend class AVCaptureSession;
  friend class CaptureStream;

  /// Whether another sample could be taken now without dropping one.
  virtual bool hasRoom() = 0;

  /// Lets every waiting sample reach the delegate and returns when none is being delivered. Called from the
  /// delegate's own queue it cannot wait: the waiting samples then become dropped ones. The session calls it when
  /// nothing comes in any more.
  virtual void finish() = 0;
};

/// Receives pictures. Every call comes on the queue given with the delegate, one at a time.
class AVCaptureVideoDataOutputSampleBufferDelegate {
 public:
  // captureOutput:didOutputSampleBuffer:fromConnection:
  /// A frame. It must be worked on, or retained, before the call returns; while it is, later frames may be dropped.
  virtual void captureOutputDidOutputSampleBuffer(AVCaptureOutput* output, CMSampleBufferRef sampleBuffer,
                                                  AVCaptureConnection* connection) = 0;

  // captureOutput:didDropSampleBuffer:fromConnection:
  /// A frame that was captured and will not come: a sample with its time and without its picture, null when memory is
  /// short. Once for every such frame.
  virtual void captureOutputDidDropSampleBuffer(AVCaptureOutput* output, CMSampleBufferRef sampleBuffer,
                                                AVCaptureConnection* connection) {
    static_cast<void>(output), static_cast<void>(sampleBuffer), static_cast<void>(connection);
  }

 protected:
  ~AVCaptureVideoDataOutputSampleBufferDelegate() = default;
};

/// Receives sound, under the same rules. There is no report of dropped sound; see AVCaptureOutputStatistics.
class AVCaptureAudioDataOutputSampleBufferDelegate {
 public:
  // captureOutput:didOutputSampleBuffer:fromConnection:
  virtual void captureOutputDidOutputSampleBuffer(AVCaptureOutput* output, CMSampleBufferRef sampleBuffer,
                                                  AVCaptureConnection* connection) = 0;

 protected:
  ~AVCaptureAudioDataOutputSampleBufferDelegate() = default;
};
