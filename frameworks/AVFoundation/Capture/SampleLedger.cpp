#include <AVFoundation/Capture/SampleLedger.h>

#include <mutex>

namespace {

std::mutex ledgerLock;
SampleLedger videoLedger;
SampleLedger audioLedger;

SampleLedger& ledgerOf(AVMediaType mediaType) {
  return mediaType == AVMediaTypeVideo ? videoLedger : audioLedger;
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
  ledgerOf(mediaType).ended += statistics;
}
