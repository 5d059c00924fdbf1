// Win32 time records and conversions, tick counters and the present time as
// a FILETIME. Used among the library's own files only; nothing here is
// exported and the header is not installed.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include "WinTimeTypes.h"

// The count of 1970-01-01 00:00:00 UTC: 11,644,473,600 seconds after 1601.
constexpr uint64_t UNIX_EPOCH_FILETIME = 116444736000000000ull;
// The count of 1900-01-02 00:00:00 UTC. The local conversions shift a count
// up to and including it by the zone's offset at the Unix epoch.
constexpr uint64_t EARLY_FILETIME_LIMIT = 94355712000000000ull;

namespace commonl {

inline uint64_t filetime_count(const _FILETIME* ft) {
  uint64_t count;
  memcpy(&count, ft, sizeof count);
  return count;
}

inline void filetime_store(_FILETIME* ft, uint64_t count) { memcpy(ft, &count, sizeof count); }

}  // namespace commonl

// --- clocks and tick counts ---

// Nanoseconds on CLOCK_MONOTONIC since the first reading in the process;
// the first reading gives 0. GetTickCount and GetTickCount64 share the base.
uint64_t getTimestampNanosecs();
// Milliseconds since the shared base; the low 32 bits wrap after 49.7 days.
DWORD GetTickCount();
uint64_t GetTickCount64();
// Milliseconds on CLOCK_BOOTTIME, since boot, modulo 2^32.
DWORD timeGetTime();
// The milliseconds within the second held in `tv`, 0 to 999.
int GetMillis(const struct timeval* tv);
// The wall clock in whole seconds.
void GetSystemTimeAsFileTime(_FILETIME* lpSystemTimeAsFileTime);

// --- records and conversions ---

// On failure the record is left as it was and the log tells why.
void GetLocalTime(_SYSTEMTIME* lpSystemTime);
void GetSystemTime(_SYSTEMTIME* lpSystemTime);

void fillSystemTimeWithLinuxTm(_SYSTEMTIME* lpSystemTime, struct tm* tm, int milliseconds);
// Leaves tm_yday, tm_isdst, tm_gmtoff and tm_zone as they are.
void fillLinuxTmWithWinSystemTime(struct tm* tm, _SYSTEMTIME const* lpSystemTime);

// Seconds since the Unix epoch; `milliseconds` receives the millisecond
// within the second.
uint64_t FileTimeToEpoch(_FILETIME fileTime, int& milliseconds);
void MillisecondsToFileTime(unsigned long milliseconds, _FILETIME* lpFileTime);
BOOL FileTimeToSystemTime(_FILETIME* lpFileTime, _SYSTEMTIME* lpSystemTime);
BOOL SystemTimeToFileTime(_SYSTEMTIME const* lpSystemTime, _FILETIME* lpFileTime);

// A local epoch counts seconds that, read as UTC, show the local wall clock.
long UtcEpochToLocalEpoch(long utcEpoch);
long LocalEpochToUtcEpoch(long localEpoch);
BOOL FileTimeToLocalFileTime(_FILETIME const* lpFileTime, _FILETIME* lpLocalFileTime);
BOOL LocalFileTimeToFileTime(_FILETIME const* lpLocalFileTime, _FILETIME* lpFileTime);

// --- time zone information ---

// The Win32 record with `long` 64 bits wide and single-byte characters.
typedef struct _TIME_ZONE_INFORMATION {
  long Bias;  // minutes west of UTC of standard time: UTC = local time + Bias
  char StandardName[32];
  SYSTEMTIME StandardDate;
  long StandardBias;
  char DaylightName[32];
  SYSTEMTIME DaylightDate;
  long DaylightBias;  // -60 while daylight saving is in force, else 0
} TIME_ZONE_INFORMATION, *PTIME_ZONE_INFORMATION, *LPTIME_ZONE_INFORMATION;

static_assert(offsetof(TIME_ZONE_INFORMATION, StandardName) == 8 &&
                  offsetof(TIME_ZONE_INFORMATION, StandardDate) == 40 &&
                  offsetof(TIME_ZONE_INFORMATION, StandardBias) == 56 &&
                  offsetof(TIME_ZONE_INFORMATION, DaylightName) == 64 &&
                  offsetof(TIME_ZONE_INFORMATION, DaylightDate) == 96 &&
                  offsetof(TIME_ZONE_INFORMATION, DaylightBias) == 112 &&
                  sizeof(TIME_ZONE_INFORMATION) == 120,
              "the Win32 field order with 64-bit longs and no padding");

// Fills Bias, StandardName (the zone's cst text) and DaylightBias; the rest
// comes back zero, and so do Bias and StandardName for a zone whose offset
// the library doesn't know. Always 0.
DWORD GetTimeZoneInformation(_TIME_ZONE_INFORMATION* lpTimeZoneInformation);
