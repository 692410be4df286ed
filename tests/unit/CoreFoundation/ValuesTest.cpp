// Numbers, dictionaries and arrays, through their C interfaces where there is one.

#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFRef.h>
#include <Foundation/NSDictionary.h>
#include <Foundation/NSValue.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace {

TEST(NumberTest, ConversionsHoldAtTheLimitsAndTellWhatWasLost) {
  constexpr std::int64_t Int64Max = std::numeric_limits<std::int64_t>::max();
  constexpr double Max32 = 2147483647, Min32 = -2147483648.0, Max64 = 0x1p63, Min64 = -0x1p63;
  constexpr double FloatMax = std::numeric_limits<float>::max(), Infinity = std::numeric_limits<double>::infinity();
  constexpr double ReadAsNaN = 77;  // which compares equal with itself
  const struct {
    Ref<NSNumber> number;
    std::vector<double> read;  ///< as 32-bit and 64-bit integer, as float and double
    const char* exact;         ///< one character for each of them
  } cases[] = {
      {NSNumber::numberWithInt(-7), {-7, -7, -7, -7}, "yyyy"},
      {NSNumber::numberWithUnsignedInt(0xF9757673), {Max32, 4185224819, 4185224704, 4185224819}, "nyny"},
      {NSNumber::numberWithLongLong(Int64Max), {Max32, Max64, Max64, Max64}, "nynn"},
      {NSNumber::numberWithLongLong(-Int64Max - 1), {Min32, Min64, Min64, Min64}, "nyyy"},
      {NSNumber::numberWithDouble(-2.75), {-2, -2, -2.75, -2.75}, "nnyy"},
      {NSNumber::numberWithDouble(1e300), {Max32, Max64, FloatMax, 1e300}, "nnny"},
      {NSNumber::numberWithDouble(-Infinity), {Min32, Min64, -Infinity, -Infinity}, "nnyy"},
      {NSNumber::numberWithDouble(std::nan("")), {0, 0, ReadAsNaN, ReadAsNaN}, "nnyy"},
  };

  for (const auto& each : cases) {
    const CFNumberRef number = each.number->toCF();
    std::string exact;
    std::vector<double> read;
    const auto readAs = [&]<typename T>(CFNumberType type, T value) {
      exact += CFNumberGetValue(number, type, &value) ? 'y' : 'n';
      read.push_back(std::isnan(static_cast<double>(value)) ? ReadAsNaN : static_cast<double>(value));
    };
    readAs(kCFNumberSInt32Type, std::int32_t{});
    readAs(kCFNumberSInt64Type, std::int64_t{});
    readAs(kCFNumberFloat32Type, float{});
    readAs(kCFNumberFloat64Type, double{});

    EXPECT_EQ(exact, each.exact) << each.read[3];
    EXPECT_EQ(read, each.read);
  }
}

TEST(DictionaryTest, FindsEqualKeysOfOtherIdentityAndKeepsTheLaterOfTwo) {
  const std::int64_t before = NSObject::liveObjectCount();
  {
    const auto first = makeRef<NSString>("rate");
    const auto second = makeRef<NSString>("rate");
    const auto other = makeRef<NSString>("channels");
    const auto value = NSNumber::numberWithInt(44100);
    const auto later = NSNumber::numberWithInt(48000);
    const void* keys[] = {first.get(), other.get(), second.get(), nullptr, first.get()};
    const void* values[] = {value.get(), value.get(), later.get(), value.get(), nullptr};

    const auto dictionary =
        CFRef<CFDictionaryRef>::adopt(CFDictionaryCreate(nullptr, keys, values, 5, nullptr, nullptr));

    EXPECT_EQ(CFDictionaryGetCount(dictionary.get()), 2);
    EXPECT_EQ(CFDictionaryGetValue(dictionary.get(), makeRef<NSString>("rate").get()), later.get());
  }
  EXPECT_EQ(CFDictionaryCreate(nullptr, nullptr, nullptr, 1, nullptr, nullptr), nullptr);
  EXPECT_EQ(CFDictionaryCreate(nullptr, nullptr, nullptr, -1, nullptr, nullptr), nullptr);
  EXPECT_EQ(NSObject::liveObjectCount(), before);
}

TEST(ArrayTest, AnswersNullOutsideItsBounds) {
  int targets[2] = {};
  const void* pointers[] = {&targets[0], &targets[1]};
  const auto array = CFRef<CFArrayRef>::adopt(CFArrayCreate(nullptr, pointers, 2, nullptr));

  const void* const expected[] = {nullptr, &targets[0], &targets[1], nullptr};
  for (CFIndex i = -1; i <= 2; ++i) EXPECT_EQ(CFArrayGetValueAtIndex(array.get(), i), expected[i + 1]) << i;
  EXPECT_EQ(CFArrayCreate(nullptr, pointers, -1, nullptr), nullptr);
}

}  // namespace
