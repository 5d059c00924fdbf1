// Thread starts, mutexes and semaphores against the pthread and sem calls
// they are made of.
#include <pthread.h>
#include <semaphore.h>
#include <time.h>

#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include <CommonL/CommonL.h>
#include "bench_support.h"

namespace {

std::atomic<bool> g_ran{false};

unsigned int mark_ran(void*) {
  g_ran.store(true, std::memory_order_release);
  return 0;
}

void* mark_ran_raw(void*) {
  g_ran.store(true, std::memory_order_release);
  return nullptr;
}

void spin_until_ran() {
  while (!g_ran.load(std::memory_order_acquire)) {
  }
}

// From the call until the routine runs on its new thread.
void BM_beginthreadex(benchmark::State& state) {
  for (auto _ : state) {
    g_ran = false;
    benchmark::DoNotOptimize(_beginthreadex(nullptr, 0, mark_ran, nullptr, 0, nullptr));
    spin_until_ran();
  }
}
BENCHMARK(BM_beginthreadex)->UseRealTime();

void BM_floor_pthread_create(benchmark::State& state) {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, 1048576);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  for (auto _ : state) {
    g_ran = false;
    pthread_t thread;
    pthread_create(&thread, &attr, mark_ran_raw, nullptr);
    spin_until_ran();
  }
  pthread_attr_destroy(&attr);
}
BENCHMARK(BM_floor_pthread_create)->UseRealTime();

// The library's handshake as it would run without lowering the timer slack:
// pthread_create, then 10 us and 1 us sleeps until the new thread has said
// that it runs, under the thread's default slack.
std::atomic<bool> g_started{false};

void* mark_started_then_ran(void*) {
  g_started.store(true, std::memory_order_release);
  return mark_ran_raw(nullptr);
}

void BM_handshake_default_slack(benchmark::State& state) {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, 1048576);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  for (auto _ : state) {
    g_ran = false;
    g_started = false;
    pthread_t thread;
    pthread_create(&thread, &attr, mark_started_then_ran, nullptr);
    usleep(10);
    while (!g_started.load(std::memory_order_acquire)) usleep(1);
    spin_until_ran();
  }
  pthread_attr_destroy(&attr);
}
BENCHMARK(BM_handshake_default_slack)->UseRealTime();

// The recorder runs many threads. While a process has only one, glibc
// takes a shortcut without atomics in pthread_mutex_lock and friends, which
// would measure a case that never occurs; so a parked thread keeps the
// process multi-threaded for the lock benchmarks.
void park_a_thread() {
  static std::once_flag once;
  std::call_once(once, [] { std::thread([] { pause(); }).detach(); });
}

void BM_Mutex_Wait_Release(benchmark::State& state) {
  park_a_thread();
  HANDLE m = CreateMutex(nullptr, FALSE, nullptr);
  for (auto _ : state) {
    benchmark::DoNotOptimize(WaitForSingleObject(m, INFINITE));
    ReleaseMutex(m);
  }
  CloseHandle(m);
}
BENCHMARK(BM_Mutex_Wait_Release);

void BM_floor_pthread_mutex(benchmark::State& state) {
  park_a_thread();
  pthread_mutex_t mutex;
  pthread_mutex_init(&mutex, nullptr);
  for (auto _ : state) {
    benchmark::DoNotOptimize(pthread_mutex_lock(&mutex));
    pthread_mutex_unlock(&mutex);
  }
  pthread_mutex_destroy(&mutex);
}
BENCHMARK(BM_floor_pthread_mutex);

void BM_Semaphore_Release_Wait0(benchmark::State& state) {
  park_a_thread();
  HANDLE s = CreateSemaphore(nullptr, 0, 1, nullptr);
  for (auto _ : state) {
    ReleaseSemaphore(s, 1, nullptr);
    benchmark::DoNotOptimize(WaitForSingleObject(s, 0));
  }
  CloseHandle(s);
}
BENCHMARK(BM_Semaphore_Release_Wait0);

// A time-out that is not 0 works out a deadline and takes sem_timedwait.
void BM_Semaphore_Release_Wait1000(benchmark::State& state) {
  park_a_thread();
  HANDLE s = CreateSemaphore(nullptr, 0, 1, nullptr);
  for (auto _ : state) {
    ReleaseSemaphore(s, 1, nullptr);
    benchmark::DoNotOptimize(WaitForSingleObject(s, 1000));
  }
  CloseHandle(s);
}
BENCHMARK(BM_Semaphore_Release_Wait1000);

// A timed wait needs an absolute deadline, so the floor reads the clock too.
void BM_floor_sem_post_timedwait(benchmark::State& state) {
  park_a_thread();
  sem_t sem;
  sem_init(&sem, 0, 0);
  for (auto _ : state) {
    sem_post(&sem);
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    benchmark::DoNotOptimize(sem_timedwait(&sem, &deadline));
  }
  sem_destroy(&sem);
}
BENCHMARK(BM_floor_sem_post_timedwait);

}  // namespace

COMMONL_RATIO("_beginthreadex until the routine runs", BM_beginthreadex, BM_floor_pthread_create,
              1.3);
COMMONL_RATIO("the same handshake under the default timer slack", BM_handshake_default_slack,
              BM_floor_pthread_create, 1.3);
COMMONL_RATIO("WaitForSingleObject + ReleaseMutex, uncontended", BM_Mutex_Wait_Release,
              BM_floor_pthread_mutex, 1.2);
COMMONL_RATIO("ReleaseSemaphore(h, 1) + WaitForSingleObject(h, 0)", BM_Semaphore_Release_Wait0,
              BM_floor_sem_post_timedwait, 1.2);
COMMONL_RATIO("ReleaseSemaphore(h, 1) + WaitForSingleObject(h, 1000)",
              BM_Semaphore_Release_Wait1000, BM_floor_sem_post_timedwait, 1.2);
