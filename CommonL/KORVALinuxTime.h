// The application's time zones: a fixed list of 348 tz database names,
// addressed by their position in it (the time zone key), and selecting one
// of them as the machine's zone. Plain C names, so that callers in any
// language find them.
#pragma once

#include "WinTypes.h"

#ifdef __cplusplus
extern "C" {
#endif

// 348: the keys run from 0 to 347.
COMMONL_API int TZ__get_num_timezones(void);
// A new string that the caller releases with free: the name at `key`, or an
// empty string for a key out of range; NULL only when memory runs out.
COMMONL_API char* TZ__get_name(int key);
// `key` itself if it is in range, else -1.
COMMONL_API int TZ__get_id(int key);
// Daylight saving rules are not kept per zone: 0 for every key.
COMMONL_API int TZ__get_dts(int key);
// The key of the name in /etc/timezone, or -1.
COMMONL_API int TZ__get_selected_id(void);
// Selects the zone of the key given in decimal through timedatectl, with
// the rights of the calling process; 1 on success, 0 on failure.
COMMONL_API int SetLinuxTimeZone(const char* TimeZoneKey);

#ifdef __cplusplus
}
#endif
