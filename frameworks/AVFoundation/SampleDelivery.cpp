#include <AVFoundation/SampleDelivery.h>

#include <AVFoundation/CaptureStream.h>

#include <algorithm>
#include <exception>
#include <limits>
#include <utility>

namespace {

// Reports beyond this many share places in the line, so that a delegate that is stuck for hours costs no memory. Every
// drop is still reported.
constexpr std::size_t LongestLine = 64;

}  // namespace

SampleDelivery::SampleDelivery(AVCaptureOutput& output, SampleReceiver& receiver, std::size_t usualWaiting)
    : _output(output), _receiver(receiver), _usualLength(LongestLine + usualWaiting) {}

void SampleDelivery::setDelegate(void* delegate, dispatch_queue_t queue) {
  std::vector<Item> line(queue ? _usualLength : 0);
  CFRef<dispatch_queue_t> former;
  {
    std::lock_guard lock(_lock);
    if (queue) _deliveringOn.reserve(_deliveringOn.size() + 1);
    _delegate = queue ? delegate : nullptr;
    former = std::exchange(_queue, CFRef<dispatch_queue_t>::retain(_delegate ? queue : nullptr));
    dropWaitingFrames();
    for (; _length > 0; --_length) end(at(_length - 1));
    line.swap(_line);
    _first = 0;
  }
  for (const Item& item : line) {
    if (item.connection) item.connection->stream().outputHasRoom();
  }
}

std::size_t SampleDelivery::waitingFrames() const {
  std::lock_guard lock(_lock);
  return _waitingFrames;
}

SampleDelivery::Arrival SampleDelivery::arrive(std::uint32_t frames) {
  std::lock_guard lock(_lock);
  ++_statistics.captured;
  ++_statistics.pending;
  if (frames > 0) {
    _statistics.frames.captured += frames;
    _statistics.frames.arriving += frames;
  }
  return {_delegate != nullptr, _waitingFrames};
}

void SampleDelivery::noteConverted(std::uint32_t frames, std::uint32_t produced, double owed) {
  std::lock_guard lock(_lock);
  _statistics.frames.arriving -= frames;
  _statistics.frames.converted += frames;
  _statistics.frames.produced += produced;
  _statistics.frames.pending += produced;
  _statistics.frames.owed = owed;
}

void SampleDelivery::noteDroppedFrames(std::uint32_t frames) {
  std::lock_guard lock(_lock);
  _statistics.frames.arriving -= frames;
  _statistics.frames.dropped += frames;
}

void SampleDelivery::noteForgone(double frames) {
  std::lock_guard lock(_lock);
  _statistics.frames.forgone += frames;
  _statistics.frames.owed = 0;
}

void SampleDelivery::push(CFRef<CMSampleBufferRef> sample, AVCaptureConnection* connection, std::uint32_t count,
                          std::uint32_t frames) {
  add({std::move(sample), Ref<AVCaptureConnection>::retain(connection), SampleFate::deliver, count, frames, {}});
}

void SampleDelivery::pushDropped(DroppedFrame dropped, SampleFate fate, AVCaptureConnection* connection,
                                 std::uint32_t count) {
  add({{}, Ref<AVCaptureConnection>::retain(connection), fate, count, 0, std::move(dropped)});
}

void SampleDelivery::add(Item item) {
  CFRef<dispatch_queue_t> queue;
  {
    std::lock_guard lock(_lock);
    if (!_delegate) {
      if (item.fate == SampleFate::deliver) item.fate = SampleFate::stopped;
      return end(item);
    }
    if (mergeReport(item.fate, item.count)) return;
    try {
      makeRoom();
      if (dispatch_enqueue_f(_queue.get(), this, &SampleDelivery::deliverNext)) queue = _queue;
    } catch (const std::exception&) {  // no memory, or no thread
      if (item.fate == SampleFate::deliver) item.fate = SampleFate::noBuffer;
      return end(item);
    }
    _output.retain();  // the queue's thread gets no further than to the lock
    append(std::move(item));
  }
  // Behind the lock, for the first thing that the queue's thread does is to take it. From here on the output may go.
  dispatch_wake(queue.get());
}

void SampleDelivery::deliverNext(void* delivery) {
  auto& self = *static_cast<SampleDelivery*>(delivery);
  AVCaptureOutput& output = self._output;
  self.deliverNext();
  output.release();
}

void SampleDelivery::deliverNext() {
  Item item;
  void* delegate;
  CFRef<dispatch_queue_t> queue;
  {
    std::lock_guard lock(_lock);
    // After a change of the delegate, an item left on the former queue finds the line empty or not its own.
    if (_length == 0 || !dispatch_queue_is_current(_queue.get())) return;
    item = takeFirst();
    delegate = _delegate;
    queue = _queue;
    _deliveringOn.push_back(queue);
  }

  if (item.fate == SampleFate::deliver) {
    _receiver.handOver(delegate, item.sample.get(), item.connection.get());
  } else {
    report(delegate, item);
  }

  std::lock_guard lock(_lock);
  _deliveringOn.erase(std::ranges::find(_deliveringOn, queue.get(), &CFRef<dispatch_queue_t>::get));
  end(item);
}

/// A sample that was still waiting when the session stopped is reported by what it says of itself.
void SampleDelivery::report(void* delegate, Item& item) {
  if (CMSampleBufferRef sample = item.sample.get()) {
    item.dropped = {CMSampleBufferGetPresentationTimeStamp(sample), CMSampleBufferGetDuration(sample),
                    CFRef<CMFormatDescriptionRef>::retain(CMSampleBufferGetFormatDescription(sample))};
  }
  for (std::uint32_t i = 0; i < item.count; ++i) {
    _receiver.reportDropped(delegate, item.dropped, item.connection.get());
  }
}

void SampleDelivery::finish() {
  CFRef<dispatch_queue_t> queue;
  {
    std::lock_guard lock(_lock);
    queue = _queue;
    if (queue && dispatch_queue_is_current(queue.get())) dropWaitingFrames();
  }
  // Backwards: a delivery that ends meanwhile hides none of the others.
  for (std::size_t left = std::numeric_limits<std::size_t>::max(); left > 0;) {
    CFRef<dispatch_queue_t> busy;
    {
      std::lock_guard lock(_lock);
      left = std::min(left, _deliveringOn.size());
      if (left > 0) busy = _deliveringOn[--left];
    }
    waitFor(busy.get());
  }
  waitFor(queue.get());
}

/// Until what the queue has to do now is done; not from the queue itself.
void SampleDelivery::waitFor(dispatch_queue_t queue) {
  if (queue && !dispatch_queue_is_current(queue)) dispatch_sync(queue, [] {});
}

/// Called with the lock held.
void SampleDelivery::dropWaitingFrames() {
  for (std::size_t i = 0; i < _length; ++i) {
    Item& item = at(i);
    if (item.fate == SampleFate::deliver) item.fate = SampleFate::stopped;
  }
  _waitingFrames = 0;
}

AVCaptureOutputStatistics SampleDelivery::statistics() const {
  std::lock_guard lock(_lock);
  return _statistics;
}

/// Moves a sample from the pending ones to those of its fate. Called with the lock held.
void SampleDelivery::end(const Item& item) {
  const auto place = [&]() -> std::uint64_t& {
    switch (item.fate) {
      case SampleFate::deliver:
        return _statistics.delivered;
      case SampleFate::late:
        return _statistics.droppedLate;
      case SampleFate::noBuffer:
        return _statistics.droppedNoBuffer;
      case SampleFate::lostByDevice:
        return _statistics.droppedByDevice;
      case SampleFate::notConverted:
        return _statistics.droppedConversion;
      case SampleFate::stopped:
        break;
    }
    return _statistics.droppedStopped;
  };
  _statistics.pending -= item.count;
  place() += item.count;
  if (item.frames == 0) return;  // a picture
  auto& frames = _statistics.frames;
  frames.pending -= item.frames;
  (item.fate == SampleFate::deliver ? frames.delivered : frames.undelivered) += item.frames;
}

SampleDelivery::Item SampleDelivery::takeFirst() {
  Item item = std::move(_line[_first]);
  --_length;
  // An empty line begins anew, so that one sample at a time always passes through the same piece of cache.
  _first = _length == 0 ? 0 : (_first + 1) % _line.size();
  if (item.fate == SampleFate::deliver) --_waitingFrames;
  return item;
}

/// For one more item.
void SampleDelivery::makeRoom() {
  if (_length < _line.size()) return;
  std::vector<Item> longer(2 * _length);
  for (std::size_t i = 0; i < _length; ++i) longer[i] = std::move(at(i));
  _line = std::move(longer);
  _first = 0;
}

void SampleDelivery::append(Item&& item) noexcept {
  if (item.fate == SampleFate::deliver) ++_waitingFrames;
  at(_length) = std::move(item);
  ++_length;
}

/// In a long line, adds a report to one of the same fate that no frame separates it from.
bool SampleDelivery::mergeReport(SampleFate fate, std::uint32_t count) {
  if (fate == SampleFate::deliver || _length < LongestLine) return false;
  for (std::size_t i = _length; i > 0 && at(i - 1).fate != SampleFate::deliver; --i) {
    if (at(i - 1).fate != fate) continue;
    at(i - 1).count += count;
    return true;
  }
  return false;
}
