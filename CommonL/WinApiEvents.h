// Events on eventfd and the wait engine.
#pragma once

#include "Handles.h"
#include "WinTimeTypes.h"

#define WAIT_OBJECT_0 0u
#define WAIT_TIMEOUT 0xFFFFFFFEu  // not the 258 of Win32
#define WAIT_FAILED 0xFFFFFFFFu
#define INFINITE 0xFFFFFFFFu

// The most handles one wait takes (Win32 allows 64).
#define MAXIMUM_WAIT_OBJECTS 1024

COMMONL_API HANDLE CreateEvent(_SECURITY_ATTRIBUTES* lpEventAttributes, BOOL bManualReset,
                               BOOL bInitialState, char const* lpName);
COMMONL_API BOOL SetEvent(HANDLE hEvent);
COMMONL_API BOOL ResetEvent(HANDLE hEvent);
// 0: the caller frees the record; any other value: nothing is left to do.
COMMONL_API int VCloseEvent(HANDLE hEvent);
COMMONL_API void EnableGlobalEvents();
COMMONL_API void DisableGlobalEvents();

// A NULL lpHandles with nCount above 0 gives WAIT_FAILED.
COMMONL_API DWORD WaitForMultipleObjects(DWORD nCount, HANDLE const* lpHandles, BOOL bWaitAll,
                                         DWORD dwMilliseconds);
COMMONL_API DWORD WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds);

// Mutexes: taken through the wait functions, with nCount 1.
COMMONL_API HANDLE CreateMutex(_SECURITY_ATTRIBUTES* lpMutexAttributes, BOOL bInitialOwner,
                               char const* lpName);
COMMONL_API BOOL ReleaseMutex(HANDLE hMutex);
// 0: the caller frees the record; any other value: nothing is left to do.
COMMONL_API int VCloseMutex(HANDLE hMutex);

// Waitable timers: events that a thread of their own signals once at the
// due time; every event operation works on them. The routine takes one
// argument, not the three of Win32, and runs on the timer's own thread.
typedef void (*PTIMERAPCROUTINE)(void* lpArgToCompletionRoutine);

COMMONL_API HANDLE CreateWaitableTimer(_SECURITY_ATTRIBUTES* lpTimerAttributes, BOOL bManualReset,
                                       char const* lpTimerName);
// lpDueTime is absolute only, in 100-nanosecond units since 1601-01-01 UTC
// (a negative, relative one is reported and fires at once);
// lPeriod and fResume are ignored: each call fires once. Every call starts
// a thread that holds the handle until it fires, so the caller keeps the
// handle open until then.
COMMONL_API BOOL SetWaitableTimer(HANDLE hTimer, _LARGE_INTEGER const* lpDueTime, long lPeriod,
                                  PTIMERAPCROUTINE pfnCompletionRoutine,
                                  void* lpArgToCompletionRoutine, BOOL fResume);
COMMONL_API int VCloseTimer(HANDLE hTimer);
