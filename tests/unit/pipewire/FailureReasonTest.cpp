#include "capture/FailureReason.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <tuple>

namespace hardware::pipewire {
namespace {

TEST(FailureReasonTest, WhatTheServerSaysIsToldInPlainWordsWhereTheyAreKnown) {
  const std::tuple<int, const char*, const char*> cases[] = {
      {-EBUSY, "", "it is busy: another program is using it"},
      {0, "error: Device or resource busy", "it is busy: another program is using it"},
      {0, "error alloc buffers: Invalid argument", "it is busy: another program is using it"},
      {-EPERM, "whatever", "there is no permission to use it"},
      {0, "no target node available", "PipeWire: no target node available"},
      {-EINVAL, "", "Invalid argument"},
  };
  for (const auto& [result, message, reason] : cases) EXPECT_EQ(reasonOf(result, message), reason) << message;
}

}  // namespace
}  // namespace hardware::pipewire
