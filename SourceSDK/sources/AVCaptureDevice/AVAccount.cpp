#include "AVAccount.h"

namespace AV {

Account& Account::operator+=(const Account& other) {
  const AVCaptureOutputStatistics& from = other.counts;
  counts.captured += from.captured;
  counts.delivered += from.delivered;
  counts.droppedLate += from.droppedLate;
  counts.droppedNoBuffer += from.droppedNoBuffer;
  counts.droppedByDevice += from.droppedByDevice;
  counts.droppedConversion += from.droppedConversion;
  counts.droppedStopped += from.droppedStopped;
  counts.pending += from.pending;
  counts.frames.captured += from.frames.captured;
  counts.frames.dropped += from.frames.dropped;
  counts.frames.converted += from.frames.converted;
  counts.frames.produced += from.frames.produced;
  counts.frames.delivered += from.frames.delivered;
  counts.frames.undelivered += from.frames.undelivered;
  counts.frames.pending += from.frames.pending;
  invalidTime += other.invalidTime;
  unheard += other.unheard;
  return *this;
}

void Withheld::note(Reason reason, const AVCaptureOutput* output, std::uint64_t frames) noexcept {
  std::atomic<std::uint64_t>* const counts[] = {&_noPicture, &_invalidTime, &_notConverted, &_unheard};
  _frames.fetch_add(frames, std::memory_order_relaxed);
  counts[static_cast<int>(reason)]->fetch_add(output ? output->samplesInDelivery() : 1, std::memory_order_release);
}

Account Withheld::accountOf(const AVCaptureOutput& output) const {
  Account account;
  account.invalidTime = _invalidTime.load(std::memory_order_acquire);
  account.unheard = _unheard.load(std::memory_order_acquire);
  const std::uint64_t noPicture = _noPicture.load(std::memory_order_acquire);
  const std::uint64_t notConverted = _notConverted.load(std::memory_order_acquire);
  const std::uint64_t frames = _frames.load(std::memory_order_acquire);
  account.counts = output.statistics();
  account.counts.delivered -= account.invalidTime + account.unheard + noPicture + notConverted;
  account.counts.droppedByDevice += noPicture;
  account.counts.droppedConversion += notConverted;
  account.counts.frames.delivered -= frames;
  account.counts.frames.undelivered += frames;
  return account;
}

}  // namespace AV
