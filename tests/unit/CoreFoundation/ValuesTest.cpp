// Numbers, dictionaries and arrays, through their C interfaces where there is one.

#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFRef.h>
#include <Foundation/NSDictionary.h>
#include <Foundation/NSValue.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

namespace {

constexpr std::int64_t Int64Max = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t Int64Min = std::numeric_limits<std::int64_t>::min();
constexpr double Infinity = std::numeric_limits<double>::infinity();
constexpr double FloatMax = std::numeric_limits<float>::max();
const double NaN = std::nan("");

/// What reading a number as one of the four types is to give.
struct Reading {
  double value;
  bool exact;
};

struct NumberCase {
  const char* description;
  Ref<NSNumber> number;
  Reading asInt32, asInt64, asFloat, asDouble;
};

template <typename T>
void expectReading(const NumberCase& each, CFNumberType type, Reading expected) {
  T value{};
  const bool exact = CFNumberGetValue(each.number->toCF(), type, &value) != 0;
  EXPECT_EQ(exact, expected.exact) << each.description << " as type " << type;
  if (std::isnan(expected.value)) {
    EXPECT_TRUE(std::isnan(static_cast<double>(value))) << each.description << " as type " << type;
  } else {
    EXPECT_EQ(static_cast<double>(value), expected.value) << each.description << " as type " << type;
  }
}

TEST(NumberTest, ConversionsHoldAtTheLimitsAndTellWhatWasLost) {
  const NumberCase cases[] = {
      {"small", NSNumber::numberWithInt(-7), {-7, true}, {-7, true}, {-7, true}, {-7, true}},
      {"four-character code",
       NSNumber::numberWithUnsignedInt(0xF9757673),
       {2147483647, false},
       {4185224819, true},
       {4185224704, false},
       {4185224819, true}},
      {"largest integer",
       NSNumber::numberWithLongLong(Int64Max),
       {2147483647, false},
       {9223372036854775807.0, true},
       {9223372036854775808.0, false},
       {9223372036854775808.0, false}},
      {"smallest integer",
       NSNumber::numberWithLongLong(Int64Min),
       {-2147483648.0, false},
       {-9223372036854775808.0, true},
       {-9223372036854775808.0, true},
       {-9223372036854775808.0, true}},
      {"negative fraction", NSNumber::numberWithDouble(-2.75), {-2, false}, {-2, false}, {-2.75, true}, {-2.75, true}},
      {"beyond float",
       NSNumber::numberWithDouble(1e300),
       {2147483647, false},
       {9223372036854775807.0, false},
       {FloatMax, false},
       {1e300, true}},
      {"infinity",
       NSNumber::numberWithDouble(-Infinity),
       {-2147483648.0, false},
       {-9223372036854775808.0, false},
       {-Infinity, true},
       {-Infinity, true}},
      {"not a number", NSNumber::numberWithDouble(NaN), {0, false}, {0, false}, {NaN, true}, {NaN, true}},
  };

  for (const NumberCase& each : cases) {
    expectReading<std::int32_t>(each, kCFNumberSInt32Type, each.asInt32);
    expectReading<std::int64_t>(each, kCFNumberSInt64Type, each.asInt64);
    expectReading<float>(each, kCFNumberFloat32Type, each.asFloat);
    expectReading<double>(each, kCFNumberFloat64Type, each.asDouble);
  }
}

TEST(NumberTest, UnknownTypesAndMissingValuesGiveNothing) {
  const std::int32_t value = 5;
  std::int32_t untouched = 9;
  const auto number = CFRef<CFNumberRef>::adopt(CFNumberCreate(nullptr, kCFNumberSInt32Type, &value));
  ASSERT_TRUE(number);

  EXPECT_EQ(CFNumberCreate(nullptr, 99, &value), nullptr);
  EXPECT_EQ(CFNumberCreate(nullptr, kCFNumberSInt32Type, nullptr), nullptr);
  EXPECT_FALSE(CFNumberGetValue(number.get(), 99, &untouched));
  EXPECT_FALSE(CFNumberGetValue(nullptr, kCFNumberSInt32Type, &untouched));
  EXPECT_EQ(untouched, 9);
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
    EXPECT_EQ(CFDictionaryGetValue(dictionary.get(), other.get()), value.get());
    EXPECT_EQ(CFDictionaryGetValue(dictionary.get(), makeRef<NSString>("absent").get()), nullptr);
    EXPECT_EQ(CFDictionaryGetValue(dictionary.get(), nullptr), nullptr);
  }
  EXPECT_EQ(NSObject::liveObjectCount(), before);
}

TEST(DictionaryTest, RefusesArraysThatItCannotRead) {
  EXPECT_EQ(CFDictionaryCreate(nullptr, nullptr, nullptr, 1, nullptr, nullptr), nullptr);
  EXPECT_EQ(CFDictionaryCreate(nullptr, nullptr, nullptr, -1, nullptr, nullptr), nullptr);
}

TEST(ArrayTest, AnswersNullOutsideItsBounds) {
  const int targets[2] = {};
  const void* pointers[] = {&targets[0], &targets[1]};
  const auto array = CFRef<CFArrayRef>::adopt(CFArrayCreate(nullptr, pointers, 2, nullptr));
  ASSERT_TRUE(array);

  EXPECT_EQ(CFArrayGetValueAtIndex(array.get(), -1), nullptr);
  EXPECT_EQ(CFArrayGetValueAtIndex(array.get(), 1), &targets[1]);
  EXPECT_EQ(CFArrayGetValueAtIndex(array.get(), 2), nullptr);
  EXPECT_EQ(CFArrayCreate(nullptr, nullptr, 1, nullptr), nullptr);
  EXPECT_EQ(CFArrayCreate(nullptr, pointers, -1, nullptr), nullptr);
}

TEST(ObjectTest, ConstantsAreNotCountedAndSurviveUnbalancedReleases) {
  const std::int64_t before = NSObject::liveObjectCount();
  const CFStringRef constant = NSString::constant("Constant");
  EXPECT_EQ(NSObject::liveObjectCount(), before);

  CFRelease(constant);
  CFRelease(constant);

  EXPECT_EQ(NSString::constant("Constant"), constant);
  EXPECT_STREQ(CFStringGetCStringPtr(constant, kCFStringEncodingUTF8), "Constant");
}

}  // namespace
