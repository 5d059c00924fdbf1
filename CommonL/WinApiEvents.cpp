// Events on eventfd, the process-wide name dictionaries, mutexes, the
// wait engine and waitable timers.
#define COMMONL_UNIT "../CommonL/WinApiEvents"

#include "WinApiEvents.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <memory>
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

// Holds dic_mutex for its scope. A thread cancelled while it holds the lock
// (the logger may reach a cancellation point) still lets it go.
class _DicLock {
 public:
  _DicLock() : locked_(sys.pthread_mutex_lock(&dic_mutex) == 0) {}
  ~_DicLock() {
    if (locked_) pthread_mutex_unlock(&dic_mutex);
  }
  _DicLock(const _DicLock&) = delete;
  _DicLock& operator=(const _DicLock&) = delete;
  bool locked() const { return locked_; }
  void unlock() {
    pthread_mutex_unlock(&dic_mutex);
    locked_ = false;
  }

 private:
  bool locked_;
};

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

enum class _Inserted { yes, name_there, no_memory };

// On no_memory nothing has changed.
static _Inserted _dic_insert(const char* name, void* handle, CDictionary& dic) {
  if (name == nullptr) {
    KLOG(2, "KORVA Assert");
    return _Inserted::name_there;
  }
  if (_dic_find(name, dic) != nullptr) return _Inserted::name_there;
  auto* entry = new (std::nothrow) CDicEntry{name, handle};
  if (entry == nullptr) return _Inserted::no_memory;
  try {
    dic.push_back(entry);
  } catch (const std::bad_alloc&) {
    delete entry;
    return _Inserted::no_memory;
  }
  return _Inserted::yes;
}

// Removes the entry of `name` if it is `handle`'s. Once a record is on its
// way out, a create may already have given the name to a new object; that
// entry is not the closer's to remove.
static void _dic_remove(const char* name, const void* handle, CDictionary& dic) {
  if (name == nullptr) {
    KLOG(2, "KORVA Assert");
    return;
  }
  for (auto it = dic.begin(); it != dic.end(); ++it) {
    if (strcmp((*it)->name, name) != 0) continue;
    if ((*it)->handle == handle) {
      delete *it;
      dic.erase(it);
    }
    return;
  }
}

// The reopen of `name`, under dic_mutex: the live record with one more
// reference, or NULL when the name is free. A record whose count has fallen
// to 0 is being released by its last close (or was left behind by a close
// that could not lock): it is never handed out, and its name is taken from
// it here, so that the caller makes a new object and nobody waits for the
// closer.
static v_handle_t* _dic_reopen(const char* name, CDictionary& dic) {
  v_handle_t* h = _dic_find(name, dic);
  if (h == nullptr || commonl::ref_acquire_if_live(h)) return h;
  _dic_remove(name, h, dic);
  return nullptr;
}

// Gives the record its own copy of `name` and enters it in `dic`; reports
// as `op`. On failure nothing is entered and the record has no name.
static bool _enter_name(v_handle_t* h, const char* name, CDictionary& dic, const char* op) {
  h->name = sys.strdup(name);
  if (h->name == nullptr) return false;
  const _Inserted inserted = _dic_insert(h->name, h, dic);
  if (inserted == _Inserted::name_there) KLOG_AS(op, 2, "dic_insert fail");
  if (inserted == _Inserted::no_memory) {
    sys.free(h->name);
    h->name = nullptr;
    return false;
  }
  return true;
}

// --- events ---

static CDictionary& _event_dic(int global) { return global ? global_events_dic : events_dic; }

// A new event record on a fresh eventfd; CreateEvent's reports.
static v_handle_t* _new_event(BOOL bManualReset, int global) {
  const char* const op = "CreateEvent";
  int fd = sys.eventfd(0, EFD_NONBLOCK);
  if (fd < 0) {
    KLOG_AS(op, 3, "CreateEvent: event fd fail");
    return nullptr;
  }
  v_handle_t* h = CreateHandleL(V_HANDLE_EVENT);
  if (h == nullptr) {
    close(fd);
    KLOG_AS(op, 3, "no memo");
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
  sys.free(h);
}

static HANDLE _create_named_event(BOOL bManualReset, BOOL bInitialState, const char* lpName) {
  const char* const op = "CreateEvent";
  int global = _is_global_name(lpName) ? 1 : 0;
  CDictionary& dic = _event_dic(global);
  SetLastError(ERROR_SUCCESS);

  _DicLock lock;
  if (!lock.locked()) {
    KLOG_AS(op, 3, "fail to lock dic_mutex");
    SetLastError(ERROR_NOT_READY);
    return nullptr;
  }
  v_handle_t* h = _dic_reopen(lpName, dic);
  if (h != nullptr) {
    lock.unlock();
    SetLastError(ERROR_ALREADY_EXISTS);
    return h;
  }
  h = _new_event(bManualReset, global);
  if (h != nullptr && !_enter_name(h, lpName, dic, op)) {
    _discard_event(h);
    h = nullptr;
    KLOG_AS(op, 3, "no memo");
  }
  lock.unlock();
  if (h == nullptr) return nullptr;

  if (bInitialState) {
    if (global)
      KLOG_AS(op, 4,
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
  commonl::tsan_release(h);
  uint64_t one = 1;
  commonl::tsan_unseen_begin();
  ssize_t written = sys.write(h->poll_entry.fd, &one, sizeof one);
  commonl::tsan_unseen_end();
  return written == static_cast<ssize_t>(sizeof one);
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
  int error = errno;
  // EAGAIN: the counter was 0 already, the event was not signalled.
  if (got == static_cast<ssize_t>(sizeof counter)) {
    commonl::tsan_acquire(h);  // a signal was read
    return TRUE;
  }
  if (got == 0 || (got < 0 && error == EAGAIN)) return TRUE;
  KLOG(4, "ResetEvent: read error: %s", strerror(error));
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
  _DicLock lock;
  if (!lock.locked()) {
    KLOG(2, "fail to lock dic_mutex");
    return 1;
  }
  if (commonl::ref_drop_if_positive(h) == 0) {
    _dic_remove(h->name, h, _event_dic(h->global));
    sys.free(h->name);
    _discard_event(h);
  }
  return 1;
}

// The class of "Global" events is switched off; these keep it that way.
void EnableGlobalEvents() {}

void DisableGlobalEvents() {}

// --- mutexes ---

// A new mutex record, entered under `lpName` when that is not NULL (the
// caller then holds dic_mutex); CreateMutex's reports.
static v_handle_t* _new_mutex(const char* lpName) {
  const char* const op = "CreateMutex";
  v_handle_t* h = CreateHandleL(V_HANDLE_MUTEX);
  if (h == nullptr) {
    KLOG_AS(op, 3, "no memo");
    return nullptr;
  }
  if (sys.pthread_mutex_init(&h->tail.mutex, nullptr) != 0) {
    KLOG_AS(op, 3, "could not create POSIX mutex");
    sys.free(h);
    return nullptr;
  }
  if (lpName != nullptr && !_enter_name(h, lpName, mutexes_dic, op)) {
    pthread_mutex_destroy(&h->tail.mutex);
    sys.free(h);
    KLOG_AS(op, 3, "no memo");
    return nullptr;
  }
  return h;
}

HANDLE CreateMutex(_SECURITY_ATTRIBUTES* /*lpMutexAttributes*/, BOOL /*bInitialOwner*/,
                   char const* lpName) {
  if (lpName == nullptr) {
    SetLastError(ERROR_SUCCESS);
    return _new_mutex(nullptr);
  }
  if (_is_global_name(lpName)) {
    KLOG(3, "Global mutex not implemented");
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  SetLastError(ERROR_SUCCESS);
  // The mutex is initialised before its name can be found.
  _DicLock lock;
  if (!lock.locked()) {
    KLOG(3, "fail to lock dic_mutex");
    SetLastError(ERROR_NOT_READY);
    return nullptr;
  }
  v_handle_t* h = _dic_reopen(lpName, mutexes_dic);
  if (h != nullptr) {
    lock.unlock();
    SetLastError(ERROR_ALREADY_EXISTS);
    return h;
  }
  return _new_mutex(lpName);
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
  _DicLock lock;
  if (!lock.locked()) {
    KLOG(2, "fail to lock dic_mutex");
    return 1;
  }
  if (commonl::ref_drop_if_positive(h) == 0) {
    _dic_remove(h->name, h, mutexes_dic);
    sys.free(h->name);
    pthread_mutex_destroy(&h->tail.mutex);
    sys.free(h);
  }
  return 1;
}

// --- the wait engine ---

// Whatever path a wait takes, WaitForSingleObject's shortcuts included, its
// reports are those of WaitForMultipleObjects.
static const char _WAIT_OP[] = "WaitForMultipleObjects";

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
    if (h->type == V_HANDLE_SOCKET_EVENT) {
      h->tail.last_revents = static_cast<uint16_t>(fds[i].revents);
      return i;
    }
    // What was done before the SetEvent that this wait saw happened before
    // its return, also for a manual-reset event that is not read.
    commonl::tsan_acquire(h);
    if (h->manual_reset == 0) ResetEvent(h);
    return i;
  }
  KLOG_AS(_WAIT_OP, 3, "WaitForMultipleObjects: Could not find reported eventent");
  for (DWORD i = 0; i < nCount; i++)
    KLOG_AS(_WAIT_OP, 7, "fds[%d].revents = %d", static_cast<int>(i), fds[i].revents);
  return WAIT_FAILED;
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
    KLOG_AS(_WAIT_OP, 3, "WaitForMultipleObjects got SIGINT or SIGTERM signal");
  } else {
    KLOG_AS(_WAIT_OP, 3, "WaitForMultipleObjects ppoll errno = %d", error);
    KLOG_AS(_WAIT_OP, 3, "WaitForMultipleObjects ppoll error: %s", strerror(error));
  }
  return WAIT_FAILED;
}

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
      KLOG_AS(_WAIT_OP, 3, "bad handle position %d, bat type %d", static_cast<int>(i),
              static_cast<int>(h->type));
      return WAIT_FAILED;
    }
    if (h->type == V_HANDLE_MUTEX) {
      if (nCount == 1) return _wait_mutex(h, dwMilliseconds);
      KLOG_AS(_WAIT_OP, 3, "WaitObject call for mutex must have a single handle");
      return WAIT_FAILED;
    }
    fds[i] = h->poll_entry;
  }
  return _poll_and_take(nCount, lpHandles, fds, dwMilliseconds);
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
  if (lpHandles == nullptr) {
    KLOG(2, "WaitForMultipleObjects: lpHandles == NULL");
    return WAIT_FAILED;
  }
  // Any one handle ends the wait, whatever bWaitAll says.
  if (bWaitAll == 1) KLOG(2, "WaitForMultipleObjects: bWaitAll == TRUE not supported");

  if (nCount <= _STACK_WAIT_HANDLES) {
    struct pollfd fds[_STACK_WAIT_HANDLES];
    memset(fds, 0, nCount * sizeof(struct pollfd));
    return _wait_polled(nCount, lpHandles, fds, dwMilliseconds);
  }
  KLOG(7, "WaitForMultipleObjects: using large pollfd array, nCount = %d", static_cast<int>(nCount));
  // Owned by the frame: a thread cancelled in ppoll gives it back as it unwinds.
  std::unique_ptr<struct pollfd, void (*)(void*)> fds(
      static_cast<struct pollfd*>(sys.calloc(nCount, sizeof(struct pollfd))), sys.free);
  if (!fds) {
    KLOG(3, "no memo for pollfd");
    return WAIT_FAILED;
  }
  return _wait_polled(nCount, lpHandles, fds.get(), dwMilliseconds);
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

// Sleeps delay_ns (not at all when it is not above 0). A signal cuts a step
// short: the step goes on with what nanosleep left.
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
  // Win32's relative form: taken as an absolute time, it lies long past and
  // the timer fires at once.
  if (lpDueTime->QuadPart < 0)
    KLOG(2, "SetWaitableTimer: a negative (relative) lpDueTime is not supported; "
            "it is taken as an absolute time long past and the timer fires at once");
  ResetEvent(hTimer);
  _FILETIME now;
  GetSystemTimeAsFileTime(&now);
  int64_t delay_ns =
      _timer_delay_ns(lpDueTime->QuadPart, static_cast<int64_t>(commonl::filetime_count(&now)));
  std::thread([delay_ns, hTimer, pfnCompletionRoutine, lpArgToCompletionRoutine] {
    _timer_sleep(delay_ns);
    SetEvent(hTimer);
    if (pfnCompletionRoutine != nullptr) pfnCompletionRoutine(lpArgToCompletionRoutine);
  }).detach();
  return TRUE;
}
