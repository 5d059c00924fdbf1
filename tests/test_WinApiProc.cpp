// Semaphores, threads, priorities and commands.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "CommonL.h"
#include "support.h"

using namespace testsupport;
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

TEST(BeginThreadEx, ManyShortThreadsStartFromSeveralCreators) {
  static std::atomic<int> ran{0};
  ran = 0;
  on_threads(4, [](int) {
    for (int i = 0; i < 50; i++)
      EXPECT_NE(
          _beginthreadex(
              nullptr, 0, [](void*) -> unsigned int { return ran++, 0u; }, nullptr, 0, nullptr),
          kFailed);
  });
  EXPECT_TRUE(testsupport::eventually([] { return ran == 200; }));
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
  EXPECT_STREQ(buffer, "abc");
  {
    auto failing = fake(commonl::sys.popen,
                        [](const char*, const char*) -> FILE* { return errno = EMFILE, nullptr; });
    EXPECT_EQ(run("printf x", 10), "0 0");
  }
  auto failing = fake(commonl::sys.pclose, [](FILE* f) { return pclose(f), errno = ECHILD, -1; });
  EXPECT_EQ(run("printf x", 10), "1 2 x");
  const char* const kInvalid = "3 Invalid output size address or output_buf_size";
  EXPECT_EQ(log_lines(),
            (Lines{kInvalid, kInvalid, kInvalid, "3 Too many open files", "3 No child processes"}));
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
