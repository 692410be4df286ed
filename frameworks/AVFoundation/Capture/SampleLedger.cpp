#include <AVFoundation/Capture/SampleLedger.h>

#include <mutex>

namespace {

std::mutex ledgerLock;
SampleLedger videoLedger;
SampleLedger audioLedger;

SampleLedger& ledgerOf(AVMediaType mediaType) {
  return mediaType == AVMediaTypeVideo ? videoLedger : audioLedger;
}

void add(AVCaptureOutputStatistics& sum, const AVCaptureOutputStatistics& more) {
  sum.captured += more.captured;
  sum.delivered += more.delivered;
  sum.droppedLate += more.droppedLate;
  sum.droppedNoBuffer += more.droppedNoBuffer;
  sum.droppedByDevice += more.droppedByDevice;
  sum.droppedConversion += more.droppedConversion;
  sum.droppedStopped += more.droppedStopped;
  sum.pending += more.pending;
  sum.frames.captured += more.frames.captured;
  sum.frames.dropped += more.frames.dropped;
  sum.frames.converted += more.frames.converted;
  sum.frames.produced += more.frames.produced;
  sum.frames.delivered += more.frames.delivered;
  sum.frames.undelivered += more.frames.undelivered;
  sum.frames.pending += more.frames.pending;
  sum.frames.owed += more.frames.owed;
  sum.frames.forgone += more.frames.forgone;
}

}  // namespace

SampleLedger SampleLedger::of(AVMediaType mediaType) {
  std::lock_guard lock(ledgerLock);
  return ledgerOf(mediaType);
}

void SampleLedger::noteUnclaimed(AVMediaType mediaType) noexcept {
  std::lock_guard lock(ledgerLock);
  ++ledgerOf(mediaType).unclaimed;
}

void SampleLedger::noteEnded(AVMediaType mediaType, const AVCaptureOutputStatistics& statistics) noexcept {
  std::lock_guard lock(ledgerLock);
  add(ledgerOf(mediaType).ended, statistics);
}
