// CKORVATime, its tables and its text utilities. Each test selects the zone
// of this process through TZ and fixes the clock through the time() seam.

#include "KORVATime.h"
#include "support.h"

using namespace testsupport;

// The heap buffers of str::Format come from new[]; std::string uses new.
static std::atomic<int> g_array_news{0};
void* operator new[](std::size_t size) {
  void* p = (g_array_news++, malloc(size));
  return p != nullptr ? p : throw std::bad_alloc();
}
void operator delete[](void* p) noexcept { free(p); }
void operator delete[](void* p, std::size_t) noexcept { free(p); }

namespace {

time_t g_now;
struct FixedClock {
  SEAM(time, [](time_t*) { return g_now; });
  explicit FixedClock(time_t now) { g_now = now; }
};

time_t utc(int year, int month, int day, int hour, int minute = 0, int second = 0) {
  struct tm tm = {second, minute, hour, day, month - 1, year - 1900, 0, 0, 0, 0, nullptr};
  return timegm(&tm);
}

// The fields a refresh sets, as "id hours dst bias|zone text|local time|UTC time".
std::string fields(const CKORVATime& t) {
  return std::to_string(t.TimeZoneId) + " " + std::to_string(t.TimeZoneHours) + " " +
         std::to_string(t.IsDST) + " " + std::to_string(t.DSTBias) + "|" + t.TimeZoneText + "|" +
         t.LocalTimeText + "|" + t.UtcTimeText;
}

const char* const kNoRowZone = "Pacific/Kiritimati";  // 14 hours east
const std::string kNoMatch = ": CKORVATime::GetTimeZone(): mo match for timezone -50400|";
const std::string kSudo = "sudo /usr/bin/timedatectl set-timezone ";

}  // namespace

// Each row's texts and seconds tell one offset, and its tz name selects it.
TEST(ZoneTables, EachRowOneOffsetInEveryColumnSelectedByItsOwnName) {
  for (int i = 0; i < GMT_LOOKUP_ROWS; i++) {
    const gmt_lookup_t& row = gmt_lookup_table[i];
    char sign = 0;
    int hours = -1, minutes = -1;
    sscanf(row.cst, "CST%c%d:%d", &sign, &hours, &minutes);
    const long seconds = (sign == '+' ? 1 : -1) * (hours * 3600L + minutes * 60L);
    EXPECT_EQ(row.cst, str::Format("CST%c%d:%02d:00", sign, hours, minutes));
    EXPECT_EQ(row.gmt, str::Format("GMT%c%02d:%02d", sign == '+' ? '-' : '+', hours, minutes));
    EXPECT_TRUE(row.id == i && tz_sec_to_korva[i].id == i && tz_sec_to_korva[i].seconds == seconds);
    EXPECT_TRUE(i > 25 || seconds == 43200 - 3600L * i) << i;  // whole hours, west to east
    EXPECT_EQ((zone(row.linux_name), timezone), seconds) << row.linux_name;
    EXPECT_NE(row.description[0], '\0');
  }
  EXPECT_TRUE(tz_sec_to_korva[37].seconds == 0 && tz_sec_to_korva[37].id == 0);
}

TEST(ZoneIdentity, TheStandardOffsetOfTheSystemsZoneSelectsTheRowNoRowIsLoggedAtLevel4) {
  // The zone; the row, its offset in seconds, its text, the whole hours east.
  const std::tuple<const char*, int, long, const char*, int> rows[] = {
      {"UTC", 12, 0, "CST+0:00:00", 0}, {"Etc/GMT+12", 0, 43200, "CST+12:00:00", -12},
      {"America/Toronto", 7, 18000, "CST+5:00:00", -5}, {"Japan", 21, -32400, "CST-9:00:00", 9},
      {"Asia/Kathmandu", 31, -20700, "CST-5:45:00", 5},
      {"Pacific/Marquesas", 26, 34200, "CST+9:30:00", -9}, {kNoRowZone, -1, -1, "", 0}};
  CKORVATime t;
  for (const auto& [tz, id, seconds, cst, hours] : rows) {
    zone(tz);
    EXPECT_TRUE(t.LinuxTimezoneToKorvaID() == id && t.GetTzInSeconds() == seconds) << tz;
    EXPECT_TRUE(t.GetTimeZone() == cst && t.GetSandardTimeZone("") == hours) << tz;
  }
  // A text given is read whatever the zone.
  for (const auto& [text, h] : {std::pair{"CST+5:00:00", -5}, {"CST-12:45:00", 12}, {"GMT-05", 0}})
    EXPECT_EQ(t.GetSandardTimeZone(text), h) << text;
  const std::string id = "4 LinuxTimezoneToKorvaID" + kNoMatch, cst = "4 GetTimeZone" + kNoMatch;
  EXPECT_EQ(Log::said(), id + id + cst + cst + cst + cst + cst);
  Log::set_level(3);
  EXPECT_TRUE(t.GetTzInSeconds() == -1 && Log::said().empty());
}

TEST(Snapshot, RowTwelveUntilARefreshThenTheZoneAndTheClockAndRowZeroWithoutARow) {
  zone("America/New_York");
  FixedClock clock(utc(2026, 11, 18, 6, 12, 27));
  CKORVATime t;
  std::string text = "old", local, zone_text;
  EXPECT_TRUE(fields(t) == "12 0 0 0|||" && t.GetCameraLocalTimeWithTimezone(text) &&
              text == "-00:00");
  t.GetDateTimeSettings();
  const std::string eastern = "(GMT-05:00) Eastern Time (US & Canada)|";
  EXPECT_EQ(fields(t), "7 -5 0 0|" + eastern + "2026-11-18 01:12:27|2026-11-18 06:12:27");
  g_now = utc(2026, 7, 1, 12);
  EXPECT_TRUE(t.GetCurrentTime() == "2026-07-01 08:00:00" && t.SetTimezoneEffect() == 1);
  EXPECT_EQ(fields(t), "7 -5 1 -60|" + eastern + "2026-07-01 08:00:00|2026-07-01 12:00:00");
  // The time holds daylight saving, the offset is the standard one.
  EXPECT_TRUE(t.GetSystemTime(local, zone_text));
  EXPECT_EQ(local + " " + zone_text, "2026-07-01T08:00:00-05:00 CST+5:00:00");
  g_now = utc(2026, 11, 18, 6, 12, 27);
  zone("Asia/Kolkata"), t.GetDateTimeSettings();  // DSTBias is never set back
  const std::string kolkata = "(GMT+05:30) Chennai, Kolkata, Mumbai, New Delhi|";
  EXPECT_EQ(fields(t), "30 5 0 -60|" + kolkata + "2026-11-18 11:42:27|2026-11-18 06:12:27");
  // A zone without a row: row 0, no daylight saving, the rest left as it was.
  zone(kNoRowZone);
  t.IsDST = true, t.LocalTimeText = "2026-01-01 12:00:00";
  t.GetDateTimeSettings();
  EXPECT_EQ(fields(t), "0 5 0 -60|" + kolkata + "2026-01-01 12:00:00|2026-11-18 06:12:27");
  EXPECT_TRUE(t.GetCameraLocalTimeWithTimezone(text) && text == "2026-01-01T12:00:00-12:00");
  // Conversions that fail are logged and the steps go on.
  zone("UTC");
  g_now = LONG_MAX;  // no year holds it
  t.GetDateTimeSettings();
  const std::string none = "1900-01-00 00:00:00";
  EXPECT_EQ(fields(t),
            "12 0 0 -60|(GMT-00:00) Greenwich Mean Time, Lisbon, London|" + none + "|" + none);
  t.TimeZoneId = 99;  // names no row
  zone_text = "kept";
  EXPECT_TRUE(!t.GetSystemTime(local, zone_text) && zone_text == "kept");
  EXPECT_EQ(Log::said(),
            "4 LinuxTimezoneToKorvaID" + kNoMatch +
                "3 GetDateTimeSettings: Invalid "
                "timezone|3 GetDateTimeSettings: localtime_r fail|3 GetDateTimeSettings: gmtime_r "
                "fail|3 GetSystemTime: GetCameraLocalTimeWithTimezone fail|");
}

TEST(TimeConversions, LocalTimeToUtcTakesTheStandardOffsetOffUTCToLocalDstTimeAddsHoursAndDst) {
  CKORVATime t;
  // The zone, the UTC moment and what localTimeToUtc makes of it (its second
  // argument plays no part); without a row nothing is taken off.
  const char* const ny = "America/New_York";
  const time_t jan = utc(2026, 1, 1, 12);
  const std::tuple<const char*, time_t, const char*> to_utc[] = {
      {ny, jan, "2026-01-01 12:00:00"}, {ny, utc(2026, 7, 1, 12), "2026-07-01 13:00:00"},
      {"Asia/Kolkata", jan, "2026-01-01 12:00:00"}, {kNoRowZone, jan, "2026-01-02 02:00:00"},
      {"UTC", LONG_MAX, "1900-01-00 00:00:00"}};
  for (const auto& [tz, seconds, text] : to_utc)
    EXPECT_TRUE((zone(tz), t.localTimeToUtc(seconds, -7)) == text) << tz << " " << seconds;
  EXPECT_EQ(Log::said(), "4 GetTimeZone" + kNoMatch + "3 localTimeToUtc: localtime_r fail|");
  // The zone, the UTC text and the local text: the minutes of the offset are missing.
  const char* const noon = "2026-01-01 12:00:00";
  const std::tuple<const char*, const char*, const char*> to_local[] = {
      {ny, noon, "2026-01-01 07:00:00"}, {ny, "2026-7-1 8:9:7", "2026-07-01 04:09:07"},
      {"Asia/Kolkata", noon, "2026-01-01 17:00:00"}, {kNoRowZone, noon, noon},
      {"Canada/Newfoundland", noon, "2026-01-01 09:00:00"}};
  for (const auto& [tz, from, text] : to_local)
    EXPECT_TRUE((zone(tz), t.UTCToLocalDstTime(from)) == text) << from;
  Log::clear();
  EXPECT_EQ((zone(ny), t.UTCToLocalDstTime("2026-07-01 12:00:00")), "2026-07-01 08:00:00");
  const std::string trace = "7 UTCToLocalDstTime: CKORVATime::", arrows = ">>>>>>>>>>>>>\n|";
  EXPECT_EQ(Log::said(), trace + "UTCToLocalDstTime() UTC=2026-07-01 12:00:00|" + trace +
                             "1currentTime=" + std::to_string(utc(2026, 7, 1, 17)) + arrows +
                             trace + "2currentTime=" + std::to_string(utc(2026, 7, 1, 12)) +
                             arrows + trace + "UTCToLocalDstTime=2026-07-01 08:00:00" + arrows);
  // A text that doesn't fit the form has no time to convert.
  EXPECT_TRUE((Log::set_level(3), t.UTCToLocalDstTime("2026-07-01 12:00")).empty());
  EXPECT_EQ(Log::said(),
            "3 UTCToLocalDstTime: CKORVATime::UTCToLocalDstTime() not a time text: "
            "2026-07-01 12:00|");
}

TEST(SetDateTime, WallClockTimeOfTheSystemsZoneGoesToSettimeofday) {
  zone("America/New_York");
  CKORVATime t;
  std::vector<time_t> calls;
  {
    SettimeofdayRecorder recorder;
    EXPECT_TRUE(t.SetManualDateTime(2026, 7, 1, 12, 0, 0) &&
                t.SetManualDateTime(2026, 13, 1, 0, 0, 0));
    // What the scan reads completely is taken: a line end, words behind, blanks in front.
    for (const char* text : {"111806122026.27\n", " 111806122026.27 now", "11 18 06 12 2026.27"})
      EXPECT_EQ(t.SetDateTime(text), 1) << text;
    for (const char* text :
         {"2026-11-18", "111806122026,27", "1118061220261.27", (const char*)nullptr})
      EXPECT_EQ(t.SetDateTime(text), 0);
    calls = recorder.calls();
  }
  const time_t by_text = utc(2026, 11, 18, 11, 12, 27);
  EXPECT_EQ(calls, (std::vector<time_t>{utc(2026, 7, 1, 16), utc(2027, 1, 1, 5), by_text, by_text,
                                        by_text}));
  EXPECT_EQ(t.LocalTimeText, "");  // no refresh
  SettimeofdayRecorder refused(-1);
  EXPECT_EQ(t.SetManualDateTime(2026, 1, 1, 0, 0, 0), 0);
  const std::string unfit = "3 SetDateTime: SetDateTime: ", form = " does not fit MMDDhhmmYYYY.ss|";
  EXPECT_EQ(Log::said(), unfit + "2026-11-18" + form + unfit + "111806122026,27" + form + unfit +
                             "1118061220261.27" + form +
                             "2 SetDateTime: KORVA Assert|3 "
                             "SetManualDateTime: SetDateTime: error Operation not permitted|");
}

TEST(SetTimeZone, TheRowOfTheCstTextOrAPlainTzNameSelectedThroughSudo) {
  zone(kNoRowZone);
  SystemRecorder recorder;
  CKORVATime t, other;
  for (const char* text : {"CST+5:00:00", "CST-12:45:00"}) EXPECT_EQ(t.SetTimeZone(text), 1);
  for (const char* name : {"Mars/Az_Za-09+", "America/Port-au-Prince", "Etc/GMT+12"})
    EXPECT_EQ(t.SetTimeZoneByLinuxName(name), 1) << name;
  EXPECT_EQ(recorder.take(), (Lines{kSudo + "US/Eastern", kSudo + "Pacific/Chatham", kSudo +
                                    "Mars/Az_Za-09+", kSudo + "America/Port-au-Prince", kSudo +
                                    "Etc/GMT+12"}));
  // Each success refreshed the snapshot, which found no row: success all the same.
  EXPECT_TRUE(Log::take(3) == Lines(5, "3 GetDateTimeSettings: Invalid timezone") && !t.TimeZoneId);
  std::string want;
  for (const char* text : {"GMT-05:00", "CST+05:00:00"})
    want += std::string("3 SetTimeZone: SetTimeZone: could not find match for ") + text + "|";
  EXPECT_TRUE(!t.SetTimeZone("GMT-05:00") && !t.SetTimeZone("CST+05:00:00") && !t.SetTimeZone(0));
  want += "2 SetTimeZone: KORVA Assert|";
  for (const char* name : {"UTC; reboot", "$(x)", "a\n", "", "-Mx", "../x*"}) {
    EXPECT_EQ(t.SetTimeZoneByLinuxName(name), 0);
    want += "3 SetTimeZoneByLinuxName: SetTimeZoneByLinuxName: not a time zone name: " +
            std::string(name) + "|";
  }
  EXPECT_TRUE(!t.SetTimeZoneByLinuxName(nullptr) && recorder.take().empty());
  want += "2 SetTimeZoneByLinuxName: KORVA Assert|";
  recorder.set_status(1);
  EXPECT_TRUE(!other.SetTimeZone("CST-5:30:00") && !other.SetTimeZoneByLinuxName("Asia/Kolkata"));
  for (const auto& [op, arg] : {std::pair{std::string("SetTimeZone"), "CST-5:30:00"},
                                {"SetTimeZoneByLinuxName", "Asia/Kolkata"}})
    want += "3 " + op + ": " + op + ": system fail to set TZ for " + arg + "|3 " + op +
            ": Command: " + kSudo + "Asia/Kolkata|";
  EXPECT_TRUE(Log::said() == want && other.TimeZoneId == 12);  // no refresh
}

TEST(NotImplemented, ReportAtLevel2WithoutAskingTheLevelLeaveTheArgumentsAndReturn0) {
  CKORVATime t;
  std::string setting = "untouched";
  int v[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  EXPECT_EQ(t.ChangeManualTimeSetting((Log::set_level(0), setting)) + t.IsInDSTScope("x") +
                t.GetDSTTime(v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], v[8]), 0);
  EXPECT_EQ(setting + std::to_string(v[0] + v[1] * 2 + v[2] * 3 + v[3] * 4 + v[4] * 5 + v[5] * 6 +
                                     v[6] * 7 + v[7] * 8 + v[8] * 9), "untouched285");
  const std::string dst = "2 GetDSTTime: GetDSTTime: Not Implemented.|";
  EXPECT_EQ(Log::said(), "2 ChangeManualTimeSetting: ChangeManualTimeSetting: Not Implemented.|" +
                             dst + dst);
  EXPECT_TRUE((Log::set_level(7), t.IsInDSTScope("")) == 0);
  EXPECT_EQ(Log::said(), dst + "7 IsInDSTScope: CKORVATime::GetDSTTime() failed.|");
}

TEST(StrFormatAndReplace, FixedBufferBelow1024HeapAboveTheFormatBeyondTheLimitReplaceLeftToRight) {
  EXPECT_EQ(str::Format("%s-%d", "a", 5), "a-5");
  // The format, the length of the text, and the heap buffers it takes.
  for (const auto& [format, length, heap] :
       {std::tuple{"%1023d", 1023u, 0}, {"%1024d", 1024u, 1}, {"%2097151d", 2097151u, 1}}) {
    const int before = g_array_news;
    const std::string text = str::Format(format, 7);
    EXPECT_TRUE(g_array_news - before == heap && text.size() == length) << format;
    EXPECT_EQ(text.find_first_not_of(' '), length - 1);
  }
  // A byte that is no character fails vswprintf at every size: it doubles
  // from 2048 to 2097152, then gives the format.
  const int before = g_array_news;
  EXPECT_TRUE(str::Format("%2097152d", 7) == "%2097152d" && str::Format(L"%s", "\xff") == L"%s");
  EXPECT_EQ(g_array_news - before, 11);
  // Left to right, without overlap; inserted text is not searched again.
  EXPECT_EQ(str::Replace(std::string("aaa"), "a", "aa") + str::Replace(std::string("a bc"), " ", "")
                + str::Replace(std::string("abc"), "x", "y"), "aaaaaaabcabc");
}
