// Semaphores, threads, priorities and commands.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "CommonL.h"
#include "support.h"

using testsupport::Log;

TEST(Semaphore, CountsAreKeptAndTheMaximumIsNotEnforced) {
  HANDLE s = CreateSemaphore(nullptr, 2, 1, nullptr);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(WaitForSingleObject(s, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSemaphore(s, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(s, 0), WAIT_TIMEOUT);

  EXPECT_EQ(ReleaseSemaphore(s, 3, nullptr), TRUE);
  for (int i = 0; i < 3; i++) EXPECT_EQ(WaitForSingleObject(s, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(s, 20), WAIT_TIMEOUT);
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
  EXPECT_EQ(CloseHandle(s), TRUE);
}

TEST(Semaphore, UnsupportedArgumentsAreReportedAtLevel2) {
  Log::set_level(0);
  HANDLE a = CreateSemaphore(nullptr, 0, 1, "named");
  HANDLE b = CreateSemaphore(nullptr, 0, 1, "named");
  EXPECT_NE(a, b);  // names play no part
  EXPECT_EQ(Log::count(2, "Named Semaphore not supported"), 2);

  long previous = 77;
  EXPECT_EQ(ReleaseSemaphore(a, 1, &previous), TRUE);
  EXPECT_EQ(previous, 77);
  EXPECT_EQ(Log::count(2, "Previous count value not available"), 1);
  EXPECT_EQ(ReleaseSemaphore(a, 0, nullptr), TRUE);
  EXPECT_EQ(ReleaseSemaphore(a, -1, nullptr), TRUE);
  EXPECT_EQ(Log::count(2, "lReleaseCount must be > 0"), 2);
  EXPECT_EQ(WaitForSemaphore(a, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSemaphore(a, 0), WAIT_TIMEOUT);
  CloseHandle(a);
  CloseHandle(b);
}

TEST(Semaphore, BadHandlesGiveInvalidHandle) {
  HANDLE e = CreateEvent(nullptr, 0, 1, nullptr);
  SetLastError(0);
  EXPECT_EQ(WaitForSemaphore(e, 0), WAIT_FAILED);
  EXPECT_EQ(GetLastError(), 6u);
  SetLastError(0);
  EXPECT_EQ(ReleaseSemaphore(e, 1, nullptr), FALSE);
  EXPECT_EQ(GetLastError(), 6u);
  SetLastError(0);
  EXPECT_EQ(ReleaseSemaphore(nullptr, 1, nullptr), FALSE);
  EXPECT_EQ(GetLastError(), 6u);
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
  EXPECT_EQ(WaitForSingleObject(e, 0), WAIT_OBJECT_0);  // untouched
  CloseHandle(e);
}

TEST(Semaphore, InitialCountAboveTheSystemBoundIsRefused) {
  EXPECT_EQ(CreateSemaphore(nullptr, 0x80000000L, 1, nullptr), nullptr);
  EXPECT_EQ(Log::count(3, "Fail to create native semaphore"), 1);
}

TEST(Semaphore, DuplicatesShareOneCount) {
  HANDLE s = CreateSemaphore(nullptr, 0, 10, nullptr);
  HANDLE copy = nullptr;
  ASSERT_EQ(DuplicateHandle(GetCurrentProcess(), s, GetCurrentProcess(), &copy, 0, 0, 0), TRUE);
  ReleaseSemaphore(copy, 1, nullptr);
  EXPECT_EQ(CloseHandle(copy), TRUE);
  EXPECT_EQ(WaitForSingleObject(s, 0), WAIT_OBJECT_0);
  EXPECT_EQ(CloseHandle(s), TRUE);
}

TEST(Semaphore, ProducersAndConsumersBalance) {
  HANDLE s = CreateSemaphore(nullptr, 0, 1, nullptr);
  std::atomic<int> taken{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; t++)
    threads.emplace_back([&] {
      for (int i = 0; i < 5000; i++)
        if (WaitForSingleObject(s, INFINITE) == WAIT_OBJECT_0) taken++;
    });
  for (int t = 0; t < 2; t++)
    threads.emplace_back([&] {
      for (int i = 0; i < 2500; i++) ReleaseSemaphore(s, 2, nullptr);
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(taken.load(), 10000);
  EXPECT_EQ(WaitForSingleObject(s, 0), WAIT_TIMEOUT);
  CloseHandle(s);
}

// --- threads ---

namespace {

// What a started thread saw of itself.
struct Seen {
  HANDLE ready = CreateEvent(nullptr, TRUE, FALSE, nullptr);
  HANDLE release = CreateEvent(nullptr, TRUE, FALSE, nullptr);
  HANDLE handle = nullptr;
  DWORD id = 0;
  size_t stack_size = 0;
  std::atomic<bool> finished{false};  // the thread is done with the events
  ~Seen() {
    SetEvent(release);
    testsupport::eventually([this] { return finished.load(); });
    CloseHandle(ready);
    CloseHandle(release);
  }
};

unsigned int observe_and_hold(void* arg) {
  auto* seen = static_cast<Seen*>(arg);
  seen->handle = GetCurrentThread();
  seen->id = GetCurrentThreadId();
  pthread_attr_t attr;
  pthread_getattr_np(pthread_self(), &attr);
  pthread_attr_getstacksize(&attr, &seen->stack_size);
  pthread_attr_destroy(&attr);
  SetEvent(seen->ready);
  WaitForSingleObject(seen->release, 10000);
  seen->finished = true;
  return 0;
}

const uintptr_t kFailed = static_cast<uintptr_t>(-1);

}  // namespace

TEST(BeginThreadEx, HandleAndIdAreTheNewThreadsOwnAndUsableAtOnce) {
  Seen seen;
  unsigned int id = 0;
  uintptr_t handle = _beginthreadex(nullptr, 0, observe_and_hold, &seen, 0, &id);
  ASSERT_NE(handle, kFailed);
  auto* record = reinterpret_cast<v_handle_t*>(handle);
  EXPECT_EQ(record->magic, V_HANDLE_MAGIC);
  EXPECT_EQ(record->type, V_HANDLE_THREAD);
  EXPECT_EQ(static_cast<unsigned int>(record->tail.tid), id);

  ASSERT_EQ(WaitForSingleObject(seen.ready, 10000), WAIT_OBJECT_0);
  EXPECT_EQ(seen.handle, reinterpret_cast<HANDLE>(handle));
  EXPECT_EQ(seen.id, id);
  EXPECT_EQ(seen.stack_size, 1048576u);

  EXPECT_EQ(WaitForSingleObject(reinterpret_cast<HANDLE>(handle), 0), WAIT_FAILED);
  EXPECT_EQ(Log::count(3, "bad handle position 0, bat type 6"), 1);
  EXPECT_EQ(CloseHandle(reinterpret_cast<HANDLE>(handle)), TRUE);
}

TEST(BeginThreadEx, InitflagIsReportedAndNullThrdaddrAccepted) {
  Seen seen;
  Log::set_level(0);
  uintptr_t handle = _beginthreadex(nullptr, 0, observe_and_hold, &seen, 4, nullptr);
  ASSERT_NE(handle, kFailed);
  EXPECT_EQ(Log::count(2, "initflag != zero not supported"), 1);
  EXPECT_EQ(WaitForSingleObject(seen.ready, 10000), WAIT_OBJECT_0);
}

TEST(BeginThreadEx, FailuresGiveAllBitsSetAndLeaveThrdaddrAlone) {
  unsigned int id = 77;
  EXPECT_EQ(_beginthreadex(nullptr, 1024, observe_and_hold, nullptr, 0, &id), kFailed);
  EXPECT_EQ(Log::count(3, "_beginthreadex: Fail to set stacksize"), 1);
  {
    testsupport::ScopedSys<decltype(commonl::sys.pthread_create)> failing(
        commonl::sys.pthread_create,
        [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; });
    EXPECT_EQ(_beginthreadex(nullptr, 0, observe_and_hold, nullptr, 0, &id), kFailed);
    EXPECT_EQ(Log::count(3, "_beginthreadex error\n"), 1);
  }
  {
    testsupport::ScopedSys<decltype(commonl::sys.pthread_attr_getschedparam)> failing(
        commonl::sys.pthread_attr_getschedparam,
        [](const pthread_attr_t*, struct sched_param*) { return EINVAL; });
    EXPECT_EQ(_beginthreadex(nullptr, 0, observe_and_hold, nullptr, 0, &id), kFailed);
    EXPECT_EQ(Log::count(3, "_beginthreadex: fail to get schedule params"), 1);
  }
  EXPECT_EQ(id, 77u);
}

TEST(BeginThreadEx, NullRoutineIsAnAssertionAndTheThreadEnds) {
  uintptr_t handle = _beginthreadex(nullptr, 0, nullptr, nullptr, 0, nullptr);
  EXPECT_NE(handle, kFailed);
  EXPECT_NE(handle, 0u);
  EXPECT_TRUE(testsupport::eventually([] { return Log::has(2, "KORVA Assert"); }));
  EXPECT_EQ(_beginthreadex_proxy(nullptr), nullptr);
  EXPECT_EQ(Log::count(2, "KORVA Assert"), 2);
}

TEST(BeginThreadEx, ManyShortThreadsStartFromSeveralCreators) {
  static std::atomic<int> ran{0};
  ran = 0;
  std::vector<std::thread> creators;
  for (int c = 0; c < 4; c++)
    creators.emplace_back([] {
      for (int i = 0; i < 50; i++) {
        uintptr_t handle = _beginthreadex(
            nullptr, 0, [](void*) -> unsigned int { return ran++, 0u; }, nullptr, 0, nullptr);
        EXPECT_NE(handle, kFailed);
      }
    });
  for (auto& creator : creators) creator.join();
  EXPECT_TRUE(testsupport::eventually([] { return ran == 200; }));
}

// --- thread control ---

namespace {

// Runs `body` on a thread started by _beginthreadex and waits for its end.
template <typename Body>
void on_own_thread(Body body) {
  struct Call {
    Body* body;
    HANDLE done;
  } call{&body, CreateEvent(nullptr, TRUE, FALSE, nullptr)};
  uintptr_t handle = _beginthreadex(
      nullptr, 0,
      [](void* arg) -> unsigned int {
        auto* c = static_cast<Call*>(arg);
        (*c->body)();
        SetEvent(c->done);
        return 0;
      },
      &call, 0, nullptr);
  ASSERT_NE(handle, kFailed);
  ASSERT_EQ(WaitForSingleObject(call.done, 10000), WAIT_OBJECT_0);
  CloseHandle(call.done);
}

// Whether this process may use the real-time policies.
bool may_use_realtime() {
  bool allowed = false;
  std::thread([&] {
    struct sched_param param = {};
    param.sched_priority = 1;
    allowed = pthread_setschedparam(pthread_self(), SCHED_RR, &param) == 0;
  }).join();
  return allowed;
}

}  // namespace

TEST(ThreadPriority, OrdinaryPrioritiesReadBackAsThree) {
  on_own_thread([] {
    for (int priority : {4, 3, 2, 1}) {
      EXPECT_EQ(SetThreadPriority(GetCurrentThread(), priority), TRUE) << priority;
      EXPECT_EQ(GetThreadPriority(GetCurrentThread()), 3) << priority;
    }
    int policy;
    struct sched_param param;
    pthread_getschedparam(pthread_self(), &policy, &param);
    EXPECT_EQ(policy, SCHED_IDLE);
  });
  // A slow start may be reported at level 4 on a loaded machine; nothing else.
  for (const auto& line : Log::lines()) EXPECT_GE(line.level, 4) << Log::dump();
}

TEST(ThreadPriority, ValuesOutsideOneToSevenAreRefused) {
  on_own_thread([] {
    for (int priority : {0, -1, 8})
      EXPECT_EQ(SetThreadPriority(GetCurrentThread(), priority), FALSE) << priority;
  });
  EXPECT_EQ(Log::count(3, "No mapped priority for 0"), 1);
  EXPECT_EQ(Log::count(3, "No mapped priority for -1"), 1);
  EXPECT_EQ(Log::count(3, "No mapped priority for 8"), 1);
}

TEST(ThreadPriority, RealTimePrioritiesWhereThePolicyIsAllowed) {
  bool realtime = may_use_realtime();
  on_own_thread([realtime] {
    HANDLE self = GetCurrentThread();
    if (!realtime) {
      EXPECT_EQ(SetThreadPriority(self, 5), FALSE);
      EXPECT_EQ(Log::count(3, "fail to set thread prio, errno: Operation not permitted"), 1);
      return;
    }
    for (int priority : {5, 6, 7}) {
      EXPECT_EQ(SetThreadPriority(self, priority), TRUE);
      EXPECT_EQ(GetThreadPriority(self), priority);
    }
    struct sched_param param = {};
    param.sched_priority = 42;
    pthread_setschedparam(pthread_self(), SCHED_RR, &param);
    EXPECT_EQ(GetThreadPriority(self), 42);
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &param);
    EXPECT_EQ(GetThreadPriority(self), 7);
  });
}

TEST(ThreadPriority, UnknownPolicyGivesMinusOne) {
  on_own_thread([] {
    struct sched_param param = {};
    ASSERT_EQ(pthread_setschedparam(pthread_self(), SCHED_BATCH, &param), 0);
    EXPECT_EQ(GetThreadPriority(GetCurrentThread()), -1);
  });
  EXPECT_EQ(Log::count(3, "unknown prio mapping for police = 3, sched_priority = 0"), 1);
}

TEST(ThreadControl, BadHandlesAreRefused) {
  HANDLE e = CreateEvent(nullptr, 0, 0, nullptr);
  std::thread([] {
    // Nobody populated this thread's record.
    EXPECT_EQ(SetThreadPriority(GetCurrentThread(), 4), FALSE);
    EXPECT_EQ(TerminateThread(GetCurrentThread(), 0), FALSE);
  }).join();
  EXPECT_EQ(Log::count(3, "bad handle"), 2);
  EXPECT_EQ(GetThreadPriority(e), 0);
  EXPECT_EQ(GetThreadPriority(nullptr), 0);
  EXPECT_EQ(Log::count(3, "bad hanlde"), 2);
  CloseHandle(e);
}

namespace {
// Sets its event when the thread unwinds, cancelled or not.
struct SignalOnExit {
  HANDLE e;
  ~SignalOnExit() { SetEvent(e); }
};
}  // namespace

TEST(ThreadControl, TerminateCancelsAThreadBlockedInAWait) {
  struct Shared {
    HANDLE ready = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    HANDLE never = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    HANDLE ended = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    std::atomic<bool> returned{false};
  } shared;
  uintptr_t handle = _beginthreadex(
      nullptr, 0,
      [](void* arg) -> unsigned int {
        auto* s = static_cast<Shared*>(arg);
        SignalOnExit on_exit{s->ended};
        SetEvent(s->ready);
        WaitForSingleObject(s->never, INFINITE);
        s->returned = true;
        return 0;
      },
      &shared, 0, nullptr);
  ASSERT_EQ(WaitForSingleObject(shared.ready, 10000), WAIT_OBJECT_0);
  EXPECT_EQ(TerminateThread(reinterpret_cast<HANDLE>(handle), 0), TRUE);
  EXPECT_EQ(WaitForSingleObject(shared.ended, 10000), WAIT_OBJECT_0);
  EXPECT_FALSE(shared.returned);
  for (HANDLE h : {shared.ready, shared.never, shared.ended}) CloseHandle(h);
}

TEST(ThreadControl, TerminateOwnThreadEndsItAtTheNextCancellationPoint) {
  static std::atomic<bool> went_on{false};
  HANDLE ended = CreateEvent(nullptr, TRUE, FALSE, nullptr);
  _beginthreadex(
      nullptr, 0,
      [](void* arg) -> unsigned int {
        SignalOnExit on_exit{arg};
        EXPECT_EQ(TerminateThread(GetCurrentThread(), 0), TRUE);
        usleep(1000);
        went_on = true;
        return 0;
      },
      ended, 0, nullptr);
  EXPECT_EQ(WaitForSingleObject(ended, 10000), WAIT_OBJECT_0);
  EXPECT_FALSE(went_on);
  CloseHandle(ended);
}

// --- commands ---

namespace {
struct Output {
  int result;
  int size;
  std::string text;
};

Output run(const char* command, int capacity, const char* marker = nullptr) {
  std::vector<char> buffer(capacity > 0 ? capacity : 1, 'x');
  int size = capacity;
  int result = RunProcess(command, buffer.data(), &size, marker);
  return {result, size, std::string(buffer.data(), strnlen(buffer.data(), buffer.size()))};
}
}  // namespace

TEST(RunProcess, SizeProtocol) {
  struct Row {
    const char* command;
    int capacity;
    int result;
    int size;
    const char* text;
  } rows[] = {
      {"printf abcde", 100, 1, 6, "abcde"},
      {"printf abcde", 7, 1, 6, "abcde"},
      {"printf abcde", 6, 0, 15, nullptr},  // fits exactly, counts as too small
      {"printf abcde", 15, 1, 6, "abcde"},
      {"printf '%0100d' 0", 10, 0, 110, nullptr},
      {"printf '%0100d' 0", 110, 1, 101, nullptr},
      {"printf abcde", 1, 0, 10, nullptr},
      {"printf abcde", 10, 1, 6, "abcde"},
      {"true", 2, 1, 1, ""},
      {"/nonexistent/command 2>/dev/null", 50, 1, 1, ""},
  };
  for (const Row& row : rows) {
    Output r = run(row.command, row.capacity);
    EXPECT_EQ(r.result, row.result) << row.command << " in " << row.capacity;
    EXPECT_EQ(r.size, row.size) << row.command << " in " << row.capacity;
    if (row.text) {
      EXPECT_EQ(r.text, row.text) << row.command;
    }
  }
}

TEST(RunProcess, TooSmallABufferIsReportedAtLevel4) {
  Output r = run("printf abcde", 6);
  EXPECT_EQ(r.result, 0);
  EXPECT_EQ(Log::count(4,
                       "RunProcess(): UpdateOutputBufSize() being called because insufficient "
                       "buffer size provided (6)\ncmd: \"printf abcde\""),
            1)
      << Log::dump();
  EXPECT_EQ(Log::count(4, "RunProcess(): required: 15"), 1);
  Log::clear();
  Log::set_level(3);
  run("printf abcde", 6);
  EXPECT_TRUE(Log::lines().empty());
}

TEST(RunProcess, EndMarkerCutsTheTextBehindIt) {
  Output r = run("printf 'abc END def'", 100, "END");
  EXPECT_EQ(r.result, 1);
  EXPECT_EQ(r.text, "abc END");
  EXPECT_EQ(r.size, 8);
  Output absent = run("printf 'abc END def'", 100, "STOP");
  EXPECT_EQ(absent.text, "abc END def");
  EXPECT_EQ(absent.size, 12);
}

TEST(RunProcess, BadSizeArgumentsChangeNothing) {
  char buffer[4] = "abc";
  int zero = 0, negative = -5;
  EXPECT_EQ(RunProcess("printf x", buffer, nullptr, nullptr), 0);
  EXPECT_EQ(RunProcess("printf x", buffer, &zero, nullptr), 0);
  EXPECT_EQ(RunProcess("printf x", buffer, &negative, nullptr), 0);
  EXPECT_EQ(zero, 0);
  EXPECT_EQ(negative, -5);
  EXPECT_STREQ(buffer, "abc");
  EXPECT_EQ(Log::count(3, "Invalid output size address or output_buf_size"), 3);
}

TEST(RunProcess, PopenAndPcloseFailuresAreReportedWithTheErrorText) {
  {
    testsupport::ScopedSys<decltype(commonl::sys.popen)> failing(
        commonl::sys.popen, [](const char*, const char*) -> FILE* {
          errno = EMFILE;
          return nullptr;
        });
    Output r = run("printf x", 10);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.size, 0);
    EXPECT_EQ(Log::count(3, "Too many open files"), 1);
  }
  testsupport::ScopedSys<decltype(commonl::sys.pclose)> failing(commonl::sys.pclose,
                                                                [](FILE* stream) {
                                                                  pclose(stream);
                                                                  errno = ECHILD;
                                                                  return -1;
                                                                });
  Output r = run("printf x", 10);
  EXPECT_EQ(r.result, 1);
  EXPECT_EQ(r.text, "x");
  EXPECT_EQ(Log::count(3, "No child processes"), 1);
}

// --- the process and its user ---

TEST(ProcessAndUser, ProcessIdIsGetpid) {
  EXPECT_EQ(GetCurrentProcessId(), static_cast<int>(getpid()));
}

TEST(ProcessAndUser, UserNameSizeProtocol) {
  const struct passwd* entry = getpwuid(getuid());
  if (entry == nullptr) GTEST_SKIP() << "no passwd entry for this user";
  const std::string name = entry->pw_name;
  const unsigned int length = static_cast<unsigned int>(name.size());
  std::vector<char> buffer(name.size() + 8, '#');

  unsigned int size = length;  // no room for the NUL
  EXPECT_EQ(GetUserName(buffer.data(), &size), 0);
  EXPECT_EQ(size, length);  // the size needed is not told
  EXPECT_EQ(buffer[0], '#');
  size = 0;
  EXPECT_EQ(GetUserName(buffer.data(), &size), 0);
  EXPECT_EQ(size, 0u);

  size = length + 1;
  EXPECT_EQ(GetUserName(buffer.data(), &size), 1);
  EXPECT_EQ(size, length + 1);
  EXPECT_STREQ(buffer.data(), name.c_str());

  buffer.assign(buffer.size(), '#');
  size = length + 8;
  EXPECT_EQ(GetUserName(buffer.data(), &size), 1);
  EXPECT_EQ(size, length + 1);
  EXPECT_STREQ(buffer.data(), name.c_str());
  EXPECT_EQ(buffer[length + 1], '#');
}

TEST(ProcessAndUser, NoPasswdEntryOrNullArgumentsGiveZero) {
  char buffer[64] = "keep";
  unsigned int size = sizeof buffer;
  {
    testsupport::ScopedSys<decltype(commonl::sys.getpwuid)> no_entry(
        commonl::sys.getpwuid, [](uid_t) -> struct passwd* { return nullptr; });
    EXPECT_EQ(GetUserName(buffer, &size), 0);
  }
  EXPECT_EQ(GetUserName(nullptr, &size), 0);
  EXPECT_EQ(GetUserName(buffer, nullptr), 0);
  EXPECT_EQ(size, sizeof buffer);
  EXPECT_STREQ(buffer, "keep");
}
