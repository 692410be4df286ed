#include "AVAccount.h"

namespace AV {

Account& Account::operator+=(const Account& other) {
  counts += other.counts;
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
