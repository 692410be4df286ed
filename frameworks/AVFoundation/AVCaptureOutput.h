#pragma once

// Where a session's samples come out: the two data outputs and their delegates.

#include <AVFoundation/AVMediaFormat.h>
#include <CoreFoundation/CFRef.h>
#include <CoreMedia/CMSampleBuffer.h>
#include <Foundation/NSDictionary.h>
#include <dispatch/dispatch.h>
#include <runtime/NSObject.h>

#include <atomic>
#include <cstdint>
#include <memory>

namespace hardware {
class Sink;
}
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
  std::uint64_t droppedConversion = 0;  ///< a picture that could not be decoded, sound that could not be converted
  std::uint64_t droppedStopped = 0;     ///< waiting when the session stopped from the delegate's queue, or no delegate
  std::uint64_t pending = 0;            ///< waiting for the delegate, or sound that has not filled a buffer yet

  /// Sound in frames; all 0 for pictures. What comes from the device, at its own rate: captured = dropped + converted.
  /// What comes out, at the rate asked for: produced = delivered + undelivered + pending. Between the two stands what
  /// the conversion still owes; it forgoes that when the stream ends.
  struct Frames {
    std::uint64_t captured = 0;
    std::uint64_t dropped = 0;
    std::uint64_t converted = 0;
    std::uint64_t produced = 0;
    std::uint64_t delivered = 0;
    std::uint64_t undelivered = 0;  ///< in buffers that were dropped
    std::uint64_t pending = 0;
    double owed = 0;
    double forgone = 0;

    Frames& operator+=(const Frames& more) noexcept {
      captured += more.captured;
      dropped += more.dropped;
      converted += more.converted;
      produced += more.produced;
      delivered += more.delivered;
      undelivered += more.undelivered;
      pending += more.pending;
      owed += more.owed;
      forgone += more.forgone;
      return *this;
    }
    bool isBalanced() const noexcept {
      return captured == dropped + converted && produced == delivered + undelivered + pending;
    }
  } frames;

  AVCaptureOutputStatistics& operator+=(const AVCaptureOutputStatistics& more) noexcept {
    captured += more.captured;
    delivered += more.delivered;
    droppedLate += more.droppedLate;
    droppedNoBuffer += more.droppedNoBuffer;
    droppedByDevice += more.droppedByDevice;
    droppedConversion += more.droppedConversion;
    droppedStopped += more.droppedStopped;
    pending += more.pending;
    frames += more.frames;
    return *this;
  }

  std::uint64_t dropped() const noexcept {
    return droppedLate + droppedNoBuffer + droppedByDevice + droppedConversion + droppedStopped;
  }
  bool isBalanced() const noexcept { return captured == delivered + dropped() + pending && frames.isBalanced(); }
};

/// What the outputs have in common. A session connects an output to the stream of a device; an output belongs to one
/// session at a time.
class AVCaptureOutput : public NSObject {
 public:
  /// Any thread; the figures of one moment, balanced at each.
  virtual AVCaptureOutputStatistics statistics() const = 0;

  /// How many of the captured samples the one stands for that the delegate is being given: short runs of sound are
  /// joined. Within the delegate's call only.
  virtual std::uint32_t samplesInDelivery() const = 0;

  virtual AVMediaType mediaType() const = 0;

 private:
  friend class AVCaptureSession;

  /// Where the samples of the device go in.
  virtual hardware::Sink& sink() = 0;

  /// The connection on which they come, or null: set before the first one, and taken back after the last.
  virtual void setConnection(AVCaptureConnection* connection) = 0;

  /// Lets every waiting sample reach the delegate and returns when none is being delivered. Called from the
  /// delegate's own queue it cannot wait: the waiting samples then become dropped ones. The session calls it when
  /// nothing comes in any more.
  virtual void finish() = 0;

  std::atomic<bool> _isInSession{false};
};

/// What the delegates of both outputs are to the frameworks. Every call comes on the queue given with the delegate, one
/// at a time.
class AVCaptureDataOutputSampleBufferDelegate {
 public:
  // captureOutput:didOutputSampleBuffer:fromConnection:
  /// A picture, or a run of sound. It must be worked on, or retained, before the call returns; while it is, later
  /// pictures may be dropped.
  virtual void captureOutputDidOutputSampleBuffer(AVCaptureOutput* output, CMSampleBufferRef sampleBuffer,
                                                  AVCaptureConnection* connection) = 0;

  // captureOutput:didDropSampleBuffer:fromConnection:
  /// A picture that was captured and will not come: a sample with its time and without its picture, null when memory is
  /// short. Once for every such picture; when dozens of reports wait, the latest ones are made with the time of the
  /// first of them. There is no report of dropped sound; see AVCaptureOutputStatistics.
  virtual void captureOutputDidDropSampleBuffer(AVCaptureOutput* output, CMSampleBufferRef sampleBuffer,
                                                AVCaptureConnection* connection) {
    static_cast<void>(output), static_cast<void>(sampleBuffer), static_cast<void>(connection);
  }

 protected:
  ~AVCaptureDataOutputSampleBufferDelegate() = default;
};

/// Receives pictures.
class AVCaptureVideoDataOutputSampleBufferDelegate : public AVCaptureDataOutputSampleBufferDelegate {
 protected:
  ~AVCaptureVideoDataOutputSampleBufferDelegate() = default;
};

/// Receives sound.
class AVCaptureAudioDataOutputSampleBufferDelegate : public AVCaptureDataOutputSampleBufferDelegate {
 protected:
  ~AVCaptureAudioDataOutputSampleBufferDelegate() = default;
};
