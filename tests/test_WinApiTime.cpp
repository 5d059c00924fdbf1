// Tick counters, the present time as a FILETIME, the Win32 time records and
// their conversions.
#include <errno.h>

#include <map>

#include "support.h"

using namespace testsupport;

namespace {

const uint64_t kSecond = 10000000, kHour = 3600 * kSecond, kDay = 24 * kHour;

uint64_t count_of(const FILETIME& ft) { return commonl::filetime_count(&ft); }
FILETIME ft_of(uint64_t count) {
  FILETIME ft;
  return commonl::filetime_store(&ft, count), ft;
}

// "year-month-day hour:minute:second.ms", the fields left out 0; and its count.
SYSTEMTIME st_of(const std::string& text) {
  SYSTEMTIME st = {};
  sscanf(text.c_str(), "%hu-%hu-%hu %hu:%hu:%hu.%hu", &st.wYear, &st.wMonth, &st.wDay, &st.wHour,
         &st.wMinute, &st.wSecond, &st.wMilliseconds);
  return st;
}
uint64_t count_of(const SYSTEMTIME& st) {
  FILETIME ft = ft_of(0xdeadbeefdeadbeefull);
  return SystemTimeToFileTime(&st, &ft) == 1 ? count_of(ft) : 1;
}
uint64_t count_of(const std::string& text) { return count_of(st_of(text)); }

// "year-month-day (day of week) hour:minute:second.ms"
std::string text(const SYSTEMTIME& st) {
  char out[64];
  snprintf(out, sizeof out, "%d-%d-%d (%d) %d:%d:%d.%d", st.wYear, st.wMonth, st.wDay,
           st.wDayOfWeek, st.wHour, st.wMinute, st.wSecond, st.wMilliseconds);
  return out;
}

// What the library's clocks answer while a Clocks object lives.
std::map<clockid_t, struct timespec> g_clocks;  // a clock not set reads 0
struct timeval g_wall_clock;                    // gettimeofday, with this result and errno
int g_wall_result, g_wall_errno;
time_t g_now;
struct Clocks {
  SEAM(clock_gettime, [](clockid_t id, struct timespec* tp) { return *tp = g_clocks[id], 0; });
  SEAM(gettimeofday, [](struct timeval* tv, void* tz) {
    return *tv = g_wall_clock, errno = g_wall_errno, tz ? 99 : g_wall_result;
  });
  SEAM(time, [](time_t*) { return g_now; });
};

const char *const kEast = "<+01>-1", *const kCet = "CET-1CEST,M3.5.0,M10.5.0/3";

}  // namespace

// The first reading of the process: ctest runs every case in a process of
// its own, and this case comes first in the file.
TEST(Clocks, TickCountsFromTheFirstReadingBootMillisecondsAndWholeSecondsOfTheWallClock) {
  Clocks clocks;
  const uint64_t base = 5000000000000ull, wrap = 4294967296ull * 1000000u;
  g_clocks[CLOCK_MONOTONIC] = {5000, 0};
  EXPECT_EQ(GetTickCount(), 0u);
  // Nanoseconds since the base; milliseconds truncated; GetTickCount the low 32 bits.
  for (const auto& [ns, ms] : {std::pair{1999999ull, 1ull}, {wrap + 5000000, 4294967301ull}}) {
    g_clocks[CLOCK_MONOTONIC] = {time_t((base + ns) / 1000000000), long((base + ns) % 1000000000)};
    EXPECT_TRUE(getTimestampNanosecs() == ns && GetTickCount64() == ms);
    EXPECT_EQ(GetTickCount(), DWORD(ms));
  }
  // The boot clock in 32 bits: milliseconds truncated, seconds and sum wrapped.
  for (const auto& [now, ms] : {std::pair{timespec{1, 2345678}, 1002u}, {{4294967, 296000000}, 0u},
                                {{(1L << 32) + 5, 0}, 5000u}})
    EXPECT_EQ((g_clocks[CLOCK_BOOTTIME] = now, timeGetTime()), ms);
  for (const auto& [tv, ms] : {std::pair{timeval{12345, 999999}, 999}, {{77, 1000000}, 0}})
    EXPECT_EQ(GetMillis(&tv), ms) << tv.tv_usec;
  FILETIME ft;
  GetSystemTimeAsFileTime((g_now = 1, &ft));
  EXPECT_EQ(count_of(ft), 116444736010000000u);
}

TEST(SystemTimeToFileTime, KnownCountsUnitsLeapYearsAndNormalisationOnBothPaths) {
  // Before 1900 the count is worked out directly, then timegm; the paths meet
  // without a gap. A month outside 1 to 12 moves into the neighbouring years.
  const std::pair<const char*, uint64_t> known[] = {
      {"1601-1-1", 0}, {"1600-12-31 23:59:59.999", 0 - uint64_t{10000}},
      {"1800-0-1", 62771328000000000u}, {"1800-13-1", 63113472000000000u},
      {"1899-12-31 23:59:59.999", 94354847999990000u}, {"1900-1-1", 94354848000000000u},
      {"1900-1-2", EARLY_FILETIME_LIMIT}, {"1970-1-1", UNIX_EPOCH_FILETIME},
      {"2021-6-15 12:34:56.789", 132682340967890000u}, {"2021-13-1", 132854688000000000u},
      {"1000-65535-1", count_of("6461-3-1")}, {"1850-1-0", count_of("1849-12-31")}};
  for (const auto& [time, count] : known) EXPECT_EQ(count_of(time), count) << time;
  // Each field counts with its unit; the day of the week doesn't count.
  using S = SYSTEMTIME;
  const std::pair<uint16_t S::*, uint64_t> units[] = {
      {&S::wYear, 365 * kDay}, {&S::wMonth, 30 * kDay}, {&S::wDay, kDay}, {&S::wHour, kHour},
      {&S::wMinute, 60 * kSecond}, {&S::wSecond, kSecond}, {&S::wMilliseconds, 10000},
      {&S::wDayOfWeek, 0}};
  for (const char* base : {"1850-6-15 12:34:56.789", "2021-6-15 12:34:56.789"})
    for (const auto& [field, unit] : units) {
      SYSTEMTIME st = st_of(base);
      st.*field = static_cast<uint16_t>(st.*field + 1);
      EXPECT_EQ(count_of(st) - count_of(base), unit) << text(st);
    }
  // Both paths count every month alike: 1899 to 1901 is two common years; and
  // the days from February 28 to March 1 on the Gregorian rules.
  for (int month = 1; month <= 12; month++) {
    const std::string m = "-" + std::to_string(month) + "-1";
    EXPECT_EQ(count_of("1901" + m) - count_of("1899" + m), 730 * kDay) << month;
  }
  for (const auto& [year, days] : {std::pair{std::string("1600"), 2}, {"1800", 1}, {"1896", 2}})
    EXPECT_EQ(count_of(year + "-3-1") - count_of(year + "-2-28"), days * kDay);
}

TEST(FileTime, EpochSecondsAndRecordsTruncatedAndWrappedBeforeTheEpochAndFieldByFieldFills) {
  // Before the epoch the seconds wrap: dates in the years 60056 to 60425.
  const std::tuple<uint64_t, uint64_t, int, const char*> rows[] = {
      {UNIX_EPOCH_FILETIME + 12345678, 1, 234, "1970-1-1 (4) 0:0:1.234"},
      {132682340967899999u, 1623760496u, 789, "2021-6-15 (2) 12:34:56.789"},
      {0, 1833029933770u, 0, "60056-5-28 (0) 5:36:10.0"},
      {UNIX_EPOCH_FILETIME - 1, 1844674407370u, 999, "60425-5-28 (3) 5:36:10.999"}};
  for (const auto& [count, seconds, milliseconds, record] : rows) {
    FILETIME ft = ft_of(count);
    int ms = -1;
    SYSTEMTIME st;
    EXPECT_TRUE(FileTimeToEpoch(ft, ms) == seconds && ms == milliseconds) << count;
    EXPECT_TRUE(FileTimeToSystemTime(&ft, &st) == 1 && text(st) == record) << text(st);
  }
  FILETIME ft;
  MillisecondsToFileTime(1623760496789ul, &ft);
  EXPECT_EQ(count_of(ft), 132682340967890000u);
  static char zone_name[] = "XYZ";
  struct tm tm = {60, 34, 12, 15, 5, 121, 2, 123, 1, 3600, zone_name};
  SYSTEMTIME st;
  fillSystemTimeWithLinuxTm(&st, &tm, 789);
  EXPECT_EQ(text(st), "2021-6-15 (2) 12:34:60.789");
  st = st_of("1899-12-31 23:58:57.999");
  st.wDayOfWeek = 4;
  fillLinuxTmWithWinSystemTime(&tm, &st);  // the fields a SYSTEMTIME doesn't have stay
  EXPECT_EQ(std::make_tuple(tm.tm_sec, tm.tm_min, tm.tm_hour, tm.tm_mday, tm.tm_mon, tm.tm_year,
                            tm.tm_wday, tm.tm_yday, tm.tm_isdst, tm.tm_gmtoff, tm.tm_zone),
            std::make_tuple(57, 58, 23, 31, 11, -1, 4, 123, 1, 3600L, zone_name));
}

TEST(GetLocalTimeAndGetSystemTime, TheMillisecondOfTheMicrosecondsAndFailuresLeaveTheRecord) {
  zone(kEast);
  Clocks clocks;
  g_wall_clock = {1700000000, 1123999};  // the milliseconds are taken modulo 1000
  SYSTEMTIME utc, local;
  const std::string now = "2023-11-14 (2) 22:13:20.123 2023-11-14 (2) 23:13:20.123";
  GetSystemTime(&utc), GetLocalTime(&local);
  EXPECT_EQ(text(utc) + " " + text(local), now);
  // A failed call, an odd result and a time no year can hold.
  for (const auto& [seconds, result, error] :
       {std::tuple{0L, -1, EINVAL}, {0L, 5, 0}, {LONG_MAX, 0, 0}}) {
    g_wall_clock = {seconds, 0}, g_wall_result = result, g_wall_errno = error;
    GetLocalTime(&local), GetSystemTime(&utc);
  }
  EXPECT_EQ(text(utc) + " " + text(local), now);
  char tid[32];
  snprintf(tid, sizeof tid, "[tid=0x%x] ", static_cast<unsigned int>(pthread_self()));
  const std::string l = std::string("3 GetLocalTime: ") + tid + "GetLocalTime: ",
                    s = std::string("3 GetSystemTime: ") + tid + "GetSystemTime: ",
                    error = "gettimeofday failed with error [22, Invalid argument]|",
                    ret = "gettimeofday failed with ret = 5|";
  EXPECT_EQ(Log::said(), l + error + s + error + l + ret + s + ret + l + "Failed, returned NULL == "
                             "localtime_r() |" + s + "Failed, returned NULL == gmtime_r() |");
}

// Above the early limit a count shifts by the offset of its moment and loses
// the digits below the millisecond; up to the limit it shifts by the offset
// of the Unix epoch and keeps every digit; between the limit and the epoch
// it wraps and is off by 2^64 mod 10^7. An epoch shifts by its moment's rule.
TEST(LocalTime, FileTimesOnBothSidesOfTheEarlyLimitAndEpochsWithDaylightSaving) {
  const uint64_t limit = EARLY_FILETIME_LIMIT, off = 9551616, pre = UNIX_EPOCH_FILETIME - kSecond;
  // 2021-07-01 10:00, 2021-01-15 12:00, 1850-07-01 12:00 UTC; past 0.0448384 s the carry turns.
  const uint64_t summer = 132696072000000000u, winter = 132551856000000000u,
                 old = 78733296000000000u, carry = pre + 5009999, carried = carry + 448384 - 9999;
  // A count, and what it gives as UTC to FileTimeToLocalFileTime and as local time back.
  const std::tuple<const char*, uint64_t, uint64_t, uint64_t> rows[] = {
      {kEast, 125911584005009999u, 125911620005000000u, 125911548005000000u},
      {kEast, limit, 94355748000000000u, 94355676000000000u},
      {kEast, 94355711999999999u, 94355747999999999u, 94355675999999999u},
      {kEast, 0, kHour, 0 - kHour}, {kEast, limit + 1, limit + kHour - off, limit - kHour - off},
      {kEast, pre, pre + kHour - off, pre - kHour - off},
      {kEast, carry, carried + kHour, carried - kHour},
      {kCet, summer, summer + 2 * kHour, summer - 2 * kHour},
      {kCet, winter, winter + kHour, winter - kHour}, {kCet, old, old + kHour, old - kHour}};
  for (const auto& [tz, count, local, utc] : rows) {
    FILETIME in = ft_of(count), out = ft_of(0), back = ft_of(0);
    zone(tz);
    EXPECT_EQ(FileTimeToLocalFileTime(&in, &out) + LocalFileTimeToFileTime(&in, &back), 2);
    EXPECT_TRUE(count_of(out) == local && count_of(back) == utc) << tz << " " << count;
  }
  for (const auto& [utc, local] : {std::pair{1625133600L, 1625133600L + 7200}, {1610712000L,
                                   1610712000L + 3600}})  // summer and winter in CET
    EXPECT_TRUE(UtcEpochToLocalEpoch(utc) == local && LocalEpochToUtcEpoch(local) == utc) << utc;
}

// Bias and name of the standard offset's row, DaylightBias of the moment,
// every other byte cleared.
TEST(GetTimeZoneInformation, StandardRowDaylightBiasOfTheMomentAndAZoneWithoutARow) {
  const std::tuple<const char*, time_t, long, const char*, long> rows[] = {
      {"America/New_York", 1798265547, 300, "CST+5:00:00", 0},    // 2026-12-26 06:12:27 UTC
      {"America/New_York", 1782907200, 300, "CST+5:00:00", -60},  // 2026-07-01 12:00:00 UTC
      {"Asia/Kolkata", 1782907200, -330, "CST-5:30:00", 0},
      {"Pacific/Kiritimati", 1782907200, 0, "", 0}};  // no row: an empty record, and the log
  Clocks clocks;
  for (const auto& [tz, now, bias, name, daylight_bias] : rows) {
    TIME_ZONE_INFORMATION info, expected = {};
    memset(&info, 0xab, sizeof info);  // every byte set, so that a byte left alone shows
    EXPECT_EQ(GetTimeZoneInformation((zone(tz), g_now = now, &info)), 0u);
    expected.Bias = bias, expected.DaylightBias = daylight_bias;
    strcpy(expected.StandardName, name);
    EXPECT_EQ(memcmp(&info, &expected, sizeof info), 0) << tz << ": " << info.Bias;
  }
  EXPECT_EQ(GetTimeZoneInformation(nullptr), 0u);
  const std::string no_match = ": CKORVATime::GetTimeZone(): mo match for timezone -50400|";
  EXPECT_EQ(Log::said(), "4 LinuxTimezoneToKorvaID" + no_match + "3 GetDateTimeSettings: Invalid "
            "timezone|4 GetTimeZone" + no_match + "4 LinuxTimezoneToKorvaID" + no_match +
            "2 GetTimeZoneInformation: KORVA Assert|");
}
