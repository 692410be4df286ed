#pragma once

// The way of samples from a device's lane to a delegate's queue: a short line in which frames and reports of
// dropped frames keep their order, and the count of what became of each. Private to AVFoundation; one for each
// output. Allocates nothing unless the line gets longer than it was made for.

#include <AVFoundation/AVCaptureOutput.h>
#include <AVFoundation/AVCaptureSession.h>
#include <dispatch/dispatch.h>

#include <cstdint>
#include <mutex>
#include <vector>

/// How a captured sample ended.
enum class SampleFate { deliver, late, noBuffer, lostByDevice, notConverted, stopped };

/// What is left of a frame that will not come. The sample that tells the delegate is made of it when its turn has come,
/// so that a burst of reports needs no memory but the line's.
struct DroppedFrame {
  CMTime presentationTime{};
  CMTime duration{};
  CFRef<CMFormatDescriptionRef> format;
};

/// What hands a sample, or the report of a dropped one, to the delegate, on the delegate's queue.
class SampleReceiver {
 public:
  virtual void handOver(void* delegate, CMSampleBufferRef sample, AVCaptureConnection* connection) = 0;
  virtual void reportDropped(void* delegate, const DroppedFrame& frame, AVCaptureConnection* connection) = 0;

 protected:
  ~SampleReceiver() = default;
};

class SampleDelivery {
 public:
  /// `output` is the owner, kept alive while items are on the queue. The line is made for `usualWaiting` frames and the
  /// reports in between.
  SampleDelivery(AVCaptureOutput& output, SampleReceiver& receiver, std::size_t usualWaiting);
  SampleDelivery(const SampleDelivery&) = delete;
  SampleDelivery& operator=(const SampleDelivery&) = delete;

  /// Replaces delegate and queue; what waits for the earlier delegate is dropped. Any thread.
  void setDelegate(void* delegate, dispatch_queue_t queue);

  /// How many frames wait for the delegate, the one that it is working on left out.
  std::size_t waitingFrames() const;

  struct Arrival {
    bool hasDelegate;           ///< somebody receives
    std::size_t waitingFrames;  ///< as above
  };

  /// Counts a sample that has come from the device, sound with its length in frames. Each one is pending until a `push`
  /// stands for it. Device's lane.
  Arrival arrive(std::uint32_t frames = 0);

  /// Counts what became of the frames of arrived sound: they went into the conversion, or they did not.
  void noteConverted(std::uint32_t frames, std::uint32_t produced, double owed);
  void noteDroppedFrames(std::uint32_t frames);
  /// A stream of sound has ended; these frames will not come out of the conversion any more.
  void noteForgone(double frames);

  /// Adds a sample that stands for `count` arrived ones. Without a delegate it is counted as stopped. `frames` is the
  /// length of sound that comes out. Device's lane.
  void push(CFRef<CMSampleBufferRef> sample, AVCaptureConnection* connection, std::uint32_t count = 1,
            std::uint32_t frames = 0);

  /// Adds the report of `count` arrived samples that were dropped. Device's lane.
  void pushDropped(DroppedFrame dropped, SampleFate fate, AVCaptureConnection* connection, std::uint32_t count = 1);

  /// See AVCaptureOutput::finish.
  void finish();

  AVCaptureOutputStatistics statistics() const;

 private:
  struct Item {
    CFRef<CMSampleBufferRef> sample;
    Ref<AVCaptureConnection> connection;
    SampleFate fate = SampleFate::deliver;
    std::uint32_t count = 0;
    std::uint32_t frames = 0;
    DroppedFrame dropped;  ///< in place of a sample, for other fates than `deliver`
  };

  void add(Item item);
  static void deliverNext(void* delivery);
  void deliverNext();
  void report(void* delegate, Item& item);
  void dropWaitingFrames();
  void end(const Item& item);
  Item takeFirst();
  void makeRoom();
  void append(Item&& item) noexcept;
  static void waitFor(dispatch_queue_t queue);
  Item& at(std::size_t position) { return _line[(_first + position) % _line.size()]; }
  bool mergeReport(SampleFate fate, std::uint32_t count);

  AVCaptureOutput& _output;
  SampleReceiver& _receiver;
  const std::size_t _usualLength;

  mutable std::mutex _lock;
  void* _delegate = nullptr;
  CFRef<dispatch_queue_t> _queue;
  /// Where deliveries are in progress: one, and one for each former delegate that is still at work. Its room is made
  /// when the delegate is set.
  std::vector<CFRef<dispatch_queue_t>> _deliveringOn;
  std::vector<Item> _line;  ///< ring, `_length` items from `_first`; without a delegate it has no room
  std::size_t _first = 0;
  std::size_t _length = 0;
  std::size_t _waitingFrames = 0;
  AVCaptureOutputStatistics _statistics;
};
