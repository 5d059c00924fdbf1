// Semaphores, threads and commands.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include "Handles.h"

COMMONL_API HANDLE CreateSemaphore(_SECURITY_ATTRIBUTES* lpSemaphoreAttributes, long lInitialCount,
                                   long lMaximumCount, char const* lpName);
COMMONL_API BOOL ReleaseSemaphore(HANDLE hSemaphore, long lReleaseCount, long* lpPreviousCount);
COMMONL_API DWORD WaitForSemaphore(HANDLE hSemaphore, DWORD dwMilliseconds);

// Threads. A thread handle is the address of the thread's gt_thread_handle:
// valid while the thread lives, never waitable, closing it is optional.
// The thread handle, or all bits set (-1) on failure; 0 is never a failure.
COMMONL_API uintptr_t _beginthreadex(void* security, unsigned int stack_size,
                                     unsigned int (*start_address)(void*), void* arglist,
                                     unsigned int initflag, unsigned int* thrdaddr);
// The entry point handed to pthread_create; nothing else calls it.
COMMONL_API void* _beginthreadex_proxy(void* start);

COMMONL_API HANDLE GetCurrentThread();
COMMONL_API DWORD GetCurrentThreadId();
COMMONL_API BOOL TerminateThread(HANDLE hThread, DWORD dwExitCode);
// This library's priorities, 1 to 7 (not the Win32 numbers; 0 is refused).
COMMONL_API int GetThreadPriority(HANDLE hThread);
COMMONL_API BOOL SetThreadPriority(HANDLE hThread, int nPriority);

// Runs `command` through the shell and gives back its standard output.
// *output_buf_size is the capacity on entry; on return the bytes used (result
// 1) or the size required (result 0). `end_marker` may be NULL.
COMMONL_API int RunProcess(char const* command, char* output_buf, int* output_buf_size,
                           char const* end_marker);
COMMONL_API void UpdateOutputBufSize(FILE* stream, char* buffer, int* size, int already_read);

COMMONL_API int GetCurrentProcessId();
// The user's login name. *pcbBuffer is the buffer's size on entry and, on
// success, the name's length with its NUL; a buffer too small gives 0 and
// leaves *pcbBuffer as it was.
COMMONL_API int GetUserName(char* lpBuffer, unsigned int* pcbBuffer);
