#include <gmock/gmock.h>

#include <atomic>
#include <climits>

#include "support/FrameworkTest.h"
#include "support/LoadedModule.h"
#include "support/Rigs.h"

namespace {

using testing::Each;
using testing::ElementsAre;

class EntryPointsTest : public FrameworkTest {};

TEST_F(EntryPointsTest, TheDemoRigIsEnumerated) {
  const Host host;
  EXPECT_THAT(host.sources(), ElementsAre("HD Webcam Video", "Desk Camera Video", "Desk Camera 1 Video",
                                          "HDV Camcorder", "Tethered Phone", "Studio Microphone Audio"));
  EXPECT_TRUE(host.has("HDV Camcorder", "HDV") && host.deviceId("HDV Camcorder") == "F0x0080880303480cd1");
}

TEST_F(EntryPointsTest, SourcesAppearWithTheLogRegistrationAndOnlyOnce) {
  LoadedModule module;
  BRV_CALL(module, BRV_RegisterLocalizeStringCallback)(nullptr);
  EXPECT_EQ(BRV_CALL(module, BRV_IntitializeLibrary)(), 1);
  for (const int expected : {0, 6, 6}) {
    EXPECT_EQ(BRV_CALL(module, BRV_GetSourceCount)(), expected);
    BRV_CALL(module, BRV_RegisterLogCallback)(nullptr, nullptr, nullptr);
  }
  BRV_CALL(module, BRV_UninitializeLibrary)();
  EXPECT_EQ(BRV_CALL(module, BRV_GetSourceCount)(), 0);
}

TEST_F(EntryPointsTest, AModuleThatIsClosedWhileASourceRunsGoesOnUntilItIsUninitialised) {
  std::atomic<int> pictures{0};
  const auto count = [](void* context, BRV_VideoBuffer*) {
    auto& counted = *static_cast<std::atomic<int>*>(context);
    ++counted;
    counted.notify_all();
  };
  {
    LoadedModule module;
    BRV_CALL(module, BRV_IntitializeLibrary)();
    BRV_CALL(module, BRV_RegisterLogCallback)(nullptr, nullptr, nullptr);
    BRV_CALL(module, BRV_RegisterVideoDataArrivedCallback)(nullptr, "Desk Camera Video", count, &pictures);
  }
  for (int seen = pictures, i = 0; i < 3; seen = pictures, ++i) pictures.wait(seen);

  LoadedModule module;
  EXPECT_EQ(BRV_CALL(module, BRV_GetSourceCount)(), 6);
  BRV_CALL(module, BRV_UninitializeLibrary)();
}

TEST_F(EntryPointsTest, TheGroupIsNamedByTheHostsTranslationAndFixedAnswersAreFixed) {
  Host host;
  const auto deviceId = BRV_CALL(host.module, BRV_GetDeviceId);
  const auto modelInfo = BRV_CALL(host.module, BRV_GetModelInfo);
  const auto group = [&] {
    return std::vector{Host::text(deviceId, static_cast<void*>(nullptr)),
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

  const int fixed[] = {BRV_CALL(host.module, BRV_ConnectDevice)(), BRV_CALL(host.module, BRV_GetDeviceCount)(),
                       BRV_CALL(host.module, BRV_GetDeviceState)(), BRV_CALL(host.module, BRV_GetSourceState)(),
                       BRV_CALL(host.module, BRV_ShowCustomConfigDialog)()};
  EXPECT_THAT(fixed, ElementsAre(1, 1, 0x6B726564, 0x6B6E6F73, 0));
  BRV_CALL(host.module, BRV_DeleteString)(new char[16]);
}

TEST_F(EntryPointsTest, WhatNamesNoSourceYieldsNeutralResults) {
  Host host;
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
  for (const char* known : {"HD Webcam Video", "p_source_systemdevice"})
    EXPECT_EQ(property(nullptr, unreachable, "colour", "", known), 0);
  host.registerVideo("Studio Microphone Audio", nullptr, nullptr);
  host.registerAudio("Desk Camera Video", nullptr, nullptr);
  EXPECT_EQ(property(nullptr, nullptr, "device_id", "", "HD Webcam Video"), 0);
  BRV_CALL(host.module, BRV_GetSourceId)(nullptr, 0, nullptr, nullptr);
  int length = 99;
  BRV_CALL(host.module, BRV_QueryParameterOptions)(nullptr, "Tethered Phone", "\x01", nullptr, &length);
  EXPECT_EQ(length, 0) << "XML cannot carry it";
  EXPECT_EQ(host.logged("Failed to Write Settings Record to XML\n"), 1);
  EXPECT_EQ(BRV_CALL(host.module, BRV_SetSourceSettings)(nullptr, "Tethered Phone", nullptr), 1);
}

}  // namespace
