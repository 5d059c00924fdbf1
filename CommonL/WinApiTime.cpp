// Win32 time records and conversions, tick counters and the present time as
// a FILETIME.
#define COMMONL_UNIT "../CommonL/WinApiTime"

#include "WinApiTime.h"

#include <errno.h>
#include <pthread.h>
#include <string.h>

#include "KORVATime.h"
#include "internal.h"

using commonl::filetime_count;
using commonl::filetime_store;
using commonl::sys;

static const uint64_t _INTERVALS_PER_SECOND = 10000000;
static const uint64_t _INTERVALS_PER_MILLISECOND = 10000;
static const uint64_t _NANOSECONDS_PER_SECOND = 1000000000;
static const uint64_t _NANOSECONDS_PER_MILLISECOND = 1000000;

// Days of a common year before each month; the last entry is the whole year.
static const int64_t aMonthCumulativeDays[13] = {0,   31,  59,  90,  120, 151, 181,
                                                 212, 243, 273, 304, 334, 365};

// --- clocks and tick counts ---

uint64_t getTimestampNanosecs() {
  // 0 until the first reading. Two threads that make the first reading
  // together both return 0 and the later store stands: the base moves by
  // the microseconds between them. Relaxed accesses cost no more than plain
  // ones here.
  static uint64_t initial_time = 0;
  struct timespec ts;
  sys.clock_gettime(CLOCK_MONOTONIC, &ts);
  uint64_t now = static_cast<uint64_t>(ts.tv_sec) * _NANOSECONDS_PER_SECOND +
                 static_cast<uint64_t>(ts.tv_nsec);
  uint64_t base = __atomic_load_n(&initial_time, __ATOMIC_RELAXED);
  if (base == 0) {
    __atomic_store_n(&initial_time, now, __ATOMIC_RELAXED);
    return 0;
  }
  return now - base;
}

DWORD GetTickCount() {
  return static_cast<DWORD>(getTimestampNanosecs() / _NANOSECONDS_PER_MILLISECOND);
}

uint64_t GetTickCount64() { return getTimestampNanosecs() / _NANOSECONDS_PER_MILLISECOND; }

DWORD timeGetTime() {
  struct timespec ts;
  sys.clock_gettime(CLOCK_BOOTTIME, &ts);
  return static_cast<DWORD>(ts.tv_sec) * 1000u +
         static_cast<DWORD>(ts.tv_nsec / static_cast<long>(_NANOSECONDS_PER_MILLISECOND));
}

int GetMillis(const struct timeval* tv) { return static_cast<int>((tv->tv_usec / 1000) % 1000); }

void GetSystemTimeAsFileTime(_FILETIME* lpSystemTimeAsFileTime) {
  uint64_t seconds = static_cast<uint64_t>(sys.time(nullptr));
  filetime_store(lpSystemTimeAsFileTime, seconds * _INTERVALS_PER_SECOND + UNIX_EPOCH_FILETIME);
}

// --- records ---

void fillSystemTimeWithLinuxTm(_SYSTEMTIME* lpSystemTime, struct tm* tm, int milliseconds) {
  lpSystemTime->wYear = static_cast<uint16_t>(tm->tm_year + 1900);
  lpSystemTime->wMonth = static_cast<uint16_t>(tm->tm_mon + 1);
  lpSystemTime->wDayOfWeek = static_cast<uint16_t>(tm->tm_wday);
  lpSystemTime->wDay = static_cast<uint16_t>(tm->tm_mday);
  lpSystemTime->wHour = static_cast<uint16_t>(tm->tm_hour);
  lpSystemTime->wMinute = static_cast<uint16_t>(tm->tm_min);
  lpSystemTime->wSecond = static_cast<uint16_t>(tm->tm_sec);
  lpSystemTime->wMilliseconds = static_cast<uint16_t>(milliseconds);
}

void fillLinuxTmWithWinSystemTime(struct tm* tm, _SYSTEMTIME const* lpSystemTime) {
  tm->tm_year = lpSystemTime->wYear - 1900;
  tm->tm_mon = lpSystemTime->wMonth - 1;
  tm->tm_wday = lpSystemTime->wDayOfWeek;
  tm->tm_mday = lpSystemTime->wDay;
  tm->tm_hour = lpSystemTime->wHour;
  tm->tm_min = lpSystemTime->wMinute;
  tm->tm_sec = lpSystemTime->wSecond;
}

static unsigned int _tid() { return static_cast<unsigned int>(pthread_self()); }

// How one of the two readings of the present breaks the time down, and its
// reports, each the literal text of its message.
struct _NowReading {
  const char* function;
  struct tm* (*breakdown)(const time_t*, struct tm*);
  const char* failed_with_error;  // "%x", "%d", "%s": the thread, errno and its text
  const char* failed_with_ret;    // "%x", "%d": the thread and the result
  const char* breakdown_failed;   // "%x": the thread
};

static const _NowReading _LOCAL_TIME = {
    "GetLocalTime", localtime_r,
    "[tid=0x%x] GetLocalTime: gettimeofday failed with error [%d, %s]",
    "[tid=0x%x] GetLocalTime: gettimeofday failed with ret = %d",
    "[tid=0x%x] GetLocalTime: Failed, returned NULL == localtime_r() "};

static const _NowReading _SYSTEM_TIME = {
    "GetSystemTime", gmtime_r,
    "[tid=0x%x] GetSystemTime: gettimeofday failed with error [%d, %s]",
    "[tid=0x%x] GetSystemTime: gettimeofday failed with ret = %d",
    "[tid=0x%x] GetSystemTime: Failed, returned NULL == gmtime_r() "};

// The present as `reading` breaks it down; on failure the record stays as
// it was and the log tells why.
static void _now_as(_SYSTEMTIME* lpSystemTime, const _NowReading& reading) {
  struct timeval tv;
  int ret = sys.gettimeofday(&tv, nullptr);
  if (ret == -1) {
    int error = errno;
    KLOG_AS(reading.function, 3, reading.failed_with_error, _tid(), error, strerror(error));
    return;
  }
  if (ret != 0) {
    KLOG_AS(reading.function, 3, reading.failed_with_ret, _tid(), ret);
    return;
  }
  struct tm tm;
  if (reading.breakdown(&tv.tv_sec, &tm) == nullptr) {
    KLOG_AS(reading.function, 3, reading.breakdown_failed, _tid());
    return;
  }
  fillSystemTimeWithLinuxTm(lpSystemTime, &tm, static_cast<int>((tv.tv_usec / 1000) % 1000));
}

void GetLocalTime(_SYSTEMTIME* lpSystemTime) { _now_as(lpSystemTime, _LOCAL_TIME); }

void GetSystemTime(_SYSTEMTIME* lpSystemTime) { _now_as(lpSystemTime, _SYSTEM_TIME); }

// --- conversions ---

// The subtraction is unsigned: a count below UNIX_EPOCH_FILETIME wraps and
// gives (2^64 - distance) / 10^7, some 1.83 to 1.84 * 10^12 seconds, a date
// in the years 60056 to 60425 instead of a negative number.
uint64_t FileTimeToEpoch(_FILETIME fileTime, int& milliseconds) {
  uint64_t count = filetime_count(&fileTime);
  milliseconds = static_cast<int>((count % _INTERVALS_PER_SECOND) / _INTERVALS_PER_MILLISECOND);
  return (count - UNIX_EPOCH_FILETIME) / _INTERVALS_PER_SECOND;
}

void MillisecondsToFileTime(unsigned long milliseconds, _FILETIME* lpFileTime) {
  filetime_store(lpFileTime, milliseconds * _INTERVALS_PER_MILLISECOND + UNIX_EPOCH_FILETIME);
}

// A count below UNIX_EPOCH_FILETIME gives a date in the years 60056 to
// 60425, as FileTimeToEpoch tells; the milliseconds are those of the count.
BOOL FileTimeToSystemTime(_FILETIME* lpFileTime, _SYSTEMTIME* lpSystemTime) {
  struct tm tm = {};
  int milliseconds;
  time_t seconds = static_cast<time_t>(FileTimeToEpoch(*lpFileTime, milliseconds));
  gmtime_r(&seconds, &tm);
  fillSystemTimeWithLinuxTm(lpSystemTime, &tm, milliseconds);
  return 1;
}

static bool _is_leap_year(int64_t year) {
  return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

// Years before 1900 are counted directly on the Gregorian calendar from
// 1601. A month outside 1 to 12 moves into the neighbouring years, as timegm
// does it for the later years, and the table is never read out of range.
static uint64_t _early_system_time_to_count(_SYSTEMTIME const* st) {
  int64_t months = static_cast<int64_t>(st->wMonth) - 1;
  int64_t year = st->wYear + months / 12;
  int64_t month = months % 12;
  if (month < 0) {
    month += 12;
    year -= 1;
  }
  int64_t y = year - 1;
  int64_t leap_days = y / 4 - y / 100 + y / 400 - 388;
  int64_t day_of_year = aMonthCumulativeDays[month] + st->wDay - 1;
  if (_is_leap_year(year) && month >= 2) day_of_year += 1;
  int64_t seconds = (year - 1601) * 31536000 + (leap_days + day_of_year) * 86400 +
                    st->wHour * 3600 + st->wMinute * 60 + st->wSecond;
  return static_cast<uint64_t>((seconds * 1000 + st->wMilliseconds) * 10000);
}

BOOL SystemTimeToFileTime(_SYSTEMTIME const* lpSystemTime, _FILETIME* lpFileTime) {
  if (lpSystemTime->wYear < 1900) {
    filetime_store(lpFileTime, _early_system_time_to_count(lpSystemTime));
    return 1;
  }
  struct tm tm = {};
  tm.tm_sec = lpSystemTime->wSecond;
  tm.tm_min = lpSystemTime->wMinute;
  tm.tm_hour = lpSystemTime->wHour;
  tm.tm_mday = lpSystemTime->wDay;
  tm.tm_mon = lpSystemTime->wMonth - 1;
  tm.tm_year = lpSystemTime->wYear - 1900;  // the day of the week plays no part in timegm
  // Negative seconds (1900 to 1969) wrap, and adding the epoch brings the
  // sum back to the right count.
  uint64_t seconds = static_cast<uint64_t>(timegm(&tm));
  filetime_store(lpFileTime,
                 (seconds * 1000 + lpSystemTime->wMilliseconds) * _INTERVALS_PER_MILLISECOND +
                     UNIX_EPOCH_FILETIME);
  return 1;
}

long UtcEpochToLocalEpoch(long utcEpoch) {
  struct tm tm = {};
  time_t t = utcEpoch;
  localtime_r(&t, &tm);
  return timegm(&tm);
}

long LocalEpochToUtcEpoch(long localEpoch) {
  struct tm tm = {};
  time_t t = localEpoch;
  gmtime_r(&t, &tm);
  tm.tm_isdst = -1;
  return mktime(&tm);
}

// The zone's offset at the Unix epoch, in FILETIME intervals.
static uint64_t _epoch_offset() {
  struct tm tm = {};
  time_t zero = 0;
  localtime_r(&zero, &tm);
  return static_cast<uint64_t>(tm.tm_gmtoff) * _INTERVALS_PER_SECOND;
}

// The millisecond of `count` added to the seconds `t` after the epoch; the
// digits below the millisecond are dropped.
static uint64_t _count_from_seconds(uint64_t count, time_t t) {
  return ((count % _INTERVALS_PER_SECOND) / _INTERVALS_PER_MILLISECOND +
          static_cast<uint64_t>(t) * 1000) *
             _INTERVALS_PER_MILLISECOND +
         UNIX_EPOCH_FILETIME;
}

// A count above EARLY_FILETIME_LIMIT but below UNIX_EPOCH_FILETIME wraps in
// FileTimeToEpoch: its seconds stand for a date after the year 60000, whose
// offset the zone gives, and since 2^64 is no whole number of seconds the
// result is off by -9551616 or +448384 intervals (2^64 mod 10^7 = 9551616),
// the digits below the millisecond dropped. A count on a whole second gives
// count + offset - 9551616.
BOOL FileTimeToLocalFileTime(_FILETIME const* lpFileTime, _FILETIME* lpLocalFileTime) {
  uint64_t count = filetime_count(lpFileTime);
  if (count <= EARLY_FILETIME_LIMIT) {
    filetime_store(lpLocalFileTime, count + _epoch_offset());
    return 1;
  }
  int milliseconds;
  time_t seconds = static_cast<time_t>(FileTimeToEpoch(*lpFileTime, milliseconds));
  struct tm tm = {};
  localtime_r(&seconds, &tm);
  filetime_store(lpLocalFileTime, _count_from_seconds(count, timegm(&tm)));
  return 1;
}

// The mirror of FileTimeToLocalFileTime, with the same result for a count
// between the two limits: count - offset - 9551616 on a whole second.
BOOL LocalFileTimeToFileTime(_FILETIME const* lpLocalFileTime, _FILETIME* lpFileTime) {
  uint64_t count = filetime_count(lpLocalFileTime);
  if (count <= EARLY_FILETIME_LIMIT) {
    filetime_store(lpFileTime, count - _epoch_offset());
    return 1;
  }
  int milliseconds;
  time_t seconds = static_cast<time_t>(FileTimeToEpoch(*lpLocalFileTime, milliseconds));
  struct tm tm = {};
  gmtime_r(&seconds, &tm);
  tm.tm_isdst = -1;
  filetime_store(lpFileTime, _count_from_seconds(count, mktime(&tm)));
  return 1;
}

// --- time zone information ---

DWORD GetTimeZoneInformation(_TIME_ZONE_INFORMATION* lpTimeZoneInformation) {
  if (lpTimeZoneInformation == nullptr) {
    KLOG(2, "KORVA Assert");
    return 0;
  }
  CKORVATime korva_time;
  korva_time.GetDateTimeSettings();
  std::string zone = korva_time.GetTimeZone();
  long seconds = korva_time.GetTzInSeconds();
  memset(lpTimeZoneInformation, 0, sizeof *lpTimeZoneInformation);
  lpTimeZoneInformation->Bias = seconds / 60;
  snprintf(lpTimeZoneInformation->StandardName, sizeof lpTimeZoneInformation->StandardName, "%s",
           zone.c_str());
  lpTimeZoneInformation->DaylightBias = korva_time.DSTBias;
  return 0;
}
