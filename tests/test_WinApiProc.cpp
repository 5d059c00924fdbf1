// Semaphores, threads and their start handshake, priorities, commands, the
// process and its user.
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <atomic>

#include "support.h"

using namespace testsupport;
using namespace std::string_literals;

namespace {

const uintptr_t kFailed = static_cast<uintptr_t>(-1);

int drain(HANDLE h) { return WaitForSingleObject(h, 0) == WAIT_OBJECT_0 ? 1 + drain(h) : 0; }
HANDLE event() { return CreateEvent(nullptr, TRUE, FALSE, nullptr); }
std::atomic<int> ran{0};
unsigned int counted(void*) { return ran++, 0; }
long timer_slack() { return prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0); }

// On this thread: GetThreadPriority after SetThreadPriority (0 if refused), or
// after pthread_setschedparam with `policy`.
int set_and_read(int priority, int policy = -1) {
  struct sched_param param = {priority};
  if (policy < 0 ? !SetThreadPriority(GetCurrentThread(), priority)
                 : pthread_setschedparam(pthread_self(), policy, &param) != 0)
    return 0;
  return GetThreadPriority(GetCurrentThread());
}

// "result size", then, for result 1, the buffer up to its last byte that is not zero.
std::string run(const char* command, int capacity, const char* marker = nullptr) {
  std::string buffer(capacity, 'x');
  int size = capacity, result = RunProcess(command, &buffer[0], &size, marker);
  std::string out = std::to_string(result) + " " + std::to_string(size);
  return result ? out + " " + buffer.substr(0, buffer.find_last_not_of('\0') + 1) : out;
}

// The start handshake held back: pthread_create notes what it is asked and
// keeps the start, and usleep runs the thread to its end at sleep number
// `release_at` (the first is 1), counting sleeps of 10 and of 1 us and
// noting the timer slack at the first.
std::atomic<long long> release_at, sleeps, ten_us, one_us, slack_then;
size_t stack_asked;
int detach_asked;
void* (*held_start)(void*);
void* held_arg;
void release() {
  pthread_t thread;
  pthread_create(&thread, nullptr, held_start, held_arg), pthread_join(thread, nullptr);
}
int hold(pthread_t*, const pthread_attr_t* attr, void* (*start)(void*), void* arg) {
  pthread_attr_getstacksize(attr, &stack_asked), pthread_attr_getdetachstate(attr, &detach_asked);
  return held_start = start, held_arg = arg, 0;
}
int counted_sleep(useconds_t us) {
  if (++sleeps == 1) slack_then = timer_slack();
  ten_us += us == 10, one_us += us == 1;
  if (sleeps == release_at) release();
  return 0;
}

}  // namespace

TEST(Semaphore, CountsBadHandlesReportedArgumentsAndProducersAndConsumersInBalance) {
  Owned e(event()), s(CreateSemaphore(nullptr, 2, 1, nullptr));  // the maximum is not compared
  SetLastError(0);
  EXPECT_TRUE(!ReleaseSemaphore(e, 1, nullptr) && GetLastError() == 6);  // no report
  SetLastError(0);
  EXPECT_TRUE(WaitForSemaphore(e, 0) == WAIT_FAILED && GetLastError() == 6);
  long previous = 77;
  EXPECT_EQ(drain(s), 2);
  EXPECT_TRUE(ReleaseSemaphore(s, 3, &previous) && ReleaseSemaphore(s, 0, nullptr) &&
              ReleaseSemaphore(s, -1, nullptr));
  EXPECT_EQ(std::make_pair(previous, drain(s)), std::make_pair(77L, 3));
  EXPECT_EQ(WaitForSingleObject(s, 20), WAIT_TIMEOUT);
  EXPECT_TRUE(ReleaseSemaphore(s, 1, nullptr) && WaitForSingleObject(s, INFINITE) == 0);
  EXPECT_EQ(CreateSemaphore(nullptr, 0x80000000L, 1, nullptr), nullptr);  // above the bound
  Owned named(CreateSemaphore(nullptr, 0, 1, "n"));  // the name plays no part
  const std::string count = "2 ReleaseSemaphore: lReleaseCount must be > 0";
  EXPECT_EQ(Log::take(), (Lines{"2 ReleaseSemaphore: Previous count value not available", count,
                                count, "3 CreateSemaphore: Fail to create native semaphore",
                                "2 CreateSemaphore: Named Semaphore not supported"}));
  std::atomic<int> taken{0};
  on_threads(4, [&](int t) {  // two consumers, two producers
    for (int i = 0; i < 5000; i++) {
      if (t < 2) taken += WaitForSingleObject(s, 10000) == WAIT_OBJECT_0;
      if (t >= 2 && i % 2 == 0) ReleaseSemaphore(s, 2, nullptr);
    }
  });
  EXPECT_EQ(std::make_pair(taken.load(), drain(s)), std::make_pair(10000, 0));
}

TEST(BeginThreadEx, AsksForADetachedThreadSleeps10Then1MicrosecondALookOrFailsWithAllBitsSet) {
  Log::set_level(4);
  const std::string op = "_beginthreadex: _beginthreadex", took = "4 " + op + ": thread took ",
                    lost = "2 " + op + ": thread not started", ms = " milliseconds to start";
  // {the sleep that lets the thread go, the caller's timer slack, stack size, initflag,
  // a start routine or none, log}
  const std::tuple<long long, long, unsigned int, unsigned int, bool, Lines> rows[] = {
      {1, 2, 0, 0, true, {}},
      {2, 20000, 65536, 4, true, {"2 _beginthreadex: initflag != zero not supported"}},
      {1000, 2, 0, 0, false, {"2 _beginthreadex_proxy: KORVA Assert"}},
      {1001, 20000, 0, 0, true, {took + "1" + ms}},
      {5000001, 2, 0, 0, true, {lost, took + "5000" + ms}},
      {5000003, 20000, 0, 0, true, {lost, lost, lost, took + "5000" + ms}}};
  for (const auto& [at, slack, stack, flag, routine, log] : rows) {
    prctl(PR_SET_TIMERSLACK, slack, 0, 0, 0);
    SEAM(pthread_create, hold);
    SEAM(usleep, counted_sleep);
    release_at = at, sleeps = ten_us = one_us = ran = 0;
    unsigned int id = 0;
    uintptr_t handle = _beginthreadex(nullptr, stack, routine ? counted : nullptr, nullptr, flag, &id);
    EXPECT_EQ(std::make_tuple(ten_us.load(), one_us.load(), sleeps.load(), slack_then.load()),
              std::make_tuple(1LL, at - 1, at, 1LL)) << at;
    EXPECT_EQ(std::make_tuple(stack_asked, detach_asked, ran.load(), handle && id, timer_slack()),
              std::make_tuple(stack ? stack : 1 << 20, 1, int(routine), true, slack)) << at;
    EXPECT_EQ(Log::take(), log) << at;
  }
  unsigned int id = 77;
  EXPECT_EQ(_beginthreadex(nullptr, 1024, counted, nullptr, 0, &id), kFailed);
  {
    SEAM(pthread_create, [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
      return EAGAIN;
    });
    EXPECT_EQ(_beginthreadex(nullptr, 0, counted, nullptr, 0, &id), kFailed);
  }
  SEAM(pthread_attr_getschedparam, [](const pthread_attr_t*, sched_param*) { return EINVAL; });
  EXPECT_TRUE(_beginthreadex(nullptr, 0, counted, nullptr, 0, &id) == kFailed && id == 77);
  EXPECT_EQ(_beginthreadex_proxy(nullptr), nullptr);
  EXPECT_EQ(Log::take(), (Lines{"3 " + op + ": Fail to set stacksize", "3 " + op + " error\n",
                                "3 " + op + ": fail to get schedule params",
                                "2 _beginthreadex_proxy: KORVA Assert"}));
}

TEST(BeginThreadEx, SeveralCreatorsStartThreadsAtOnceEachKeepingItsTimerSlack) {
  ran = 0;
  on_threads(4, [](int t) {
    prctl(PR_SET_TIMERSLACK, 30000 + t, 0, 0, 0);
    for (int i = 0; i < 50; i++)
      EXPECT_TRUE(_beginthreadex(nullptr, 0, counted, nullptr, 0, nullptr) != kFailed &&
                  timer_slack() == 30000 + t);
  });
  EXPECT_TRUE(eventually([] { return ran == 200; }));
  EXPECT_EQ(Log::take(3), Lines{});
}

TEST(BeginThreadEx, ACreatorCancelledInTheHandshakeReturnsTheHandleAndEndsAtItsNextWait) {
  static std::atomic<uintptr_t> got{0};
  Owned never(event());
  sleeps = 0;
  OwnThread creator([&] {
    SEAM(pthread_create, hold);
    SEAM(usleep, [](useconds_t us) { return sleeps++, usleep(us); });
    prctl(PR_SET_TIMERSLACK, 40000, 0, 0, 0);
    got = _beginthreadex(nullptr, 0, counted, nullptr, 0, nullptr);
    got = timer_slack() == 40000 ? got.load() : 0;
    WaitForSingleObject(never, 10000), got = 0;  // the cancellation takes effect in the wait
  });
  ASSERT_TRUE(eventually([] { return sleeps > 2; }));
  EXPECT_EQ(TerminateThread(creator.h(), 0), TRUE);
  release();
  EXPECT_TRUE(creator.join() && got != 0 && got != kFailed);
}

TEST(ThreadPriority, OneToSevenMapToPoliciesAndBackAndBadHandlesAreRefused) {
  Owned e(event());  // nobody populated the main thread's record
  EXPECT_FALSE(SetThreadPriority(GetCurrentThread(), 4) || TerminateThread(GetCurrentThread(), 0) ||
               GetThreadPriority(e) || GetThreadPriority(nullptr));
  const std::string set = "3 SetThreadPriority: ", get = "3 GetThreadPriority: ";
  EXPECT_EQ(Log::take(), (Lines{set + "bad handle", "3 TerminateThread: bad handle",
                                get + "bad hanlde", get + "bad hanlde"}));
  bool realtime = false;  // whether this process may use the real-time policies
  OwnThread([&] {
    realtime = set_and_read(1, SCHED_RR) == 1;
    for (int p : {0, -1, 8}) EXPECT_EQ(set_and_read(p), 0) << p;
    EXPECT_EQ(set_and_read(0, SCHED_BATCH), -1);  // no mapping
    EXPECT_EQ(realtime ? set_and_read(42, SCHED_RR) * 10 + set_and_read(42, SCHED_FIFO) : 427, 427);
    for (int p : {4, 5, 6, 7, 3, 2, 1}) EXPECT_EQ(set_and_read(p), p < 5 ? 3 : realtime ? p : 0);
    // Capabilities are a thread's: without CAP_SYS_NICE it is refused as a user's thread.
    __user_cap_header_struct head = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct caps[2] = {};
    syscall(SYS_capget, &head, caps), caps[0].effective &= ~(1u << CAP_SYS_NICE);
    EXPECT_TRUE(syscall(SYS_capset, &head, caps) == 0 && set_and_read(5) == 0);
  }).join();
  Lines want{set + "No mapped priority for 0", set + "No mapped priority for -1",
             set + "No mapped priority for 8",
             get + "unknown prio mapping for police = 3, sched_priority = 0"};
  want.insert(want.end(), realtime ? 1 : 4,
              set + "fail to set thread prio, errno: Operation not permitted");
  EXPECT_EQ(Log::take(3), want);
}

TEST(ThreadControl, TerminateCancelsAThreadBlockedInRunProcessOrItselfAtTheNextCancellationPoint) {
  std::atomic<int> went_on{0};
  OwnThread([&] { TerminateThread(GetCurrentThread(), 0) && !usleep(1000) && went_on++; }).join();
  // Cancelled while it reads, RunProcess still closes its stream, once the command ends.
  static std::atomic<int> closes{0};
  SEAM(pclose, [](FILE* f) { return closes++, pclose(f); });
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const std::string cat = "exec cat <&" + std::to_string(fds[0]) + " " + std::to_string(fds[1]) + ">&-";
  std::atomic<pid_t> tid{0};
  OwnThread reader([&] { tid = gettid(), run(cat.c_str(), 64), went_on++; });
  ASSERT_TRUE(eventually([&] { return tid > 0; }) && blocked_in_syscall(tid, SYS_read));
  EXPECT_EQ(TerminateThread(reader.h(), 0), TRUE);
  close(fds[1]), close(fds[0]);  // lets cat end
  EXPECT_TRUE(reader.join());
  EXPECT_EQ(std::make_pair(closes.load(), went_on.load()), std::make_pair(1, 0));
}

TEST(RunProcess, SizeProtocolEndMarkerTooSmallABufferAndFailures) {
  const char *five = "printf abcde", *hundred = "printf '%0100d' 0", *end = "printf 'abc END def'";
  const std::tuple<const char*, int, std::string> rows[] = {  // {command, capacity, outcome}
      {five, 100, "1 6 abcde"}, {five, 7, "1 6 abcde"}, {five, 6, "0 15"},  // fits: too small
      {five, 2, "0 15"},        {five, 1, "0 10"},      {hundred, 10, "0 110"},
      {"true", 2, "1 1 "},      {end, 100, "1 12 abc END def"}};
  Log::set_level(3);
  for (const auto& [command, capacity, outcome] : rows)
    EXPECT_EQ(run(command, capacity), outcome) << command << " " << capacity;
  EXPECT_EQ(run(end, 100, "END") + run(end, 100, "STOP"), "1 8 abc END\0def1 12 abc END def"s);
  EXPECT_EQ(Log::take(), Lines{});
  Log::set_level(7);
  EXPECT_EQ(run(five, 6), "0 15");
  char buffer[4] = "abc";
  int zero = 0, negative = -5, size = 4;
  for (int* bad : {static_cast<int*>(nullptr), &zero, &negative})
    EXPECT_EQ(RunProcess("printf x", buffer, bad, nullptr), 0);
  EXPECT_FALSE(RunProcess(nullptr, buffer, &size, nullptr) ||
               RunProcess("x", nullptr, &size, nullptr));
  UpdateOutputBufSize(nullptr, buffer, &size, 0), UpdateOutputBufSize(stdin, nullptr, &size, 0);
  UpdateOutputBufSize(stdin, buffer, nullptr, 0);
  EXPECT_EQ(std::make_tuple(zero, negative, size, buffer), std::make_tuple(0, -5, 4, "abc"s));
  {
    SEAM(popen, [](const char*, const char*) -> FILE* { return errno = EMFILE, nullptr; });
    EXPECT_EQ(run("printf x", 10), "0 0");
  }
  SEAM(pclose, [](FILE* f) { return pclose(f), errno = ECHILD, -1; });
  EXPECT_EQ(run("printf x", 10), "1 2 x");
  const std::string invalid = "3 RunProcess: Invalid output size address or output_buf_size",
                    null = "2 RunProcess: RunProcess: command or output_buf == NULL",
                    update = "2 UpdateOutputBufSize: UpdateOutputBufSize: stream, buffer or size "
                             "== NULL";
  EXPECT_EQ(Log::take(), (Lines{"4 RunProcess: RunProcess(): UpdateOutputBufSize() being called "
                                "because insufficient buffer size provided (6)\ncmd: \"printf "
                                "abcde\"",
                                "4 RunProcess: RunProcess(): required: 15", invalid, invalid,
                                invalid, null, null, update, update, update,
                                "3 RunProcess: Too many open files",
                                "3 RunProcess: No child processes"}));
}

TEST(ProcessAndUser, ProcessIdIsGetpidAndTheUserNameFitsOrNothingChanges) {
  EXPECT_EQ(GetCurrentProcessId(), static_cast<int>(getpid()));
  const std::string name = getpwuid(getuid())->pw_name, untouched(name.size() + 8, '#');
  const unsigned int n = static_cast<unsigned int>(name.size());
  for (unsigned int given : {n, 0u, n + 1, n + 8}) {  // too small: fails, the size needed untold
    std::string buffer = untouched;
    unsigned int size = given;
    const bool fits = given > n;
    EXPECT_EQ(GetUserName(&buffer[0], &size), int(fits)) << given;
    EXPECT_EQ(size, fits ? n + 1 : given) << given;
    EXPECT_EQ(buffer, fits ? name + '\0' + untouched.substr(n + 1) : untouched) << given;
  }
  SEAM(getpwuid, [](uid_t) -> struct passwd* { return nullptr; });  // no entry
  char out[64];
  unsigned int size = sizeof out;
  EXPECT_FALSE(GetUserName(out, &size) || GetUserName(nullptr, &size) || GetUserName(out, nullptr));
  EXPECT_EQ(Log::take(), Lines(2, "2 GetUserName: GetUserName: lpBuffer or pcbBuffer == NULL"));
}
