// The per-thread last-error value, the machine's system information, the
// alarm sound, and the small Win32 calls.
#pragma once

#include <stdint.h>

#include "WinTypes.h"

#define ERROR_SUCCESS 0u
#define ERROR_INVALID_HANDLE 6u
#define ERROR_NOT_READY 21u
#define ERROR_INVALID_PARAMETER 87u
#define ERROR_ALREADY_EXISTS 183u

COMMONL_API DWORD GetLastError();
COMMONL_API void SetLastError(DWORD dwErrCode);

// --- system information: sysinfo.json ---

// Each text field holds the value's characters, a line feed and a NUL (the
// line feed is kept: compare with care); a key the file lacks leaves its
// field all zero. Values longer than the field less two are cut and lose the
// line feed.
struct LinuxInfo_t {
  char ProductName[64];
  int32_t Ram;  // the file decides the unit
  char Cpu[32];
  char Model[64];  // the key into the hardware catalogue
  char SerialNumber[64];
};

// A new record read from the file at `path`, or NULL; release it with free().
COMMONL_API LinuxInfo_t* GetLinuxInfoEx(char const* path);
// GetLinuxInfoEx on /opt/Tessend/KORVA/resources/sysinfo.json.
COMMONL_API LinuxInfo_t* GetLinuxInfo();

// --- the alarm sound ---

// Whether the machine sounds on its buzzer (the `beep` command) or plays a
// sound file (`paplay`, in the background) is the hardware catalogue's
// answer for its model, asked at every call; on a machine without a buzzer
// the arguments play no part. 1 if the shell command gave status 0, else 0.
// On a buzzer machine the call blocks for the tone.
COMMONL_API int Beep(unsigned int dwFreq, unsigned int dwDuration);
// Hand 0x10, exclamation 0x30, asterisk 0x40, simple beep 0xFFFFFFFF; any
// other type sounds at 755 Hz. Every tone lasts 400 ms.
COMMONL_API int MessageBeep(unsigned int uType);

// "NViS-1482", "NVR-1U-8CH", then NULL. Not consulted by the library.
extern COMMONL_API char const* const gNexcomModels[3];

// --- small Win32 calls ---

// On 64-bit `long`, unlike Win32; sequentially consistent. A NULL target is
// reported and gives 0.
COMMONL_API long InterlockedExchange(long volatile* Target, long Value);
COMMONL_API long InterlockedIncrement(long volatile* Addend);
COMMONL_API long InterlockedDecrement(long volatile* Addend);
// The value found in *Destination; equal to Comperand exactly when Exchange
// was written.
COMMONL_API long InterlockedCompareExchange(long volatile* Destination, long Exchange,
                                            long Comperand);

// Always 0: no pointer counts as bad.
COMMONL_API BOOL IsBadWritePtr(void* lp, unsigned int ucb);
// The word masked with bit `bit` (0 to 31): non-zero if set, but not 1.
// Another bit index gives 0.
COMMONL_API int IsBitSet(unsigned int value, int bit);
// Not supported: logs a warning and returns 0, with the buffer untouched.
COMMONL_API DWORD GetModuleFileName(void* hModule, char* lpFilename, unsigned int nSize);

// 16 bytes, filled in the order of the kernel's UUID text: no byte swapping
// within the fields.
typedef struct _GUID {
  uint32_t Data1;
  uint16_t Data2;
  uint16_t Data3;
  uint8_t Data4[8];
} GUID;

// 0, or 1 if no UUID could be had (the record is then unchanged).
COMMONL_API int CoCreateGuid(_GUID* pguid);

// Splits at "/" only. `drive` only ever receives the empty string, `ext`
// comes without its dot, and a leading dot starts no extension. Any out
// buffer may be NULL; the others need room for the whole path.
COMMONL_API void _splitpath(char const* path, char* drive, char* dir, char* fname, char* ext);
