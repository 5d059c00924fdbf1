// CKORVATime: the system's zone as a row of gmt_lookup_table, setting the
// clock and the zone, the snapshot of date, time and zone, and time texts.
#define COMMONL_UNIT "../CommonL/KORVATime"

#include "KORVATime.h"

#include <errno.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include "internal.h"

using commonl::sys;

// Rows 0 to 25 are the whole hours from 12 west to 13 east; the offsets
// with minutes follow.
const gmt_lookup_t gmt_lookup_table[GMT_LOOKUP_ROWS] = {
    {0, "CST+12:00:00", "GMT-12:00", "Etc/GMT+12", "Baker Island, Howland Island"},
    {1, "CST+11:00:00", "GMT-11:00", "Pacific/Niue", "Samoa, Niue"},
    {2, "CST+10:00:00", "GMT-10:00", "US/Hawaii", "Hawaii"},
    {3, "CST+9:00:00", "GMT-09:00", "US/Alaska", "Alaska"},
    {4, "CST+8:00:00", "GMT-08:00", "US/Pacific", "Pacific Time (US & Canada), Baja California"},
    {5, "CST+7:00:00", "GMT-07:00", "US/Mountain", "Mountain Time (US & Canada)"},
    {6, "CST+6:00:00", "GMT-06:00", "US/Central", "Central Time (US & Canada)"},
    {7, "CST+5:00:00", "GMT-05:00", "US/Eastern", "Eastern Time (US & Canada)"},
    {8, "CST+4:00:00", "GMT-04:00", "Canada/Atlantic", "Atlantic Time (Canada)"},
    {9, "CST+3:00:00", "GMT-03:00", "America/Montevideo",
     "Brasilia, Montevideo, Cayenne, Fortaleza"},
    {10, "CST+2:00:00", "GMT-02:00", "Atlantic/South_Georgia",
     "South Georgia and the South Sandwich Islands"},
    {11, "CST+1:00:00", "GMT-01:00", "Atlantic/Azores", "Azores"},
    {12, "CST+0:00:00", "GMT-00:00", "Greenwich", "Greenwich Mean Time, Lisbon, London"},
    {13, "CST-1:00:00", "GMT+01:00", "Europe/Paris", "Madrid, Paris, Berlin, Rome, Vienna"},
    {14, "CST-2:00:00", "GMT+02:00", "Europe/Sofia", "Sofia, Tallinn, Vilnius"},
    {15, "CST-3:00:00", "GMT+03:00", "Europe/Moscow", "Kuwait, Baghdad, Moscow, St. Petersburg"},
    {16, "CST-4:00:00", "GMT+04:00", "Asia/Yerevan", "Yerevan, Tbilisi, Port Louis"},
    {17, "CST-5:00:00", "GMT+05:00", "Asia/Karachi", "Karachi, Tashkent, Yekaterinburg"},
    {18, "CST-6:00:00", "GMT+06:00", "Asia/Dhaka", "Dhaka, Astana, Novosibirsk, Yangon"},
    {19, "CST-7:00:00", "GMT+07:00", "Asia/Bangkok", "Bangkok, Hanoi, Jakarta"},
    {20, "CST-8:00:00", "GMT+08:00", "Asia/Singapore", "Beijing, Hong Kong, Singapore, Taipei"},
    {21, "CST-9:00:00", "GMT+09:00", "Asia/Tokyo", "Seoul, Osaka, Tokyo"},
    {22, "CST-10:00:00", "GMT+10:00", "Australia/Sydney", "Canberra, Melbourne, Sydney, Brisbane"},
    {23, "CST-11:00:00", "GMT+11:00", "Asia/Magadan", "Magadan, Solomon Islands., New Caledonia"},
    {24, "CST-12:00:00", "GMT+12:00", "Pacific/Auckland",
     "Auckland, Suva, Petropavlovsk-Kamchatsky"},
    {25, "CST-13:00:00", "GMT+13:00", "Etc/GMT-13", "Nuku’alofa"},
    {26, "CST+9:30:00", "GMT-09:30", "Pacific/Marquesas", "Marquesas Islands"},
    {27, "CST+3:30:00", "GMT-03:30", "Canada/Newfoundland", "southeastern Labrador, Newfoundland"},
    {28, "CST-3:30:00", "GMT+03:30", "Asia/Tehran", "Tehran"},
    {29, "CST-4:30:00", "GMT+04:30", "Asia/Kabul", "Kabul"},
    {30, "CST-5:30:00", "GMT+05:30", "Asia/Kolkata", "Chennai, Kolkata, Mumbai, New Delhi"},
    {31, "CST-5:45:00", "GMT+05:45", "Asia/Kathmandu", "Kathmandu"},
    {32, "CST-6:30:00", "GMT+06:30", "Asia/Rangoon", "Rangoon"},
    {33, "CST-8:45:00", "GMT+08:45", "Australia/Eucla", "Eucla"},
    {34, "CST-9:30:00", "GMT+09:30", "Australia/Adelaide", "Adelaide, Darwin"},
    {35, "CST-10:30:00", "GMT+10:30", "Australia/Lord_Howe", "Lord Howe Island"},
    {36, "CST-12:45:00", "GMT+12:45", "Pacific/Chatham", "Chatham Islands"},
};

// Row N is zone id N. The end mark is the first row whose seconds and id
// are both not positive: row 12 (0 seconds) and row 0 (id 0) are no end.
const tz_sec_to_korva_t tz_sec_to_korva[GMT_LOOKUP_ROWS + 1] = {
    {43200, 0},   {39600, 1},   {36000, 2},   {32400, 3},   {28800, 4},   {25200, 5},
    {21600, 6},   {18000, 7},   {14400, 8},   {10800, 9},   {7200, 10},   {3600, 11},
    {0, 12},      {-3600, 13},  {-7200, 14},  {-10800, 15}, {-14400, 16}, {-18000, 17},
    {-21600, 18}, {-25200, 19}, {-28800, 20}, {-32400, 21}, {-36000, 22}, {-39600, 23},
    {-43200, 24}, {-46800, 25}, {34200, 26},  {12600, 27},  {-12600, 28}, {-16200, 29},
    {-19800, 30}, {-20700, 31}, {-23400, 32}, {-31500, 33}, {-34200, 34}, {-37800, 35},
    {-45900, 36}, {0, 0},
};

static const char* const _SET_TIMEZONE_COMMAND = "sudo /usr/bin/timedatectl set-timezone";

static bool _is_end_mark(const tz_sec_to_korva_t& row) { return row.seconds <= 0 && row.id <= 0; }

// Takes up a zone selected since the last call, then finds the row of its
// standard offset: the zone id, or -1. `offset` receives the offset read.
static int _system_zone_id(long& offset) {
  tzset();
  offset = timezone;
  const tz_sec_to_korva_t* row = tz_sec_to_korva;
  do {
    if (row->seconds == offset) return static_cast<int>(row - tz_sec_to_korva);
    row++;
  } while (!_is_end_mark(*row));
  return -1;
}

// Whole hours east of UTC of a `cst` text; 0 for a text that doesn't read.
static int _cst_hours(const std::string& cst) {
  char sign;
  int hours;
  if (sscanf(cst.c_str(), "CST%c%02d:", &sign, &hours) != 2) return 0;
  return sign == '+' ? -hours : hours;
}

// `t` broken down by localtime_r or gmtime_r; all zero when that fails (it
// may have written part of the record), which reads as 1900-01-00 00:00:00
// without daylight saving.
static bool _break_down(struct tm* (*breakdown)(const time_t*, struct tm*), time_t t,
                        struct tm& out) {
  if (breakdown(&t, &out) != nullptr) return true;
  memset(&out, 0, sizeof out);
  return false;
}

static std::string _time_text(const struct tm& tm) {
  return str::Format("%04d-%02d-%02d %02d:%02d:%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                     tm.tm_hour, tm.tm_min, tm.tm_sec);
}

static std::string _time_text_long(const struct tm& tm) {
  return str::Format("%04ld-%02ld-%02ld %02ld:%02ld:%02ld", tm.tm_year + 1900L, tm.tm_mon + 1L,
                     static_cast<long>(tm.tm_mday), static_cast<long>(tm.tm_hour),
                     static_cast<long>(tm.tm_min), static_cast<long>(tm.tm_sec));
}

// a - b in two's complement, so that no argument can overflow.
static int _wrapping_minus(int a, int b) {
  return static_cast<int>(static_cast<unsigned int>(a) - static_cast<unsigned int>(b));
}

CKORVATime::CKORVATime() = default;

CKORVATime::~CKORVATime() = default;

// --- zone identity ---

int CKORVATime::LinuxTimezoneToKorvaID() {
  long offset;
  int id = _system_zone_id(offset);
  if (id < 0) KLOG(4, "CKORVATime::GetTimeZone(): mo match for timezone %ld", offset);
  return id;
}

long CKORVATime::GetTzInSeconds() {
  int id = LinuxTimezoneToKorvaID();
  return id < 0 ? -1 : tz_sec_to_korva[id].seconds;
}

std::string CKORVATime::GetTimeZone() {
  std::string zone;
  long offset;
  int id = _system_zone_id(offset);
  if (id < 0)
    KLOG(4, "CKORVATime::GetTimeZone(): mo match for timezone %ld", offset);
  else
    zone = gmt_lookup_table[tz_sec_to_korva[id].id].cst;
  return zone;
}

int CKORVATime::GetSandardTimeZone(std::string tz) {
  std::string zone = GetTimeZone();
  if (!tz.empty()) zone = tz;
  return _cst_hours(zone);
}

// --- setting date, time and zone ---

int CKORVATime::SetManualDateTime(int year, int month, int day, int hour, int minute, int second) {
  struct tm tm = {};
  tm.tm_year = _wrapping_minus(year, 1900);
  tm.tm_mon = _wrapping_minus(month, 1);
  tm.tm_mday = day;
  tm.tm_hour = hour;
  tm.tm_min = minute;
  tm.tm_sec = second;
  tm.tm_isdst = -1;
  struct timeval tv;
  tv.tv_sec = mktime(&tm);
  tv.tv_usec = 0;
  if (sys.settimeofday(&tv, nullptr) != 0) {
    int error = errno;
    KLOG(3, "SetDateTime: error %s", strerror(error));
    return 0;
  }
  return 1;
}

// Takes what the scan reads: blanks before a field, and anything behind the
// seconds, are no obstacle. A text of which the scan can not read all six
// numbers is refused.
int CKORVATime::SetDateTime(const char* dateTime) {
  if (dateTime == nullptr) {
    KLOG(2, "KORVA Assert");
    return 0;
  }
  int month, day, hour, minute, year, second;
  if (sscanf(dateTime, "%02d%02d%02d%02d%04d.%02d", &month, &day, &hour, &minute, &year,
             &second) != 6) {
    KLOG(3, "SetDateTime: %s does not fit MMDDhhmmYYYY.ss", dateTime);
    return 0;
  }
  return SetManualDateTime(year, month, day, hour, minute, second);
}

// Runs the command that selects zone `name`; a longer text is cut at the
// buffer's end. The shell sees the name unquoted.
static int _apply_zone(const char* name, char (&command)[1024]) {
  memset(command, 0, sizeof command);
  snprintf(command, sizeof command, "%s %s", _SET_TIMEZONE_COMMAND, name);
  return sys.system(command);
}

int CKORVATime::SetTimeZone(const char* tz) {
  if (tz == nullptr) {
    KLOG(2, "KORVA Assert");
    return 0;
  }
  const gmt_lookup_t* row = nullptr;
  for (const gmt_lookup_t& candidate : gmt_lookup_table) {
    if (strcmp(tz, candidate.cst) == 0) {
      row = &candidate;
      break;
    }
  }
  if (row == nullptr) {
    KLOG(3, "SetTimeZone: could not find match for %s", tz);
    return 0;
  }
  char command[1024];
  if (_apply_zone(row->linux_name, command) != 0) {
    KLOG(3, "SetTimeZone: system fail to set TZ for %s", tz);
    KLOG(3, "Command: %s", command);
    return 0;
  }
  GetDateTimeSettings();
  return 1;
}

// The name goes to a shell through sudo, so only the characters of tz
// database names pass: letters, digits, '/', '_', '-' and '+'. A leading
// '-' would read as an option of timedatectl.
static bool _is_zone_name(const char* name) {
  if (name[0] == '\0' || name[0] == '-') return false;
  for (const char* p = name; *p != '\0'; p++) {
    char c = *p;
    bool allowed = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                   c == '/' || c == '_' || c == '-' || c == '+';
    if (!allowed) return false;
  }
  return true;
}

int CKORVATime::SetTimeZoneByLinuxName(const char* linuxName) {
  if (linuxName == nullptr) {
    KLOG(2, "KORVA Assert");
    return 0;
  }
  if (!_is_zone_name(linuxName)) {
    KLOG(3, "SetTimeZoneByLinuxName: not a time zone name: %s", linuxName);
    return 0;
  }
  char command[1024];
  if (_apply_zone(linuxName, command) != 0) {
    KLOG(3, "SetTimeZoneByLinuxName: system fail to set TZ for %s", linuxName);
    KLOG(3, "Command: %s", command);
    return 0;
  }
  GetDateTimeSettings();
  return 1;
}

int CKORVATime::SetTimezoneEffect() {
  GetDateTimeSettings();
  return 1;
}

int CKORVATime::ChangeManualTimeSetting(std::string&) {
  KLOG(2, "ChangeManualTimeSetting: Not Implemented.");
  return 0;
}

int CKORVATime::GetDSTTime(int&, int&, int&, int&, int&, int&, int&, int&, int&) {
  KLOG(2, "GetDSTTime: Not Implemented.");
  return 0;
}

int CKORVATime::IsInDSTScope(std::string) {
  // GetDSTTime neither reads nor writes them.
  int startMonth, startWeek, startDay, startHour, endMonth, endWeek, endDay, endHour, bias;
  if (GetDSTTime(startMonth, startWeek, startDay, startHour, endMonth, endWeek, endDay, endHour,
                 bias) == 0) {
    KLOG(7, "CKORVATime::GetDSTTime() failed.");
    return 0;
  }
  return 0;
}

// --- the snapshot and time texts ---

void CKORVATime::GetDateTimeSettings() {
  IsDST = false;
  TimeZoneId = LinuxTimezoneToKorvaID();
  if (TimeZoneId < 0) {
    KLOG(3, "Invalid timezone");
    TimeZoneId = 0;
    return;
  }
  struct tm local, utc;
  time_t now = sys.time(nullptr);
  if (!_break_down(localtime_r, now, local)) KLOG(3, "localtime_r fail");
  if (!_break_down(gmtime_r, now, utc)) KLOG(3, "gmtime_r fail");
  if (local.tm_isdst != 0) {
    IsDST = true;
    DSTBias = -60;
  }
  const gmt_lookup_t& row = gmt_lookup_table[TimeZoneId];
  TimeZoneText = std::string("(") + row.gmt + ") " + row.description;
  TimeZoneHours = static_cast<int>(-(timezone / 3600));
  UtcTimeText = _time_text(utc);
  LocalTimeText = GetCurrentTime();
}

std::string CKORVATime::GetCurrentTime() {
  struct tm local;
  _break_down(localtime_r, sys.time(nullptr), local);
  return _time_text_long(local);
}

bool CKORVATime::GetCameraLocalTimeWithTimezone(std::string& localTime) {
  localTime = LocalTimeText;
  localTime = str::Replace(localTime, " ", "T");
  // TimeZoneId is public: a value set from outside that names no row is
  // treated like a row without an offset.
  if (TimeZoneId < 0 || TimeZoneId >= GMT_LOOKUP_ROWS) return false;
  const char* gmt = gmt_lookup_table[TimeZoneId].gmt;
  if (strlen(gmt) <= 3) return false;
  localTime += gmt + 3;
  return true;
}

bool CKORVATime::GetSystemTime(std::string& localTime, std::string& timeZone) {
  bool done = GetCameraLocalTimeWithTimezone(localTime);
  if (done)
    timeZone = GetTimeZone();
  else
    KLOG(3, "GetCameraLocalTimeWithTimezone fail");
  return done;
}

std::string CKORVATime::localTimeToUtc(long seconds, int) {
  std::string zone = GetTimeZone();
  char sign;
  int hours, minutes;
  if (sscanf(zone.c_str(), "CST%c%02d:%02d", &sign, &hours, &minutes) != 3) {
    hours = minutes = 0;
  } else if (sign == '+') {
    hours = -hours;
    minutes = -minutes;
  }
  // Wraps rather than overflows for a value at the edge of the range.
  time_t t = static_cast<time_t>(static_cast<unsigned long>(seconds) -
                                 static_cast<unsigned long>(hours * 3600L + minutes * 60L));
  struct tm local;
  if (!_break_down(localtime_r, t, local)) KLOG(3, "localtime_r fail");
  return _time_text(local);
}

std::string CKORVATime::UTCToLocalDstTime(const std::string& utcTime) {
  KLOG(7, "CKORVATime::UTCToLocalDstTime() UTC=%s", utcTime.c_str());
  // A text that doesn't fit the form gives the empty text: there is no time
  // to convert.
  int year, month, day, hour, minute, second;
  if (sscanf(utcTime.c_str(), "%4d-%2d-%2d %2d:%2d:%2d", &year, &month, &day, &hour, &minute,
             &second) != 6) {
    KLOG(3, "CKORVATime::UTCToLocalDstTime() not a time text: %s", utcTime.c_str());
    return std::string();
  }
  struct tm tm = {};
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_hour = hour;
  tm.tm_min = minute;
  tm.tm_sec = second;  // tm_isdst 0: the text counts as standard time
  time_t t = mktime(&tm);
  int hours = _cst_hours(GetTimeZone());
  KLOG(7, "CKORVATime::1currentTime=%d>>>>>>>>>>>>>\n", static_cast<int>(t));
  t += hours * 3600L;
  KLOG(7, "CKORVATime::2currentTime=%d>>>>>>>>>>>>>\n", static_cast<int>(t));
  struct tm local;
  _break_down(localtime_r, t, local);
  std::string text = _time_text_long(local);
  KLOG(7, "CKORVATime::UTCToLocalDstTime=%s>>>>>>>>>>>>>\n", text.c_str());
  return text;
}
