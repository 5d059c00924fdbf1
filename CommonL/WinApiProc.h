// Semaphores.
#pragma once

#include "Handles.h"

COMMONL_API HANDLE CreateSemaphore(_SECURITY_ATTRIBUTES* lpSemaphoreAttributes, long lInitialCount,
                                   long lMaximumCount, char const* lpName);
COMMONL_API BOOL ReleaseSemaphore(HANDLE hSemaphore, long lReleaseCount, long* lpPreviousCount);
COMMONL_API DWORD WaitForSemaphore(HANDLE hSemaphore, DWORD dwMilliseconds);
