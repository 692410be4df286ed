#include <gmock/gmock.h>

#include <climits>

#include "support/FrameworkTest.h"
#include "support/LoadedModule.h"

namespace {

using testing::Each;
using testing::ElementsAre;

class EntryPointsTest : public FrameworkTest {};

TEST_F(EntryPointsTest, TheDemoRigIsEnumerated) {
  Host host;

  EXPECT_THAT(host.sources(), ElementsAre("HD Webcam Video", "Desk Camera Video", "Desk Camera 1 Video",
                                          "HDV Camcorder", "Tethered Phone", "Studio Microphone Audio"));
  struct Case {
    const char *source, *id;
    bool video, audio, hdv;
  };
  for (const Case& c : {Case{"HD Webcam Video", "webcam-hd-microphone", true, true, false},
                        Case{"Desk Camera 1 Video", "desk-camera-right", true, false, false},
                        Case{"HDV Camcorder", "F0x0080880303480cd1", true, true, true},
                        Case{"Studio Microphone Audio", "studio-microphone", false, true, false}}) {
    EXPECT_EQ(host.has(c.source, "ProvidesVideo"), c.video) << c.source;
    EXPECT_EQ(host.has(c.source, "ProvidesAudio"), c.audio) << c.source;
    EXPECT_EQ(host.has(c.source, "HDV"), c.hdv) << c.source;
    EXPECT_FALSE(host.has(c.source, "ProvidesSmell"));
    EXPECT_EQ(host.deviceId(c.source), c.id);
    EXPECT_EQ(host.timescale(c.source), -1);
    EXPECT_EQ(host.frameDuration(c.source), 0);
  }
}

TEST_F(EntryPointsTest, SourcesAppearWithTheLogRegistrationAndOnlyOnce) {
  LoadedModule module;
  const auto count = BRV_CALL(module, BRV_GetSourceCount);

  EXPECT_EQ(BRV_CALL(module, BRV_IntitializeLibrary)(), 1);
  EXPECT_EQ(count(), 0);
  for (int i = 0; i < 2; ++i) {
    BRV_CALL(module, BRV_RegisterLogCallback)(nullptr, nullptr, nullptr);
    EXPECT_EQ(count(), 6);
  }
  BRV_CALL(module, BRV_UninitializeLibrary)();
  EXPECT_EQ(count(), 0);
}

TEST_F(EntryPointsTest, TheGroupIsNamedByTheHostsTranslation) {
  Host host;
  const auto deviceId = BRV_CALL(host.module, BRV_GetDeviceId);
  const auto modelInfo = BRV_CALL(host.module, BRV_GetModelInfo);
  const auto group = [&] {
    return std::vector<std::string>{Host::text(deviceId, static_cast<void*>(nullptr)),
                                    Host::text(BRV_CALL(host.module, BRV_GetDeviceGroupDisplayName), "en"),
                                    Host::text(modelInfo, static_cast<void*>(nullptr))};
  };
  EXPECT_THAT(group(), Each(std::string("p_source_systemdevice")));

  BRV_CALL(host.module, BRV_RegisterLocalizeStringCallback)([](const char*) { return "Kameras"; });
  EXPECT_THAT(group(), Each(std::string("Kameras")));
  int length = 99;
  char buffer[64];
  deviceId(nullptr, buffer, &length);
  EXPECT_EQ(length, 99);
  modelInfo(nullptr, buffer, &length);
  EXPECT_EQ(length, 7) << "the model text alone stores its length in the copy call too";
}

TEST_F(EntryPointsTest, FixedAnswersAreFixed) {
  Host host;
  EXPECT_EQ(BRV_CALL(host.module, BRV_ConnectDevice)(), 1);
  EXPECT_EQ(BRV_CALL(host.module, BRV_GetDeviceCount)(), 1);
  EXPECT_EQ(BRV_CALL(host.module, BRV_GetDeviceState)(), 0x6B726564);
  EXPECT_EQ(BRV_CALL(host.module, BRV_GetSourceState)(), 0x6B6E6F73);
  EXPECT_EQ(BRV_CALL(host.module, BRV_ShowCustomConfigDialog)(), 0);
  for (char* text : {static_cast<char*>(nullptr), new char[16]}) BRV_CALL(host.module, BRV_DeleteString)(text);
}

TEST_F(EntryPointsTest, WhatNamesNoSourceYieldsNeutralResults) {
  Host host;
  const auto displayName = BRV_CALL(host.module, BRV_GetSourceDisplayName);
  const auto property = BRV_CALL(host.module, BRV_GetProperty);
  const auto unreachable = [](void*, int, const void*) { ADD_FAILURE() << "called"; };

  for (int index : {-1, 6, INT_MAX, INT_MIN}) {
    EXPECT_EQ(Host::text(BRV_CALL(host.module, BRV_GetSourceId), static_cast<void*>(nullptr), index), "");
    EXPECT_EQ(host.errorMessage(index), "");
  }
  for (const char* unknown : {"nobody", "hd webcam video", "", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(property(nullptr, unreachable, "frame_duration", "", unknown), 0);
    EXPECT_EQ(BRV_CALL(host.module, BRV_GetTimescaleTicksPerSec)(nullptr, unknown), -1);
    EXPECT_EQ(BRV_CALL(host.module, BRV_SourceSupportsProperty)(nullptr, unknown, "ProvidesVideo"), 0);
    BRV_CALL(host.module, BRV_RegisterVideoDataArrivedCallback)(nullptr, unknown, nullptr, nullptr);
    BRV_CALL(host.module, BRV_RegisterSourceChangedCallback)(nullptr, unknown, nullptr, nullptr);
  }
  EXPECT_EQ(property(nullptr, unreachable, "frame_duration", nullptr, "HD Webcam Video"), 0);
  EXPECT_EQ(property(nullptr, unreachable, "colour", "", "HD Webcam Video"), 0);
  EXPECT_EQ(property(nullptr, nullptr, "device_id", "", "HD Webcam Video"), 0);
  EXPECT_EQ(Host::text(displayName, static_cast<void*>(nullptr), "anything", static_cast<void*>(nullptr)), "anything");
  BRV_CALL(host.module, BRV_GetSourceId)(nullptr, 0, nullptr, nullptr);
  BRV_CALL(host.module, BRV_GetDeviceId)(nullptr, nullptr, nullptr);
}

}  // namespace
