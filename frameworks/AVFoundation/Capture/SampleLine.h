#pragma once

// The last part of a sample's way: from its device's lane to the delegate, on the delegate's queue. Samples, and the
// reports of pictures that will not come, wait in a short line and keep their order; and every captured sample is
// counted by how it ends. Private to AVFoundation; one for each output. Allocates nothing once it is made.

#include <AVFoundation/AVCaptureConnection.h>
#include <AVFoundation/Capture/CapturedSample.h>
#include <dispatch/dispatch.h>

#include <cstdint>
#include <mutex>
#include <vector>

class SampleLine {
 public:
  /// `output` owns the line, and is retained while something waits. `places` is the length of the line.
  SampleLine(AVCaptureOutput& output, AVMediaType mediaType, std::size_t places);
  ~SampleLine();
  SampleLine(const SampleLine&) = delete;
  SampleLine& operator=(const SampleLine&) = delete;

  /// Replaces delegate and queue; what waits is dropped. After the return the former delegate is not being called,
  /// unless this call comes from its queue. Needs no memory. One thread at a time.
  void setDelegate(AVCaptureDataOutputSampleBufferDelegate* delegate, dispatch_queue_t queue);

  /// What would become of a sample now: `delivered`, or `late` when `mostWaiting` others wait already or the line is
  /// full, or `stopped` when there is no delegate.
  SampleFate outlook(std::size_t mostWaiting) const;

  /// Counts a sample and sends it, or its report, to the delegate. To be `delivered`, it must have had that outlook
  /// just before. Device's lane.
  void add(CapturedSample sample, AVCaptureConnection& connection);

  /// See AVCaptureOutput::finish. `forgone` is what the conversion of sound still owed, in frames.
  void finish(double forgone = 0);

  AVCaptureOutputStatistics statistics() const;

  /// See AVCaptureOutput.
  std::uint32_t samplesInDelivery() const { return _inDelivery; }

 private:
  struct Item {
    CFRef<CMSampleBufferRef> buffer;
    Ref<AVCaptureConnection> connection;
    std::uint32_t count = 1;  ///< how many captured samples it stands for
    std::uint32_t frames = 0;
    bool isReport = false;
  };

  void count(const CapturedSample& sample);
  CFRef<dispatch_queue_t> append(Item& item);
  static void deliverNext(void* line);
  void deliverNext();
  void report(AVCaptureDataOutputSampleBufferDelegate& delegate, const Item& item);
  void dropWaiting();
  void end(const Item& item, SampleFate fate);
  Item takeFirst();
  Item& at(std::size_t position) { return _line[(_first + position) % _line.size()]; }

  AVCaptureOutput& _output;
  const AVMediaType _mediaType;

  mutable std::mutex _lock;
  AVCaptureDataOutputSampleBufferDelegate* _delegate = nullptr;
  CFRef<dispatch_queue_t> _queue;
  CFRef<dispatch_queue_t> _formerQueue;  ///< where a delegate that replaced itself may still be at work
  std::vector<Item> _line;               ///< ring, `_length` items from `_first`; the last place is for a report
  std::size_t _first = 0;
  std::size_t _length = 0;
  std::size_t _waiting = 0;       ///< those that are no reports
  std::uint32_t _inDelivery = 0;  ///< the queue's own
  std::uint32_t _incomplete = 0;  ///< runs of sound that have not filled a buffer yet
  AVCaptureOutputStatistics _statistics;
};
