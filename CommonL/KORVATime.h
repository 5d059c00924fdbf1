// The library's date, time and zone service, CKORVATime, with the tables it
// works from and its text utilities. Used among the library's own files
// only; nothing here is exported and the header is not installed.
//
// A zone is known here by its zone id, a row of gmt_lookup_table, found
// from the standard offset of the system's zone and from nothing else.
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <wchar.h>

#include <memory>
#include <string>
#include <type_traits>

// One UTC offset with its texts. `cst` has the POSIX sign ("+" west of
// Greenwich), `gmt` the display sign ("-" west of it).
struct gmt_lookup_t {
  int id;  // the row's own position
  const char* cst;
  const char* gmt;
  const char* linux_name;  // the tz database name that selects this offset
  const char* description;
};

// An offset in seconds west of UTC, as the libc global `timezone` counts,
// and its zone id.
struct tz_sec_to_korva_t {
  long seconds;
  int id;
};

const int GMT_LOOKUP_ROWS = 37;
extern const gmt_lookup_t gmt_lookup_table[GMT_LOOKUP_ROWS];
// The 37 offsets in zone id order, then an end mark.
extern const tz_sec_to_korva_t tz_sec_to_korva[GMT_LOOKUP_ROWS + 1];

class CKORVATime {
 public:
  CKORVATime();
  virtual ~CKORVATime();

  // --- zone identity; each asks the system anew and reads no field ---

  // The zone id of the system's standard offset, or -1.
  int LinuxTimezoneToKorvaID();
  // Seconds west of UTC of the system's zone, or -1 when it has no row.
  long GetTzInSeconds();
  // The `cst` text of the system's zone, or empty.
  std::string GetTimeZone();
  // Whole hours east of UTC of a `cst` text, or of the system's zone when
  // the text is empty; 0 for a text that doesn't read as one.
  int GetSandardTimeZone(std::string tz);

  // --- setting date, time and zone; 1 on success, 0 on failure ---

  // Wall-clock time in the system's zone; out-of-range fields normalise.
  int SetManualDateTime(int year, int month, int day, int hour, int minute, int second);
  // "MMDDhhmmYYYY.ss", as a scan reads it: blanks before a field and
  // anything behind the seconds are taken; fewer than six numbers give 0.
  int SetDateTime(const char* dateTime);
  // By a `cst` text of gmt_lookup_table.
  int SetTimeZone(const char* tz);
  int SetTimeZoneByLinuxName(const char* linuxName);
  // Refreshes the snapshot; always 1.
  int SetTimezoneEffect();
  // Not implemented: each reports so and returns 0.
  int ChangeManualTimeSetting(std::string& setting);
  int GetDSTTime(int& startMonth, int& startWeek, int& startDay, int& startHour, int& endMonth,
                 int& endWeek, int& endDay, int& endHour, int& bias);
  int IsInDSTScope(std::string dateTime);

  // --- the snapshot and time texts ---

  // The only writer of the fields below.
  void GetDateTimeSettings();
  // Local time now, "YYYY-MM-DD hh:mm:ss".
  std::string GetCurrentTime();
  // LocalTimeText of the last refresh as "YYYY-MM-DDThh:mm:ss" followed by
  // the standard offset of row TimeZoneId, as in -05:00.
  bool GetCameraLocalTimeWithTimezone(std::string& localTime);
  bool GetSystemTime(std::string& localTime, std::string& timeZone);
  // `seconds` less the zone's standard offset, as a local time text; the
  // second argument is not read.
  std::string localTimeToUtc(long seconds, int isDst);
  // A UTC time text as a local one; the empty text for a text that doesn't
  // give all six fields.
  std::string UTCToLocalDstTime(const std::string& utcTime);

  int TimeZoneHours = 0;  // whole hours east of UTC, standard time
  std::string TimeZoneText;
  std::string LocalTimeText;
  std::string UtcTimeText;
  int TimeZoneId = 12;  // the row of offset zero until the first refresh
  bool IsDST = false;
  int DSTBias = 0;  // -60 once a refresh has seen daylight saving; never reset
};

namespace str {

inline int _vformat(char* buffer, size_t size, const char* format, va_list args) {
  return vsnprintf(buffer, size, format, args);
}

// Unlike vsnprintf, gives -1 when the text doesn't fit.
inline int _vformat(wchar_t* buffer, size_t size, const wchar_t* format, va_list args) {
  return vswprintf(buffer, size, format, args);
}

const size_t FORMAT_FIXED_SIZE = 1024;
const size_t FORMAT_MAX_SIZE = 2097152;

// printf into a new string. A text below FORMAT_FIXED_SIZE characters takes
// no heap memory beyond the result's own; one that would need more than
// FORMAT_MAX_SIZE gives the format text itself.
template <typename T>
std::basic_string<T> Format(const T* format, ...) {
  T fixed[FORMAT_FIXED_SIZE];
  std::unique_ptr<T[]> heap;
  T* buffer = fixed;
  size_t size = FORMAT_FIXED_SIZE;
  va_list args;
  va_start(args, format);
  for (;;) {
    va_list attempt;
    va_copy(attempt, args);
    int n = _vformat(buffer, size, format, attempt);
    va_end(attempt);
    if (n >= 0 && static_cast<size_t>(n) < size) {
      va_end(args);
      return std::basic_string<T>(buffer, static_cast<size_t>(n));
    }
    size = n >= 0 ? static_cast<size_t>(n) + 1 : size * 2;
    if (size > FORMAT_MAX_SIZE) {
      va_end(args);
      return std::basic_string<T>(format);
    }
    try {
      heap.reset(new T[size]);
    } catch (...) {
      va_end(args);
      throw;
    }
    buffer = heap.get();
  }
}

// Every occurrence of `find`, from left to right and without overlap;
// inserted text is not searched again. An empty `find` leaves the copy as
// it is.
// The character type comes from `source`; the other two may be literals.
template <typename T>
std::basic_string<T> Replace(const std::basic_string<T>& source,
                             const std::common_type_t<std::basic_string<T>>& find,
                             const std::common_type_t<std::basic_string<T>>& replacement) {
  std::basic_string<T> result(source);
  if (find.empty()) return result;
  size_t position = 0;
  while (position < result.size()) {
    position = result.find(find, position);
    if (position == std::basic_string<T>::npos) break;
    result.replace(position, find.size(), replacement);
    position += replacement.size();
  }
  return result;
}

}  // namespace str
