// Win32 base types as the ported application spells them. Widths follow
// this platform: `unsigned int` is the 32-bit DWORD, `long` is 64 bits.
#pragma once

typedef int BOOL;
typedef unsigned int DWORD;
typedef void* HANDLE;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

// Accepted where Win32 takes security attributes; no field is ever read.
typedef struct _SECURITY_ATTRIBUTES {
  DWORD nLength;
  void* lpSecurityDescriptor;
  BOOL bInheritHandle;
} SECURITY_ATTRIBUTES, *LPSECURITY_ATTRIBUTES;

#if defined(COMMONL_BUILDING)
#define COMMONL_API __attribute__((visibility("default")))
#else
#define COMMONL_API
#endif
