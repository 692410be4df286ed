#include <AVFoundation/Capture/SampleLine.h>

#include <AVFoundation/Capture/CaptureStream.h>
#include <AVFoundation/Capture/SampleLedger.h>

#include <exception>
#include <utility>

namespace {

std::uint64_t& countOf(SampleFate fate, AVCaptureOutputStatistics& statistics) {
  switch (fate) {
    case SampleFate::delivered:
      return statistics.delivered;
    case SampleFate::late:
      return statistics.droppedLate;
    case SampleFate::noBuffer:
      return statistics.droppedNoBuffer;
    case SampleFate::lostByDevice:
      return statistics.droppedByDevice;
    case SampleFate::notConverted:
      return statistics.droppedConversion;
    case SampleFate::stopped:
      break;
  }
  return statistics.droppedStopped;
}

CFRef<CMSampleBufferRef> withoutPicture(CMSampleBufferRef sample) {
  const CMSampleTimingInfo timing{CMSampleBufferGetDuration(sample), CMSampleBufferGetPresentationTimeStamp(sample),
                                  kCMTimeInvalid};
  CMSampleBufferRef made = nullptr;
  CMSampleBufferCreateForImageBuffer(kCFAllocatorDefault, nullptr, true, nullptr, nullptr,
                                     CMSampleBufferGetFormatDescription(sample), &timing, &made);
  return CFRef<CMSampleBufferRef>::adopt(made);
}

/// Until what the queue has to do now is done; not from the queue itself.
void waitFor(const CFRef<dispatch_queue_t>& queue) {
  if (queue && !dispatch_queue_is_current(queue.get())) dispatch_sync(queue.get(), [] {});
}

}  // namespace

SampleLine::SampleLine(AVCaptureOutput& output, AVMediaType mediaType, std::size_t places)
    : _output(output), _mediaType(mediaType), _line(places) {}

SampleLine::~SampleLine() {
  SampleLedger::noteEnded(_mediaType, _statistics);
}

void SampleLine::setDelegate(AVCaptureDataOutputSampleBufferDelegate* delegate, dispatch_queue_t queue) {
  CFRef<dispatch_queue_t> former;
  {
    std::lock_guard lock(_lock);
    _delegate = nullptr;
    if (_queue) former = std::exchange(_formerQueue, std::exchange(_queue, {}));
    dropWaiting();
  }
  // Without a delegate nobody else adds or takes; what the samples hold goes without the lock.
  for (Item item; _length > 0;) {
    {
      std::lock_guard lock(_lock);
      item = takeFirst();
    }
    item.connection->stream().outputHasRoom();
  }
  waitFor(former);
  waitFor(_formerQueue);
  std::lock_guard lock(_lock);
  if (queue) _delegate = delegate;
  _queue = CFRef<dispatch_queue_t>::retain(queue);
}

SampleFate SampleLine::outlook(std::size_t mostWaiting) const {
  std::lock_guard lock(_lock);
  if (!_delegate) return SampleFate::stopped;
  return _waiting >= mostWaiting || _length + 1 >= _line.size() ? SampleFate::late : SampleFate::delivered;
}

void SampleLine::add(CapturedSample sample, AVCaptureConnection& connection) {
  CFRef<dispatch_queue_t> woken;
  Item item{std::move(sample.buffer), Ref<AVCaptureConnection>::retain(&connection), 1, sample.framesOut,
            sample.fate != SampleFate::delivered};
  {
    std::lock_guard lock(_lock);
    count(sample);
    if (!item.isReport) {
      item.count = ++_incomplete;
      if (!item.buffer) return;
      _incomplete = 0;
    }
    woken = append(item);
  }
  // After the lock, for the first thing that the queue's thread does is to take it. From here on the output may go.
  dispatch_wake(woken.get());
}

/// With the lock held. What goes on to the delegate is pending until its end.
void SampleLine::count(const CapturedSample& sample) {
  const bool isDropped = sample.fate != SampleFate::delivered;
  ++_statistics.captured;
  ++(isDropped ? countOf(sample.fate, _statistics) : _statistics.pending);
  if (_mediaType == AVMediaTypeVideo) return;
  auto& frames = _statistics.frames;
  frames.captured += sample.framesIn;
  (isDropped ? frames.dropped : frames.converted) += sample.framesIn;
  frames.produced += sample.framesOut;
  frames.pending += sample.framesOut;
  frames.owed = sample.owed;
  frames.forgone += sample.forgone;
}

/// With the lock held. Returns the queue when it is to be woken. What is not added goes later, without the lock.
CFRef<dispatch_queue_t> SampleLine::append(Item& item) {
  if (item.isReport && (!_delegate || _mediaType != AVMediaTypeVideo)) return {};
  if (!_delegate) {  // it has gone since the outlook
    end(item, SampleFate::stopped);
    return {};
  }
  if (_length == _line.size()) {  // a delegate that is stuck costs no memory; the last place holds a report
    ++at(_length - 1).count;
    return {};
  }
  CFRef<dispatch_queue_t> woken;
  try {
    if (dispatch_enqueue_f(_queue.get(), this, &SampleLine::deliverNext)) woken = _queue;
  } catch (const std::exception&) {  // no memory, or no thread
    if (!item.isReport) end(item, SampleFate::noBuffer);
    return {};
  }
  _output.retain();  // the queue's thread gets no further than to the lock
  if (!item.isReport) ++_waiting;
  at(_length++) = std::move(item);
  return woken;
}

void SampleLine::deliverNext(void* line) {
  auto& self = *static_cast<SampleLine*>(line);
  AVCaptureOutput& output = self._output;
  self.deliverNext();
  output.release();
}

void SampleLine::deliverNext() {
  Item item;
  AVCaptureDataOutputSampleBufferDelegate* delegate;
  {
    std::lock_guard lock(_lock);
    // After a change of the delegate, what is left on the former queue finds the line empty or not its own.
    if (_length == 0 || !dispatch_queue_is_current(_queue.get())) return;
    item = takeFirst();
    delegate = _delegate;
    if (!item.isReport) end(item, SampleFate::delivered);
  }
  if (item.isReport) return report(*delegate, item);
  item.connection->stream().outputHasRoom();
  _inDelivery = item.count;
  delegate->captureOutputDidOutputSampleBuffer(&_output, item.buffer.get(), item.connection.get());
}

void SampleLine::report(AVCaptureDataOutputSampleBufferDelegate& delegate, const Item& item) {
  if (_mediaType != AVMediaTypeVideo) return;
  const bool hasPicture = CMSampleBufferGetImageBuffer(item.buffer.get()) != nullptr;
  const auto buffer = hasPicture ? withoutPicture(item.buffer.get()) : item.buffer;
  for (std::uint32_t i = 0; i < item.count; ++i) {
    delegate.captureOutputDidDropSampleBuffer(&_output, buffer.get(), item.connection.get());
  }
}

void SampleLine::finish(double forgone) {
  CFRef<dispatch_queue_t> former;
  CFRef<dispatch_queue_t> queue;
  {
    std::lock_guard lock(_lock);
    end({{}, {}, std::exchange(_incomplete, 0), 0, true}, SampleFate::stopped);
    _statistics.frames.forgone += forgone;
    _statistics.frames.owed = 0;
    former = _formerQueue;
    queue = _queue;
    if (queue && dispatch_queue_is_current(queue.get())) dropWaiting();
  }
  waitFor(former);
  waitFor(queue);
}

AVCaptureOutputStatistics SampleLine::statistics() const {
  std::lock_guard lock(_lock);
  return _statistics;
}

/// With the lock held. The samples stay in the line as their own reports.
void SampleLine::dropWaiting() {
  for (std::size_t i = 0; i < _length; ++i) {
    Item& item = at(i);
    if (item.isReport) continue;
    end(item, SampleFate::stopped);
    item.isReport = true;
  }
  _waiting = 0;
}

/// With the lock held. Moves what the item stands for from the pending samples to those of its fate.
void SampleLine::end(const Item& item, SampleFate fate) {
  _statistics.pending -= item.count;
  countOf(fate, _statistics) += item.count;
  auto& frames = _statistics.frames;
  frames.pending -= item.frames;
  (fate == SampleFate::delivered ? frames.delivered : frames.undelivered) += item.frames;
}

/// With the lock held.
SampleLine::Item SampleLine::takeFirst() {
  Item item = std::move(_line[_first]);
  --_length;
  // An empty line begins at its start again: one sample at a time always passes through the same piece of cache.
  _first = _length == 0 ? 0 : (_first + 1) % _line.size();
  if (!item.isReport) --_waiting;
  return item;
}
