// The Win32 time records. Only LARGE_INTEGER is taken by an export
// (SetWaitableTimer); the functions on these records are the library's own.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "WinTypes.h"

// Eight 16-bit fields in the Win32 order.
typedef struct _SYSTEMTIME {
  uint16_t wYear;
  uint16_t wMonth;      // 1 to 12
  uint16_t wDayOfWeek;  // 0 is Sunday
  uint16_t wDay;
  uint16_t wHour;
  uint16_t wMinute;
  uint16_t wSecond;
  uint16_t wMilliseconds;
} SYSTEMTIME, *PSYSTEMTIME, *LPSYSTEMTIME;

// One unsigned 64-bit count of 100-nanosecond intervals since 1601-01-01
// 00:00:00 UTC. The halves keep their Win32 names for the application; the
// library reads and writes the count as one 64-bit quantity.
typedef struct _FILETIME {
  DWORD dwLowDateTime;
  DWORD dwHighDateTime;
} FILETIME, *PFILETIME, *LPFILETIME;

// One signed 64-bit value. The anonymous struct keeps the Win32 spelling
// li.LowPart; __extension__ tells a pedantic compiler that this is meant.
typedef union _LARGE_INTEGER {
  __extension__ struct {
    DWORD LowPart;
    int32_t HighPart;
  };
  struct {
    DWORD LowPart;
    int32_t HighPart;
  } u;
  int64_t QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

static_assert(sizeof(SYSTEMTIME) == 16, "SYSTEMTIME is eight 16-bit fields");
static_assert(sizeof(FILETIME) == 8, "FILETIME is eight bytes");
static_assert(sizeof(LARGE_INTEGER) == 8, "LARGE_INTEGER is eight bytes");
// The low half first, as Win32 lays them out on this little-endian platform.
static_assert(offsetof(FILETIME, dwLowDateTime) == 0 && offsetof(FILETIME, dwHighDateTime) == 4,
              "FILETIME halves");
static_assert(offsetof(LARGE_INTEGER, u.LowPart) == 0 && offsetof(LARGE_INTEGER, u.HighPart) == 4,
              "LARGE_INTEGER halves");
