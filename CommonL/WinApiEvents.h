// Events on eventfd and the wait engine.
#pragma once

#include "Handles.h"

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

COMMONL_API DWORD WaitForMultipleObjects(DWORD nCount, HANDLE const* lpHandles, BOOL bWaitAll,
                                         DWORD dwMilliseconds);
COMMONL_API DWORD WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds);

// Mutexes: taken through the wait functions, with nCount 1.
COMMONL_API HANDLE CreateMutex(_SECURITY_ATTRIBUTES* lpMutexAttributes, BOOL bInitialOwner,
                               char const* lpName);
COMMONL_API BOOL ReleaseMutex(HANDLE hMutex);
// 0: the caller frees the record; any other value: nothing is left to do.
COMMONL_API int VCloseMutex(HANDLE hMutex);
