// Tick counters, the present time as a FILETIME, the Win32 time records and
// their conversions.
#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "WinApiTime.h"
#include "support.h"

using testsupport::Log;
using testsupport::ScopedSys;

namespace {

struct timespec g_clock_now;
clockid_t g_clock_id;

int fake_clock(clockid_t id, struct timespec* tp) {
  g_clock_id = id;
  *tp = g_clock_now;
  return 0;
}

struct FakeClock : ScopedSys<decltype(commonl::sys.clock_gettime)> {
  FakeClock() : ScopedSys(commonl::sys.clock_gettime, fake_clock) {}
  void set(uint64_t ns) {
    g_clock_now.tv_sec = static_cast<time_t>(ns / 1000000000u);
    g_clock_now.tv_nsec = static_cast<long>(ns % 1000000000u);
  }
};

FILETIME ft_of(uint64_t count) {
  FILETIME ft;
  commonl::filetime_store(&ft, count);
  return ft;
}

uint64_t count_of(const FILETIME& ft) { return commonl::filetime_count(&ft); }

SYSTEMTIME st_of(uint16_t year, uint16_t month, uint16_t day, uint16_t hour = 0,
                 uint16_t minute = 0, uint16_t second = 0, uint16_t ms = 0) {
  return {year, month, 0, day, hour, minute, second, ms};
}

uint64_t count_of(const SYSTEMTIME& st) {
  FILETIME ft = ft_of(0xdeadbeefdeadbeefull);
  EXPECT_EQ(SystemTimeToFileTime(&st, &ft), 1);
  return count_of(ft);
}

// "year-month-day (day of week) hour:minute:second.ms"
std::string text(const SYSTEMTIME& st) {
  char out[64];
  snprintf(out, sizeof out, "%d-%d-%d (%d) %d:%d:%d.%d", st.wYear, st.wMonth, st.wDay,
           st.wDayOfWeek, st.wHour, st.wMinute, st.wSecond, st.wMilliseconds);
  return out;
}

const uint64_t kSecond = 10000000;
const uint64_t kDay = 86400 * kSecond;
const uint64_t kHour = 3600 * kSecond;

// Selects a zone for the process through TZ for the life of the object.
class Zone {
 public:
  explicit Zone(const char* tz) : had_(getenv("TZ") != nullptr), saved_(had_ ? getenv("TZ") : "") {
    setenv("TZ", tz, 1);
    tzset();
  }
  ~Zone() {
    had_ ? setenv("TZ", saved_.c_str(), 1) : unsetenv("TZ");
    tzset();
  }

 private:
  bool had_;
  std::string saved_;
};

const char* const kOneHourEast = "<+01>-1";
const char* const kCentralEurope = "CET-1CEST,M3.5.0,M10.5.0/3";

}  // namespace

// --- tick counts ---

// The first reading of the process: ctest runs every case in a process of
// its own, and this case comes first in the file.
TEST(TickCounts, FirstReadingIsZeroTheBaseIsSharedAndGetTickCountWraps) {
  FakeClock clock;
  const uint64_t base = 5000000000000ull, wrap_ns = 4294967296ull * 1000000u;
  clock.set(base);
  EXPECT_EQ(GetTickCount(), 0u);
  EXPECT_EQ(g_clock_id, CLOCK_MONOTONIC);
  clock.set(base + 1999999);
  EXPECT_EQ(getTimestampNanosecs(), 1999999u);
  EXPECT_EQ(GetTickCount(), 1u);  // truncated, not rounded
  EXPECT_EQ(GetTickCount64(), 1u);
  clock.set(base + wrap_ns - 1);
  EXPECT_EQ(GetTickCount(), 4294967295u);
  EXPECT_EQ(GetTickCount64(), 4294967295u);
  clock.set(base + wrap_ns + 5000000);
  EXPECT_EQ(GetTickCount(), 5u);
  EXPECT_EQ(GetTickCount64(), 4294967301u);
}

TEST(TimeGetTime, BootClockInMillisecondsModulo2To32) {
  FakeClock clock;
  g_clock_now = {1, 2345678};
  EXPECT_EQ(timeGetTime(), 1002u);
  EXPECT_EQ(g_clock_id, CLOCK_BOOTTIME);
  g_clock_now = {4294967, 295999999};
  EXPECT_EQ(timeGetTime(), 4294967295u);
  g_clock_now = {4294967, 296000000};
  EXPECT_EQ(timeGetTime(), 0u);
  g_clock_now = {(1L << 32) + 5, 0};  // only the low 32 bits of the seconds count
  EXPECT_EQ(timeGetTime(), 5000u);
}

TEST(GetMillis, MillisecondOfTheMicrosecondsOnly) {
  struct timeval samples[] = {{12345, 999999}, {0, 999999}, {77, 999}, {77, 1000}, {77, 1000000}};
  int expected[] = {999, 999, 0, 1, 0};
  for (int i = 0; i < 5; i++) EXPECT_EQ(GetMillis(&samples[i]), expected[i]) << i;
}

TEST(GetSystemTimeAsFileTime, WholeSecondsOnTheFileTimeScale) {
  {
    ScopedSys<decltype(commonl::sys.time)> fake(commonl::sys.time,
                                                [](time_t*) -> time_t { return 1; });
    FILETIME ft = ft_of(0);
    GetSystemTimeAsFileTime(&ft);
    EXPECT_EQ(count_of(ft), 116444736010000000u);
    FILETIME again = ft_of(0);
    GetSystemTimeAsFileTime(&again);
    EXPECT_EQ(count_of(again), count_of(ft));
  }
  time_t before = time(nullptr);
  FILETIME ft;
  GetSystemTimeAsFileTime(&ft);
  time_t after = time(nullptr);
  uint64_t count = count_of(ft);
  EXPECT_EQ(count % kSecond, 0u);
  EXPECT_GE(count, UNIX_EPOCH_FILETIME + static_cast<uint64_t>(before) * kSecond);
  EXPECT_LE(count, UNIX_EPOCH_FILETIME + static_cast<uint64_t>(after) * kSecond);
}

// --- records ---

TEST(FileTime, CountIsOneLittleEndian64BitValueOverTheWin32Halves) {
  FILETIME ft = ft_of(0x0123456789abcdefull);
  EXPECT_EQ(ft.dwLowDateTime, 0x89abcdefu);
  EXPECT_EQ(ft.dwHighDateTime, 0x01234567u);
  LARGE_INTEGER li;
  li.QuadPart = -2;
  EXPECT_EQ(li.LowPart, 0xfffffffeu);
  EXPECT_EQ(li.u.HighPart, -1);
}

TEST(SystemTimeToFileTime, KnownCountsOnBothPathsAndAtTheirSeam) {
  EXPECT_EQ(count_of(st_of(1601, 1, 1)), 0u);
  EXPECT_EQ(count_of(st_of(1600, 12, 31, 23, 59, 59, 999)), 0 - uint64_t{10000});
  EXPECT_EQ(count_of(st_of(1850, 6, 15, 12, 34, 56, 789)), 78719492967890000u);
  EXPECT_EQ(count_of(st_of(1899, 12, 31, 23, 59, 59, 999)), 94354847999990000u);
  EXPECT_EQ(count_of(st_of(1900, 1, 1)), 94354848000000000u);
  EXPECT_EQ(count_of(st_of(1900, 1, 2)), EARLY_FILETIME_LIMIT);
  EXPECT_EQ(count_of(st_of(1955, 3, 4, 5, 6, 7, 8)), 111764631670080000u);
  EXPECT_EQ(count_of(st_of(1970, 1, 1)), UNIX_EPOCH_FILETIME);
  EXPECT_EQ(count_of(st_of(2000, 1, 1, 0, 0, 0, 500)), 125911584005000000u);
  EXPECT_EQ(count_of(st_of(2021, 6, 15, 12, 34, 56, 789)), 132682340967890000u);
  // The two paths meet without a gap.
  EXPECT_EQ(count_of(st_of(1900, 1, 1)) - count_of(st_of(1899, 12, 31, 23, 59, 59, 999)), 10000u);
}

TEST(SystemTimeToFileTime, EveryFieldCountsWithItsUnitOnBothPaths) {
  const struct {
    uint16_t SYSTEMTIME::*field;
    uint64_t unit;
  } fields[] = {{&SYSTEMTIME::wYear, 365 * kDay},
                {&SYSTEMTIME::wMonth, 30 * kDay},
                {&SYSTEMTIME::wDay, kDay},
                {&SYSTEMTIME::wHour, kHour},
                {&SYSTEMTIME::wMinute, 60 * kSecond},
                {&SYSTEMTIME::wSecond, kSecond},
                {&SYSTEMTIME::wMilliseconds, 10000},
                {&SYSTEMTIME::wDayOfWeek, 0}};
  for (uint16_t year : {1850, 2021}) {
    const SYSTEMTIME base = st_of(year, 6, 15, 12, 34, 56, 789);
    for (const auto& f : fields) {
      SYSTEMTIME st = base;
      st.*f.field = static_cast<uint16_t>(st.*f.field + 1);
      EXPECT_EQ(count_of(st) - count_of(base), f.unit) << text(st);
    }
  }
}

TEST(SystemTimeToFileTime, LeapYearsOnTheGregorianRules) {
  auto february_gap = [](int year) {
    return (count_of(st_of(year, 3, 1)) - count_of(st_of(year, 2, 28))) / kDay;
  };
  EXPECT_EQ(february_gap(1600), 2u);
  EXPECT_EQ(february_gap(1800), 1u);
  EXPECT_EQ(february_gap(1896), 2u);
  EXPECT_EQ(february_gap(1900), 1u);
  EXPECT_EQ(february_gap(2000), 2u);
  EXPECT_EQ(february_gap(2021), 1u);
}

TEST(SystemTimeToFileTime, FieldsOutOfRangeNormaliseOnBothPaths) {
  EXPECT_EQ(count_of(st_of(2021, 13, 1)), count_of(st_of(2022, 1, 1)));
  EXPECT_EQ(count_of(st_of(2021, 13, 1)), 132854688000000000u);
  // Below 1900 a month outside 1 to 12 moves into the neighbouring years.
  EXPECT_EQ(count_of(st_of(1899, 13, 1)), 94354848000000000u);
  EXPECT_EQ(count_of(st_of(1800, 0, 1)), 62771328000000000u);   // 1799-12-01
  EXPECT_EQ(count_of(st_of(1800, 13, 1)), 63113472000000000u);  // 1801-01-01
  EXPECT_EQ(count_of(st_of(1000, 65535, 1)), count_of(st_of(6461, 3, 1)));
  EXPECT_EQ(count_of(st_of(1850, 1, 32)), count_of(st_of(1850, 2, 1)));
  EXPECT_EQ(count_of(st_of(1850, 1, 1, 24)), count_of(st_of(1850, 1, 2)));
  EXPECT_EQ(count_of(st_of(1850, 1, 0)), count_of(st_of(1849, 12, 31)));
}

TEST(FileTimeToEpoch, SecondsAndTruncatedMillisecondsAndTheWrapBeforeTheEpoch) {
  int ms = -1;
  EXPECT_EQ(FileTimeToEpoch(ft_of(UNIX_EPOCH_FILETIME + 12345678), ms), 1u);
  EXPECT_EQ(ms, 234);
  EXPECT_EQ(FileTimeToEpoch(ft_of(132682340967899999u), ms), 1623760496u);
  EXPECT_EQ(ms, 789);
  EXPECT_EQ(FileTimeToEpoch(ft_of(0), ms), 1833029933770u);
  EXPECT_EQ(ms, 0);
  EXPECT_EQ(FileTimeToEpoch(ft_of(UNIX_EPOCH_FILETIME - 1), ms), 1844674407370u);
  EXPECT_EQ(ms, 999);

  FILETIME ft;
  MillisecondsToFileTime(1623760496789ul, &ft);
  EXPECT_EQ(count_of(ft), 132682340967890000u);
}

TEST(FileTimeToSystemTime, BreaksDownInUtcWithTruncatedMilliseconds) {
  SYSTEMTIME st;
  FILETIME ft = ft_of(UNIX_EPOCH_FILETIME);
  EXPECT_EQ(FileTimeToSystemTime(&ft, &st), 1);
  EXPECT_EQ(text(st), "1970-1-1 (4) 0:0:0.0");
  ft = ft_of(132682340967899999u);
  FileTimeToSystemTime(&ft, &st);
  EXPECT_EQ(text(st), "2021-6-15 (2) 12:34:56.789");
  // Before the epoch the seconds wrap: dates in the years 60056 to 60425.
  ft = ft_of(0);
  FileTimeToSystemTime(&ft, &st);
  EXPECT_EQ(text(st), "60056-5-28 (0) 5:36:10.0");
  ft = ft_of(UNIX_EPOCH_FILETIME - 1);
  FileTimeToSystemTime(&ft, &st);
  EXPECT_EQ(text(st), "60425-5-28 (3) 5:36:10.999");
}

TEST(FillRecords, FieldByFieldBothWays) {
  static char zone_name[] = "XYZ";
  struct tm tm;
  memset(&tm, 0, sizeof tm);
  tm.tm_year = 121, tm.tm_mon = 5, tm.tm_wday = 2, tm.tm_mday = 15;
  tm.tm_hour = 12, tm.tm_min = 34, tm.tm_sec = 60;
  SYSTEMTIME st;
  fillSystemTimeWithLinuxTm(&st, &tm, 789);
  EXPECT_EQ(text(st), "2021-6-15 (2) 12:34:60.789");
  tm.tm_year = 64000;  // 65900 does not fit in 16 bits
  fillSystemTimeWithLinuxTm(&st, &tm, 0);
  EXPECT_EQ(st.wYear, 364);

  tm.tm_yday = 123, tm.tm_isdst = 1, tm.tm_gmtoff = 3600, tm.tm_zone = zone_name;
  st = st_of(1899, 12, 31, 23, 58, 57, 999);
  st.wDayOfWeek = 4;
  fillLinuxTmWithWinSystemTime(&tm, &st);
  char out[64];
  strftime(out, sizeof out, "%Y-%m-%d %w %H:%M:%S", &tm);
  EXPECT_STREQ(out, "1899-12-31 4 23:58:57");
  // Left as they were:
  EXPECT_EQ(tm.tm_yday, 123);
  EXPECT_EQ(tm.tm_isdst, 1);
  EXPECT_EQ(tm.tm_gmtoff, 3600);
  EXPECT_EQ(tm.tm_zone, zone_name);
}

// --- GetLocalTime and GetSystemTime ---

namespace {

struct timeval g_wall_clock;
int g_wall_clock_result;
int g_wall_clock_errno;

int fake_gettimeofday(struct timeval* tv, void* tz) {
  EXPECT_EQ(tz, nullptr);
  *tv = g_wall_clock;
  errno = g_wall_clock_errno;
  return g_wall_clock_result;
}

struct FakeWallClock : ScopedSys<decltype(commonl::sys.gettimeofday)> {
  FakeWallClock(time_t seconds, long microseconds, int result = 0, int error = 0)
      : ScopedSys(commonl::sys.gettimeofday, fake_gettimeofday) {
    g_wall_clock = {seconds, microseconds};
    g_wall_clock_result = result;
    g_wall_clock_errno = error;
  }
};

std::string with_tid(const char* format) {
  char out[256];
  snprintf(out, sizeof out, format, static_cast<unsigned int>(pthread_self()));
  return out;
}

}  // namespace

TEST(GetSystemTime, UtcFieldsWithTheMillisecondOfTheMicroseconds) {
  Zone zone(kOneHourEast);
  FakeWallClock clock(1700000000, 123999);
  SYSTEMTIME st;
  GetSystemTime(&st);
  EXPECT_EQ(text(st), "2023-11-14 (2) 22:13:20.123");
  GetLocalTime(&st);
  EXPECT_EQ(text(st), "2023-11-14 (2) 23:13:20.123");
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
}

TEST(GetSystemTime, FailuresAreLoggedAtLevel3AndLeaveTheRecord) {
  SYSTEMTIME st = st_of(1, 2, 3, 4, 5, 6, 7);
  {
    FakeWallClock clock(0, 0, -1, EINVAL);
    GetLocalTime(&st);
    GetSystemTime(&st);
  }
  {
    FakeWallClock clock(0, 0, 5);
    GetLocalTime(&st);
    GetSystemTime(&st);
  }
  {
    FakeWallClock clock(LONG_MAX, 0);  // no year can hold it
    GetLocalTime(&st);
    GetSystemTime(&st);
  }
  EXPECT_EQ(text(st), "1-2-3 (0) 4:5:6.7");
  auto lines = Log::lines();
  ASSERT_EQ(lines.size(), 6u) << Log::dump();
  const char* expected[] = {
      "[tid=0x%x] GetLocalTime: gettimeofday failed with error [22, Invalid argument]",
      "[tid=0x%x] GetSystemTime: gettimeofday failed with error [22, Invalid argument]",
      "[tid=0x%x] GetLocalTime: gettimeofday failed with ret = 5",
      "[tid=0x%x] GetSystemTime: gettimeofday failed with ret = 5",
      "[tid=0x%x] GetLocalTime: Failed, returned NULL == localtime_r() ",
      "[tid=0x%x] GetSystemTime: Failed, returned NULL == gmtime_r() ",
  };
  for (size_t i = 0; i < 6; i++) {
    EXPECT_EQ(lines[i].level, 3);
    EXPECT_EQ(lines[i].text, with_tid(expected[i]));
    EXPECT_EQ(lines[i].file, "../CommonL/WinApiTime");
    EXPECT_EQ(lines[i].function, i % 2 == 0 ? "GetLocalTime" : "GetSystemTime");
  }
}

// --- local conversions ---

namespace {
uint64_t to_local(uint64_t count) {
  FILETIME in = ft_of(count), out = ft_of(0);
  EXPECT_EQ(FileTimeToLocalFileTime(&in, &out), 1);
  return count_of(out);
}

uint64_t to_utc(uint64_t count) {
  FILETIME in = ft_of(count), out = ft_of(0);
  EXPECT_EQ(LocalFileTimeToFileTime(&in, &out), 1);
  return count_of(out);
}
}  // namespace

TEST(LocalFileTime, OneHourEastOnBothSidesOfTheEarlyLimit) {
  Zone zone(kOneHourEast);
  // Above the limit: shifted, the digits below the millisecond dropped.
  EXPECT_EQ(to_local(125911584005009999u), 125911620005000000u);
  EXPECT_EQ(to_utc(125911620005009999u), 125911584005000000u);
  // Up to the limit: the offset of the Unix epoch, every digit kept.
  EXPECT_EQ(to_local(EARLY_FILETIME_LIMIT), 94355748000000000u);
  EXPECT_EQ(to_local(94355711999999999u), 94355747999999999u);
  EXPECT_EQ(to_utc(EARLY_FILETIME_LIMIT), 94355676000000000u);
  EXPECT_EQ(to_utc(94355711999999999u), 94355675999999999u);
  EXPECT_EQ(to_local(0), kHour);
  EXPECT_EQ(to_utc(0), 0 - kHour);
}

TEST(LocalFileTime, CountsBetweenTheLimitAndTheEpochWrapAndAreOffBy2To64Mod10To7) {
  Zone zone(kOneHourEast);
  EXPECT_EQ(to_local(EARLY_FILETIME_LIMIT + 1), EARLY_FILETIME_LIMIT + kHour - 9551616);
  EXPECT_EQ(to_utc(EARLY_FILETIME_LIMIT + 1), EARLY_FILETIME_LIMIT - kHour - 9551616);
  const uint64_t before_epoch = UNIX_EPOCH_FILETIME - kSecond;
  EXPECT_EQ(to_local(before_epoch), before_epoch + kHour - 9551616);
  EXPECT_EQ(to_utc(before_epoch), before_epoch - kHour - 9551616);
  // Past 0.0448384 s into a second the carry turns the error round.
  EXPECT_EQ(to_local(before_epoch + 5009999), before_epoch + 5009999 + kHour + 448384 - 9999);
}

TEST(LocalFileTime, DaylightSavingAboveTheLimitOnlyTheEpochOffsetBelowIt) {
  Zone zone(kCentralEurope);
  const uint64_t summer_utc = 132696072000000000u;  // 2021-07-01 10:00 UTC
  EXPECT_EQ(to_local(summer_utc), summer_utc + 2 * kHour);
  EXPECT_EQ(to_utc(summer_utc + 2 * kHour), summer_utc);
  const uint64_t winter_utc = count_of(st_of(2021, 1, 15, 12));
  EXPECT_EQ(to_local(winter_utc), winter_utc + kHour);
  EXPECT_EQ(to_utc(winter_utc + kHour), winter_utc);
  const uint64_t early_summer = 78733296000000000u;  // 1850-07-01 12:00
  EXPECT_EQ(to_utc(early_summer), early_summer - kHour);
  EXPECT_EQ(to_local(early_summer), early_summer + kHour);
}

TEST(LocalEpoch, DaylightSavingRuleOfTheInstant) {
  Zone zone(kCentralEurope);
  const long summer = 1625133600;  // 2021-07-01 10:00 UTC
  EXPECT_EQ(UtcEpochToLocalEpoch(summer), summer + 7200);
  EXPECT_EQ(LocalEpochToUtcEpoch(summer + 7200), summer);
  const long winter = 1610712000;  // 2021-01-15 12:00 UTC
  EXPECT_EQ(UtcEpochToLocalEpoch(winter), winter + 3600);
  EXPECT_EQ(LocalEpochToUtcEpoch(winter + 3600), winter);
  Zone utc("UTC0");
  EXPECT_EQ(UtcEpochToLocalEpoch(summer), summer);
  EXPECT_EQ(LocalEpochToUtcEpoch(summer), summer);
}

// --- time zone information ---

namespace {

time_t g_fixed_now;

struct FixedTime : ScopedSys<decltype(commonl::sys.time)> {
  explicit FixedTime(time_t now)
      : ScopedSys(commonl::sys.time, [](time_t*) { return g_fixed_now; }) {
    g_fixed_now = now;
  }
};

// Every byte set, so that a field the call leaves alone shows.
TIME_ZONE_INFORMATION filled_record() {
  TIME_ZONE_INFORMATION info;
  memset(&info, 0xab, sizeof info);
  return info;
}

void expect_cleared_but_bias_name_and_daylight_bias(const TIME_ZONE_INFORMATION& info) {
  const TIME_ZONE_INFORMATION zero = {};
  EXPECT_EQ(memcmp(&info.StandardDate, &zero.StandardDate, sizeof zero.StandardDate), 0);
  EXPECT_EQ(info.StandardBias, 0);
  EXPECT_EQ(memcmp(info.DaylightName, zero.DaylightName, sizeof zero.DaylightName), 0);
  EXPECT_EQ(memcmp(&info.DaylightDate, &zero.DaylightDate, sizeof zero.DaylightDate), 0);
  size_t name_length = strlen(info.StandardName);
  for (size_t i = name_length; i < sizeof info.StandardName; i++)
    EXPECT_EQ(info.StandardName[i], 0) << i;
}

}  // namespace

TEST(GetTimeZoneInformation, Win32FieldOrderWith64BitLongs) {
  EXPECT_EQ(offsetof(TIME_ZONE_INFORMATION, Bias), 0u);
  EXPECT_EQ(offsetof(TIME_ZONE_INFORMATION, StandardName), 8u);
  EXPECT_EQ(offsetof(TIME_ZONE_INFORMATION, StandardDate), 40u);
  EXPECT_EQ(offsetof(TIME_ZONE_INFORMATION, StandardBias), 56u);
  EXPECT_EQ(offsetof(TIME_ZONE_INFORMATION, DaylightName), 64u);
  EXPECT_EQ(offsetof(TIME_ZONE_INFORMATION, DaylightDate), 96u);
  EXPECT_EQ(offsetof(TIME_ZONE_INFORMATION, DaylightBias), 112u);
  EXPECT_EQ(sizeof(TIME_ZONE_INFORMATION), 120u);
}

TEST(GetTimeZoneInformation, BiasStaysInSummerDaylightBiasShowsIt) {
  Zone zone("America/New_York");
  const struct {
    time_t now;
    long daylight_bias;
  } moments[] = {{1798265547, 0},     // 2026-12-26 06:12:27 UTC
                 {1782907200, -60}};  // 2026-07-01 12:00:00 UTC
  for (const auto& moment : moments) {
    FixedTime clock(moment.now);
    TIME_ZONE_INFORMATION info = filled_record();
    EXPECT_EQ(GetTimeZoneInformation(&info), 0u);
    EXPECT_EQ(info.Bias, 300);
    EXPECT_STREQ(info.StandardName, "CST+5:00:00");
    EXPECT_EQ(info.DaylightBias, moment.daylight_bias);
    expect_cleared_but_bias_name_and_daylight_bias(info);
  }
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
}

TEST(GetTimeZoneInformation, HalfHourEastAndTheZoneOfOffsetZero) {
  FixedTime clock(1782907200);
  TIME_ZONE_INFORMATION info = filled_record();
  {
    Zone zone("Asia/Kolkata");
    EXPECT_EQ(GetTimeZoneInformation(&info), 0u);
    EXPECT_EQ(info.Bias, -330);
    EXPECT_STREQ(info.StandardName, "CST-5:30:00");
    EXPECT_EQ(info.DaylightBias, 0);
  }
  Zone zone("UTC");
  info = filled_record();
  EXPECT_EQ(GetTimeZoneInformation(&info), 0u);
  EXPECT_EQ(info.Bias, 0);
  EXPECT_STREQ(info.StandardName, "CST+0:00:00");
  expect_cleared_but_bias_name_and_daylight_bias(info);
}

TEST(GetTimeZoneInformation, AZoneWithoutARowGivesAnEmptyRecordAndTheLog) {
  Zone zone("Pacific/Kiritimati");
  TIME_ZONE_INFORMATION info = filled_record();
  EXPECT_EQ(GetTimeZoneInformation(&info), 0u);
  EXPECT_EQ(info.Bias, 0);
  EXPECT_STREQ(info.StandardName, "");
  EXPECT_EQ(info.DaylightBias, 0);
  expect_cleared_but_bias_name_and_daylight_bias(info);
  const char* no_match = "CKORVATime::GetTimeZone(): mo match for timezone -50400";
  auto lines = Log::lines();
  ASSERT_EQ(lines.size(), 4u) << Log::dump();
  const std::pair<int, const char*> expected[] = {{4, "LinuxTimezoneToKorvaID"},
                                                  {3, "GetDateTimeSettings"},
                                                  {4, "GetTimeZone"},
                                                  {4, "LinuxTimezoneToKorvaID"}};
  for (size_t i = 0; i < 4; i++) {
    EXPECT_EQ(lines[i].level, expected[i].first);
    EXPECT_EQ(lines[i].function, expected[i].second);
    EXPECT_EQ(lines[i].text, i == 1 ? "Invalid timezone" : no_match);
  }

  Log::clear();
  EXPECT_EQ(GetTimeZoneInformation(nullptr), 0u);
  ASSERT_EQ(Log::lines().size(), 1u);
  EXPECT_EQ(Log::lines()[0].text, "KORVA Assert");
  EXPECT_EQ(Log::lines()[0].level, 2);
}
