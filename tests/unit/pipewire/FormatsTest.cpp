// Formats of PipeWire's devices: which are listed, in which order, and under which titles.

#include <gmock/gmock.h>

#include <string>

#include "Pods.h"
#include "listing/CameraFormats.h"
#include "listing/SoundFormats.h"

namespace hardware::pipewire {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string describe(const CameraFormat& line) {
  std::string text =
      *line.format.name + " " + std::to_string(line.format.width) + "x" + std::to_string(line.format.height);
  for (const FrameRateRange& range : line.format.frameRates) {
    const CMTime fast = range.minFrameDuration, slow = range.maxFrameDuration;
    text += " " + std::to_string(fast.timescale) + "/" + std::to_string(fast.value);
    if (CMTimeCompare(fast, slow) != 0) text += "-" + std::to_string(slow.timescale) + "/" + std::to_string(slow.value);
  }
  return text;
}

std::vector<std::string> describe(const CameraOffer& offer) {
  std::vector<std::string> lines;
  for (const CameraFormat& line : offer.formats) lines.push_back(describe(line));
  return lines;
}

TEST(CameraFormatsTest, TheFastestOfTheLargestPicturesThatAHostTakesByItselfStandsFirst) {
  pods::Offers webcam;
  webcam.addPictures(SPA_MEDIA_SUBTYPE_raw, {SPA_VIDEO_FORMAT_YUY2}, {640, 480}, {{30, 1}, {15, 1}});
  webcam.addPictures(SPA_MEDIA_SUBTYPE_raw, {SPA_VIDEO_FORMAT_YUY2}, {1920, 1080}, {{5, 1}});
  webcam.addPictures(SPA_MEDIA_SUBTYPE_mjpg, {}, {3840, 2160}, {{30, 1}});
  webcam.addPictures(SPA_MEDIA_SUBTYPE_mjpg, {}, {1920, 1080}, {{30000, 1001}});
  webcam.addPictures(SPA_MEDIA_SUBTYPE_mjpg, {}, {640, 480}, {{30000, 1001}});
  webcam.addPictures(SPA_MEDIA_SUBTYPE_h264, {}, {1920, 1080}, {{60, 1}});
  webcam.addPictures(SPA_MEDIA_SUBTYPE_raw, {SPA_VIDEO_FORMAT_Y42B}, {640, 480}, {{30, 1}});

  const CameraOffer offer = readCameraFormats(webcam.pods());

  EXPECT_THAT(describe(offer),
              ElementsAre("Motion JPEG 3840x2160 30/1", "Motion JPEG 1920x1080 30000/1001", "YUYV 1920x1080 5/1",
                          "YUYV 640x480 15/1 30/1", "Motion JPEG 640x480 30000/1001"));
  EXPECT_EQ(automaticFormat(offer.formats), 1U);
  EXPECT_THAT(offer.unreadable, ElementsAre("H.264", "Y42B"));
}

TEST(CameraFormatsTest, WhatIsLeftOpenIsFilledInAndWhatIsOfferedTwiceIsListedOnce) {
  constexpr spa_fraction anyRate[] = {{25, 1}, {0, 1}, {INT32_MAX, 1}};
  pods::Offers virtualCamera;
  virtualCamera.addSizes(SPA_VIDEO_FORMAT_NV12, {800, 450}, {1, 1}, {1280, 720}, {25, 1});
  virtualCamera.addPictures(SPA_MEDIA_SUBTYPE_raw, {SPA_VIDEO_FORMAT_NV12, SPA_VIDEO_FORMAT_BGRx}, {320, 240},
                            {std::begin(anyRate), std::end(anyRate)}, true);
  virtualCamera.addPictures(SPA_MEDIA_SUBTYPE_raw, {SPA_VIDEO_FORMAT_GRAY8}, {101, 75}, {{0, 1}});

  const CameraOffer offer = readCameraFormats(virtualCamera.pods());

  EXPECT_THAT(describe(offer), ElementsAre("NV12 1280x720 25/1", "NV12 800x600 25/1", "NV12 800x450 25/1",
                                           "NV12 640x480 25/1", "NV12 640x360 25/1", "NV12 320x240 25/1 60/1-1/1",
                                           "BGRx 320x240 60/1-1/1", "Gray 101x75 60/1-1/1"));
  EXPECT_TRUE(offer.formats.front().statesRates);
  EXPECT_FALSE(offer.formats.back().statesRates);
}

TEST(CameraFormatsTest, OffersThatMakeNoSenseAreLeftOut) {
  pods::Offers broken;
  broken.addPictures(SPA_MEDIA_SUBTYPE_raw, {SPA_VIDEO_FORMAT_YUY2}, {0, 480}, {{30, 1}});
  broken.addPictures(SPA_MEDIA_SUBTYPE_raw, {SPA_VIDEO_FORMAT_YUY2}, {100000, 480}, {{30, 1}});
  broken.addSound(SPA_AUDIO_FORMAT_S16, {48000}, false, {SPA_AUDIO_CHANNEL_MONO});

  EXPECT_THAT(readCameraFormats(broken.pods()).formats, IsEmpty());
}

TEST(CameraFormatsTest, AFrameDurationIsHeldWithinTheRates) {
  pods::Offers camera;
  camera.addPictures(SPA_MEDIA_SUBTYPE_raw, {SPA_VIDEO_FORMAT_YUY2}, {640, 480}, {{30, 1}, {15, 1}});
  const VideoFormat format = readCameraFormats(camera.pods()).formats.front().format;
  const struct {
    CMTime asked, held;
  } cases[] = {{kCMTimeInvalid, CMTimeMake(1, 30)},
               {CMTimeMake(1, 60), CMTimeMake(1, 30)},
               {CMTimeMake(1, 16), CMTimeMake(1, 15)},
               {CMTimeMake(1, 5), CMTimeMake(1, 15)}};
  for (const auto& [asked, held] : cases) EXPECT_EQ(CMTimeCompare(heldWithin(format, asked), held), 0);
}

TEST(CameraFormatsTest, AStreamAsksForItsFormatFirstAndThenForAnyOther) {
  pods::Offers camera;
  camera.addPictures(SPA_MEDIA_SUBTYPE_raw, {SPA_VIDEO_FORMAT_UYVY}, {1280, 720}, {{30000, 1001}});
  const CameraFormat format = readCameraFormats(camera.pods()).formats.front();
  std::array<std::uint64_t, 512> memory;
  spa_pod_builder builder;
  spa_pod_builder_init(&builder, memory.data(), sizeof memory);

  const auto request = requestFor(format, CMTimeMake(1001, 30000), builder);

  const NegotiatedPicture best = readNegotiated(request.front());
  EXPECT_EQ(best.packing, Packing::UYVY);
  EXPECT_EQ(best.width, 1280);
  EXPECT_EQ(best.height, 720);
  EXPECT_EQ(CMTimeCompare(best.frameDuration, CMTimeMake(1001, 30000)), 0);
  std::uint32_t media = 0, subtype = 0;
  ASSERT_EQ(request.size(), 4U);
  EXPECT_EQ(spa_pod_find_prop(request[2], nullptr, SPA_FORMAT_VIDEO_size), nullptr);
  EXPECT_GE(spa_format_parse(request[3], &media, &subtype), 0);
  EXPECT_EQ(subtype, static_cast<std::uint32_t>(SPA_MEDIA_SUBTYPE_mjpg));
}

std::vector<std::string> describe(const std::vector<SoundFormat>& formats) {
  std::vector<std::string> lines;
  for (const SoundFormat& line : formats) {
    const AudioStreamBasicDescription& stream = line.format.stream;
    lines.push_back(std::to_string(static_cast<int>(stream.mSampleRate)) + " " +
                    std::to_string(stream.mBitsPerChannel) +
                    (stream.mFormatFlags & kAudioFormatFlagIsFloat ? "f" : "") + " " +
                    std::to_string(stream.mChannelsPerFrame) + " of " + std::to_string(line.streamChannels()) +
                    (line.format.firstInput ? " from " + std::to_string(*line.format.firstInput) : ""));
  }
  return lines;
}

TEST(SoundFormatsTest, AreTheDevicesOwnWithItsRateFirstAndUnrelatedChannelsInPairs) {
  const auto aux = [](std::uint32_t count) {
    std::vector<std::uint32_t> positions;
    for (std::uint32_t i = 0; i < count; ++i) positions.push_back(SPA_AUDIO_CHANNEL_AUX0 + i);
    return positions;
  };
  const std::vector<std::uint32_t> surround{SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_FR, SPA_AUDIO_CHANNEL_RL,
                                            SPA_AUDIO_CHANNEL_RR, SPA_AUDIO_CHANNEL_FC, SPA_AUDIO_CHANNEL_LFE};
  const struct {
    std::uint32_t format;
    std::vector<std::int32_t> rates;
    bool isRange;
    std::vector<std::uint32_t> positions;
    std::vector<std::string> lines;
  } cases[] = {{SPA_AUDIO_FORMAT_S24_32,
                {96000, 48000},
                false,
                aux(5),
                {"96000 24 2 of 5 from 0", "96000 24 2 of 5 from 2", "96000 24 1 of 5 from 4", "48000 24 2 of 5 from 0",
                 "48000 24 2 of 5 from 2", "48000 24 1 of 5 from 4"}},
               {SPA_AUDIO_FORMAT_S16, {48000, 44100, 48000}, true, aux(2), {"48000 16 2 of 2", "44100 16 2 of 2"}},
               {SPA_AUDIO_FORMAT_S32, {48000}, false, aux(1), {"48000 32 1 of 1"}},
               {SPA_AUDIO_FORMAT_F32P, {48000}, false, surround, {"48000 32f 6 of 6"}}};
  for (const auto& [format, rates, isRange, positions, lines] : cases) {
    pods::Offers offers;
    offers.addSound(format, rates, isRange, positions);
    EXPECT_EQ(describe(readSoundFormats(offers.pods())), lines);
  }

  // The channels of a known arrangement come in the order that its name implies.
  pods::Offers offers;
  offers.addSound(SPA_AUDIO_FORMAT_F32, {48000}, false, surround);
  const SoundFormat line = readSoundFormats(offers.pods()).front();
  EXPECT_EQ(line.format.layout, kAudioChannelLayoutTag_MPEG_5_1_A);
  EXPECT_EQ(line.positions[2], static_cast<std::uint32_t>(SPA_AUDIO_CHANNEL_FC));
}

}  // namespace
}  // namespace hardware::pipewire
