// Semaphores, threads, priorities and commands.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <vector>

#include "CommonL.h"
#include "support.h"

using testsupport::Log;
using testsupport::LogLine;
using testsupport::ScopedPaths;
using testsupport::ScopedSys;
using testsupport::ScratchFile;
using testsupport::SystemRecorder;
using Lines = std::vector<std::string>;

namespace {

const uintptr_t kFailed = static_cast<uintptr_t>(-1);

// Swaps one system call for the life of the result.
template <typename Fn>
ScopedSys<Fn> fake(Fn& slot, std::common_type_t<Fn> with) {
  return {slot, with};
}

// The log as "level text", up to `max_level`: a thread's slow start may add a
// line at level 4 on a loaded machine.
Lines log_lines(int max_level = 7) {
  Lines out;
  for (const auto& line : Log::lines())
    if (line.level <= max_level) out.push_back(std::to_string(line.level) + " " + line.text);
  return out;
}

// How many zero-timeout waits succeed in a row.
int drain(HANDLE h) {
  int n = 0;
  while (n < 100 && WaitForSingleObject(h, 0) == WAIT_OBJECT_0) n++;
  return n;
}

// Runs body(0) ... body(n - 1) on threads of their own and joins them.
void on_threads(int n, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < n; t++) threads.emplace_back(body, t);
  for (std::thread& thread : threads) thread.join();
}

struct Event {
  HANDLE h = CreateEvent(nullptr, TRUE, FALSE, nullptr);
  ~Event() { CloseHandle(h); }
  operator HANDLE() const { return h; }
};

// Runs `body` on a thread from _beginthreadex; the object outlives the thread.
struct OwnThread {
  std::function<void()> body;
  Event ended;
  uintptr_t handle;
  explicit OwnThread(std::function<void()> f, unsigned int stack = 0, unsigned int flag = 0,
                     unsigned int* id = nullptr)
      : body(std::move(f)), handle(_beginthreadex(nullptr, stack, run, this, flag, id)) {}
  ~OwnThread() {
    if (handle != kFailed) join();
  }
  bool join() const { return WaitForSingleObject(ended, 10000) == WAIT_OBJECT_0; }
  HANDLE h() const { return reinterpret_cast<HANDLE>(handle); }
  static unsigned int run(void* arg) {
    auto* self = static_cast<OwnThread*>(arg);
    std::unique_ptr<void, BOOL (*)(HANDLE)> on_exit(self->ended, SetEvent);  // also if cancelled
    self->body();
    return 0;
  }
};

const int kRefused = -100;

// GetThreadPriority after SetThreadPriority on this thread; kRefused if that failed.
int set_and_read(int priority) {
  if (SetThreadPriority(GetCurrentThread(), priority) != TRUE) return kRefused;
  return GetThreadPriority(GetCurrentThread());
}

// GetThreadPriority after this thread's policy is set directly.
int read_back(int policy, int sched_priority) {
  struct sched_param param = {sched_priority};
  if (pthread_setschedparam(pthread_self(), policy, &param) != 0) return kRefused;
  return GetThreadPriority(GetCurrentThread());
}

// "result size", and the text behind when the result is 1.
std::string run(const char* command, int capacity, const char* marker = nullptr) {
  std::vector<char> buffer(capacity, 'x');
  int size = capacity;
  int result = RunProcess(command, buffer.data(), &size, marker);
  std::string out = std::to_string(result) + " " + std::to_string(size);
  return result ? out + " " + std::string(buffer.data(), strnlen(buffer.data(), capacity)) : out;
}

}  // namespace

TEST(Semaphore, CountsAreSharedBadHandlesFailQuietlyAndOddArgumentsAreReported) {
  HANDLE e = CreateEvent(nullptr, 0, 1, nullptr);
  SetLastError(0);
  EXPECT_EQ(WaitForSemaphore(e, 0), WAIT_FAILED);
  EXPECT_EQ(GetLastError(), 6u);
  for (HANDLE bad : {e, HANDLE(nullptr)}) {
    SetLastError(0);
    EXPECT_EQ(ReleaseSemaphore(bad, 1, nullptr), FALSE);
    EXPECT_EQ(GetLastError(), 6u);
  }
  EXPECT_EQ(drain(e), 1);  // untouched
  CloseHandle(e);

  HANDLE s = CreateSemaphore(nullptr, 2, 1, nullptr), copy = nullptr;
  ASSERT_EQ(DuplicateHandle(GetCurrentProcess(), s, GetCurrentProcess(), &copy, 0, 0, 0), TRUE);
  EXPECT_EQ(WaitForSemaphore(s, 0), WAIT_OBJECT_0);
  EXPECT_EQ(drain(s), 1);
  EXPECT_EQ(ReleaseSemaphore(copy, 3, nullptr), TRUE);  // the maximum is not enforced
  EXPECT_EQ(CloseHandle(copy), TRUE);                   // the count stays with the other handle
  EXPECT_EQ(drain(s), 3);
  EXPECT_EQ(WaitForSingleObject(s, 20), WAIT_TIMEOUT);
  ReleaseSemaphore(s, 1, nullptr);
  EXPECT_EQ(WaitForSingleObject(s, 1000), WAIT_OBJECT_0);  // the timed path takes it too
  EXPECT_EQ(CloseHandle(s), TRUE);
  // An initial count above the system's bound is refused.
  EXPECT_EQ(CreateSemaphore(nullptr, 0x80000000L, 1, nullptr), nullptr);
  EXPECT_EQ(log_lines(), Lines{"3 Fail to create native semaphore"});

  Log::clear();
  Log::set_level(0);
  HANDLE a = CreateSemaphore(nullptr, 0, 1, "named"), b = CreateSemaphore(nullptr, 0, 1, "named");
  EXPECT_NE(a, b);  // names play no part
  long previous = 77;
  EXPECT_EQ(ReleaseSemaphore(a, 1, &previous), TRUE);
  EXPECT_EQ(previous, 77);
  for (long count : {0L, -1L}) EXPECT_EQ(ReleaseSemaphore(a, count, nullptr), TRUE);
  EXPECT_EQ(drain(a), 1);  // only the valid release counts
  EXPECT_EQ(log_lines(),
            (Lines{"2 Named Semaphore not supported", "2 Named Semaphore not supported",
                   "2 Previous count value not available", "2 lReleaseCount must be > 0",
                   "2 lReleaseCount must be > 0"}));
  CloseHandle(a);
  CloseHandle(b);
}

TEST(Semaphore, ProducersAndConsumersBalance) {
  HANDLE s = CreateSemaphore(nullptr, 0, 1, nullptr);
  std::atomic<int> taken{0};
  on_threads(4, [&](int t) {  // two consumers, two producers
    for (int i = 0; i < 5000; i++) {
      if (t < 2) taken += WaitForSingleObject(s, 10000) == WAIT_OBJECT_0;
      if (t >= 2 && i % 2 == 0) ReleaseSemaphore(s, 2, nullptr);
    }
  });
  EXPECT_EQ(taken.load(), 10000);
  EXPECT_EQ(drain(s), 0);
  CloseHandle(s);
}

// --- threads ---

TEST(BeginThreadEx, HandleIdAndStackAreTheNewThreadsOwnAndInitflagIsReported) {
  Event release;
  unsigned int id = 0;
  OwnThread t(
      [&] {
        WaitForSingleObject(release, 10000);  // alive while its record is looked at
        EXPECT_EQ(GetCurrentThread(), t.h());
        EXPECT_EQ(GetCurrentThreadId(), id);
        size_t stack = 0;
        pthread_attr_t attr;
        pthread_getattr_np(pthread_self(), &attr);
        pthread_attr_getstacksize(&attr, &stack);
        pthread_attr_destroy(&attr);
        EXPECT_EQ(stack, 1048576u);
      },
      0, 0, &id);
  ASSERT_NE(t.handle, kFailed);
  EXPECT_TRUE(commonl::handle_is(t.h(), V_HANDLE_THREAD));
  EXPECT_EQ(static_cast<unsigned int>(static_cast<v_handle_t*>(t.h())->tail.tid), id);  // at once
  EXPECT_EQ(WaitForSingleObject(t.h(), 0), WAIT_FAILED);
  EXPECT_EQ(CloseHandle(t.h()), TRUE);
  SetEvent(release);
  EXPECT_TRUE(t.join());
  EXPECT_EQ(log_lines(3), Lines{"3 bad handle position 0, bat type 6"});

  Log::set_level(0);  // level 2 all the same; a null thrdaddr is accepted
  OwnThread flagged([] {}, 0, 4);
  EXPECT_NE(flagged.handle, kFailed);
  EXPECT_TRUE(flagged.join());
  EXPECT_EQ(Log::count(2, "initflag != zero not supported"), 1);
}

TEST(BeginThreadEx, ANullRoutineIsAnAssertionAndFailuresGiveAllBitsSet) {
  uintptr_t handle = _beginthreadex(nullptr, 0, nullptr, nullptr, 0, nullptr);
  EXPECT_NE(handle, kFailed);
  EXPECT_NE(handle, 0u);
  EXPECT_TRUE(testsupport::eventually([] { return Log::has(2, "KORVA Assert"); }));
  EXPECT_EQ(_beginthreadex_proxy(nullptr), nullptr);
  EXPECT_EQ(log_lines(3), (Lines{"2 KORVA Assert", "2 KORVA Assert"}));

  Log::clear();
  unsigned int id = 77;
  auto no_thread =
      fake(commonl::sys.pthread_create,
           [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; });
  EXPECT_EQ(OwnThread([] {}, 1024, 0, &id).handle, kFailed);  // checked before the start
  EXPECT_EQ(OwnThread([] {}, 0, 0, &id).handle, kFailed);
  auto no_params = fake(commonl::sys.pthread_attr_getschedparam,
                        [](const pthread_attr_t*, struct sched_param*) { return EINVAL; });
  EXPECT_EQ(OwnThread([] {}, 0, 0, &id).handle, kFailed);
  EXPECT_EQ(id, 77u);  // thrdaddr left alone
  EXPECT_EQ(log_lines(),
            (Lines{"3 _beginthreadex: Fail to set stacksize", "3 _beginthreadex error\n",
                   "3 _beginthreadex: fail to get schedule params"}));
}

// The start handshake with the new thread held back: the fake pthread_create
// keeps the start, and the fake usleep lets the thread go at sleep number
// `release_at` (1 is the first) and records what the sleeps asked for.
struct HeldStart {
  static inline long long release_at;
  static inline std::atomic<long long> sleeps, ten_us, one_us, odd;
  static inline std::atomic<long> slack_in_sleep;  // at the first sleep
  static inline void* (*start)(void*);
  static inline void* arg;
  ScopedSys<decltype(commonl::sys.pthread_create)> create{commonl::sys.pthread_create, hold};
  ScopedSys<decltype(commonl::sys.usleep)> sleep{commonl::sys.usleep, record};
  explicit HeldStart(long long at) {
    release_at = at, sleeps = ten_us = one_us = odd = 0, slack_in_sleep = -1;
  }
  static int hold(pthread_t*, const pthread_attr_t*, void* (*routine)(void*), void* record) {
    return start = routine, arg = record, 0;
  }
  static int record(useconds_t us) {
    if (++sleeps == 1) slack_in_sleep = prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0);
    (us == 10 ? ten_us : us == 1 ? one_us : odd)++;
    if (sleeps == release_at) {  // the thread starts and has run once this returns
      pthread_t thread;
      pthread_create(&thread, nullptr, start, arg);
      pthread_join(thread, nullptr);
    }
    return 0;
  }
};

unsigned int nothing(void*) { return 0; }

TEST(BeginThreadEx, WaitsInRealSleepsUnderTheLeastTimerSlackCountingLooksForItsReports) {
  prctl(PR_SET_TIMERSLACK, 20000, 0, 0, 0);
  Log::set_level(4);
  const std::string slow = "4 _beginthreadex: thread took ", ms = " milliseconds to start";
  // {sleep at which the thread starts, sleeps of 1 us, the log}: 10 us first,
  // then 1 us a look; the looks after the first sleep are counted.
  const std::tuple<long long, long long, Lines> rows[] = {
      {1, 0, {}},
      {2, 1, {}},
      {1000, 999, {}},
      {1001, 1000, {slow + "1" + ms}},
      {5000001, 5000000, {"2 _beginthreadex: thread not started", slow + "5000" + ms}},
      {5000003, 5000002, Lines(3, "2 _beginthreadex: thread not started")},
  };
  for (const auto& [release_at, one_us, log] : rows) {
    Log::clear();
    HeldStart held(release_at);
    unsigned int id = 0;
    uintptr_t handle = _beginthreadex(nullptr, 0, nothing, nullptr, 0, &id);
    EXPECT_TRUE(handle != kFailed && id != 0) << release_at;
    EXPECT_EQ(HeldStart::ten_us.load(), 1) << release_at;
    EXPECT_EQ(HeldStart::one_us.load(), one_us) << release_at;
    EXPECT_EQ(HeldStart::odd.load(), 0) << release_at;
    EXPECT_EQ(HeldStart::slack_in_sleep.load(), 1) << release_at;
    EXPECT_EQ(prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0), 20000) << release_at;  // the caller's again
    Lines want = log;
    if (release_at == 5000003) want.push_back(slow + "5000" + ms);
    EXPECT_EQ(log_lines(), want) << release_at;
  }
  for (const auto& line : Log::lines()) EXPECT_EQ(line.function, "_beginthreadex");
}

TEST(BeginThreadEx, ManyShortThreadsStartFromSeveralCreatorsEachKeepingItsTimerSlack) {
  static std::atomic<int> ran{0};
  ran = 0;
  on_threads(4, [](int t) {
    prctl(PR_SET_TIMERSLACK, 30000 + t, 0, 0, 0);
    for (int i = 0; i < 50; i++) {
      EXPECT_NE(
          _beginthreadex(
              nullptr, 0, [](void*) -> unsigned int { return ran++, 0u; }, nullptr, 0, nullptr),
          kFailed);
      EXPECT_EQ(prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0), 30000 + t);
    }
  });
  EXPECT_TRUE(testsupport::eventually([] { return ran == 200; }));
  EXPECT_EQ(Log::count_text("_beginthreadex: thread not started"), 0);
}

TEST(BeginThreadEx, ACreatorCancelledInTheHandshakeStillReturnsTheHandleAndEndsAfterwards) {
  static std::atomic<uintptr_t> got;
  static std::atomic<long> slack;
  got = 0, slack = 0;
  Event go, never;
  OwnThread creator([&] {
    prctl(PR_SET_TIMERSLACK, 40000, 0, 0, 0);
    WaitForSingleObject(go, 10000);
    got = _beginthreadex(nullptr, 0, nothing, nullptr, 0, nullptr);
    slack = prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0);
    WaitForSingleObject(never, 10000);  // the cancellation takes effect here
    got = 0;
  });
  HeldStart held(0);  // the thread is let go by hand below
  commonl::sys.usleep = [](useconds_t us) { return HeldStart::sleeps++, usleep(us); };
  SetEvent(go);
  ASSERT_TRUE(testsupport::eventually([] { return HeldStart::sleeps > 2; }));
  EXPECT_EQ(TerminateThread(creator.h(), 0), TRUE);
  pthread_t thread;
  pthread_create(&thread, nullptr, HeldStart::start, HeldStart::arg);
  pthread_join(thread, nullptr);
  EXPECT_TRUE(creator.join());
  EXPECT_TRUE(got != 0 && got != kFailed);
  EXPECT_EQ(slack.load(), 40000);
}

// --- thread control ---

TEST(ThreadPriority, OneToSevenMapToPoliciesAndBackWithRealTimeWhereAllowed) {
  bool realtime = false;  // whether this process may use the real-time policies
  std::thread([&] {
    struct sched_param param = {1};
    realtime = pthread_setschedparam(pthread_self(), SCHED_RR, &param) == 0;
  }).join();
  OwnThread ordinary([] {
    for (int priority : {4, 3, 2, 1}) EXPECT_EQ(set_and_read(priority), 3) << priority;
    EXPECT_EQ(sched_getscheduler(0), SCHED_IDLE);
    for (int priority : {0, -1, 8}) EXPECT_EQ(set_and_read(priority), kRefused) << priority;
  });
  ASSERT_TRUE(ordinary.join());
  // A fresh thread: leaving SCHED_IDLE may need more rights than entering real time.
  OwnThread real_time([realtime] {
    EXPECT_EQ(read_back(SCHED_BATCH, 0), -1);  // no mapping
    EXPECT_EQ(set_and_read(5), realtime ? 5 : kRefused);
    if (!realtime) return;
    for (int priority : {6, 7}) EXPECT_EQ(set_and_read(priority), priority);
    EXPECT_EQ(read_back(SCHED_RR, 42), 42);
    EXPECT_EQ(read_back(SCHED_FIFO, 42), 7);
  });
  ASSERT_TRUE(real_time.join());
  Lines want{"3 No mapped priority for 0", "3 No mapped priority for -1",
             "3 No mapped priority for 8",
             "3 unknown prio mapping for police = 3, sched_priority = 0"};
  if (!realtime) want.push_back("3 fail to set thread prio, errno: Operation not permitted");
  EXPECT_EQ(log_lines(3), want);
}

TEST(ThreadControl, BadHandlesAreRefused) {
  HANDLE e = CreateEvent(nullptr, 0, 0, nullptr);
  std::thread([] {
    // Nobody populated this thread's record.
    EXPECT_EQ(SetThreadPriority(GetCurrentThread(), 4), FALSE);
    EXPECT_EQ(TerminateThread(GetCurrentThread(), 0), FALSE);
  }).join();
  EXPECT_EQ(GetThreadPriority(e), 0);
  EXPECT_EQ(GetThreadPriority(nullptr), 0);
  EXPECT_EQ(log_lines(), (Lines{"3 bad handle", "3 bad handle", "3 bad hanlde", "3 bad hanlde"}));
  CloseHandle(e);
}

TEST(ThreadControl, TerminateCancelsABlockedThreadAndItsOwnAtTheNextCancellationPoint) {
  Event ready, never;
  std::atomic<int> went_on{0};
  OwnThread blocked([&] {
    SetEvent(ready);
    WaitForSingleObject(never, 10000);
    went_on++;
  });
  EXPECT_EQ(WaitForSingleObject(ready, 10000), WAIT_OBJECT_0);
  EXPECT_EQ(TerminateThread(blocked.h(), 0), TRUE);
  OwnThread self([&] {
    EXPECT_EQ(TerminateThread(GetCurrentThread(), 0), TRUE);
    usleep(1000);
    went_on++;
  });
  EXPECT_TRUE(blocked.join());
  EXPECT_TRUE(self.join());
  EXPECT_EQ(went_on, 0);
  SetEvent(never);  // lets the blocked thread go should it still be there
}

// --- commands ---

TEST(RunProcess, SizeProtocolEndMarkerAndTheLevel4ReportOfTooSmallABuffer) {
  EXPECT_EQ(run("printf abcde", 100), "1 6 abcde");
  EXPECT_EQ(run("printf abcde", 7), "1 6 abcde");
  EXPECT_EQ(run("printf abcde", 6), "0 15");  // fits exactly, counts as too small
  EXPECT_EQ(run("printf abcde", 15), "1 6 abcde");
  EXPECT_EQ(run("printf '%0100d' 0", 10), "0 110");
  EXPECT_EQ(run("printf '%0100d' 0", 110), "1 101 " + std::string(100, '0'));
  EXPECT_EQ(run("printf abcde", 1), "0 10");
  EXPECT_EQ(run("printf abcde", 10), "1 6 abcde");
  EXPECT_EQ(run("true", 2), "1 1 ");
  EXPECT_EQ(run("/nonexistent/command 2>/dev/null", 50), "1 1 ");
  EXPECT_EQ(run("printf 'abc END def'", 100, "END"), "1 8 abc END");
  EXPECT_EQ(run("printf 'abc END def'", 100, "STOP"), "1 12 abc END def");
  EXPECT_EQ(Log::count(4,
                       "RunProcess(): UpdateOutputBufSize() being called because insufficient "
                       "buffer size provided (6)\ncmd: \"printf abcde\""),
            1)
      << Log::dump();
  EXPECT_EQ(Log::count(4, "RunProcess(): required: 15"), 1);
  Log::clear();
  Log::set_level(3);
  EXPECT_EQ(run("printf abcde", 6), "0 15");
  EXPECT_TRUE(Log::lines().empty());
}

TEST(RunProcess, BadSizesAndPopenAndPcloseFailuresAreReported) {
  char buffer[4] = "abc";
  int zero = 0, negative = -5;
  for (int* size : {static_cast<int*>(nullptr), &zero, &negative})
    EXPECT_EQ(RunProcess("printf x", buffer, size, nullptr), 0);
  EXPECT_EQ(std::make_pair(zero, negative), std::make_pair(0, -5));
  int size = sizeof buffer;  // NULL command or buffer: refused, nothing changed
  EXPECT_EQ(RunProcess(nullptr, buffer, &size, nullptr) + RunProcess("x", nullptr, &size, nullptr), 0);
  UpdateOutputBufSize(nullptr, buffer, &size, 0);
  UpdateOutputBufSize(stdin, buffer, nullptr, 0);
  EXPECT_EQ(size, 4);
  EXPECT_STREQ(buffer, "abc");
  {
    auto failing = fake(commonl::sys.popen,
                        [](const char*, const char*) -> FILE* { return errno = EMFILE, nullptr; });
    EXPECT_EQ(run("printf x", 10), "0 0");
  }
  auto failing = fake(commonl::sys.pclose, [](FILE* f) { return pclose(f), errno = ECHILD, -1; });
  EXPECT_EQ(run("printf x", 10), "1 2 x");
  const char* const kInvalid = "3 Invalid output size address or output_buf_size";
  const char* const kNull = "2 RunProcess: command or output_buf == NULL";
  const char* const kUpdateNull = "2 UpdateOutputBufSize: stream, buffer or size == NULL";
  EXPECT_EQ(log_lines(), (Lines{kInvalid, kInvalid, kInvalid, kNull, kNull, kUpdateNull,
                                kUpdateNull, "3 Too many open files", "3 No child processes"}));
}

TEST(RunProcess, AThreadCancelledWhileReadingClosesTheStreamOnceTheCommandEnds) {
  ScratchFile fifo("", "fifo");
  unlink(fifo.path().c_str());
  ASSERT_EQ(mkfifo(fifo.path().c_str(), 0600), 0);
  static std::atomic<int> closes;
  closes = 0;
  auto counted = fake(commonl::sys.pclose, [](FILE* f) { return closes++, pclose(f); });
  std::atomic<pid_t> tid{0};
  const std::string command = "cat " + fifo.path();
  OwnThread reader([&] {
    tid = gettid();
    std::vector<char> buffer(64);
    int size = 64;
    RunProcess(command.c_str(), buffer.data(), &size, nullptr);
    tid = -1;  // not reached
  });
  ASSERT_TRUE(testsupport::eventually([&] { return tid > 0; }));
  ASSERT_TRUE(testsupport::blocked_in_syscall(tid, SYS_read));
  EXPECT_EQ(TerminateThread(reader.h(), 0), TRUE);
  int writer = open(fifo.path().c_str(), O_WRONLY);  // lets cat end
  close(writer);
  EXPECT_TRUE(reader.join());
  EXPECT_EQ(closes.load(), 1);
  EXPECT_NE(tid.load(), -1);
}

// --- the process and its user ---

TEST(ProcessAndUser, ProcessIdIsGetpidAndUserNameSizeProtocol) {
  EXPECT_EQ(GetCurrentProcessId(), static_cast<int>(getpid()));
  char keep[64] = "keep";
  unsigned int size = sizeof keep;
  {
    auto no_entry = fake(
        commonl::sys.getpwuid, [](uid_t) -> struct passwd* { return nullptr; });
    EXPECT_EQ(GetUserName(keep, &size), 0);
  }
  EXPECT_EQ(GetUserName(nullptr, &size), 0);
  EXPECT_EQ(GetUserName(keep, nullptr), 0);
  EXPECT_EQ(Log::count(2, "GetUserName: lpBuffer or pcbBuffer == NULL"), 2);
  EXPECT_EQ(size, sizeof keep);
  EXPECT_STREQ(keep, "keep");

  const struct passwd* entry = getpwuid(getuid());
  if (entry == nullptr) GTEST_SKIP() << "no passwd entry for this user";
  const std::string name = entry->pw_name, untouched(name.size() + 8, '#');
  const unsigned int length = static_cast<unsigned int>(name.size());
  // {size given, result, size after}: a size too small fails without telling the size needed.
  const unsigned int rows[][3] = {
      {length, 0, length}, {0, 0, 0}, {length + 1, 1, length + 1}, {length + 8, 1, length + 1}};
  for (const auto& row : rows) {
    std::string buffer = untouched;
    size = row[0];
    EXPECT_EQ(GetUserName(&buffer[0], &size), static_cast<int>(row[1])) << row[0];
    EXPECT_EQ(size, row[2]) << row[0];
    EXPECT_EQ(buffer, row[1] ? name + '\0' + untouched.substr(length + 1) : untouched) << row[0];
  }
}
