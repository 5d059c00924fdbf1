// Semaphores: a process-private sem_t behind a handle.
#define COMMONL_UNIT "../CommonL/WinApiProc"

#include "WinApiProc.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "WinApiEvents.h"
#include "WinApiMisc.h"
#include "internal.h"

HANDLE CreateSemaphore(_SECURITY_ATTRIBUTES* /*lpSemaphoreAttributes*/, long lInitialCount,
                       long /*lMaximumCount*/, char const* lpName) {
  if (lpName != nullptr) KLOG(2, "Named Semaphore not supported");
  v_handle_t* h = CreateHandleL(V_HANDLE_SEMAPHORE);
  if (h == nullptr) return nullptr;
  if (sem_init(&h->tail.sem, 0, static_cast<unsigned int>(lInitialCount)) == -1) {
    KLOG(3, "Fail to create native semaphore");
    free(h);
    return nullptr;
  }
  return h;
}

BOOL ReleaseSemaphore(HANDLE hSemaphore, long lReleaseCount, long* lpPreviousCount) {
  if (lpPreviousCount != nullptr) KLOG(2, "Previous count value not available");
  if (lReleaseCount <= 0) KLOG(2, "lReleaseCount must be > 0");
  auto* h = static_cast<v_handle_t*>(hSemaphore);
  if (!commonl::handle_is(h, V_HANDLE_SEMAPHORE)) {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  }
  // One post at a time: a waiter may run between two of them.
  for (long i = 0; i < lReleaseCount; i++)
    if (sem_post(&h->tail.sem) != 0) return FALSE;
  return TRUE;
}

DWORD WaitForSemaphore(HANDLE hSemaphore, DWORD dwMilliseconds) {
  auto* h = static_cast<v_handle_t*>(hSemaphore);
  if (!commonl::handle_is(h, V_HANDLE_SEMAPHORE)) {
    SetLastError(ERROR_INVALID_HANDLE);
    return WAIT_FAILED;
  }
  if (dwMilliseconds == INFINITE) return sem_wait(&h->tail.sem) == 0 ? WAIT_OBJECT_0 : WAIT_FAILED;

  struct timespec deadline = commonl::realtime_deadline_ms(dwMilliseconds);
  if (sem_timedwait(&h->tail.sem, &deadline) == 0) return WAIT_OBJECT_0;
  int error = errno;
  if (error == ETIMEDOUT) return WAIT_TIMEOUT;
  if (error == EINVAL)
    KLOG(3, "bad semaphore handle");
  else
    KLOG(3, "error: %s", strerror(error));
  return WAIT_FAILED;
}
