#define BRV_NO_PROTOTYPES
#include <gmock/gmock.h>
#include <brv.hpp>

#include "support/FakeHardware.h"
#include "support/FrameworkTest.h"
#include "support/Rigs.h"

// The C++ interface for hosts, on a module that it loads itself.

namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

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
      "video format = 32x24 yuvs, rates 30, name \"Small <&amp;>\"\n"
      "[device]\nid = pm\nname = Mic\nmedia = audio\naudio format = 48000 Hz\nsound = tone 440 -20\n");
  std::vector<brv::Change> changes;
  brv::Library library{
      {.module = AVC_MODULE_PATH, .changed = [this](brv::Change change) { changes.push_back(change); }}};
  brv::Source source = library.source("Pair Video");
};

TEST_F(HostInterfaceTest, AModuleThatLacksEntryPointsIsClosedAgainAndOneServesOneLibrary) {
  BRV_Module module;
  EXPECT_EQ(BRV_OpenModule(&module, "libm.so.6"), 0);
  EXPECT_THAT(module.error, testing::EndsWith(", BRV_GetValidParameterValues"));
  EXPECT_EQ(module.handle, nullptr);
  EXPECT_THAT(failureOf([] { brv::Library second; }), HasSubstr("in use"));
}

TEST_F(HostInterfaceTest, EitherMediumGoesOnWhenTheOtherIsTakenBackOrSubscribedToAnew) {
  std::atomic<int> pictures = 0, sounds = 0;
  brv::Subscription video = source.onVideo([&](const brv::Frame&) { ++pictures; });
  brv::Subscription audio = source.onAudio([&](const brv::Sound&) { ++sounds; });
  EXPECT_TRUE(grows(pictures) && grows(sounds));

  video.reset();
  const int last = pictures;
  EXPECT_TRUE(grows(sounds));
  EXPECT_EQ(pictures, last);

  video = source.onVideo([](const brv::Frame&) {});
  video = source.onVideo([&](const brv::Frame&) { ++pictures; });
  audio.reset();
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

TEST_F(HostInterfaceTest, AChoiceIsMadeByItsTitleAndLastsUntilTheSourceRuns) {
  source.select(brv::VideoSettings, source.options(brv::VideoSettings).at(1).title);
  EXPECT_EQ(source.picture(10s).pixels().width(), 32U);
  EXPECT_THAT(failureOf([&] { source.select(brv::VideoFPS, 9); }), HasSubstr("Pair Video refused Video FPS 9"));
  EXPECT_THAT(failureOf([&] { source.select(brv::VideoFPS, "99"); }), HasSubstr("has no 99 for Video FPS"));
  EXPECT_FALSE(source.apply({{"<\"&", 0}, {brv::VideoFPS, 9}})) << "what is no parameter does not hide the next one";
}

TEST(HostRecordsTest, FieldsStandInTheirRecords) {
  const std::vector<brv::Field> expected{
      {"a<", "", ""}, {"b", "", ""}, {"b", "n", "1"}, {"e", "", ""}, {"a<", "m", "\t\n\r'\">&amp;"}};
  EXPECT_EQ(
      brv::fieldsOf("<?xml version=\"1.0\"?><record name=\"a&lt;\"><record name=\"b\"><text name=\"n\" value=\"1\"/>"
                    "</record><record name=\"e\"/><text name=\"m\" value=\"&#9;&#10;&#13;&apos;&quot;&gt;&amp;amp;\"/>"
                    "</record><text name=\"outside\" value=\"\"/>"),
      expected);
}

class HostOfFakesTest : public FrameworkTest {};

TEST_F(HostOfFakesTest, TimesAreThoseThatTheDevicesTell) {
  const auto camera = fake::camera("Cam", "c", {"m"}), microphone = fake::microphone("Mic", "m", {"c"});
  const auto provider = fake::install({camera, microphone});
  const brv::Library library({.module = AVC_MODULE_PATH});
  const brv::Source source = library.source("Cam Video");
  std::vector<std::int64_t> pictures, sounds;
  int starts = 0;
  const auto note = [](std::vector<std::int64_t>& times, brv::Time time) {
    times.push_back(time.time_since_epoch() / std::chrono::nanoseconds(1));
  };
  const CMTime times[] = {CMTimeMake(3, 1), CMTimeMake(1LL << 40, 1'000'000'000), kCMTimeInvalid,
                          CMTimeMake(90'001, 90'000)};
  for (const CMTime time : times) {
    microphone->whileStopping = [&] {
      microphone->captureSound(CMTimeMake(7, 1), "four", 1);
    };  // before both media have begun
    brv::Handlers handlers;
    handlers.starting = [&] { starts += !camera->isRunning() && !microphone->isRunning(); };
    handlers.video = [&](const brv::Frame& frame) { note(pictures, frame.time()); };
    handlers.audio = [&](const brv::Sound& sound) {
      if (sound.time) note(sounds, *sound.time);
      EXPECT_EQ(sound.samples.size(), 2U);
    };
    const auto listening = source.listen(handlers);
    microphone->whileStopping = {};
    camera->captureFrame(time);
    microphone->captureSound(time, "four", 1);
  }
  const std::vector<std::int64_t> expected{3'000'000'000, 1LL << 40, 1'000'011'111};
  EXPECT_EQ(pictures, expected);
  EXPECT_EQ(sounds, expected);
  EXPECT_EQ(starts, 4);
  EXPECT_TRUE(source.frameDuration() == 3'000 && source.ticksPerSecond() == 90'000);
  const auto account = [&](const char* medium) {
    std::string text;
    for (const brv::Field& field : brv::fieldsOf(source.property(medium).value_or("")))
      text += field.name + (field.name.empty() ? field.record + ":" : "=") + field.value + " ";
    return text;
  };
  const auto counts = [](const char* number) {
    return "account: captured=" + std::string(number) + " delivered=" + number +
           " late=0 no_buffer=0 lost_by_device=0 not_converted=0 invalid_time=0 stopped=0 unheard=0 pending=0 ";
  };
  EXPECT_EQ(account("video_account"), counts("4"));
  EXPECT_EQ(account("audio_account"),
            counts("8") + "frames: captured=8 dropped=0 converted=8 produced=8 delivered=8 undelivered=0 pending=0 ");
}

}  // namespace
