#define BRV_NO_PROTOTYPES
#include <gmock/gmock.h>
#include <brv.hpp>

#include "support/FrameworkTest.h"
#include "support/Rigs.h"

// The C++ interface for hosts, on a module that it loads itself.

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

// Pointers that are named like the entry points.
#define POINTER(name) [[maybe_unused]] name##_Function name;
BRV_FOR_EACH_ENTRY_POINT(POINTER)

std::string failureOf(const std::function<void()>& work) {
  try {
    work();
  } catch (const brv::Error& error) {
    return error.what();
  }
  return "none";
}

class HostInterfaceTest : public FrameworkTest {
 protected:
  /// Whether the count grows by three while the main loop runs, for ten seconds at most.
  bool grows(const std::atomic<int>& count) const {
    const int before = count;
    for (int i = 0; i < 1000 && count < before + 3; ++i) library.poll(10ms);
    return count >= before + 3;
  }

  const std::shared_ptr<hardware::simulated::Provider> provider = rigs::install(
      "[device]\nid = p\nname = Pair\nmedia = video\nlinks = pm\nvideo format = 64x48 yuvs, rates 30\n"
      "video format = 32x24 yuvs, rates 30 60, name \"Small \t<&amp;> \"\n"
      "[device]\nid = pm\nname = Mic\nmedia = audio\naudio format = 48000 Hz\nsound = tone 440 -20\n");
  std::vector<brv::Change> changes;
  brv::Library library{
      {.module = AVC_MODULE_PATH, .changed = [this](brv::Change change) { changes.push_back(change); }}};
  brv::Source source = library.source("Pair Video");
};

TEST_F(HostInterfaceTest, LoadingSaysWhatIsMissing) {
  BRV_Module module;
  EXPECT_EQ(BRV_OpenModule(&module, "/no/such.so"), 0);
  EXPECT_THAT(module.error, HasSubstr("/no/such.so"));
  EXPECT_EQ(BRV_OpenModule(&module, "libm.so.6"), 0);
  EXPECT_THAT(module.error, StartsWith("the module lacks BRV_IntitializeLibrary, BRV_UninitializeLibrary"));
  EXPECT_THAT(module.error, testing::EndsWith(", BRV_GetValidParameterValues"));
  EXPECT_EQ(module.handle, nullptr);
  EXPECT_THAT(failureOf([] { brv::Library second; }), HasSubstr("in use"));
}

TEST_F(HostInterfaceTest, EitherMediumGoesOnWhenTheOtherIsTakenBack) {
  std::atomic<int> pictures = 0, sounds = 0;
  const auto isOfNow = [start = brv::Time::clock::now()](brv::Time time) {
    return time >= start && time <= brv::Time::clock::now();
  };
  brv::Subscription video = source.onVideo([&](const brv::Frame& frame) { pictures += isOfNow(frame.time()); });
  brv::Subscription audio = source.onAudio(
      [&](const brv::Sound& sound) { sounds += !sound.samples.empty() && sound.time && isOfNow(*sound.time); });
  EXPECT_TRUE(grows(pictures) && grows(sounds));

  video.reset();
  const int last = pictures;
  EXPECT_TRUE(grows(sounds));
  EXPECT_EQ(pictures, last);

  video = source.onVideo([&](const brv::Frame&) { ++pictures; });
  audio.reset();
  EXPECT_TRUE(grows(pictures));
}

TEST_F(HostInterfaceTest, BothMediaBeginTogetherAndNothingComesFromBefore) {
  std::atomic<int> pictures = 0, sounds = 0, early = 0;
  brv::Time start{};
  brv::Subscription both =
      source.listen({.video = [&](const brv::Frame& f) { ++(f.time() < start ? early : pictures); },
                     .audio = [&](const brv::Sound& s) { ++(s.time < start ? early : sounds); },
                     .starting = [&] { start = brv::Time::clock::now(); }});
  EXPECT_TRUE(grows(pictures) && grows(sounds));
  const brv::Subscription video = source.onVideo([&](const brv::Frame&) { ++early; });
  EXPECT_TRUE(grows(early) && grows(sounds));
  both.reset();
  EXPECT_TRUE(grows(early));
  EXPECT_EQ(source.frameDuration() * 30, source.ticksPerSecond());
}

TEST_F(HostInterfaceTest, ALaterSubscriptionTakesThePlaceOfAnEarlierOne) {
  std::atomic<int> pictures = 0;
  brv::Subscription subscription = source.onVideo([](const brv::Frame&) {});
  subscription = source.onVideo([&](const brv::Frame&) { ++pictures; });

  EXPECT_TRUE(grows(pictures));
  EXPECT_THAT(failureOf([&] { source.picture(); }), HasSubstr("a subscription already"));
}

TEST_F(HostInterfaceTest, APictureStaysWhenItsSourceHasGone) {
  const auto before = brv::Time::clock::now();
  brv::Frame kept = source.picture(10s);
  const brv::Frame copy = kept;
  kept = {};
  provider->unplug("p");
  provider->unplug("pm");
  for (int i = 0; i < 1000 && source.isPluggedIn(); ++i) library.poll(10ms);

  EXPECT_THAT(changes, testing::Contains(brv::Change::Removed));
  EXPECT_FALSE(kept);
  EXPECT_EQ(copy.pixels().row(47).size(), copy.pixels().width() * 2);
  EXPECT_GE(copy.time(), before - 1s);
  EXPECT_LE(copy.time(), brv::Time::clock::now());
  EXPECT_EQ(failureOf([&] { static_cast<void>(source.onVideo({})); }), "Pair Video is not plugged in");
}

TEST_F(HostInterfaceTest, SettingsAreChosenByIndexAndByTitleAndLastUntilTheSourceRuns) {
  const std::vector<brv::Option> formats = source.options(brv::VideoSettings);
  ASSERT_EQ(formats.size(), 2U);

  source.select(brv::VideoSettings, formats[1].title);
  source.select(brv::VideoFPS, 0);

  EXPECT_THAT(formats[1].title, StartsWith("Small \t<&amp;> "));
  EXPECT_EQ(source.selected(brv::VideoSettings), 1);
  EXPECT_EQ(source.selected(brv::VideoFPS), 0);
  EXPECT_EQ(source.picture(10s).pixels().width(), 32U);
  EXPECT_EQ(source.selected(brv::VideoFPS), 0);
  EXPECT_THAT(failureOf([&] { source.select(brv::VideoFPS, 9); }), StartsWith("Pair Video refused Video FPS 9"));
  EXPECT_THAT(failureOf([&] { source.select(brv::VideoSettings, "Huge"); }),
              HasSubstr("has no Huge for Video Settings"));
}

}  // namespace
