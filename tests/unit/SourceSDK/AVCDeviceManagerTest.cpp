#include "AVC/AVCDeviceManager.h"

#include <gmock/gmock.h>

#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"
#include "support/LogCapture.h"

namespace {

using testing::ElementsAre;

class FireWireRegistryTest : public FrameworkTest {
 protected:
  LogCapture log;
  std::shared_ptr<fake::Provider> provider = fake::install({});
};

TEST_F(FireWireRegistryTest, EveryLookUpSeesTheBusAsItIsAndTheLaterOfTwoUnitsCounts) {
  provider->bus.units = {{1, false, true}, {2, true, true}, {3, false, false}, {7, false, true}, {7, true, false}};
  AV::AVCDeviceManager registry;
  EXPECT_TRUE(registry.isDeviceHDV(1));
  for (unsigned long long other : {0ULL, 2ULL, 3ULL, 7ULL}) EXPECT_FALSE(registry.isDeviceHDV(other)) << other;
  ASSERT_NE(registry.deviceWithUID(7), nullptr);
  EXPECT_TRUE(registry.deviceWithUID(7)->isDVDevice);

  provider->bus.units->clear();
  EXPECT_FALSE(registry.hasDeviceWithUID(7));
  provider->bus.units.reset();
  EXPECT_EQ(registry.deviceWithUID(7), nullptr);
}

TEST_F(FireWireRegistryTest, TheListIsAppendedInOrderOfGUIDsWithoutARefresh) {
  provider->bus.units = {{9, false, true}, {3, false, true}};
  AV::AVCDeviceManager registry;
  provider->bus.units->clear();
  const AVS::AVCDevice other{};
  zList<const AVS::AVCDevice*> list;
  list.Append(&other);

  registry.filleDeviceList(list);

  ASSERT_EQ(list.Size(), 3U);
  EXPECT_EQ(list[0], &other);
  EXPECT_EQ(list[1]->guid, 3U);
  EXPECT_EQ(list[2]->guid, 9U);
}

TEST_F(FireWireRegistryTest, WithoutAControllerNothingIsFound) {
  provider->bus = {static_cast<int>(0xE00002C0), std::vector<hardware::FireWireUnit>{{1, false, true}}};

  AV::AVCDeviceManager registry;

  EXPECT_THAT(log.lines(),
              ElementsAre("3 bvDeviceManager_avs::init_controller() - couldnt create controller 0xe00002c0"));
  EXPECT_FALSE(registry.hasDeviceWithUID(1));
}

}  // namespace
