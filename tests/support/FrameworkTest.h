#pragma once

// Fixture of tests that make framework objects: in the end none is left, and no lane either.

#include <Foundation/NSNotification.h>
#include <Foundation/NSObject.h>
#include <Hardware.h>
#include <dispatch/Scheduler.h>
#include <gtest/gtest.h>

#include <memory>

class FrameworkTest : public testing::Test {
 protected:
  FrameworkTest() {
    hardware::installSystemProvider(nullptr);
    _objectsBefore = NSObject::liveObjectCount();
    _lanesBefore = runtime::liveLaneCount();
  }

  ~FrameworkTest() override {
    hardware::installSystemProvider(nullptr);
    NSRunLoop::mainRunLoop().runUntilIdle();
    EXPECT_EQ(NSObject::liveObjectCount(), _objectsBefore) << "framework objects are left";
    EXPECT_EQ(runtime::liveLaneCount(), _lanesBefore) << "lanes are left";
  }

 private:
  std::int64_t _objectsBefore;
  std::int64_t _lanesBefore;
};
