// The handle record: creation, reference counting, close and duplicate,
// and the handles of the process and of the calling thread.
#define COMMONL_UNIT "../CommonL/Handles"

#include "Handles.h"

#include <stdlib.h>
#include <unistd.h>

#include "WinApiEvents.h"
#include "internal.h"

__thread v_handle_t gt_thread_handle;

// Preset magic and type, all else zero; its count is never looked at.
static v_handle_t process_handle = {V_HANDLE_MAGIC, V_HANDLE_PROCESS, {}, nullptr, 0, 0, 0, 0, {}};

v_handle_t* CreateHandleL(v_handle_type_t type) {
  auto* h = static_cast<v_handle_t*>(commonl::sys.calloc(1, sizeof(v_handle_t)));
  if (h == nullptr) {
    KLOG(3, "no memo");
    return nullptr;
  }
  h->magic = V_HANDLE_MAGIC;
  h->type = type;
  h->ref_count = 1;
  return h;
}

// Every thread may call this at once: the pid is written only when it
// differs, which is once per process (and once more in a forked child), and
// atomically, so that the store never races with a read.
HANDLE GetCurrentProcess() {
  const pid_t pid = getpid();
  if (__atomic_load_n(&process_handle.tail.pid, __ATOMIC_RELAXED) != pid)
    __atomic_store_n(&process_handle.tail.pid, pid, __ATOMIC_RELAXED);
  return &process_handle;
}

void PopulateThreadHandle() {
  gt_thread_handle.magic = V_HANDLE_MAGIC;
  gt_thread_handle.type = V_HANDLE_THREAD;
  gt_thread_handle.tail.tid = gettid();
  gt_thread_handle.tail.thread = pthread_self();
}

// The release once the count has reached 0, one row per kind of object; its
// reports are CloseHandle's.
static BOOL _release(v_handle_t* h) {
  const char* const op = "CloseHandle";
  switch (h->type) {
    case V_HANDLE_EVENT:
      if (VCloseEvent(h) == 0) commonl::sys.free(h);
      return TRUE;
    case V_HANDLE_FD:
      close(h->tail.fd);
      commonl::sys.free(h);
      return TRUE;
    case V_HANDLE_FIND:
      KLOG_AS(op, 3, "FindFirst handle must be close with FirstClose function");
      return FALSE;
    case V_HANDLE_SOCKET_EVENT:
      close(h->tail.second_fd);
      close(h->poll_entry.fd);
      commonl::sys.free(h);
      return TRUE;
    case V_HANDLE_SEMAPHORE:
      sem_destroy(&h->tail.sem);
      commonl::sys.free(h);
      return TRUE;
    case V_HANDLE_MUTEX:
      if (VCloseMutex(h) == 0) commonl::sys.free(h);
      return TRUE;
    default:
      KLOG_AS(op, 3, "bad handle type");
      return FALSE;
  }
}

BOOL CloseHandle(HANDLE hObject) {
  auto* h = static_cast<v_handle_t*>(hObject);
  if (h == nullptr) return TRUE;
  if (h->magic != V_HANDLE_MAGIC) {
    KLOG(3, "bad handle");
    return FALSE;
  }
  if (h->type == V_HANDLE_PROCESS || h->type == V_HANDLE_THREAD) return TRUE;

  int count = commonl::ref_add(h, -1);
  if (count > 0) return TRUE;
  if (count < 0) {
    KLOG(4, "CloseHandle %p called more times than should", hObject);
    return FALSE;
  }
  return _release(h);
}

BOOL DuplicateHandle(HANDLE hSourceProcessHandle, HANDLE hSourceHandle,
                     HANDLE hTargetProcessHandle, HANDLE* lpTargetHandle, DWORD dwDesiredAccess,
                     BOOL bInheritHandle, DWORD dwOptions) {
  if (dwDesiredAccess != 0) KLOG(2, "dwDesiredAccess must be zero");
  if (bInheritHandle != 0) KLOG(2, "bInheritHandle must be FALSE");
  if (dwOptions != 0) KLOG(2, "dwOptions must be DUPLICATE_SAME_ACCESS");
  if (hSourceProcessHandle != hTargetProcessHandle)
    KLOG(2, "hSourceProcessHandle and hTargetProcessHandle must be equal");

  auto* h = static_cast<v_handle_t*>(hSourceHandle);
  // Nowhere to put the copy is treated like a source without the magic.
  if (h == nullptr || lpTargetHandle == nullptr || h->magic != V_HANDLE_MAGIC) {
    KLOG(3, "bad handle");
    return FALSE;
  }
  if (h->type == V_HANDLE_SOCKET_EVENT) {
    KLOG(3, "Socket event handle can not be duplicated.");
    return FALSE;
  }
  commonl::ref_add(h, 1);
  *lpTargetHandle = hSourceHandle;
  return TRUE;
}
