// Semaphores (a process-private sem_t behind a handle), threads started
// with a handshake, thread control and priorities, and shell commands.
#define COMMONL_UNIT "../CommonL/WinApiProc"

#include "WinApiProc.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sched.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <string>

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
    commonl::sys.free(h);
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
  // A deadline of now ends a timed wait at once: the same answer without
  // reading the clock.
  if (dwMilliseconds == 0) return sem_trywait(&h->tail.sem) == 0 ? WAIT_OBJECT_0 : WAIT_TIMEOUT;

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

// --- threads ---

// The handshake record; it lives on the creator's stack for the length of
// _beginthreadex.
struct thread_start_t {
  unsigned int (*start_routine)(void*);
  void* start_arg;
  int started;  // release/acquire point: the fields below are filled
  void* thread_handle;
  unsigned int thread_id;
};

static const unsigned int _DEFAULT_STACK_SIZE = 1048576;
static const useconds_t _FIRST_PAUSE_US = 10;
static const useconds_t _PAUSE_US = 1;
static const long long _SLOW_START_LOOKS = 1000;
static const long long _NOT_STARTED_LOOKS = 5000000;
static const uintptr_t _BEGINTHREAD_FAILED = static_cast<uintptr_t>(-1);
// The helpers of the start report as _beginthreadex.
static const char _BEGIN_OP[] = "_beginthreadex";

static bool _started(const thread_start_t* start) {
  return __atomic_load_n(&start->started, __ATOMIC_ACQUIRE) != 0;
}

// The timer slack (50 us by default) would stretch each of the handshake's
// one-microsecond sleeps to the slack's length. It is lowered to its least
// for the calling thread while the object lives, and the caller's value is
// given back at the end.
class _TightTimerSlack {
 public:
  _TightTimerSlack() : saved_(prctl(PR_GET_TIMERSLACK)) {
    if (saved_ > 1) prctl(PR_SET_TIMERSLACK, 1UL);
  }
  ~_TightTimerSlack() {
    if (saved_ > 1) prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(saved_));
  }
  _TightTimerSlack(const _TightTimerSlack&) = delete;
  _TightTimerSlack& operator=(const _TightTimerSlack&) = delete;

 private:
  long saved_;
};

// The new thread writes into the record on the creator's stack until it has
// set `started`, so the creator must not leave before: a cancellation that
// comes meanwhile takes effect at the caller's next cancellation point.
class _CancelDeferred {
 public:
  _CancelDeferred() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &saved_); }
  ~_CancelDeferred() { pthread_setcancelstate(saved_, nullptr); }
  _CancelDeferred(const _CancelDeferred&) = delete;
  _CancelDeferred& operator=(const _CancelDeferred&) = delete;

 private:
  int saved_;
};

// Sleeps until the new thread has filled the record: 10 us, then 1 us a
// look. Gives the number of looks after the first sleep.
static long long _await_start(const thread_start_t* start) {
  _TightTimerSlack slack;
  commonl::sys.usleep(_FIRST_PAUSE_US);
  if (_started(start)) return 0;
  commonl::sys.usleep(_PAUSE_US);
  long long looks = 1;
  while (!_started(start)) {
    commonl::sys.usleep(_PAUSE_US);
    looks++;
    if (looks >= _NOT_STARTED_LOOKS) KLOG_AS(_BEGIN_OP, 2, "_beginthreadex: thread not started");
  }
  return looks;
}

static bool _prepare_attributes(pthread_attr_t* attr, unsigned int stack_size) {
  struct sched_param unused;
  if (commonl::sys.pthread_attr_getschedparam(attr, &unused) != 0) {
    KLOG_AS(_BEGIN_OP, 3, "_beginthreadex: fail to get schedule params");
    return false;
  }
  if (pthread_attr_setstacksize(attr, stack_size) != 0) {
    KLOG_AS(_BEGIN_OP, 3, "_beginthreadex: Fail to set stacksize");
    return false;
  }
  pthread_attr_setdetachstate(attr, PTHREAD_CREATE_DETACHED);
  return true;
}

// Starts the thread and waits for its handshake; the number of looks, or -1
// when no thread could be made.
static long long _start_thread(pthread_attr_t* attr, thread_start_t* start) {
  _CancelDeferred deferred;
  pthread_t thread;
  int created = commonl::sys.pthread_create(&thread, attr, _beginthreadex_proxy, start);
  pthread_attr_destroy(attr);
  if (created != 0) {
    KLOG_AS(_BEGIN_OP, 3, "_beginthreadex error\n");
    return -1;
  }
  return _await_start(start);
}

uintptr_t _beginthreadex(void* /*security*/, unsigned int stack_size,
                         unsigned int (*start_address)(void*), void* arglist,
                         unsigned int initflag, unsigned int* thrdaddr) {
  if (stack_size == 0) stack_size = _DEFAULT_STACK_SIZE;
  if (initflag != 0) KLOG(2, "initflag != zero not supported");

  pthread_attr_t attr;
  pthread_attr_init(&attr);
  if (!_prepare_attributes(&attr, stack_size)) {
    pthread_attr_destroy(&attr);
    return _BEGINTHREAD_FAILED;
  }
  thread_start_t start = {start_address, arglist, 0, nullptr, 0};
  long long looks = _start_thread(&attr, &start);
  if (looks < 0) return _BEGINTHREAD_FAILED;
  if (looks >= _SLOW_START_LOOKS)
    KLOG(4, "_beginthreadex: thread took %d milliseconds to start", static_cast<int>(looks / 1000));
  if (thrdaddr != nullptr) *thrdaddr = start.thread_id;
  return reinterpret_cast<uintptr_t>(start.thread_handle);
}

void* _beginthreadex_proxy(void* record) {
  auto* start = static_cast<thread_start_t*>(record);
  if (start == nullptr) {
    KLOG(2, "KORVA Assert");
    return nullptr;
  }
  PopulateThreadHandle();
  unsigned int (*routine)(void*) = start->start_routine;
  void* arg = start->start_arg;
  start->thread_handle = &gt_thread_handle;
  start->thread_id = static_cast<unsigned int>(gettid());
  // The last touch of the record: from here on the creator may return.
  __atomic_store_n(&start->started, 1, __ATOMIC_RELEASE);

  if (routine == nullptr) {
    KLOG(2, "KORVA Assert");
    return nullptr;
  }
  routine(arg);
  return nullptr;
}

// --- thread control ---

HANDLE GetCurrentThread() { return &gt_thread_handle; }

DWORD GetCurrentThreadId() { return static_cast<DWORD>(gettid()); }

BOOL TerminateThread(HANDLE hThread, DWORD /*dwExitCode*/) {
  auto* h = static_cast<v_handle_t*>(hThread);
  if (!commonl::handle_is(h, V_HANDLE_THREAD)) {
    KLOG(3, "bad handle");
    return FALSE;
  }
  if (pthread_cancel(h->tail.thread) == 0) return TRUE;
  std::string thread = "tid " + std::to_string(h->tail.tid);
  KLOG(3, "Could not Terminate thread %s", thread.c_str());
  return FALSE;
}

struct _SchedMapping {
  int policy;
  int sched_priority;
};

// Indexed by this library's priority, 1 to 7.
static const _SchedMapping _PRIORITY_TO_SCHED[8] = {
    {0, 0},           // 0: refused before the table is read
    {SCHED_IDLE, 0},  {SCHED_IDLE, 0}, {SCHED_IDLE, 0}, {SCHED_OTHER, 0},
    {SCHED_RR, 5},    {SCHED_RR, 6},   {SCHED_FIFO, 7},
};

BOOL SetThreadPriority(HANDLE hThread, int nPriority) {
  auto* h = static_cast<v_handle_t*>(hThread);
  if (!commonl::handle_is(h, V_HANDLE_THREAD)) {
    KLOG(3, "bad handle");
    return FALSE;
  }
  unsigned int priority = static_cast<unsigned int>(nPriority);
  if (priority == 0 || priority > 7) {
    KLOG(3, "No mapped priority for %d", nPriority);
    return FALSE;
  }
  struct sched_param param = {};
  param.sched_priority = _PRIORITY_TO_SCHED[priority].sched_priority;
  int error = pthread_setschedparam(h->tail.thread, _PRIORITY_TO_SCHED[priority].policy, &param);
  if (error == 0) return TRUE;
  KLOG(3, "fail to set thread prio, errno: %s", strerror(error));
  return FALSE;
}

int GetThreadPriority(HANDLE hThread) {
  auto* h = static_cast<v_handle_t*>(hThread);
  if (!commonl::handle_is(h, V_HANDLE_THREAD)) {
    KLOG(3, "bad hanlde");
    return 0;
  }
  int policy = 0;
  struct sched_param param = {};
  int error = pthread_getschedparam(h->tail.thread, &policy, &param);
  if (error != 0) {
    KLOG(3, "fail to get thread prio, errno: %s", strerror(error));
    return -1;
  }
  switch (policy) {
    case SCHED_OTHER:
    case SCHED_IDLE:
      return 3;
    case SCHED_RR:
      return param.sched_priority;
    case SCHED_FIFO:
      return 7;
    default:
      KLOG(3, "unknown prio mapping for police = %d, sched_priority = %d", policy,
           param.sched_priority);
      return -1;
  }
}

// --- commands ---

void UpdateOutputBufSize(FILE* stream, char* buffer, int* size, int already_read) {
  if (stream == nullptr || buffer == nullptr || size == nullptr) {
    KLOG(2, "UpdateOutputBufSize: stream, buffer or size == NULL");
    return;
  }
  size_t chunk = *size > 1 ? static_cast<size_t>(*size - 1) : 0;
  long rest = 0;
  size_t got;
  while ((got = fread(buffer, 1, chunk, stream)) > 0) rest += static_cast<long>(got);
  *size = static_cast<int>(already_read + rest + 10);
}

// Reads at most `limit` bytes, until the stream has no more.
static size_t _read_up_to(FILE* stream, char* buffer, size_t limit) {
  size_t total = 0, got;
  while (total < limit && (got = fread(buffer + total, 1, limit - total, stream)) > 0) total += got;
  return total;
}

int RunProcess(char const* command, char* output_buf, int* output_buf_size,
               char const* end_marker) {
  if (output_buf_size == nullptr || *output_buf_size <= 0) {
    KLOG(3, "Invalid output size address or output_buf_size");
    return 0;
  }
  if (command == nullptr || output_buf == nullptr) {
    KLOG(2, "RunProcess: command or output_buf == NULL");
    return 0;
  }
  FILE* opened = commonl::sys.popen(command, "r");
  if (opened == nullptr) {
    int error = errno;
    KLOG(3, "%s", strerror(error));
    *output_buf_size = 0;
    return 0;
  }
  // A thread cancelled while it reads still closes the stream as it unwinds
  // (which waits for the command to end).
  std::unique_ptr<FILE, int (*)(FILE*)> stream(opened, commonl::sys.pclose);
  const int capacity = *output_buf_size;
  const size_t limit = static_cast<size_t>(capacity - 1);
  memset(output_buf, 0, static_cast<size_t>(capacity));
  size_t total = _read_up_to(stream.get(), output_buf, limit);

  if (end_marker != nullptr) {
    const char* found = strstr(output_buf, end_marker);
    if (found != nullptr) {
      size_t behind = static_cast<size_t>(found - output_buf) + strlen(end_marker);
      total = behind < limit ? behind : limit;
    }
  }

  int result;
  if (total + 1 < static_cast<size_t>(capacity)) {
    *output_buf_size = static_cast<int>(total + 1);
    result = 1;
  } else {
    KLOG(4,
         "RunProcess(): UpdateOutputBufSize() being called because insufficient buffer size "
         "provided (%d)\ncmd: \"%s\"",
         capacity, command);
    UpdateOutputBufSize(stream.get(), output_buf, output_buf_size, static_cast<int>(total));
    KLOG(4, "RunProcess(): required: %d", *output_buf_size);
    result = 0;
  }
  output_buf[total] = '\0';
  if (commonl::sys.pclose(stream.release()) < 0) {
    int error = errno;
    KLOG(3, "%s", strerror(error));
  }
  return result;
}

// --- the process and its user ---

int GetCurrentProcessId() { return getpid(); }

// Copies out of getpwuid's static record: not to be run beside another user
// of it. A size too small fails without telling the size needed.
int GetUserName(char* lpBuffer, unsigned int* pcbBuffer) {
  if (lpBuffer == nullptr || pcbBuffer == nullptr) {
    KLOG(2, "GetUserName: lpBuffer or pcbBuffer == NULL");
    return 0;
  }
  const struct passwd* entry = commonl::sys.getpwuid(getuid());
  if (entry == nullptr || entry->pw_name == nullptr) return 0;
  const size_t length = strlen(entry->pw_name);
  if (*pcbBuffer <= length) return 0;
  *pcbBuffer = static_cast<unsigned int>(length + 1);
  memcpy(lpBuffer, entry->pw_name, length + 1);
  return 1;
}
