#include <support/AllocationCount.h>

#include <utility>

#include "Conversion.h"

namespace {

// Hands the same 480 frames over again and again, more than was asked for, then has no more for now.
struct LiveInput {
  std::vector<float> samples = sine<float>(997, 48000, 480, 0.5, 2);
  bool isThere = false;

  static OSStatus proc(AudioConverterRef, UInt32* packets, AudioBufferList* list, AudioStreamPacketDescription**,
                       void* context) {
    LiveInput& input = *static_cast<LiveInput*>(context);
    if (!std::exchange(input.isThere, false)) return 1;
    *packets = 480;
    list->mBuffers[0] = {2, 480 * 8, input.samples.data()};
    return noErr;
  }
};

TEST(AudioConverter, AllocatesNothingOnceItHasSeenTheSizesInUse) {
  if (!AllocationsAreCounted) GTEST_SKIP() << "operator new belongs to the sanitizer";
  for (const double rate : {44100.0, 48000.0}) {
    Converter converter(floats(48000, 2), int16s(rate, 2));
    LiveInput input;
    std::vector<SInt16> out(2 * 4096);
    AudioBufferList list{1, {{2, 0, out.data()}}};
    std::int64_t before = 0;
    for (int turn = 0; turn < 100; ++turn) {
      if (turn == 4) before = allocationCount();
      input.isThere = true;
      UInt32 packets = turn % 2 ? 4096 : 100;  // all there is, and less than that
      list.mBuffers[0].mDataByteSize = packets * 4;
      AudioConverterFillComplexBuffer(converter.get(), &LiveInput::proc, &input, &packets, &list, nullptr);
      if (turn % 10 == 9) AudioConverterReset(converter.get());
    }
    EXPECT_EQ(allocationCount(), before) << rate;
  }
}

}  // namespace
