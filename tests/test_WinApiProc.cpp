// Semaphores, threads and their start handshake, priorities, commands, the
// process and its user.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <atomic>
#include <thread>

#include "support.h"

using namespace testsupport;
using namespace std::string_literals;

namespace {

const uintptr_t kFailed = static_cast<uintptr_t>(-1);

int drain(HANDLE h) { return WaitForSingleObject(h, 0) == WAIT_OBJECT_0 ? 1 + drain(h) : 0; }
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

// "result size" of RunProcess, and for result 1 the buffer up to its last byte that is not zero.
std::string run(const char* command, int capacity, const char* marker = nullptr) {
  std::string buffer(std::max(capacity, 1), 'x');
  int size = capacity, result = RunProcess(command, &buffer[0], &size, marker);
  std::string out = std::to_string(result) + " " + std::to_string(size);
  return result ? out + " " + buffer.substr(0, buffer.find_last_not_of('\0') + 1) : out;
}

// The start handshake held back: pthread_create notes what it is asked and
// keeps the start (or refuses while `release_at` is below 0), and usleep runs
// the thread to its end at sleep number `release_at` (the first is 1),
// counting sleeps of 10 and of 1 us and noting the timer slack at the first;
// at sleep number `cancel_at` it cancels its own thread.
std::atomic<long long> release_at, cancel_at, sleeps, ten_us, one_us, slack_then;
std::pair<size_t, int> asked;  // stack size and detach state
std::function<void()> release;
int hold(pthread_t*, const pthread_attr_t* attr, void* (*start)(void*), void* arg) {
  pthread_attr_getstacksize(attr, &asked.first), pthread_attr_getdetachstate(attr, &asked.second);
  release = [start, arg] { std::thread(start, arg).join(); };
  return release_at < 0 ? EAGAIN : 0;
}
int counted_sleep(useconds_t us) {
  if (++sleeps == 1) slack_then = timer_slack();
  ten_us += us == 10, one_us += us == 1;
  if (sleeps == cancel_at) TerminateThread(GetCurrentThread(), 0), usleep(1);
  return sleeps == release_at ? (release(), 0) : 0;
}

}  // namespace

TEST(Semaphore, CountsBadHandlesReportedArgumentsAndProducersAndConsumersInBalance) {
  Owned s(CreateSemaphore(nullptr, 2, 1, nullptr));  // the maximum is not compared
  // A bad handle: last error 6, no report.
  EXPECT_TRUE((SetLastError(0), !ReleaseSemaphore(nullptr, 1, nullptr)) && GetLastError() == 6);
  EXPECT_TRUE((SetLastError(0), WaitForSemaphore(nullptr, 0) == WAIT_FAILED) &&
              GetLastError() == 6);
  long previous = 77;
  EXPECT_TRUE(drain(s) == 2 && ReleaseSemaphore(s, 3, &previous) &&
              ReleaseSemaphore(s, 0, nullptr) && ReleaseSemaphore(s, -1, nullptr));
  EXPECT_EQ(std::make_pair(previous, drain(s)), std::make_pair(77L, 3));
  EXPECT_EQ(WaitForSingleObject(s, 20), WAIT_TIMEOUT);
  EXPECT_TRUE(ReleaseSemaphore(s, 1, nullptr) && WaitForSingleObject(s, INFINITE) == 0);
  EXPECT_EQ(CreateSemaphore(nullptr, 0x80000000L, 1, nullptr), nullptr);  // above the bound
  Owned named(CreateSemaphore(nullptr, 0, 1, "n"));                       // the name plays no part
  const std::string count = "2 ReleaseSemaphore: lReleaseCount must be > 0";
  EXPECT_EQ(Log::take(), (Lines{"2 ReleaseSemaphore: Previous count value not available", count,
                                count, "3 CreateSemaphore: Fail to create native semaphore",
                                "2 CreateSemaphore: Named Semaphore not supported"}));
  std::atomic<int> taken{0};
  on_threads(4, [&](int t) {  // two consumers, and two producers of 2 every other round
    for (int i = 0; i < 5000; i++)
      t < 2 ? taken += !WaitForSingleObject(s, 10000) : i % 2 || ReleaseSemaphore(s, 2, nullptr);
  });
  EXPECT_EQ(std::make_pair(taken.load(), drain(s)), std::make_pair(10000, 0));
}

TEST(BeginThreadEx, AsksForADetachedThreadSleeps10Then1MicrosecondALookOrFailsWithAllBitsSet) {
  const std::string op = "_beginthreadex: _beginthreadex", took = "4 " + op + ": thread took ",
                    lost = "2 " + op + ": thread not started", ms = " milliseconds to start",
                    slower = took + "5000" + ms;
  // {the sleep that lets the thread go, the caller's timer slack, stack size, initflag,
  // a start routine or none, log}
  // clang-format off
  const std::tuple<long long, long, unsigned int, unsigned int, bool, Lines> rows[] = {
      {1, 2, 0, 0, true, {}}, {1000, 2, 0, 0, false, {"2 _beginthreadex_proxy: KORVA Assert"}},
      {2, 20000, 65536, 4, true, {"2 _beginthreadex: initflag != zero not supported"}},
      {1001, 20000, 0, 0, true, {took + "1" + ms}}, {5000001, 2, 0, 0, true, {lost, slower}},
      {5000003, 20000, 0, 0, true, {lost, lost, lost, slower}}};
  // clang-format on
  SEAM(pthread_create, hold);
  SEAM(usleep, counted_sleep);
  for (const auto& [at, slack, stack, flag, routine, log] : rows) {
    prctl(PR_SET_TIMERSLACK, slack, 0, 0, 0);
    release_at = at, cancel_at = sleeps = ten_us = one_us = ran = 0;
    unsigned int id = 0;
    uintptr_t h = _beginthreadex(nullptr, stack, routine ? counted : nullptr, nullptr, flag, &id);
    EXPECT_EQ(
        std::make_tuple(at, ten_us.load(), one_us.load(), sleeps.load(), slack_then.load(), asked,
                        ran.load(), h && id, timer_slack(), Log::take()),
        std::make_tuple(at, 1LL, at - 1, at, 1LL,
                        std::pair<size_t, int>(stack ? stack : 1 << 20, PTHREAD_CREATE_DETACHED),
                        int(routine), true, slack, log));
  }
  unsigned int id = 77;
  EXPECT_TRUE(_beginthreadex(nullptr, 1024, counted, nullptr, 0, &id) == kFailed &&
              (release_at = -1, _beginthreadex(nullptr, 0, counted, nullptr, 0, &id)) == kFailed);
  SEAM(pthread_attr_getschedparam, [](const pthread_attr_t*, sched_param*) { return EINVAL; });
  EXPECT_TRUE(_beginthreadex(nullptr, 0, counted, nullptr, 0, &id) == kFailed && id == 77 &&
              !_beginthreadex_proxy(nullptr));
  EXPECT_EQ(Log::take(), (Lines{"3 " + op + ": Fail to set stacksize", "3 " + op + " error\n",
                                "3 " + op + ": fail to get schedule params",
                                "2 _beginthreadex_proxy: KORVA Assert"}));
}

// Creators start threads at once, each keeping its own timer slack. Then one
// cancels itself at the second sleep of a handshake, at a real cancellation
// point: it still returns the handle (the thread starts at the third sleep),
// and ends at its next cancellation point.
TEST(BeginThreadEx, CreatorsStartAtOnceKeepingTheirTimerSlackAndOneIsCancelledInTheHandshake) {
  ran = 0;
  on_threads(4, [](int t) {
    prctl(PR_SET_TIMERSLACK, 30000 + t, 0, 0, 0);
    for (int i = 0; i < 50; i++)
      EXPECT_TRUE(_beginthreadex(nullptr, 0, counted, nullptr, 0, nullptr) != kFailed &&
                  timer_slack() == 30000 + t);
  });
  EXPECT_TRUE(eventually([] { return ran == 200; }));
  std::atomic<uintptr_t> got{0};
  OwnThread([&] {
    prctl(PR_SET_TIMERSLACK, 40000, 0, 0, 0), release_at = 3, sleeps = 0, cancel_at = 2;
    SEAM(pthread_create, hold);
    SEAM(usleep, counted_sleep);
    got = _beginthreadex(nullptr, 0, counted, nullptr, 0, nullptr);
    got = timer_slack() == 40000 ? got.load() : 0;
    usleep(1000), got = 0;  // the cancellation takes effect here
  }).join();
  EXPECT_TRUE(got != 0 && got != kFailed);
}

// Priorities 1 to 7 map to policies and back (the real-time ones where the
// process may use them); a thread blocked in RunProcess's read is cancelled
// there, and the stream is still closed, once the command ends.
TEST(ThreadControl, PrioritiesMapToPoliciesAndBackTerminateCancelsAtAReadBadHandlesAreRefused) {
  // Nobody populated the main thread's record.
  EXPECT_FALSE(SetThreadPriority(GetCurrentThread(), 4) || TerminateThread(GetCurrentThread(), 0) ||
               GetThreadPriority(GetCurrentProcess()) || GetThreadPriority(nullptr));
  const std::string set = "3 SetThreadPriority: ", get = "3 GetThreadPriority: ",
                    no = set + "No mapped priority for ";
  EXPECT_EQ(Log::take(), (Lines{set + "bad handle", "3 TerminateThread: bad handle",
                                get + "bad hanlde", get + "bad hanlde"}));
  bool realtime = false;  // whether this process may use the real-time policies
  std::atomic<HANDLE> ended{nullptr};
  std::thread worker([&] {
    PopulateThreadHandle(), realtime = set_and_read(1, SCHED_RR) == 1;
    EXPECT_EQ(set_and_read(0, SCHED_BATCH), -1);   // no mapping
    for (int p : {0, -1, 8, 4, 5, 6, 7, 3, 2, 1})  // 1 to 4 read 3, 5 to 7 as set
      EXPECT_EQ(set_and_read(p), p < 1 || p > 7 ? 0 : p < 5 ? 3 : realtime ? p : 0) << p;
    ended = GetCurrentThread();
  });
  // Until the join the ended thread's record stays, but the system knows the thread no more.
  EXPECT_TRUE(eventually([&] { return ended && GetThreadPriority(ended) == -1; }));
  EXPECT_EQ(SetThreadPriority(ended, 5), FALSE);
  worker.join();
  const std::string failed = "fail to set thread prio, errno: ";
  // clang-format off
  Lines want{get + "unknown prio mapping for police = 3, sched_priority = 0", no + "0", no + "-1",
             no + "8", get + "fail to get thread prio, errno: No such process",
             set + failed + "No such process"};
  // clang-format on
  want.insert(want.begin() + 4, realtime ? 0 : 3, set + failed + "Operation not permitted");
  EXPECT_EQ(Log::take(3), want);
  static std::atomic<int> closes{0};
  SEAM(pclose, [](FILE* f) { return closes++, pclose(f); });
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const std::string cat = "exec cat <&" + std::to_string(fds[0]) + " " + std::to_string(fds[1]);
  unsigned int tid = 0;  // 10 closes more, had the reader gone on
  OwnThread reader([&] { run((cat + ">&-").c_str(), 64), closes += 10; }, &tid);
  ASSERT_TRUE(blocked_in_syscall(tid, SYS_read));
  EXPECT_EQ(TerminateThread(reader.h(), 0), TRUE);
  close(fds[1]), close(fds[0]);  // lets cat end
  EXPECT_TRUE(reader.join() && closes == 1);
}

TEST(ProcessAndCommands, UserNameFitsOrChangesNothingRunProcessSizesEndMarkerReportsFailures) {
  const std::string name = getpwuid(getuid())->pw_name, untouched(name.size() + 8, '#');
  std::string buf = untouched;
  unsigned int n = name.size(), len = n;  // too small: fails, the size needed untold
  EXPECT_TRUE(!GetUserName(&buf[0], &len) && len == n && buf == untouched);
  len = n + 8;
  EXPECT_TRUE(GetUserName(&buf[0], &len) && len == n + 1 &&
              buf == name + '\0' + untouched.substr(n + 1));
  EXPECT_FALSE(GetUserName(nullptr, &len) || GetUserName(&buf[0], nullptr));
  EXPECT_EQ(Log::take(), Lines(2, "2 GetUserName: GetUserName: lpBuffer or pcbBuffer == NULL"));
  // No such user.
  SEAM(getpwuid, [](uid_t) -> passwd* { return nullptr; });
  EXPECT_EQ(GetUserName(&buf[0], &len), 0);
  const char *five = "printf abcde", *hundred = "printf '%0100d' 0", *end = "printf 'abc END def'";
  // {command, capacity, outcome}; a text that fits exactly counts as too small
  // clang-format off
  const std::tuple<const char*, int, std::string> rows[] = {
      {five, 100, "1 6 abcde"}, {five, 7, "1 6 abcde"}, {five, 6, "0 15"}, {five, 2, "0 15"},
      {five, 1, "0 10"}, {hundred, 10, "0 110"}, {"true", 2, "1 1 "}, {five, 0, "0 0"},
      {five, -5, "0 -5"}, {nullptr, 4, "0 4"}};
  // clang-format on
  for (const auto& [command, capacity, outcome] : rows)  // one row reports in full
    EXPECT_EQ((Log::set_level(capacity == 6 ? 7 : 3), run(command, capacity)), outcome) << outcome;
  EXPECT_EQ(run(end, 100, "END") + run(end, 100, "STOP"), "1 8 abc END\0def1 12 abc END def"s);
  int size = 4;
  EXPECT_EQ(RunProcess("x", &buf[0], nullptr, nullptr), 0);
  UpdateOutputBufSize(nullptr, &buf[0], &size, 0), UpdateOutputBufSize(stdin, &buf[0], nullptr, 0);
  SEAM(popen, [](const char*, const char*) -> FILE* { return errno = EMFILE, nullptr; });
  EXPECT_EQ(run("printf x", 10), "0 0");
  const std::string invalid = "3 RunProcess: Invalid output size address or output_buf_size",
                    update = "2 UpdateOutputBufSize: UpdateOutputBufSize: stream, buffer or size";
  EXPECT_EQ(Log::take(),
            (Lines{"4 RunProcess: RunProcess(): UpdateOutputBufSize() being called because "
                   "insufficient buffer size provided (6)\ncmd: \"printf abcde\"",
                   "4 RunProcess: RunProcess(): required: 15", invalid, invalid,
                   "2 RunProcess: RunProcess: command or output_buf == NULL", invalid,
                   update + " == NULL", update + " == NULL", "3 RunProcess: Too many open files"}));
}
