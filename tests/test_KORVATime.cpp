// CKORVATime and its tables and text utilities. Each test selects the zone
// of this process through TZ and fixes the clock through the time() seam.
#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>

#include <atomic>
#include <iterator>
#include <regex>
#include <set>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "KORVALinuxTime.h"
#include "KORVATime.h"
#include "support.h"

using testsupport::Log;
using testsupport::ScopedSys;
using Lines = std::vector<std::string>;

// The heap buffers of str::Format come from new[]; std::string uses new.
static std::atomic<int> g_array_news{0};
void* operator new[](std::size_t size) {
  g_array_news++;
  return ::operator new(size);
}
void operator delete[](void* p) noexcept { ::operator delete(p); }
void operator delete[](void* p, std::size_t) noexcept { ::operator delete(p); }

namespace {

void zone(const char* tz) {
  setenv("TZ", tz, 1);
  tzset();
}

time_t g_now;
struct FixedClock : ScopedSys<decltype(commonl::sys.time)> {
  explicit FixedClock(time_t now) : ScopedSys(commonl::sys.time, [](time_t*) { return g_now; }) {
    g_now = now;
  }
};

time_t utc(int year, int month, int day, int hour, int minute = 0, int second = 0) {
  struct tm tm = {second, minute, hour, day, month - 1, year - 1900, 0, 0, 0, 0, nullptr};
  return timegm(&tm);
}

// The log so far as "level function: text", then cleared.
Lines log_lines() {
  Lines out;
  for (const auto& line : Log::lines())
    out.push_back((line.file == "../CommonL/KORVATime" ? "" : line.file + " ") +
                  std::to_string(line.level) + " " + line.function + ": " + line.text);
  Log::clear();
  return out;
}

// The fields a refresh sets, as "id hours dst bias|zone text|local time|UTC time".
std::string fields(const CKORVATime& t) {
  return std::to_string(t.TimeZoneId) + " " + std::to_string(t.TimeZoneHours) + " " +
         std::to_string(t.IsDST) + " " + std::to_string(t.DSTBias) + "|" + t.TimeZoneText + "|" +
         t.LocalTimeText + "|" + t.UtcTimeText;
}

const char* const kNoRowZone = "Pacific/Kiritimati";  // 14 hours east
const std::string kNoMatch = ": CKORVATime::GetTimeZone(): mo match for timezone -50400";
const std::string kSudo = "sudo /usr/bin/timedatectl set-timezone ";

}  // namespace

TEST(ZoneTables, CountsOrderAndHowTheColumnsRelate) {
  ASSERT_EQ(std::size(gmt_lookup_table), 37u);
  ASSERT_EQ(std::size(tz_sec_to_korva), 38u);
  std::set<std::string> columns[4], keyed;  // keyed: the names of the time zone keys
  for (int key = 0; key < TZ__get_num_timezones(); key++) {
    char* name = TZ__get_name(key);
    keyed.insert(name);
    free(name);
  }
  const std::regex cst_form("CST[+-](0|[1-9][0-9]?):[0-5][0-9]:00");
  int listed = 0;
  for (int i = 0; i < 37; i++) {
    const gmt_lookup_t& row = gmt_lookup_table[i];
    EXPECT_EQ(row.id, i);
    EXPECT_TRUE(std::regex_match(row.cst, cst_form)) << row.cst;
    char sign = 0;
    int hours = -1, minutes = -1;
    sscanf(row.cst, "CST%c%d:%d", &sign, &hours, &minutes);
    const long seconds = (sign == '+' ? 1 : -1) * (hours * 3600L + minutes * 60L);
    EXPECT_EQ(tz_sec_to_korva[i].seconds, seconds) << i;
    EXPECT_EQ(tz_sec_to_korva[i].id, i);
    EXPECT_EQ(row.gmt, str::Format("GMT%c%02d:%02d", sign == '+' ? '-' : '+', hours, minutes));
    EXPECT_TRUE(i > 25 || seconds == 43200 - 3600L * i) << i;  // whole hours, west to east
    int c = 0;
    for (const char* text : {row.cst, row.gmt, row.linux_name, row.description})
      columns[c++].insert(text);
    listed += keyed.count(row.linux_name);
  }
  for (const auto& column : columns) EXPECT_EQ(column.size(), 37u);
  EXPECT_EQ(std::make_pair(tz_sec_to_korva[37].seconds, tz_sec_to_korva[37].id),
            std::make_pair(0L, 0));
  EXPECT_EQ(listed, 25);
  const std::pair<int, const char*> rows[] = {
      {0, "CST+12:00:00|GMT-12:00|Etc/GMT+12|Baker Island, Howland Island"},
      {12, "CST+0:00:00|GMT-00:00|Greenwich|Greenwich Mean Time, Lisbon, London"},
      {23, "CST-11:00:00|GMT+11:00|Asia/Magadan|Magadan, Solomon Islands., New Caledonia"},
      {25,
       "CST-13:00:00|GMT+13:00|Etc/GMT-13|Nuku\xE2\x80\x99"
       "alofa"},
      {36, "CST-12:45:00|GMT+12:45|Pacific/Chatham|Chatham Islands"}};
  for (const auto& [id, text] : rows) {
    const gmt_lookup_t& r = gmt_lookup_table[id];
    EXPECT_EQ(std::string(r.cst) + "|" + r.gmt + "|" + r.linux_name + "|" + r.description, text);
  }
}

TEST(ZoneIdentity, TheStandardOffsetOfTheSystemsZoneSelectsTheRowNoRowIsLoggedAtLevel4) {
  // The zone; the row, its offset in seconds, its text, and the whole hours east.
  const std::tuple<const char*, int, long, const char*, int> cases[] = {
      {"UTC", 12, 0, "CST+0:00:00", 0},  // the row of 0 seconds is no end mark
      {"Etc/GMT+12", 0, 43200, "CST+12:00:00", -12},
      {"America/New_York", 7, 18000, "CST+5:00:00", -5},
      {"America/Toronto", 7, 18000, "CST+5:00:00", -5},
      {"Asia/Tokyo", 21, -32400, "CST-9:00:00", 9},
      {"Asia/Kolkata", 30, -19800, "CST-5:30:00", 5},
      {"Asia/Kathmandu", 31, -20700, "CST-5:45:00", 5},
      {"Pacific/Marquesas", 26, 34200, "CST+9:30:00", -9},
      {kNoRowZone, -1, -1, "", 0}};
  // A text given is read whatever the zone.
  const std::pair<const char*, int> texts[] = {{"CST+5:00:00", -5}, {"CST-5:30:00", 5},
                                               {"CST+9:30:00", -9}, {"CST-12:45:00", 12},
                                               {"GMT-05:00", 0},    {"CST+", 0}};
  CKORVATime korva_time;
  for (const auto& [tz, id, seconds, cst, hours] : cases) {
    zone(tz);
    EXPECT_EQ(korva_time.LinuxTimezoneToKorvaID(), id) << tz;
    EXPECT_EQ(korva_time.GetTzInSeconds(), seconds) << tz;
    EXPECT_EQ(korva_time.GetTimeZone(), cst) << tz;
    EXPECT_EQ(korva_time.GetSandardTimeZone(""), hours) << tz;
    for (const auto& [text, h] : texts) EXPECT_EQ(korva_time.GetSandardTimeZone(text), h) << tz;
  }
  EXPECT_EQ(korva_time.TimeZoneId, 12);
  // Only the zone without a row logs, once for each lookup.
  Lines expected(10, "4 GetTimeZone" + kNoMatch);
  expected[0] = expected[1] = "4 LinuxTimezoneToKorvaID" + kNoMatch;
  EXPECT_EQ(log_lines(), expected);
  Log::set_level(3);
  EXPECT_EQ(korva_time.GetTzInSeconds(), -1);
  EXPECT_EQ(log_lines(), Lines{});
}

// --- the snapshot ---

TEST(Snapshot, RowTwelveUntilARefreshThenTheZoneAndTheClockAndRowZeroWithoutARow) {
  static_assert(std::has_virtual_destructor<CKORVATime>::value, "");
  EXPECT_STREQ(typeid(CKORVATime).name(), "10CKORVATime");
  zone("America/New_York");
  FixedClock clock(utc(2026, 11, 18, 6, 12, 27));
  CKORVATime korva_time;
  EXPECT_EQ(fields(korva_time), "12 0 0 0|||");
  std::string text = "old";
  EXPECT_TRUE(korva_time.GetCameraLocalTimeWithTimezone(text));
  EXPECT_EQ(text, "-00:00");

  korva_time.GetDateTimeSettings();
  const std::string eastern = "(GMT-05:00) Eastern Time (US & Canada)|";
  EXPECT_EQ(fields(korva_time), "7 -5 0 0|" + eastern + "2026-11-18 01:12:27|2026-11-18 06:12:27");
  g_now = utc(2026, 7, 1, 12);
  EXPECT_EQ(korva_time.GetCurrentTime(), "2026-07-01 08:00:00");
  EXPECT_EQ(korva_time.SetTimezoneEffect(), 1);
  EXPECT_EQ(fields(korva_time),
            "7 -5 1 -60|" + eastern + "2026-07-01 08:00:00|2026-07-01 12:00:00");
  // The time holds daylight saving, the offset is the standard one.
  std::string local, zone_text;
  EXPECT_TRUE(korva_time.GetSystemTime(local, zone_text));
  EXPECT_EQ(local + " " + zone_text, "2026-07-01T08:00:00-05:00 CST+5:00:00");
  g_now = utc(2026, 11, 18, 6, 12, 27);
  korva_time.GetDateTimeSettings();  // DSTBias is never set back
  EXPECT_EQ(fields(korva_time),
            "7 -5 0 -60|" + eastern + "2026-11-18 01:12:27|2026-11-18 06:12:27");
  EXPECT_EQ(log_lines(), Lines{});

  zone("Asia/Kolkata");
  korva_time.GetDateTimeSettings();
  const std::string kolkata = "(GMT+05:30) Chennai, Kolkata, Mumbai, New Delhi|";
  EXPECT_EQ(fields(korva_time),
            "30 5 0 -60|" + kolkata + "2026-11-18 11:42:27|2026-11-18 06:12:27");

  // A zone without a row: row 0, no daylight saving, the rest left as it was.
  zone(kNoRowZone);
  korva_time.IsDST = true;
  korva_time.LocalTimeText = "2026-01-01 12:00:00";
  korva_time.GetDateTimeSettings();
  EXPECT_EQ(log_lines(), (Lines{"4 LinuxTimezoneToKorvaID" + kNoMatch,
                                "3 GetDateTimeSettings: Invalid timezone"}));
  EXPECT_EQ(fields(korva_time), "0 5 0 -60|" + kolkata + "2026-01-01 12:00:00|2026-11-18 06:12:27");
  EXPECT_TRUE(korva_time.GetCameraLocalTimeWithTimezone(text));
  EXPECT_EQ(text, "2026-01-01T12:00:00-12:00");
}

TEST(Snapshot, FailedConversionsAreLoggedAndTheStepsGoOn) {
  zone("UTC");
  FixedClock clock(LONG_MAX);  // no year holds it
  CKORVATime korva_time;
  korva_time.GetDateTimeSettings();
  EXPECT_EQ(log_lines(), (Lines{"3 GetDateTimeSettings: localtime_r fail",
                                "3 GetDateTimeSettings: gmtime_r fail"}));
  EXPECT_EQ(fields(korva_time),
            "12 0 0 0|(GMT-00:00) Greenwich Mean Time, Lisbon, London|1900-01-00 00:00:00|"
            "1900-01-00 00:00:00");
  korva_time.TimeZoneId = 99;  // names no row
  std::string local, zone_text = "kept";
  EXPECT_FALSE(korva_time.GetSystemTime(local, zone_text));
  EXPECT_EQ(zone_text, "kept");
  EXPECT_EQ(log_lines(), Lines{"3 GetSystemTime: GetCameraLocalTimeWithTimezone fail"});
}

// --- conversions ---

TEST(TimeConversions, LocalTimeToUtcTakesTheStandardOffsetOffUTCToLocalDstTimeAddsHoursAndDst) {
  CKORVATime korva_time;
  zone("America/New_York");
  EXPECT_EQ(korva_time.localTimeToUtc(utc(2026, 1, 1, 12), 0), "2026-01-01 12:00:00");
  for (int dst : {0, 1, -7})
    EXPECT_EQ(korva_time.localTimeToUtc(utc(2026, 7, 1, 12), dst), "2026-07-01 13:00:00");
  zone("Asia/Kolkata");
  EXPECT_EQ(korva_time.localTimeToUtc(utc(2026, 1, 1, 12), 0), "2026-01-01 12:00:00");
  zone(kNoRowZone);  // nothing is taken off
  EXPECT_EQ(korva_time.localTimeToUtc(utc(2026, 1, 1, 12), 0), "2026-01-02 02:00:00");
  zone("UTC");
  EXPECT_EQ(korva_time.localTimeToUtc(LONG_MAX, 0), "1900-01-00 00:00:00");
  EXPECT_EQ(log_lines(), (Lines{"4 GetTimeZone" + kNoMatch, "3 localTimeToUtc: localtime_r fail"}));

  zone("America/New_York");
  EXPECT_EQ(korva_time.UTCToLocalDstTime("2026-01-01 12:00:00"), "2026-01-01 07:00:00");
  EXPECT_EQ(korva_time.UTCToLocalDstTime("2026-7-1 8:0:0"), "2026-07-01 04:00:00");
  // A text that doesn't fit the form has no time to convert.
  log_lines();
  Log::set_level(3);
  for (const char* text : {"garbage", "2026-07-01 12:00", ""})
    EXPECT_EQ(korva_time.UTCToLocalDstTime(text), "") << text;
  EXPECT_EQ(log_lines(), (Lines{"3 UTCToLocalDstTime: CKORVATime::UTCToLocalDstTime() not a "
                                "time text: garbage",
                                "3 UTCToLocalDstTime: CKORVATime::UTCToLocalDstTime() not a "
                                "time text: 2026-07-01 12:00",
                                "3 UTCToLocalDstTime: CKORVATime::UTCToLocalDstTime() not a "
                                "time text: "}));
  Log::set_level(7);
  EXPECT_EQ(korva_time.UTCToLocalDstTime("2026-07-01 12:00:00"), "2026-07-01 08:00:00");
  const std::string trace = "7 UTCToLocalDstTime: CKORVATime::", arrows = ">>>>>>>>>>>>>\n";
  EXPECT_EQ(log_lines(),
            (Lines{trace + "UTCToLocalDstTime() UTC=2026-07-01 12:00:00",
                   trace + "1currentTime=" + std::to_string(utc(2026, 7, 1, 17)) + arrows,
                   trace + "2currentTime=" + std::to_string(utc(2026, 7, 1, 12)) + arrows,
                   trace + "UTCToLocalDstTime=2026-07-01 08:00:00" + arrows}));
  zone("Asia/Kolkata");  // the minutes of the offset are missing
  EXPECT_EQ(korva_time.UTCToLocalDstTime("2026-01-01 12:00:00"), "2026-01-01 17:00:00");
  zone("America/St_Johns");  // row 27, CST+3:30:00
  EXPECT_EQ(korva_time.UTCToLocalDstTime("2026-01-01 12:00:00"), "2026-01-01 09:00:00");
  zone(kNoRowZone);
  EXPECT_EQ(korva_time.UTCToLocalDstTime("2026-01-01 12:00:00"), "2026-01-01 12:00:00");
}

// --- setting clock and zone ---

TEST(SetDateTime, WallClockTimeOfTheSystemsZoneGoesToSettimeofday) {
  zone("America/New_York");
  testsupport::SettimeofdayRecorder recorder;
  CKORVATime korva_time;
  EXPECT_EQ(korva_time.SetManualDateTime(2026, 7, 1, 12, 0, 0), 1);
  EXPECT_EQ(korva_time.SetManualDateTime(2026, 13, 1, 0, 0, 0), 1);
  // What the scan reads completely is taken: a line end, words behind, blanks in front.
  for (const char* text : {"111806122026.27", "111806122026.27\n", " 111806122026.27 now",
                           "11 18 06 12 2026.27"})
    EXPECT_EQ(korva_time.SetDateTime(text), 1) << text;
  for (std::string text : {"", "2026-11-18", "111806122026,27", "1118061220261.27"}) {
    EXPECT_EQ(korva_time.SetDateTime(text.c_str()), 0);
    EXPECT_EQ(log_lines(),
              Lines{"3 SetDateTime: SetDateTime: " + text + " does not fit MMDDhhmmYYYY.ss"});
  }
  EXPECT_EQ(korva_time.SetDateTime(nullptr), 0);
  EXPECT_EQ(log_lines(), Lines{"2 SetDateTime: KORVA Assert"});
  std::vector<std::pair<time_t, long>> calls;
  for (const auto& call : recorder.calls()) calls.emplace_back(call.tv_sec, call.tv_usec);
  const std::pair<time_t, long> set_by_text{utc(2026, 11, 18, 11, 12, 27), 0};
  EXPECT_EQ(calls, (decltype(calls){{utc(2026, 7, 1, 16), 0}, {utc(2027, 1, 1, 5), 0},
                                    set_by_text, set_by_text, set_by_text, set_by_text}));
  EXPECT_EQ(korva_time.LocalTimeText, "");  // no refresh

  ScopedSys<decltype(commonl::sys.settimeofday)> refused(
      commonl::sys.settimeofday, [](const struct timeval*, const struct timezone*) {
        errno = EPERM;
        return -1;
      });
  EXPECT_EQ(korva_time.SetManualDateTime(2026, 1, 1, 0, 0, 0), 0);
  EXPECT_EQ(log_lines(), Lines{"3 SetManualDateTime: SetDateTime: error Operation not permitted"});
}

TEST(SetTimeZone, TheRowOfTheCstTextSelectsItsNameThroughSudo) {
  zone("America/New_York");
  testsupport::SystemRecorder recorder;
  CKORVATime korva_time;
  for (const char* text : {"CST+5:00:00", "CST-5:45:00", "CST+12:00:00", "CST-12:45:00"})
    EXPECT_EQ(korva_time.SetTimeZone(text), 1) << text;
  EXPECT_EQ(korva_time.TimeZoneText, "(GMT-05:00) Eastern Time (US & Canada)");  // refreshed
  EXPECT_EQ(log_lines(), Lines{});
  for (std::string text : {"GMT-05:00", "America/New_York", "CST+05:00:00", ""}) {
    EXPECT_EQ(korva_time.SetTimeZone(text.c_str()), 0);
    EXPECT_EQ(log_lines(), Lines{"3 SetTimeZone: SetTimeZone: could not find match for " + text});
  }
  EXPECT_EQ(korva_time.SetTimeZone(nullptr), 0);
  EXPECT_EQ(log_lines(), Lines{"2 SetTimeZone: KORVA Assert"});
  EXPECT_EQ(recorder.commands(), (Lines{kSudo + "US/Eastern", kSudo + "Asia/Kathmandu",
                                        kSudo + "Etc/GMT+12", kSudo + "Pacific/Chatham"}));

  CKORVATime other;
  recorder.set_status(1);
  EXPECT_EQ(other.SetTimeZone("CST-5:30:00"), 0);
  EXPECT_EQ(other.SetTimeZoneByLinuxName("Asia/Kolkata"), 0);
  EXPECT_EQ(log_lines(),
            (Lines{"3 SetTimeZone: SetTimeZone: system fail to set TZ for CST-5:30:00",
                   "3 SetTimeZone: Command: " + kSudo + "Asia/Kolkata",
                   "3 SetTimeZoneByLinuxName: SetTimeZoneByLinuxName: system fail to set TZ for "
                   "Asia/Kolkata",
                   "3 SetTimeZoneByLinuxName: Command: " + kSudo + "Asia/Kolkata"}));
  EXPECT_EQ(other.TimeZoneId, 12);  // no refresh
}

TEST(SetTimeZoneByLinuxName, AnyNameOfTheTzAlphabetRunsOthersAreRefused) {
  zone(kNoRowZone);
  testsupport::SystemRecorder recorder;
  CKORVATime korva_time;
  korva_time.TimeZoneId = 5;
  for (const char* name : {"Mars/Olympus", "America/Port-au-Prince", "Etc/GMT+12"})
    EXPECT_EQ(korva_time.SetTimeZoneByLinuxName(name), 1) << name;
  // The refresh found no row for this process's zone: success all the same.
  EXPECT_EQ(Log::count(3, "Invalid timezone"), 3);
  EXPECT_EQ(korva_time.TimeZoneId, 0);
  log_lines();
  for (std::string name :
       {"UTC; reboot", "$(reboot)", "`id`", "Europe/Paris\n", "a b", "", "-Mx", "x|y", "../x*"}) {
    EXPECT_EQ(korva_time.SetTimeZoneByLinuxName(name.c_str()), 0);
    EXPECT_EQ(
        log_lines(),
        Lines{"3 SetTimeZoneByLinuxName: SetTimeZoneByLinuxName: not a time zone name: " + name});
  }
  EXPECT_EQ(recorder.commands(), (Lines{kSudo + "Mars/Olympus", kSudo + "America/Port-au-Prince",
                                        kSudo + "Etc/GMT+12"}));
}

TEST(NotImplemented, ReportAtLevel2WithoutAskingTheLevelAndReturn0) {
  CKORVATime korva_time;
  Log::set_level(0);
  std::string setting = "untouched";
  int v[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  EXPECT_EQ(korva_time.ChangeManualTimeSetting(setting), 0);
  EXPECT_EQ(korva_time.GetDSTTime(v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], v[8]), 0);
  EXPECT_EQ(korva_time.IsInDSTScope("2026-07-01 12:00:00"), 0);
  EXPECT_EQ(setting, "untouched");
  EXPECT_EQ(std::vector<int>(v, v + 9), (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9}));
  const std::string get_dst = "2 GetDSTTime: GetDSTTime: Not Implemented.";
  EXPECT_EQ(log_lines(),
            (Lines{"2 ChangeManualTimeSetting: ChangeManualTimeSetting: Not Implemented.", get_dst,
                   get_dst}));
  Log::set_level(7);
  EXPECT_EQ(korva_time.IsInDSTScope(""), 0);
  EXPECT_EQ(log_lines(), (Lines{get_dst, "7 IsInDSTScope: CKORVATime::GetDSTTime() failed."}));
}

// --- str ---

TEST(StrFormat, FixedBufferBelow1024HeapAboveTheFormatBeyondTheLimit) {
  EXPECT_EQ(str::Format("%s-%d", "a", 5), "a-5");
  // The format, the length of the text, and the heap buffers it takes.
  const std::tuple<const char*, size_t, int> cases[] = {
      {"%1023d", 1023, 0}, {"%1024d", 1024, 1}, {"%2097151d", 2097151, 1}};
  for (const auto& [format, length, heap_buffers] : cases) {
    const int before = g_array_news;
    const std::string text = str::Format(format, 7);
    EXPECT_EQ(g_array_news - before, heap_buffers) << format;
    EXPECT_EQ(text.size(), length);
    EXPECT_EQ(text.find_first_not_of(' '), length - 1);
  }
  const int before = g_array_news;
  EXPECT_EQ(str::Format("%2097152d", 7), "%2097152d");
  EXPECT_EQ(g_array_news - before, 0);
  // vswprintf gives -1 for a text that doesn't fit: the size doubles.
  EXPECT_EQ(str::Format(L"%1500d", 7).size(), 1500u);
  EXPECT_EQ(g_array_news - before, 1);
  // A byte that is no character fails at every size, 2048 to 2097152.
  EXPECT_EQ(str::Format(L"%s", "\xff"), L"%s");
  EXPECT_EQ(g_array_news - before, 12);
}

TEST(StrReplace, LeftToRightWithoutOverlapInsertedTextNotSearchedAgain) {
  EXPECT_EQ(str::Replace(std::string("aaa"), "a", "aa"), "aaaaaa");
  EXPECT_EQ(str::Replace(std::string("abcabc"), "bc", "-"), "a-a-");
  EXPECT_EQ(str::Replace(std::string("abc"), "x", "y"), "abc");
  EXPECT_EQ(str::Replace(std::string("a b c"), " ", ""), "abc");
  EXPECT_EQ(str::Replace(std::string("2026-11-18 06:12:27"), " ", "T"), "2026-11-18T06:12:27");
  EXPECT_EQ(str::Replace(std::string("abc"), "", "x"), "abc");
  EXPECT_EQ(str::Replace(std::wstring(L"a b"), L" ", L"T"), L"aTb");
}
