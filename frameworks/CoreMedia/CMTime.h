#pragma once

// Rational time: value ticks of 1/timescale second.

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef int64_t CMTimeValue;
typedef int32_t CMTimeScale;
typedef int64_t CMTimeEpoch;
typedef uint32_t CMTimeFlags;

enum {
  kCMTimeFlags_Valid = 1u << 0,
  kCMTimeFlags_HasBeenRounded = 1u << 1,
  kCMTimeFlags_PositiveInfinity = 1u << 2,
  kCMTimeFlags_NegativeInfinity = 1u << 3,
  kCMTimeFlags_Indefinite = 1u << 4,
};

typedef struct CMTime {
  CMTimeValue value;
  CMTimeScale timescale;
  CMTimeFlags flags;
  CMTimeEpoch epoch;
} CMTime;

typedef uint32_t CMTimeRoundingMethod;
enum { kCMTimeRoundingMethod_RoundHalfAwayFromZero = 1 };

extern const CMTime kCMTimeInvalid;
extern const CMTime kCMTimeZero;

/// The invalid time when `timescale` is not positive.
CMTime CMTimeMake(int64_t value, int32_t timescale);

/// The nearest tick of `preferredTimescale`; marked as rounded when it does not give back `seconds`. An infinity where
/// the ticks do not fit 64 bits. Invalid for NaN.
CMTime CMTimeMakeWithSeconds(double seconds, int32_t preferredTimescale);

/// NaN for the invalid and the indefinite time, an infinity for an infinite one.
double CMTimeGetSeconds(CMTime time);

/// -1, 0 or 1. Exact for all values and timescales; epochs compare before values. Times of different kinds sort as
/// negative infinity, numbers, indefinite, positive infinity, invalid; two of the same kind are equal.
int32_t CMTimeCompare(CMTime time1, CMTime time2);

/// The same time in another timescale, rounded half away from zero (the only method modelled) and marked
/// as rounded when it is not exact. The invalid time for an invalid time or a timescale that is not positive; infinite
/// and indefinite times as they are; a result beyond 64 bits becomes the infinity of its sign.
CMTime CMTimeConvertScale(CMTime time, int32_t newTimescale, CMTimeRoundingMethod method);

/// Exact where the result fits its timescale (the least common multiple, or the larger timescale when
/// that is above 31 bits), otherwise rounded and marked so. An infinity where the sum does not fit 64 bits. Epoch 0 is
/// a duration and can be added to a time of any epoch. Invalid for an invalid addend, two different epochs, or two
/// opposite infinities; indefinite when either is.
CMTime CMTimeAdd(CMTime addend1, CMTime addend2);

CF_EXTERN_C_END

#define CMTIME_IS_VALID(time) (((time).flags & kCMTimeFlags_Valid) != 0)
#define CMTIME_IS_NUMERIC(time)                                                                          \
  (((time).flags & (kCMTimeFlags_Valid | kCMTimeFlags_PositiveInfinity | kCMTimeFlags_NegativeInfinity | \
                    kCMTimeFlags_Indefinite)) == kCMTimeFlags_Valid)

#ifdef __cplusplus
static_assert(sizeof(CMTime) == 24);
#endif
