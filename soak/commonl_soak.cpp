// commonl_soak SECONDS [THREADS]: threads create, signal, wait on, duplicate
// and close events and mutexes (named, on a few shared names, and unnamed),
// semaphores, waitable timers and thread starts for SECONDS, checking as they
// go what the library promises:
//   - a manual-reset event that has been set stays set while a reference
//     holds it (no lost signal), whatever the other threads do;
//   - a mutex is never held by two threads at once;
//   - a semaphore never lets more holders in than its count;
//   - a wait on many handles reports the one that was signalled;
//   - a data write before SetEvent, a thread start or a timer's firing is
//     seen by the thread that the signal wakes;
//   - at the end, the open descriptors and the library's live heap blocks are
//     what they were at the start, and every shared name is free again.
// Every wait has a time-out, and a watchdog ends a run that hangs. It prints
// the operations done per kind and the faults found; any fault exits 1.
#include <dirent.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "CommonL.h"
#include "WinApiTime.h"
#include "internal.h"

namespace {

const int kNames = 4;               // shared names per kind
const DWORD kWaitMs = 5000;         // a wait that should succeed at once
const int kSemaphoreCount = 3;
const int kManyHandles = 20;        // above 16: the wait's heap array
const auto kWatchdogGrace = std::chrono::seconds(60);

// --- faults and counts ---

std::atomic<long> g_faults{0};
std::mutex g_print_mutex;

void fault(const char* format, ...) {
  if (++g_faults > 20) return;  // the first ones tell the story
  char text[512];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  std::lock_guard<std::mutex> lock(g_print_mutex);
  fprintf(stderr, "fault: %s\n", text);
}

void check(bool holds, const char* what) {
  if (!holds) fault("%s", what);
}

enum Kind {
  kManualEvent,
  kAutoEvent,
  kMutex,
  kSemaphore,
  kManyWait,
  kTimer,
  kThreadStart,
  kKinds
};
const char* const kKindNames[kKinds] = {"named manual-reset events", "named auto-reset events",
                                        "named mutexes", "semaphores", "waits on many handles",
                                        "waitable timers", "thread starts"};
std::atomic<long> g_ops[kKinds];

// --- what the library holds: its heap blocks and the process's descriptors ---

std::atomic<long> g_live_blocks{0};
void* (*g_calloc)(size_t, size_t);
void (*g_free)(void*);
char* (*g_strdup)(const char*);

void count_library_blocks() {
  g_calloc = commonl::sys.calloc;
  g_free = commonl::sys.free;
  g_strdup = commonl::sys.strdup;
  commonl::sys.calloc = [](size_t n, size_t size) {
    void* p = g_calloc(n, size);
    if (p != nullptr) g_live_blocks++;
    return p;
  };
  commonl::sys.strdup = [](const char* s) {
    char* p = g_strdup(s);
    if (p != nullptr) g_live_blocks++;
    return p;
  };
  commonl::sys.free = [](void* p) {
    if (p != nullptr) g_live_blocks--;
    g_free(p);
  };
}

int open_descriptors() {
  int n = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  while (const dirent* entry = readdir(dir)) n += entry->d_name[0] != '.';
  closedir(dir);
  return n - 1;  // the directory's own
}

// --- the operations; each gives back all it takes ---

std::string shared_name(const char* kind, int k) { return std::string("soak-") + kind + "-" + std::to_string(k); }

HANDLE duplicate(HANDLE h) {
  HANDLE copy = nullptr;
  check(DuplicateHandle(GetCurrentProcess(), h, GetCurrentProcess(), &copy, 0, FALSE, 0) == TRUE &&
            copy == h,
        "DuplicateHandle");
  return copy;
}

void close(HANDLE h, const char* what) {
  if (CloseHandle(h) != TRUE) fault("CloseHandle of %s", what);
}

// Nobody resets these: once set, a held object stays signalled.
void manual_event(std::mt19937& random) {
  const std::string name = shared_name("manual", random() % kNames);
  HANDLE h = CreateEvent(nullptr, TRUE, FALSE, name.c_str());
  if (h == nullptr) return fault("CreateEvent %s", name.c_str());
  const DWORD error = GetLastError();
  check(error == 0 || error == ERROR_ALREADY_EXISTS, "CreateEvent's last error");
  HANDLE copy = random() % 2 ? duplicate(h) : nullptr;
  check(SetEvent(h) == TRUE, "SetEvent");
  for (int i = 0; i < 3; i++)
    if (WaitForSingleObject(copy ? copy : h, 0) != WAIT_OBJECT_0) fault("a manual-reset signal was lost on %s", name.c_str());
  if (copy) close(copy, "an event's duplicate");
  close(h, "a manual-reset event");
}

// Signals a shared auto-reset event; another thread's wait may take the
// signal first, so a wait here may time out. A payload written before an
// unnamed event's SetEvent is seen by the thread that the signal wakes.
void auto_event(std::mt19937& random) {
  const std::string name = shared_name("auto", random() % kNames);
  HANDLE h = CreateEvent(nullptr, FALSE, FALSE, name.c_str());
  if (h == nullptr) return fault("CreateEvent %s", name.c_str());
  check(SetEvent(h) == TRUE, "SetEvent");
  const DWORD got = WaitForSingleObject(h, random() % 2);
  check(got == WAIT_OBJECT_0 || got == WAIT_TIMEOUT, "a wait on an auto-reset event");
  close(h, "an auto-reset event");

  // The payload is read before the join, so only the event orders it;
  // a manual-reset event is not even read by the wait.
  struct Handoff {
    HANDLE ready;
    long payload;
  } handoff{CreateEvent(nullptr, random() % 2, FALSE, nullptr), 0};
  if (handoff.ready == nullptr) return fault("CreateEvent unnamed");
  const long value = static_cast<long>(random());
  std::thread setter([&] {
    handoff.payload = value;
    SetEvent(handoff.ready);
  });
  check(WaitForSingleObject(handoff.ready, kWaitMs) == WAIT_OBJECT_0, "an unnamed event's signal");
  check(handoff.payload == value, "the payload handed off by an event");
  setter.join();
  close(handoff.ready, "an unnamed event");
}

std::atomic<int> g_mutex_holders[kNames];
long g_guarded[kNames];  // written only by a holder of the mutex of its name

void named_mutex(std::mt19937& random) {
  const int k = static_cast<int>(random() % kNames);
  const std::string name = shared_name("mutex", k);
  HANDLE h = CreateMutex(nullptr, FALSE, name.c_str());
  if (h == nullptr) return fault("CreateMutex %s", name.c_str());
  HANDLE copy = random() % 2 ? duplicate(h) : nullptr;
  if (WaitForSingleObject(copy ? copy : h, kWaitMs) != WAIT_OBJECT_0) {
    fault("mutex %s not taken within %u ms", name.c_str(), kWaitMs);
  } else {
    if (g_mutex_holders[k]++ != 0) fault("mutex %s held twice", name.c_str());
    g_guarded[k]++;
    if (random() % 4 == 0) std::this_thread::yield();
    g_mutex_holders[k]--;
    check(ReleaseMutex(h) == TRUE, "ReleaseMutex");
  }
  if (copy) close(copy, "a mutex's duplicate");
  close(h, "a mutex");
}

HANDLE g_semaphore;
std::atomic<int> g_semaphore_holders{0};

void semaphore(std::mt19937& random) {
  if (WaitForSingleObject(g_semaphore, kWaitMs) != WAIT_OBJECT_0) {
    fault("the shared semaphore not taken within %u ms", kWaitMs);
  } else {
    if (++g_semaphore_holders > kSemaphoreCount) fault("more semaphore holders than its count");
    if (random() % 4 == 0) std::this_thread::yield();
    g_semaphore_holders--;
    check(ReleaseSemaphore(g_semaphore, 1, nullptr) == TRUE, "ReleaseSemaphore");
  }
  HANDLE own = CreateSemaphore(nullptr, 0, 10, nullptr);
  if (own == nullptr) return fault("CreateSemaphore");
  check(ReleaseSemaphore(own, 2, nullptr) == TRUE, "ReleaseSemaphore");
  check(WaitForSingleObject(own, 0) == WAIT_OBJECT_0 && WaitForSingleObject(own, 0) == WAIT_OBJECT_0 &&
            WaitForSingleObject(own, 0) == WAIT_TIMEOUT,
        "a semaphore's count");
  close(own, "a semaphore");
}

// One of many events is set, by another thread; the wait reports its index.
void many_wait(std::mt19937& random) {
  const int n = 1 + static_cast<int>(random() % kManyHandles);
  std::vector<HANDLE> events(n);
  for (HANDLE& e : events)
    if ((e = CreateEvent(nullptr, random() % 2, FALSE, nullptr)) == nullptr) fault("CreateEvent");
  const int chosen = static_cast<int>(random() % n);
  int payload = -1;
  std::thread setter([&] {
    payload = chosen;
    SetEvent(events[chosen]);
  });
  const DWORD got = WaitForMultipleObjects(n, events.data(), FALSE, kWaitMs);
  if (got != static_cast<DWORD>(chosen)) fault("a wait on %d handles gave %u, not %d", n, got, chosen);
  else check(payload == chosen, "the payload handed off by one of many events");
  setter.join();
  for (HANDLE e : events) close(e, "an event");
}

struct TimerRun {
  HANDLE fired;  // set by the routine, after the timer's own signal
  long payload;
};

void timer_routine(void* arg) {
  auto* run = static_cast<TimerRun*>(arg);
  run->payload++;
  SetEvent(run->fired);
}

void timer(std::mt19937& random) {
  HANDLE t = CreateWaitableTimer(nullptr, random() % 2, nullptr);
  TimerRun run{CreateEvent(nullptr, random() % 2, FALSE, nullptr), 0};
  if (t == nullptr || run.fired == nullptr) return fault("CreateWaitableTimer");
  _FILETIME now;
  GetSystemTimeAsFileTime(&now);
  _LARGE_INTEGER due;
  due.QuadPart = static_cast<int64_t>(commonl::filetime_count(&now));  // fires at once
  check(SetWaitableTimer(t, &due, 0, timer_routine, &run, FALSE) == TRUE, "SetWaitableTimer");
  check(WaitForSingleObject(t, kWaitMs) == WAIT_OBJECT_0, "a timer's signal");
  check(WaitForSingleObject(run.fired, kWaitMs) == WAIT_OBJECT_0, "a timer's routine");
  check(run.payload == 1, "the timer's routine ran once");
  close(t, "a timer");
  close(run.fired, "an event");
}

struct StartRun {
  HANDLE done;
  unsigned int id_inside;
};

unsigned int started_routine(void* arg) {
  auto* run = static_cast<StartRun*>(arg);
  run->id_inside = GetCurrentThreadId();
  SetEvent(run->done);
  return 0;
}

void thread_start(std::mt19937& random) {
  StartRun run{CreateEvent(nullptr, random() % 2, FALSE, nullptr), 0};
  if (run.done == nullptr) return fault("CreateEvent");
  unsigned int id = 0;
  const uintptr_t h = _beginthreadex(nullptr, 0, started_routine, &run, 0, &id);
  if (h == static_cast<uintptr_t>(-1)) {
    fault("_beginthreadex");
  } else {
    check(WaitForSingleObject(run.done, kWaitMs) == WAIT_OBJECT_0, "a started thread's signal");
    check(run.id_inside == id, "the started thread's id");
  }
  close(run.done, "an event");
}

void (*const kOperations[kKinds])(std::mt19937&) = {manual_event, auto_event, named_mutex, semaphore,
                                                    many_wait,    timer,      thread_start};

// Each shared name is free at the end: a create makes a new object.
void check_names_free() {
  for (int k = 0; k < kNames; k++) {
    for (const char* kind : {"manual", "auto", "mutex"}) {
      const std::string name = shared_name(kind, k);
      HANDLE h = kind[0] == 'm' && kind[1] == 'u' ? CreateMutex(nullptr, FALSE, name.c_str())
                                                 : CreateEvent(nullptr, TRUE, FALSE, name.c_str());
      if (h == nullptr || GetLastError() != 0) fault("the name %s is still held", name.c_str());
      if (h != nullptr) CloseHandle(h);
    }
  }
}

}  // namespace

// The library's lines: levels 2 and 3 (misuse, failures) are faults here.
extern "C" int LoggerGetLevel(void) { return 3; }

extern "C" void LogOutputLevel(int level, const char*, int, const char* function, const char* format,
                               ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  fault("the library logged at level %d in %s: %s", level, function, text);
}

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? atoi(argv[1]) : 10;
  const int threads = argc > 2 ? atoi(argv[2]) : 8;
  if (seconds <= 0 || threads <= 0) {
    fprintf(stderr, "usage: commonl_soak SECONDS [THREADS]\n");
    return 2;
  }
  const unsigned seed = static_cast<unsigned>(std::random_device{}());
  printf("soak: %d s, %d threads, seed %u\n", seconds, threads, seed);
  fflush(stdout);

  count_library_blocks();
  g_semaphore = CreateSemaphore(nullptr, kSemaphoreCount, kSemaphoreCount, nullptr);
  const int fds_before = open_descriptors();
  const long blocks_before = g_live_blocks;

  std::atomic<bool> stop{false};
  std::atomic<int> running{threads};
  std::thread watchdog([&] {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds) + kWatchdogGrace;
    while (running > 0) {
      if (std::chrono::steady_clock::now() > end) {
        fault("hung: %d threads still running %lld s after the end", running.load(),
              static_cast<long long>(kWatchdogGrace.count()));
        fflush(stderr);
        _exit(1);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  });
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; t++)
    workers.emplace_back([&, t] {
      std::mt19937 random(seed + static_cast<unsigned>(t));
      while (!stop) {
        const int kind = static_cast<int>(random() % kKinds);
        kOperations[kind](random);
        g_ops[kind]++;
      }
      running--;
    });
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  stop = true;
  for (std::thread& worker : workers) worker.join();
  watchdog.join();

  close(g_semaphore, "the shared semaphore");
  check_names_free();
  const int fds_after = open_descriptors();
  const long blocks_after = g_live_blocks + 1;  // the shared semaphore is gone
  if (fds_after != fds_before) fault("%d descriptors open at the end, %d at the start", fds_after, fds_before);
  if (blocks_after != blocks_before)
    fault("%ld heap blocks of the library live at the end, %ld at the start", blocks_after, blocks_before);

  long total = 0;
  for (int kind = 0; kind < kKinds; kind++) {
    printf("%10ld %s\n", g_ops[kind].load(), kKindNames[kind]);
    total += g_ops[kind];
  }
  printf("%10ld operations, %ld faults\n", total, g_faults.load());
  return g_faults == 0 ? 0 : 1;
}
