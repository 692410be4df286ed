#include <CoreMedia/CMFormatDescription.h>

#include <cstring>
#include <tuple>
#include <utility>
#include <vector>

#include "MediaTest.h"

namespace {

using CMFormatDescriptionTest = FrameworkTest;

TEST_F(CMFormatDescriptionTest, PresentationSizeFollowsTheExtensionsThatAreUsable) {
  const auto ratio = [](double horizontal, double vertical) {
    const auto numbers = twoNumbers(kCMFormatDescriptionKey_PixelAspectRatioHorizontalSpacing, horizontal,
                                    kCMFormatDescriptionKey_PixelAspectRatioVerticalSpacing, vertical);
    return makeRef<NSDictionary>(Entries{{kCMFormatDescriptionExtension_PixelAspectRatio, numbers}});
  };
  const auto both = ratio(4, 3);
  both->insert(kCMFormatDescriptionExtension_PresentationWidth, NSNumber::numberWithInt(1888));
  both->insert(kCMFormatDescriptionExtension_PresentationHeight, NSNumber::numberWithInt(1062));
  const std::pair<Ref<NSDictionary>, double> cases[] = {
      {ratio(4, 3), 1920}, {both, 1888}, {ratio(4, 0), 1440}, {ratio(-4, 3), 1440}};

  for (const auto& [extensions, width] : cases) {
    CMFormatDescriptionRef made = nullptr;
    CMVideoFormatDescriptionCreate(nullptr, kCVPixelFormatType_422YpCbCr8_yuvs, 1440, 1080, extensions->toCF(), &made);
    const Format format = Format::adopt(made);
    EXPECT_EQ(CMVideoFormatDescriptionGetPresentationDimensions(made, true, true).width, width);
  }
}

TEST_F(CMFormatDescriptionTest, ChannelLayoutIsCopiedWholeAndMustHoldWhatItAnnounces) {
  const AudioStreamBasicDescription audio = {44100, kAudioFormatLinearPCM, 0, 4, 1, 4, 2, 16, 0};
  const std::tuple<std::size_t, UInt32, bool> cases[] = {{12, 0, true},  {52, 1, true},           {12, 1, false},
                                                         {51, 2, false}, {32, 0xFFFFFFFF, false}, {SIZE_MAX, 0, false}};
  for (const auto& [given, descriptions, isAccepted] : cases) {
    std::vector<std::byte> bytes(64, std::byte{0x5A});
    const AudioChannelLayout header = {kAudioChannelLayoutTag_Stereo, 0, descriptions};
    std::memcpy(bytes.data(), &header, sizeof header);

    CMFormatDescriptionRef made = nullptr;
    const auto* source = reinterpret_cast<const AudioChannelLayout*>(bytes.data());
    CMAudioFormatDescriptionCreate(kCFAllocatorDefault, &audio, given, source, 0, nullptr, nullptr, &made);
    const Format format = Format::adopt(made);

    EXPECT_EQ(static_cast<bool>(format), isAccepted) << given << " bytes, " << descriptions << " descriptions";
    if (!format) continue;
    std::size_t size = 0;
    const AudioChannelLayout* layout = CMAudioFormatDescriptionGetChannelLayout(format.get(), &size);
    ASSERT_EQ(size, given);
    EXPECT_NE(layout, source);
    EXPECT_EQ(std::memcmp(layout, source, size), 0);
  }
}

}  // namespace
