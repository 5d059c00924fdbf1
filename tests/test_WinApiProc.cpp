// Semaphores, threads and their start handshake, priorities, commands, the
// process and its user.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

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
  const bool set = policy < 0 ? SetThreadPriority(GetCurrentThread(), priority)
                              : !pthread_setschedparam(pthread_self(), policy, &param);
  return set ? GetThreadPriority(GetCurrentThread()) : 0;
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
// counting the sleeps and their microseconds and noting the timer slack at
// the first; at sleep number `cancel_at` it cancels its own thread.
std::atomic<long long> release_at, cancel_at, sleeps, slept, slack_then;
std::pair<size_t, int> asked;  // stack size and detach state
std::function<void()> release;
int hold(pthread_t*, const pthread_attr_t* attr, void* (*start)(void*), void* arg) {
  pthread_attr_getstacksize(attr, &asked.first), pthread_attr_getdetachstate(attr, &asked.second);
  release = [start, arg] { std::thread(start, arg).join(); };
  return release_at < 0 ? EAGAIN : 0;
}
int counted_sleep(useconds_t us) {
  if (slept += us, ++sleeps == 1) slack_then = timer_slack();
  if (sleeps == cancel_at) TerminateThread(GetCurrentThread(), 0), usleep(1);
  return sleeps == release_at ? (release(), 0) : 0;
}

}  // namespace

// A semaphore's maximum is not compared and its name plays no part; a signal
// ends a timed wait, which is not resumed.
TEST(Semaphore, CountsFailuresReportsProducersAndConsumersInBalanceAndASignalledWait) {
  Owned s(CreateSemaphore(0, 2, 1, 0)), full(CreateSemaphore(0, 0x7FFFFFFF, 1, "n"));
  long previous = 77;  // nothing is stored through it
  const std::vector<long> got{(SetLastError(0), ReleaseSemaphore(0, 1, 0)), GetLastError(),
      (SetLastError(0), WaitForSemaphore(0, 0) == WAIT_FAILED), GetLastError(), drain(s),
      ReleaseSemaphore(s, 3, &previous), ReleaseSemaphore(s, 0, 0), ReleaseSemaphore(s, -1, 0),
      previous, drain(s), WaitForSingleObject(s, 20), ReleaseSemaphore(full, 1, 0),
      WaitForSingleObject(full, INFINITE), !CreateSemaphore(0, 1L << 31, 1, 0)};
  EXPECT_EQ(got, (std::vector<long>{0, 6, 1, 6, 2, 1, 1, 1, 77, 3, WAIT_TIMEOUT, 0, 0, 1}));
  std::atomic<int> taken{0};
  on_threads(4, [&](int t) {  // two consumers, and two producers of 2 every other round
    for (int i = 0; i < 5000; i++)
      t < 2 ? taken += !WaitForSingleObject(s, 10000) : i % 2 || ReleaseSemaphore(s, 2, nullptr);
  });
  EXPECT_EQ(std::make_pair(taken.load(), drain(s)), std::make_pair(10000, 0));
  signal(SIGALRM, [](int) {}), ualarm(10000, 10000);  // every 10 ms, should one come too early
  EXPECT_EQ(WaitForSemaphore(s, 10000), WAIT_FAILED);
  ualarm(0, 0);
  const std::string count = "2 ReleaseSemaphore: lReleaseCount must be > 0|";
  EXPECT_EQ(Log::said(), "2 CreateSemaphore: Named Semaphore not supported|2 ReleaseSemaphore: "
                         "Previous count value not available|" + count + count +
                         "3 CreateSemaphore: Fail to create native semaphore|3 WaitForSemaphore: "
                         "error: Interrupted system call|");
}

// A creator gets its thread once it runs, the creator's timer slack tight
// for the handshake and given back. Creators start threads at once; one
// cancelled at the second sleep of a handshake, at a real cancellation point,
// still returns the handle (the thread starts at the third sleep), and ends at
// its next cancellation point.
TEST(BeginThreadEx, SleepsForTheHandshakeKeepsTimerSlacksFailsWithAllBitsSetCreatorsAtOnce) {
  on_threads(4, [](int t) {
    prctl(PR_SET_TIMERSLACK, 30000 + t, 0, 0, 0);
    for (int i = 0; i < 50; i++)
      EXPECT_TRUE(_beginthreadex(0, 0, counted, 0, 0, 0) != kFailed && timer_slack() == 30000 + t);
  });
  EXPECT_TRUE(eventually([] { return ran == 200; }));
  const std::string op = "_beginthreadex: _beginthreadex", took = "4 " + op + ": thread took ",
                    lost = "2 " + op + ": thread not started|", ms = " milliseconds to start|";
  // {the sleep that lets the thread go, the caller's timer slack, stack size, initflag,
  // a start routine or none, log}
  // clang-format off
  const std::tuple<long long, long, unsigned int, unsigned int, bool, std::string> rows[] = {
      {1, 2, 0, 0, true, ""}, {1000, 2, 0, 0, false, "2 _beginthreadex_proxy: KORVA Assert|"},
      {2, 20000, 65536, 4, true, "2 _beginthreadex: initflag != zero not supported|"},
      {1001, 20000, 0, 0, true, took + "1" + ms},
      {5000003, 2, 0, 0, true, lost + lost + lost + took + "5000" + ms}};
  // clang-format on
  SEAM(pthread_create, hold);
  SEAM(usleep, counted_sleep);
  for (const auto& [at, slack, stack, flag, routine, log] : rows) {
    prctl(PR_SET_TIMERSLACK, slack, 0, 0, 0), release_at = at, cancel_at = sleeps = slept = ran = 0;
    unsigned int id = 0;
    uintptr_t h = _beginthreadex(nullptr, stack, routine ? counted : nullptr, nullptr, flag, &id);
    EXPECT_EQ(std::make_tuple(sleeps.load(), slept.load(), slack_then.load(), asked, ran.load(),
                              h && id, timer_slack(), Log::said()),
              std::make_tuple(at, at + 9, 1LL, std::pair<size_t, int>(stack ? stack : 1 << 20, 1),
                              int(routine), true, slack, log));
  }
  std::atomic<uintptr_t> got{0};
  std::thread([&] {
    PopulateThreadHandle(), release_at = 3, sleeps = 0, cancel_at = 2;
    got = _beginthreadex(nullptr, 0, counted, nullptr, 0, nullptr);
    usleep(1000), got = 0;  // the cancellation takes effect here
  }).join();
  EXPECT_TRUE(got != 0 && got != kFailed);
  unsigned int id = 77;  // written only on success
  EXPECT_TRUE(_beginthreadex(nullptr, 1024, counted, nullptr, 0, &id) == kFailed &&
              (release_at = -1, _beginthreadex(nullptr, 0, counted, nullptr, 0, &id)) == kFailed);
  SEAM(pthread_attr_getschedparam, [](const pthread_attr_t*, sched_param*) { return EINVAL; });
  EXPECT_TRUE(_beginthreadex(nullptr, 0, counted, nullptr, 0, &id) == kFailed && id == 77 &&
              !_beginthreadex_proxy(nullptr));
  EXPECT_EQ(Log::said(), "3 " + op + ": Fail to set stacksize|3 " + op + " error\n|3 " + op +
                             ": fail to get schedule params|2 _beginthreadex_proxy: KORVA Assert|");
}

// Priorities 1 to 7 map to policies and back (the real-time ones where the
// process may use them). Until its join an ended thread's record stays, but
// the system knows the thread no more.
TEST(ThreadControl, PrioritiesMapToPoliciesAndBackBadHandlesAndEndedThreadsAreRefused) {
  // Nobody populated the main thread's record.
  EXPECT_FALSE(SetThreadPriority(GetCurrentThread(), 4) || TerminateThread(GetCurrentThread(), 0) ||
               GetThreadPriority(GetCurrentProcess()));
  bool realtime = false;  // whether this process may use the real-time policies
  std::atomic<HANDLE> ended{nullptr};
  std::thread worker([&] {
    PopulateThreadHandle(), realtime = set_and_read(1, SCHED_RR) == 1;
    EXPECT_EQ(set_and_read(0, SCHED_BATCH), -1);   // no mapping
    for (int p : {0, -1, 8, 4, 5, 6, 7, 3, 2, 1})  // 1 to 4 read 3, 5 to 7 as set
      EXPECT_EQ(set_and_read(p), p < 1 || p > 7 ? 0 : p < 5 ? 3 : realtime ? p : 0) << p;
    ended = GetCurrentThread();
  });
  EXPECT_TRUE(eventually([&] { return ended && GetThreadPriority(ended) == -1; }));
  EXPECT_EQ(SetThreadPriority(ended, 5), FALSE);
  worker.join();
  const std::string set = "3 SetThreadPriority: ", get = "3 GetThreadPriority: ",
                    no = set + "No mapped priority for ", failed = set + "fail to set thread prio",
                    eperm = realtime ? "" : failed + ", errno: Operation not permitted|";
  EXPECT_EQ(Log::said(), set + "bad handle|3 TerminateThread: bad handle|" + get + "bad hanlde|" +
                             get + "unknown prio mapping for police = 3, sched_priority = 0|" +
                             no + "0|" + no + "-1|" + no + "8|" + eperm + eperm + eperm + get +
                             "fail to get thread prio, errno: No such process|" + failed +
                             ", errno: No such process|");
}

// A thread blocked in RunProcess's read is cancelled there, and the stream is
// still closed, once the command ends.
TEST(ProcessAndCommands, UserNameRunProcessSizesEndMarkerFailuresAndACancelledReader) {
  const std::string name = getpwuid(getuid())->pw_name;
  std::string buf(name.size() + 8, '#');
  unsigned int n = name.size(), len = n, room = n + 8, tid = 0;  // too small fails, size untold
  EXPECT_EQ((std::vector<long>{GetUserName(&buf[0], &len), len, GetUserName(&buf[0], &room), room,
                               buf == name + '\0' + std::string(7, '#'), GetUserName(nullptr, &len),
                               GetUserName(&buf[0], nullptr)}),
            (std::vector<long>{0, n, 1, n + 1, 1, 0, 0}));
  SEAM(getpwuid, [](uid_t) -> passwd* { return nullptr; });  // no such user
  EXPECT_EQ(GetUserName(&buf[0], &room), 0);
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
  int fds[2], size = 4;
  EXPECT_EQ(RunProcess("x", &buf[0], nullptr, nullptr), 0);
  UpdateOutputBufSize(nullptr, &buf[0], &size, 0), UpdateOutputBufSize(stdin, &buf[0], nullptr, 0);
  static std::atomic<int> closes{0};  // each fails, after it has closed the stream
  SEAM(pclose, [](FILE* f) { return closes++, pclose(f), errno = ECHILD, -1; });
  ASSERT_EQ(pipe(fds), 0);
  const std::string cat = "exec cat <&" + std::to_string(fds[0]) + " " + std::to_string(fds[1]);
  // A reader that went on would count 10 closes more.
  OwnThread reader([&] { run((cat + ">&-").c_str(), 64), closes += 10; }, &tid);
  ASSERT_TRUE(blocked_in_syscall(tid, SYS_read));
  EXPECT_EQ(TerminateThread(reader.h(), 0), TRUE);
  close(fds[1]), close(fds[0]);  // lets cat end
  EXPECT_TRUE(reader.join() && closes == 1 && run("printf x", 10) == "1 2 x");  // the result stands
  SEAM(popen, [](const char*, const char*) -> FILE* { return errno = EMFILE, nullptr; });
  EXPECT_EQ(run("printf x", 10), "0 0");
  const std::string invalid = "3 RunProcess: Invalid output size address or output_buf_size|",
                    user = "2 GetUserName: GetUserName: lpBuffer or pcbBuffer == NULL|",
                    update = "2 UpdateOutputBufSize: UpdateOutputBufSize: stream, buffer or size";
  EXPECT_EQ(Log::said(), user + user + "4 RunProcess: RunProcess(): UpdateOutputBufSize() being "
                         "called because insufficient buffer size provided (6)\ncmd: \"printf "
                         "abcde\"|4 RunProcess: RunProcess(): required: 15|" + invalid + invalid +
                         "2 RunProcess: RunProcess: command or output_buf == NULL|" + invalid +
                         update + " == NULL|" + update + " == NULL|3 RunProcess: No child "
                         "processes|3 RunProcess: Too many open files|");
}
