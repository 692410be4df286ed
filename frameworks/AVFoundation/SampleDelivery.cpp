#include <AVFoundation/SampleDelivery.h>

#include <AVFoundation/CaptureStream.h>

#include <utility>

namespace {

// Reports beyond this many share places in the line, so that a delegate that is stuck for hours costs no memory. Every
// drop is still reported.
constexpr std::size_t LongestLine = 64;

}  // namespace

void SampleDelivery::setDelegate(void* delegate, dispatch_queue_t queue) {
  std::vector<Item> dropped;
  CFRef<dispatch_queue_t> former;
  {
    std::lock_guard lock(_lock);
    _delegate = queue ? delegate : nullptr;
    former = std::exchange(_queue, CFRef<dispatch_queue_t>::retain(_delegate ? queue : nullptr));
    while (_length > 0) {
      Item item = takeFirst();
      _statistics.pending -= item.count;
      count(item.fate == SampleFate::deliver ? SampleFate::stopped : item.fate, item.count);
      dropped.push_back(std::move(item));
    }
  }
  for (const Item& item : dropped) {
    if (item.connection) item.connection->input().device().stream().outputHasRoom();
  }
}

bool SampleDelivery::hasDelegate() const {
  std::lock_guard lock(_lock);
  return _delegate != nullptr;
}

std::size_t SampleDelivery::waitingFrames() const {
  std::lock_guard lock(_lock);
  return _waitingFrames;
}

void SampleDelivery::push(CFRef<CMSampleBufferRef> sample, SampleFate fate, AVCaptureConnection* connection,
                          std::uint32_t count) {
  dispatch_queue_t queue;
  {
    std::lock_guard lock(_lock);
    _statistics.captured += count;
    if (!_delegate) {
      this->count(fate == SampleFate::deliver ? SampleFate::stopped : fate, count);
      return;
    }
    _statistics.pending += count;
    if (mergeReport(fate, count)) return;
    append({std::move(sample), Ref<AVCaptureConnection>::retain(connection), fate, count});
    queue = _queue.get();
    _output.retain();
    dispatch_async_f(queue, this, &SampleDelivery::deliverNext);
  }
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
  {
    std::lock_guard lock(_lock);
    // After a change of the delegate, an item left on the former queue finds the line empty or not its own.
    if (_length == 0 || !dispatch_queue_is_current(_queue.get())) return;
    item = takeFirst();
    delegate = _delegate;
    _deliveringOn = _queue;
  }

  const std::uint32_t calls = item.fate == SampleFate::deliver ? 1 : item.count;
  for (std::uint32_t call = 0; call < calls; ++call) {
    _receiver.handOver(delegate, item.fate, item.sample.get(), item.connection.get());
  }

  CFRef<dispatch_queue_t> queue;
  std::lock_guard lock(_lock);
  if (_deliveringOn && dispatch_queue_is_current(_deliveringOn.get())) std::swap(queue, _deliveringOn);
  _statistics.pending -= item.count;
  count(item.fate, item.count);
}

void SampleDelivery::finish() {
  CFRef<dispatch_queue_t> queue;
  CFRef<dispatch_queue_t> deliveringOn;
  {
    std::lock_guard lock(_lock);
    queue = _queue;
    deliveringOn = _deliveringOn;
  }
  if (queue && dispatch_queue_is_current(queue.get())) {
    dropWaitingFrames();
  } else if (queue) {
    dispatch_sync(queue.get(), [] {});
  }
  const bool isElsewhere = deliveringOn && deliveringOn.get() != queue.get();
  if (isElsewhere && !dispatch_queue_is_current(deliveringOn.get())) dispatch_sync(deliveringOn.get(), [] {});
}

void SampleDelivery::dropWaitingFrames() {
  std::lock_guard lock(_lock);
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

void SampleDelivery::count(SampleFate fate, std::uint32_t count) {
  switch (fate) {
    case SampleFate::deliver:
      _statistics.delivered += count;
      break;
    case SampleFate::late:
      _statistics.droppedLate += count;
      break;
    case SampleFate::noBuffer:
      _statistics.droppedNoBuffer += count;
      break;
    case SampleFate::lostByDevice:
      _statistics.droppedByDevice += count;
      break;
    case SampleFate::stopped:
      _statistics.droppedStopped += count;
      break;
  }
}

SampleDelivery::Item SampleDelivery::takeFirst() {
  Item item = std::move(_line[_first]);
  _first = (_first + 1) % _line.size();
  --_length;
  if (item.fate == SampleFate::deliver) --_waitingFrames;
  return item;
}

void SampleDelivery::append(Item item) {
  if (_length == _line.size()) {
    std::vector<Item> longer;
    longer.reserve(_length == 0 ? 8 : 2 * _length);
    for (std::size_t i = 0; i < _length; ++i) longer.push_back(std::move(at(i)));
    longer.resize(longer.capacity());
    _line = std::move(longer);
    _first = 0;
  }
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
