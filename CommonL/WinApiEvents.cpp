// Events on eventfd, the process-wide name dictionaries, mutexes, the
// wait engine and waitable timers.
#define COMMONL_UNIT "../CommonL/WinApiEvents"

#include "WinApiEvents.h"

#include <errno.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <new>
#include <thread>
#include <vector>

#include "WinApiMisc.h"
#include "WinApiProc.h"
#include "WinApiTime.h"
#include "internal.h"

using commonl::sys;

// One entry of a name dictionary. It shares the record's name string and
// takes no reference on the record.
class CDicEntry {
 public:
  const char* name;
  void* handle;
};

typedef std::vector<CDicEntry*> CDictionary;

// Built ahead of the library's other static objects.
static CDictionary events_dic __attribute__((init_priority(102)));
static CDictionary global_events_dic __attribute__((init_priority(102)));
static CDictionary mutexes_dic __attribute__((init_priority(102)));

// Guards the three dictionaries; never nested, never held during a wait.
static pthread_mutex_t dic_mutex = PTHREAD_MUTEX_INITIALIZER;

static const int _POLL_REPORTING_MASK = POLLIN | POLLOUT | POLLERR | POLLHUP | POLLNVAL;
static const DWORD _MAX_WAIT_HANDLES = MAXIMUM_WAIT_OBJECTS;
static const DWORD _STACK_WAIT_HANDLES = 16;

static bool _is_global_name(const char* name) { return strncmp(name, "Global", 6) == 0; }

static bool _lock_dic() { return sys.pthread_mutex_lock(&dic_mutex) == 0; }

static void _unlock_dic() { pthread_mutex_unlock(&dic_mutex); }

// --- name dictionaries; callers hold dic_mutex ---

static v_handle_t* _dic_find(const char* name, const CDictionary& dic) {
  if (name == nullptr) {
    KLOG(2, "KORVA Assert");
    return nullptr;
  }
  for (CDicEntry* entry : dic)
    if (strcmp(entry->name, name) == 0) return static_cast<v_handle_t*>(entry->handle);
  return nullptr;
}

// 1 inserted, 0 the name is there already, -1 out of memory (nothing changed).
static int _dic_insert(const char* name, void* handle, CDictionary& dic) {
  if (name == nullptr) {
    KLOG(2, "KORVA Assert");
    return 0;
  }
  if (_dic_find(name, dic) != nullptr) return 0;
  auto* entry = new (std::nothrow) CDicEntry{name, handle};
  if (entry == nullptr) return -1;
  try {
    dic.push_back(entry);
  } catch (const std::bad_alloc&) {
    delete entry;
    return -1;
  }
  return 1;
}

static void _dic_remove(const char* name, CDictionary& dic) {
  if (name == nullptr) {
    KLOG(2, "KORVA Assert");
    return;
  }
  for (auto it = dic.begin(); it != dic.end(); ++it) {
    if (strcmp((*it)->name, name) == 0) {
      delete *it;
      dic.erase(it);
      return;
    }
  }
}

enum class _Lookup { reopened, absent, lock_failed };

// Looks `name` up under dic_mutex. `reopened`: *found holds one more
// reference and the lock is released. `absent`: the lock is held for the
// caller's creation. A record whose count has reached 0 is being closed
// right now; the lock is let go so that its closer can remove the name, and
// the lookup starts again.
static _Lookup _reopen_or_lock(const char* name, const CDictionary& dic, v_handle_t** found) {
  for (;;) {
    if (!_lock_dic()) return _Lookup::lock_failed;
    v_handle_t* h = _dic_find(name, dic);
    if (h == nullptr) return _Lookup::absent;
    if (commonl::ref_acquire_if_live(h)) {
      _unlock_dic();
      *found = h;
      return _Lookup::reopened;
    }
    _unlock_dic();
    sched_yield();
  }
}

// Gives the record its own copy of `name` and enters it in `dic`. On
// failure nothing is entered and the record has no name.
static bool _enter_name(v_handle_t* h, const char* name, CDictionary& dic) {
  h->name = sys.strdup(name);
  if (h->name == nullptr) return false;
  int inserted = _dic_insert(h->name, h, dic);
  if (inserted == 0) KLOG(2, "dic_insert fail");
  if (inserted < 0) {
    free(h->name);
    h->name = nullptr;
    return false;
  }
  return true;
}

// --- events ---

static CDictionary& _event_dic(int global) { return global ? global_events_dic : events_dic; }

static v_handle_t* _new_event(BOOL bManualReset, int global) {
  int fd = sys.eventfd(0, EFD_NONBLOCK);
  if (fd < 0) {
    KLOG(3, "CreateEvent: event fd fail");
    return nullptr;
  }
  v_handle_t* h = CreateHandleL(V_HANDLE_EVENT);
  if (h == nullptr) {
    close(fd);
    KLOG(3, "no memo");
    return nullptr;
  }
  h->poll_entry.fd = fd;
  h->poll_entry.events = POLLIN;
  h->manual_reset = bManualReset;
  h->global = global;
  return h;
}

static void _discard_event(v_handle_t* h) {
  close(h->poll_entry.fd);
  free(h);
}

static HANDLE _create_named_event(BOOL bManualReset, BOOL bInitialState, const char* lpName) {
  int global = _is_global_name(lpName) ? 1 : 0;
  CDictionary& dic = _event_dic(global);
  SetLastError(ERROR_SUCCESS);

  v_handle_t* h = nullptr;
  switch (_reopen_or_lock(lpName, dic, &h)) {
    case _Lookup::lock_failed:
      KLOG(3, "fail to lock dic_mutex");
      SetLastError(ERROR_NOT_READY);
      return nullptr;
    case _Lookup::reopened:
      SetLastError(ERROR_ALREADY_EXISTS);
      return h;
    case _Lookup::absent:
      break;
  }
  h = _new_event(bManualReset, global);
  if (h != nullptr && !_enter_name(h, lpName, dic)) {
    _discard_event(h);
    h = nullptr;
    KLOG(3, "no memo");
  }
  _unlock_dic();
  if (h == nullptr) return nullptr;

  if (bInitialState) {
    if (global)
      KLOG(4,
           "For now we do not allow global event to have initial state signed.\n"
           "If indeed this is desired then remove this assert line or replace it by a "
           "KOVRA_LOG_W message.");
    SetEvent(h);
  }
  return h;
}

HANDLE CreateEvent(_SECURITY_ATTRIBUTES* lpEventAttributes, BOOL bManualReset, BOOL bInitialState,
                   char const* lpName) {
  if (lpEventAttributes != nullptr) KLOG(2, "CreateEvent: lpEventAttributes must be NULL");
  if (lpName != nullptr) return _create_named_event(bManualReset, bInitialState, lpName);

  SetLastError(ERROR_SUCCESS);
  v_handle_t* h = _new_event(bManualReset, 0);
  if (h != nullptr && bInitialState) SetEvent(h);
  return h;
}

BOOL SetEvent(HANDLE hEvent) {
  auto* h = static_cast<v_handle_t*>(hEvent);
  if (h == nullptr) KLOG(2, "KORVA Assert");
  if (!commonl::handle_is(h, V_HANDLE_EVENT)) {
    KLOG(3, "bad handle");
    return FALSE;
  }
  if (h->name != nullptr && _is_global_name(h->name)) {
    KLOG(3, "Older SysEvent is disable. Fix the caller");
    return TRUE;
  }
  if (h->overlapped) KLOG(2, "Can not SetEvent when event is used in overlapped operations");
  uint64_t one = 1;
  return sys.write(h->poll_entry.fd, &one, sizeof one) == static_cast<ssize_t>(sizeof one);
}

BOOL ResetEvent(HANDLE hEvent) {
  auto* h = static_cast<v_handle_t*>(hEvent);
  if (h == nullptr) {
    KLOG(2, "KORVA Assert");
    return FALSE;
  }
  if (!commonl::handle_is(h, V_HANDLE_EVENT)) return FALSE;
  if (h->overlapped) return TRUE;
  uint64_t counter;
  ssize_t got = sys.read(h->poll_entry.fd, &counter, sizeof counter);
  // EAGAIN: the counter was 0 already, the event was not signalled.
  if (got == static_cast<ssize_t>(sizeof counter) || got == 0 || (got < 0 && errno == EAGAIN))
    return TRUE;
  KLOG(4, "ResetEvent: read error: %s", strerror(errno));
  return FALSE;
}

int VCloseEvent(HANDLE hEvent) {
  auto* h = static_cast<v_handle_t*>(hEvent);
  if (!commonl::handle_is(h, V_HANDLE_EVENT)) {
    KLOG(2, "bad handle");
    return 1;
  }
  if (h->name == nullptr) {
    if (!h->overlapped) {
      close(h->poll_entry.fd);
      h->poll_entry.fd = -1;
    }
    return 0;
  }
  if (!_lock_dic()) {
    KLOG(2, "fail to lock dic_mutex");
    return 1;
  }
  if (commonl::ref_drop_if_positive(h) == 0) {
    _dic_remove(h->name, _event_dic(h->global));
    free(h->name);
    h->name = nullptr;
    _discard_event(h);
  }
  _unlock_dic();
  return 1;
}

// The class of "Global" events is switched off; these keep it that way.
void EnableGlobalEvents() {}

void DisableGlobalEvents() {}

// --- mutexes ---

HANDLE CreateMutex(_SECURITY_ATTRIBUTES* /*lpMutexAttributes*/, BOOL /*bInitialOwner*/,
                   char const* lpName) {
  if (lpName != nullptr && _is_global_name(lpName)) {
    KLOG(3, "Global mutex not implemented");
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  SetLastError(ERROR_SUCCESS);

  v_handle_t* h = nullptr;
  if (lpName != nullptr) {
    switch (_reopen_or_lock(lpName, mutexes_dic, &h)) {
      case _Lookup::lock_failed:
        KLOG(3, "fail to lock dic_mutex");
        SetLastError(ERROR_NOT_READY);
        return nullptr;
      case _Lookup::reopened:
        SetLastError(ERROR_ALREADY_EXISTS);
        return h;
      case _Lookup::absent:
        break;
    }
  }
  // From here on dic_mutex is held for a named mutex: the mutex is
  // initialised before its name can be found.
  h = CreateHandleL(V_HANDLE_MUTEX);
  if (h == nullptr) {
    KLOG(3, "no memo");
  } else if (sys.pthread_mutex_init(&h->tail.mutex, nullptr) != 0) {
    KLOG(3, "could not create POSIX mutex");
    free(h);
    h = nullptr;
  } else if (lpName != nullptr && !_enter_name(h, lpName, mutexes_dic)) {
    pthread_mutex_destroy(&h->tail.mutex);
    free(h);
    h = nullptr;
    KLOG(3, "no memo");
  }
  if (lpName != nullptr) _unlock_dic();
  return h;
}

BOOL ReleaseMutex(HANDLE hMutex) {
  auto* h = static_cast<v_handle_t*>(hMutex);
  if (!commonl::handle_is(h, V_HANDLE_MUTEX)) {
    KLOG(3, "ReleaseMutex: bad handle");
    return FALSE;
  }
  return pthread_mutex_unlock(&h->tail.mutex) == 0 ? TRUE : FALSE;
}

int VCloseMutex(HANDLE hMutex) {
  auto* h = static_cast<v_handle_t*>(hMutex);
  if (!commonl::handle_is(h, V_HANDLE_MUTEX)) {
    KLOG(2, "bad handle");
    return 1;
  }
  if (h->name == nullptr) return 0;
  if (!_lock_dic()) {
    KLOG(2, "fail to lock dic_mutex");
    return 1;
  }
  if (commonl::ref_drop_if_positive(h) == 0) {
    _dic_remove(h->name, mutexes_dic);
    free(h->name);
    h->name = nullptr;
    pthread_mutex_destroy(&h->tail.mutex);
    free(h);
  }
  _unlock_dic();
  return 1;
}

// --- the wait engine ---

static DWORD _wait_mutex(v_handle_t* h, DWORD dwMilliseconds) {
  if (dwMilliseconds == INFINITE)
    return pthread_mutex_lock(&h->tail.mutex) == 0 ? WAIT_OBJECT_0 : WAIT_FAILED;
  struct timespec deadline = commonl::realtime_deadline_ms(dwMilliseconds);
  int rc = pthread_mutex_timedlock(&h->tail.mutex, &deadline);
  if (rc == 0) return WAIT_OBJECT_0;
  return rc == ETIMEDOUT ? WAIT_TIMEOUT : WAIT_FAILED;
}

// Every signal but SIGINT and SIGTERM stays blocked while ppoll waits.
static const sigset_t* _wait_sigmask() {
  static const sigset_t mask = [] {
    sigset_t set;
    sigfillset(&set);
    sigdelset(&set, SIGINT);
    sigdelset(&set, SIGTERM);
    return set;
  }();
  return &mask;
}

static bool _is_pollable(const v_handle_t* h) {
  return h->magic == V_HANDLE_MAGIC &&
         (h->type == V_HANDLE_EVENT || h->type == V_HANDLE_SOCKET_EVENT ||
          h->type == V_HANDLE_MUTEX);
}

// The lowest signalled index wins; only that handle's signal is consumed.
static DWORD _take_signalled(DWORD nCount, HANDLE const* lpHandles, const struct pollfd* fds) {
  for (DWORD i = 0; i < nCount; i++) {
    if ((fds[i].revents & _POLL_REPORTING_MASK) == 0) continue;
    auto* h = static_cast<v_handle_t*>(lpHandles[i]);
    if (h->type == V_HANDLE_SOCKET_EVENT)
      h->tail.last_revents = static_cast<uint16_t>(fds[i].revents);
    else if (h->manual_reset == 0)
      ResetEvent(h);
    return i;
  }
  KLOG(3, "WaitForMultipleObjects: Could not find reported eventent");
  for (DWORD i = 0; i < nCount; i++) KLOG(7, "fds[%d].revents = %d", static_cast<int>(i), fds[i].revents);
  return WAIT_FAILED;
}

static DWORD _poll_and_take(DWORD nCount, HANDLE const* lpHandles, struct pollfd* fds,
                            DWORD dwMilliseconds);

// Fills `fds` (zeroed, one entry per handle) and waits.
static DWORD _wait_polled(DWORD nCount, HANDLE const* lpHandles, struct pollfd* fds,
                          DWORD dwMilliseconds) {
  for (DWORD i = 0; i < nCount; i++) {
    auto* h = static_cast<v_handle_t*>(lpHandles[i]);
    if (h == nullptr) {
      fds[i].fd = -1;
      continue;
    }
    if (!_is_pollable(h)) {
      KLOG(3, "bad handle position %d, bat type %d", static_cast<int>(i), static_cast<int>(h->type));
      return WAIT_FAILED;
    }
    if (h->type == V_HANDLE_MUTEX) {
      if (nCount == 1) return _wait_mutex(h, dwMilliseconds);
      KLOG(3, "WaitObject call for mutex must have a single handle");
      return WAIT_FAILED;
    }
    fds[i] = h->poll_entry;
  }
  return _poll_and_take(nCount, lpHandles, fds, dwMilliseconds);
}

// ppoll over the filled array, then the lowest signalled index.
static DWORD _poll_and_take(DWORD nCount, HANDLE const* lpHandles, struct pollfd* fds,
                            DWORD dwMilliseconds) {
  struct timespec timeout;
  const struct timespec* timeout_ptr = nullptr;
  if (dwMilliseconds != INFINITE) {
    timeout.tv_sec = dwMilliseconds / 1000;
    timeout.tv_nsec = static_cast<long>(dwMilliseconds % 1000) * 1000000L;
    timeout_ptr = &timeout;
  }
  int ready = sys.ppoll(fds, nCount, timeout_ptr, _wait_sigmask());
  if (ready == 0) return WAIT_TIMEOUT;
  if (ready > 0) return _take_signalled(nCount, lpHandles, fds);

  int error = errno;
  if (error == EINTR) {
    KLOG(3, "WaitForMultipleObjects got SIGINT or SIGTERM signal");
  } else {
    KLOG(3, "WaitForMultipleObjects ppoll errno = %d", error);
    KLOG(3, "WaitForMultipleObjects ppoll error: %s", strerror(error));
  }
  return WAIT_FAILED;
}

DWORD WaitForMultipleObjects(DWORD nCount, HANDLE const* lpHandles, BOOL bWaitAll,
                             DWORD dwMilliseconds) {
  if (nCount == 0) {
    KLOG(4, "WaitForMultipleObjects: bad nCount == 0");
    return WAIT_FAILED;
  }
  if (nCount > _MAX_WAIT_HANDLES) {
    KLOG(4, "WaitForMultipleObjects: bad nCount = %d, max is %d", static_cast<int>(nCount),
         static_cast<int>(_MAX_WAIT_HANDLES));
    return WAIT_FAILED;
  }
  // Any one handle ends the wait, whatever bWaitAll says.
  if (bWaitAll == 1) KLOG(2, "WaitForMultipleObjects: bWaitAll == TRUE not supported");

  struct pollfd stack_fds[_STACK_WAIT_HANDLES];
  struct pollfd* fds = stack_fds;
  if (nCount <= _STACK_WAIT_HANDLES) {
    memset(stack_fds, 0, nCount * sizeof(struct pollfd));
  } else {
    KLOG(7, "WaitForMultipleObjects: using large pollfd array, nCount = %d", static_cast<int>(nCount));
    fds = static_cast<struct pollfd*>(sys.calloc(nCount, sizeof(struct pollfd)));
    if (fds == nullptr) {
      KLOG(3, "no memo for pollfd");
      return WAIT_FAILED;
    }
  }
  DWORD result = _wait_polled(nCount, lpHandles, fds, dwMilliseconds);
  if (fds != stack_fds) free(fds);
  return result;
}

DWORD WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds) {
  auto* h = static_cast<v_handle_t*>(hHandle);
  if (h == nullptr) {
    SetLastError(ERROR_INVALID_HANDLE);
    return WAIT_FAILED;
  }
  if (h->type == V_HANDLE_SEMAPHORE) return WaitForSemaphore(h, dwMilliseconds);
  // A lone event or mutex goes straight to its poll or lock, as the general
  // path would take it.
  if (commonl::handle_is(h, V_HANDLE_EVENT)) {
    struct pollfd entry = h->poll_entry;
    return _poll_and_take(1, &hHandle, &entry, dwMilliseconds);
  }
  if (commonl::handle_is(h, V_HANDLE_MUTEX)) return _wait_mutex(h, dwMilliseconds);
  return WaitForMultipleObjects(1, &hHandle, 0, dwMilliseconds);
}

// --- waitable timers ---

HANDLE CreateWaitableTimer(_SECURITY_ATTRIBUTES* lpTimerAttributes, BOOL bManualReset,
                           char const* lpTimerName) {
  return CreateEvent(lpTimerAttributes, bManualReset, 0, lpTimerName);
}

int VCloseTimer(HANDLE hTimer) { return VCloseEvent(hTimer); }

static const int64_t _NS_PER_SECOND = 1000000000;
// The longest single nanosleep of a timer thread; a longer delay is slept
// step by step and never hands the kernel an extreme timespec.
static const int64_t _TIMER_SLEEP_STEP_NS = 86400 * _NS_PER_SECOND;

// A signal cuts a step short: the step goes on with what nanosleep left.
// Any other failure ends the whole sleep.
static void _timer_sleep(int64_t delay_ns) {
  while (delay_ns > 0) {
    int64_t step = delay_ns < _TIMER_SLEEP_STEP_NS ? delay_ns : _TIMER_SLEEP_STEP_NS;
    delay_ns -= step;
    struct timespec request;
    request.tv_sec = static_cast<time_t>(step / _NS_PER_SECOND);
    request.tv_nsec = static_cast<long>(step % _NS_PER_SECOND);
    struct timespec remaining;
    while (sys.nanosleep(&request, &remaining) != 0) {
      if (errno != EINTR) return;
      request = remaining;
    }
  }
}

// (due - now) * 100, both FILETIME counts. Where that leaves 64 bits, a due
// time in the past fires at once and one in the future waits the longest
// delay there is, some 292 years.
static int64_t _timer_delay_ns(int64_t due, int64_t now) {
  int64_t intervals;
  if (__builtin_sub_overflow(due, now, &intervals)) return due < now ? 0 : INT64_MAX;
  int64_t delay_ns;
  if (__builtin_mul_overflow(intervals, 100, &delay_ns)) return intervals < 0 ? 0 : INT64_MAX;
  return delay_ns;
}

// The present has whole seconds only, so a timer fires up to a second late.
// A failed thread start throws std::system_error out of here.
BOOL SetWaitableTimer(HANDLE hTimer, _LARGE_INTEGER const* lpDueTime, long /*lPeriod*/,
                      PTIMERAPCROUTINE pfnCompletionRoutine, void* lpArgToCompletionRoutine,
                      BOOL /*fResume*/) {
  if (lpDueTime == nullptr || hTimer == nullptr) return FALSE;
  ResetEvent(hTimer);
  _FILETIME now;
  GetSystemTimeAsFileTime(&now);
  int64_t delay_ns =
      _timer_delay_ns(lpDueTime->QuadPart, static_cast<int64_t>(commonl::filetime_count(&now)));
  std::thread([delay_ns, hTimer, pfnCompletionRoutine, lpArgToCompletionRoutine] {
    if (delay_ns > 0) _timer_sleep(delay_ns);
    SetEvent(hTimer);
    if (pfnCompletionRoutine != nullptr) pfnCompletionRoutine(lpArgToCompletionRoutine);
  }).detach();
  return TRUE;
}
