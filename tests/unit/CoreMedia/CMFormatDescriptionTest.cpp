#include <CoreMedia/CMFormatDescription.h>

#include <cstring>
#include <limits>
#include <vector>

#include "MediaTest.h"

namespace {

using CMFormatDescriptionTest = MediaTest;
using Format = CFRef<CMFormatDescriptionRef>;
using Entries = std::initializer_list<NSDictionary::Entry>;

Format makeVideo(const Ref<NSDictionary>& extensions, int width = 1440, int height = 1080) {
  CMFormatDescriptionRef format = nullptr;
  CMVideoFormatDescriptionCreate(kCFAllocatorDefault, kCVPixelFormatType_422YpCbCr8_yuvs, width, height,
                                 extensions ? extensions->toCF() : nullptr, &format);
  return Format::adopt(format);
}

Ref<NSDictionary> withAspectRatio(double horizontal, double vertical) {
  return makeRef<NSDictionary>(
      Entries{{kCMFormatDescriptionExtension_PixelAspectRatio,
               twoNumbers(kCMFormatDescriptionKey_PixelAspectRatioHorizontalSpacing, horizontal,
                          kCMFormatDescriptionKey_PixelAspectRatioVerticalSpacing, vertical)}});
}

TEST_F(CMFormatDescriptionTest, PresentationSizeFollowsTheExtensionsThatAreUsable) {
  const auto presentation = [](double width, double height) {
    return twoNumbers(kCMFormatDescriptionExtension_PresentationWidth, width,
                      kCMFormatDescriptionExtension_PresentationHeight, height);
  };
  Ref<NSDictionary> both = withAspectRatio(4, 3);
  both->insert(kCMFormatDescriptionExtension_PresentationWidth, NSNumber::numberWithInt(1888));
  both->insert(kCMFormatDescriptionExtension_PresentationHeight, NSNumber::numberWithInt(1062));
  const Ref<NSDictionary> notADictionary =
      makeRef<NSDictionary>(Entries{{kCMFormatDescriptionExtension_PixelAspectRatio, NSNumber::numberWithInt(2)}});
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const struct {
    Ref<NSDictionary> extensions;
    bool useRatio;
    bool useAperture;
    double width;
    double height;
  } cases[] = {
      {{}, true, true, 1440, 1080},
      {withAspectRatio(4, 3), true, true, 1920, 1080},
      {withAspectRatio(4, 3), false, true, 1440, 1080},
      {both, true, true, 1888, 1062},
      {both, true, false, 1920, 1080},
      {presentation(0, 1080), true, true, 1440, 1080},
      {presentation(1920, nan), true, true, 1440, 1080},
      {withAspectRatio(4, 0), true, true, 1440, 1080},
      {withAspectRatio(-4, 3), true, true, 1440, 1080},
      {notADictionary, true, true, 1440, 1080},
  };
  for (const auto& c : cases) {
    const Format format = makeVideo(c.extensions);

    const CGSize size = CMVideoFormatDescriptionGetPresentationDimensions(format.get(), c.useRatio, c.useAperture);

    EXPECT_EQ(size.width, c.width) << "case " << &c - cases;
    EXPECT_EQ(size.height, c.height) << "case " << &c - cases;
  }
}

TEST_F(CMFormatDescriptionTest, EqualityLooksIntoExtensionsByValue) {
  const Format format = makeVideo(withAspectRatio(4, 3));
  const Format same = makeVideo(withAspectRatio(4, 3));
  const Format others[] = {makeVideo(withAspectRatio(4, 4)), makeVideo({}), makeVideo(withAspectRatio(4, 3), 1920),
                           makeAudioFormat(2)};
  Ref<NSDictionary> extra = withAspectRatio(4, 3);
  extra->insert(kCMFormatDescriptionExtension_FormatName, makeRef<NSString>("HDV"));

  EXPECT_TRUE(CMFormatDescriptionEqual(format.get(), same.get()));
  EXPECT_TRUE(CMFormatDescriptionEqual(makeVideo({}).get(), makeVideo(makeRef<NSDictionary>()).get()));
  for (const Format& other : others) EXPECT_FALSE(CMFormatDescriptionEqual(format.get(), other.get()));
  EXPECT_FALSE(CMFormatDescriptionEqual(format.get(), makeVideo(extra).get()));
  EXPECT_FALSE(CMFormatDescriptionEqual(makeVideo(extra).get(), format.get()));
  EXPECT_FALSE(CMFormatDescriptionEqual(makeAudioFormat(2).get(), makeAudioFormat(1).get()));
  EXPECT_FALSE(CMFormatDescriptionEqual(format.get(), nullptr));
}

TEST_F(CMFormatDescriptionTest, ChannelLayoutIsCopiedWholeAndMustHoldWhatItAnnounces) {
  const AudioStreamBasicDescription audio = {44100, kAudioFormatLinearPCM, 0, 4, 1, 4, 2, 16, 0};
  const struct {
    std::size_t size;
    UInt32 descriptions;
    bool isAccepted;
  } cases[] = {{12, 0, true},  {32, 1, true}, {52, 1, true},           {12, 1, false},      {11, 0, false},
               {51, 2, false}, {0, 0, false}, {32, 0xFFFFFFFF, false}, {SIZE_MAX, 0, false}};
  for (const auto& c : cases) {
    std::vector<std::byte> bytes(64, std::byte{0x5A});
    const AudioChannelLayout header = {kAudioChannelLayoutTag_Stereo, 0, c.descriptions};
    std::memcpy(bytes.data(), &header, sizeof header);

    CMFormatDescriptionRef made = nullptr;
    CMAudioFormatDescriptionCreate(kCFAllocatorDefault, &audio, c.size,
                                   reinterpret_cast<const AudioChannelLayout*>(bytes.data()), 0, nullptr, nullptr,
                                   &made);
    const Format format = Format::adopt(made);

    EXPECT_EQ(static_cast<bool>(format), c.isAccepted) << c.size << " bytes, " << c.descriptions << " descriptions";
    if (!format) continue;
    std::size_t size = 0;
    const AudioChannelLayout* layout = CMAudioFormatDescriptionGetChannelLayout(format.get(), &size);
    ASSERT_EQ(size, c.size);
    EXPECT_NE(static_cast<const void*>(layout), bytes.data());
    EXPECT_EQ(std::memcmp(layout, bytes.data(), size), 0);
  }
}

}  // namespace
