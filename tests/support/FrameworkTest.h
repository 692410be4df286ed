#pragma once

// Fixture of tests that make framework objects: in the end none is left, no lane either, and every sample that an
// output captured has come to an end that was counted.

#include <AVFoundation/Capture/SampleLedger.h>
#include <Hardware.h>
#include <gtest/gtest.h>
#include <runtime/NSObject.h>
#include <runtime/Scheduler.h>
#include <support/MainLoop.h>

#include <memory>

class FrameworkTest : public testing::Test {
 protected:
  FrameworkTest() {
    hardware::installSystemProvider(nullptr);
    _objectsBefore = NSObject::liveObjectCount();
    _lanesBefore = runtime::liveLaneCount();
    _unclaimedBefore = SampleLedger::of(AVMediaTypeVideo).unclaimed;
  }

  ~FrameworkTest() override {
    hardware::installSystemProvider(nullptr);
    runMainLoopUntilIdle();
    EXPECT_EQ(NSObject::liveObjectCount(), _objectsBefore) << "framework objects are left";
    EXPECT_EQ(runtime::liveLaneCount(), _lanesBefore) << "lanes are left";
    for (const AVMediaType medium : {AVMediaTypeVideo, AVMediaTypeAudio}) {
      const AVCaptureOutputStatistics sums = SampleLedger::of(medium).ended;
      EXPECT_TRUE(sums.isBalanced()) << medium;
      EXPECT_EQ(sums.pending + sums.frames.pending, 0U) << medium;
      EXPECT_EQ(sums.frames.owed, 0) << "an output ended in the middle of a stream";
    }
  }

  /// Pictures that cameras took since the test began while nobody wanted any.
  std::uint64_t unclaimedFrames() const { return SampleLedger::of(AVMediaTypeVideo).unclaimed - _unclaimedBefore; }

 private:
  std::int64_t _objectsBefore;
  std::int64_t _lanesBefore;
  std::uint64_t _unclaimedBefore;
};
