// Events and waits against the bare eventfd and ppoll calls they are made of.
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include <CommonL/CommonL.h>
#include "bench_support.h"

namespace {

// The mask a wait runs under: only SIGINT and SIGTERM get through.
const sigset_t* wait_mask() {
  static sigset_t mask = [] {
    sigset_t set;
    sigfillset(&set);
    sigdelset(&set, SIGINT);
    sigdelset(&set, SIGTERM);
    return set;
  }();
  return &mask;
}

const struct timespec kNoWait = {0, 0};

void raw_set(int fd) {
  uint64_t one = 1;
  benchmark::DoNotOptimize(write(fd, &one, sizeof one));
}

int raw_wait(int fd, const struct timespec* timeout) {
  struct pollfd entry = {fd, POLLIN, 0};
  int ready = ppoll(&entry, 1, timeout, wait_mask());
  if (ready > 0) {
    uint64_t value;
    benchmark::DoNotOptimize(read(fd, &value, sizeof value));
  }
  return ready;
}

void BM_SetEvent_Wait0(benchmark::State& state) {
  HANDLE e = CreateEvent(nullptr, FALSE, FALSE, nullptr);
  bench::AllocationCounter allocations(state);
  for (auto _ : state) {
    SetEvent(e);
    benchmark::DoNotOptimize(WaitForSingleObject(e, 0));
  }
  CloseHandle(e);
}
BENCHMARK(BM_SetEvent_Wait0);

void BM_floor_write_ppoll_read(benchmark::State& state) {
  int fd = eventfd(0, EFD_NONBLOCK);
  for (auto _ : state) {
    raw_set(fd);
    benchmark::DoNotOptimize(raw_wait(fd, &kNoWait));
  }
  close(fd);
}
BENCHMARK(BM_floor_write_ppoll_read);

void BM_SetEvent_ResetEvent(benchmark::State& state) {
  HANDLE e = CreateEvent(nullptr, TRUE, FALSE, nullptr);
  bench::AllocationCounter allocations(state);
  for (auto _ : state) {
    SetEvent(e);
    ResetEvent(e);
  }
  CloseHandle(e);
}
BENCHMARK(BM_SetEvent_ResetEvent);

// One round trip: this thread signals ping, the partner answers with pong.
void BM_PingPong_Events(benchmark::State& state) {
  HANDLE ping = CreateEvent(nullptr, FALSE, FALSE, nullptr);
  HANDLE pong = CreateEvent(nullptr, FALSE, FALSE, nullptr);
  std::atomic<bool> stop{false};
  std::thread partner([&] {
    for (;;) {
      WaitForSingleObject(ping, INFINITE);
      if (stop) return;
      SetEvent(pong);
    }
  });
  for (auto _ : state) {
    SetEvent(ping);
    WaitForSingleObject(pong, INFINITE);
  }
  stop = true;
  SetEvent(ping);
  partner.join();
  CloseHandle(ping);
  CloseHandle(pong);
}
BENCHMARK(BM_PingPong_Events)->UseRealTime();

void BM_floor_PingPong_eventfd(benchmark::State& state) {
  int ping = eventfd(0, EFD_NONBLOCK), pong = eventfd(0, EFD_NONBLOCK);
  std::atomic<bool> stop{false};
  std::thread partner([&] {
    for (;;) {
      raw_wait(ping, nullptr);
      if (stop) return;
      raw_set(pong);
    }
  });
  for (auto _ : state) {
    raw_set(ping);
    raw_wait(pong, nullptr);
  }
  stop = true;
  raw_set(ping);
  partner.join();
  close(ping);
  close(pong);
}
BENCHMARK(BM_floor_PingPong_eventfd)->UseRealTime();

// A wait over `n` events whose last one (manual-reset) is signalled.
void wait_many(benchmark::State& state, DWORD n) {
  std::vector<HANDLE> handles;
  for (DWORD i = 0; i < n; i++) handles.push_back(CreateEvent(nullptr, TRUE, FALSE, nullptr));
  SetEvent(handles.back());
  bench::AllocationCounter allocations(state);
  for (auto _ : state) benchmark::DoNotOptimize(WaitForMultipleObjects(n, handles.data(), FALSE, 0));
  for (HANDLE h : handles) CloseHandle(h);
}

void floor_wait_many(benchmark::State& state, int n) {
  std::vector<struct pollfd> fds;
  for (int i = 0; i < n; i++) fds.push_back({eventfd(0, EFD_NONBLOCK), POLLIN, 0});
  raw_set(fds.back().fd);
  for (auto _ : state) {
    benchmark::DoNotOptimize(ppoll(fds.data(), fds.size(), &kNoWait, wait_mask()));
    int index = 0;
    while (index < n && !(fds[index].revents & POLLIN)) index++;
    benchmark::DoNotOptimize(index);
  }
  for (auto& entry : fds) close(entry.fd);
}

void BM_WaitForMultipleObjects_64(benchmark::State& state) { wait_many(state, 64); }
BENCHMARK(BM_WaitForMultipleObjects_64);
void BM_floor_ppoll_64(benchmark::State& state) { floor_wait_many(state, 64); }
BENCHMARK(BM_floor_ppoll_64);
void BM_WaitForMultipleObjects_16(benchmark::State& state) { wait_many(state, 16); }
BENCHMARK(BM_WaitForMultipleObjects_16);
void BM_floor_ppoll_16(benchmark::State& state) { floor_wait_many(state, 16); }
BENCHMARK(BM_floor_ppoll_16);

}  // namespace

COMMONL_RATIO("SetEvent + WaitForSingleObject(h, 0), auto-reset", BM_SetEvent_Wait0,
              BM_floor_write_ppoll_read, 1.05);
COMMONL_RATIO("ping-pong through two auto-reset events", BM_PingPong_Events,
              BM_floor_PingPong_eventfd, 1.05);
COMMONL_RATIO("WaitForMultipleObjects, 64 events, last signalled", BM_WaitForMultipleObjects_64,
              BM_floor_ppoll_64, 1.05);
COMMONL_RATIO("WaitForMultipleObjects, 16 events, last signalled", BM_WaitForMultipleObjects_16,
              BM_floor_ppoll_16, 1.05);
