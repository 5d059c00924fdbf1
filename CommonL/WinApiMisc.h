// The per-thread last-error value.
#pragma once

#include "WinTypes.h"

#define ERROR_SUCCESS 0u
#define ERROR_INVALID_HANDLE 6u
#define ERROR_NOT_READY 21u
#define ERROR_INVALID_PARAMETER 87u
#define ERROR_ALREADY_EXISTS 183u

COMMONL_API DWORD GetLastError();
COMMONL_API void SetLastError(DWORD dwErrCode);
