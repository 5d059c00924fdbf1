// Events, the name dictionaries, mutexes, the wait engine and waitable
// timers.
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>

#include "checkers.h"
#include "support.h"

using namespace testsupport;

// The next g_new_fails allocations by new fail, as a dictionary's may; so do
// the next g_lock_fails locks of dic_mutex.
static std::atomic<int> g_new_fails{0}, g_lock_fails{0};
void* operator new(size_t n) { return g_new_fails-- > 0 ? throw std::bad_alloc() : malloc(n); }
void* operator new(size_t n, const std::nothrow_t&) noexcept {
  return g_new_fails-- > 0 ? nullptr : malloc(n);
}
[[gnu::noinline]] void operator delete(void* p) noexcept { free(p); }
[[gnu::noinline]] void operator delete(void* p, size_t) noexcept { free(p); }

static HANDLE ev(BOOL manual, BOOL on, const char* n = 0) { return CreateEvent(0, manual, on, n); }
static HANDLE mx(const char* name = nullptr) { return CreateMutex(nullptr, 0, name); }
static v_handle_t* rec(HANDLE h) { return static_cast<v_handle_t*>(h); }
static DWORD one(HANDLE h, DWORD ms = 0) { return WaitForSingleObject(h, ms); }
static DWORD any(std::vector<HANDLE> hs, DWORD ms = 0, BOOL all = 0) {
  return WaitForMultipleObjects(static_cast<DWORD>(hs.size()), hs.data(), all, ms);
}
// n handles: NULL holes, then h.
static auto at(int n, HANDLE h) { std::vector<HANDLE> v(n - 1); v.push_back(h); return v; }
static HANDLE made(HANDLE h, DWORD error) { EXPECT_EQ(GetLastError(), error); return h; }
// A new object, made under a name that nothing went by; closed again.
static bool fresh(HANDLE h) { return GetLastError() == 0 && h && CloseHandle(h); }
static long fds() { return std::distance(std::filesystem::directory_iterator("/dev/fd"), {}); }

// The blocks that the library holds from calloc and strdup, counted all along.
static std::atomic<long> g_held{0};
static void* held(void* p) { return g_held += p != nullptr, p; }
const bool g_seams =
    (commonl::sys.calloc = [](size_t n, size_t size) { return held(calloc(n, size)); },
     commonl::sys.strdup = [](const char* s) { return static_cast<char*>(held(strdup(s))); },
     commonl::sys.free = [](void* p) { g_held -= p != nullptr, free(p); },
     commonl::sys.pthread_mutex_lock = [](pthread_mutex_t* m) {
       return g_lock_fails-- > 0 ? EINVAL : pthread_mutex_lock(m);
     }, true);

const std::string kGlobalOff = "3 SetEvent: Older SysEvent is disable. Fix the caller|";
const std::string kWait = "WaitForMultipleObjects: ", kWait2 = kWait + kWait;

// The timers' routine notes whether its timer is signalled, seen from a
// thread of its own, and signals g_fired.
static bool peek(HANDLE h) { pollfd p{rec(h)->poll_entry.fd, POLLIN, 0}; return poll(&p, 1, 0); }
static std::atomic<bool> g_signalled;
static HANDLE g_fired = ev(0, 0), g_timer = CreateWaitableTimer(nullptr, 1, nullptr);
static void on_fire(void* t) { g_signalled = peek(t) && gettid() != getpid(), SetEvent(g_fired); }
static bool fired(DWORD ms = 5000) { return one(g_fired, ms) == 0; }
static BOOL arm(HANDLE timer, int64_t due, bool routine = true) {  // the period changes nothing
  LARGE_INTEGER when{{static_cast<DWORD>(due), static_cast<int32_t>(due >> 32)}};
  return SetWaitableTimer(timer, &when, 1000, routine ? on_fire : nullptr, timer, 0);
}

// The timer threads' sleeps, recorded instead of slept; one thread sleeps at
// a time. The next g_failing sleeps fail, the first cut short by a signal,
// the second with EINVAL, each leaving {1, 7}. One while g_timer is signalled
// is noted with -1 nanoseconds.
using Asked = std::vector<std::pair<long, long>>;
static Asked g_asked;
static int g_failing = 0;
static int fake_nanosleep(const struct timespec* request, struct timespec* left) {
  g_asked.emplace_back(request->tv_sec, peek(g_timer) ? -1 : request->tv_nsec);
  return g_failing ? (*left = {1, 7}, fail_with(g_failing-- == 2 ? EINTR : EINVAL)) : 0;
}

TEST(Events, AutoResetLetsOneWaitThroughTheLowestIndexWinsANameIsSharedUntilTheLastClose) {
  const long held = g_held;
  // An event and a mutex of one name are two objects; a reopen changes nothing.
  HANDLE first = made(ev(0, 0, "cam"), 0), second = ev(1, 1, "cam"), mu = made(mx("cam"), 0);
  EXPECT_TRUE(second == first && CreateWaitableTimer(0, 1, "cam") == first && one(first) != 0);
  EXPECT_TRUE(GetLastError() == 183 && !rec(first)->manual_reset && CloseHandle(second));
  EXPECT_TRUE(SetEvent(first) && !one(first) && CloseHandle(first) && mx("cam") == mu);
  // A direct close gives back one reference; the last close gives back all.
  EXPECT_TRUE(VCloseTimer(first) == 1 && VCloseMutex(mu) == 1 && VCloseMutex(mu) == 1);
  SECURITY_ATTRIBUTES attributes{};  // the last error is still 183
  Owned a(made(CreateEvent(&attributes, 0, 1, 0), 0)), t(CreateWaitableTimer(&attributes, 1, 0));
  Owned m(ev(1, 1)), b(ev(0, 0)), c(ev(0, 1));
  EXPECT_TRUE(one(t) == WAIT_TIMEOUT && any({a, b, c}) == 0 && any({a, b, c}) == 2);
  EXPECT_TRUE(any({a, b, c}) == WAIT_TIMEOUT && SetEvent(a) && SetEvent(t) && !one(t) && !one(t));
  EXPECT_TRUE(!any({a, m}) && any({a, m}) == 1 && any({a, m}) == 1 && ResetEvent(m) && one(m));
  // "Global" names live apart and never signal.
  Owned global(ev(0, 0, "GlobalAlarm")), found(made(ev(0, 1, "GlobalAlarm"), 183));
  EXPECT_TRUE(found.h == global.h && SetEvent(global) && one(global) && rec(global)->global == 1);
  // A close that cannot lock leaves its record at count 0 in the dictionary: a
  // create of its name makes a new object at once instead of waiting for a
  // release that never comes; the stale records still go with a direct close,
  // which leaves the new names alone.
  HANDLE stale = ev(0, 0, "stuck"), stale_mx = mx("stuck");
  EXPECT_TRUE(ResetEvent(m) && (g_lock_fails = 2) && CloseHandle(stale) && CloseHandle(stale_mx));
  HANDLE new_ev = made(ev(0, 0, "stuck"), 0), new_mx = made(mx("stuck"), 0);
  EXPECT_TRUE(VCloseEvent(stale) == 1 && VCloseMutex(stale_mx) && ev(0, 0, "stuck") == new_ev);
  EXPECT_TRUE(mx("stuck") == new_mx && GetLastError() == 183 && g_held == held + 11);
  for (HANDLE h : {new_ev, new_ev, new_mx, new_mx}) EXPECT_TRUE(CloseHandle(h));
  EXPECT_EQ(Log::said(), "2 CreateEvent: CreateEvent: lpEventAttributes must be NULL|2 CreateEvent:"
                         " CreateEvent: lpEventAttributes must be NULL|" + kGlobalOff + "2 VClose"
                         "Event: fail to lock dic_mutex|2 VCloseMutex: fail to lock dic_mutex|");
}

TEST(Events, RefusalsAndFailuresAreReportedGiveBackWhatTheyTookAndEnterNoName) {
  const long held = g_held, fd0 = fds();
  Owned m(mx()), e(ev(0, 0)), overlapped(ev(1, 0));  // it reports but writes; reset and close
  rec(overlapped)->overlapped = 1;                     // leave the descriptor alone
  uint64_t n = 0, fd = rec(overlapped)->poll_entry.fd;
  EXPECT_FALSE(ResetEvent(m) || SetEvent(nullptr) || ResetEvent(nullptr) || SetEvent(m));
  EXPECT_TRUE(SetEvent(overlapped) && ResetEvent(overlapped) && VCloseEvent(overlapped) == 0);
  EXPECT_TRUE(read(fd, &n, 8) == 8 && n == 1 && close(fd) == 0 && g_held == held + 3);
  EXPECT_TRUE(!VCloseEvent(e) && rec(e)->poll_entry.fd == -1 && !VCloseMutex(m));  // unnamed
  EXPECT_TRUE(VCloseEvent(0) == 1 && VCloseMutex(e) == 1 && (g_new_fails = 1) && !ev(0, 0, "x"));
  SetLastError(183);
  {
    SEAM(write, [](int, const void*, size_t) -> ssize_t { return 4; });  // short: FALSE, silently
    SEAM(read, [](auto...) -> ssize_t { static int calls; return calls++ ? fail_with(EIO) : 0; });
    SEAM(strdup, [](const char*) -> char* { return nullptr; });
    EXPECT_TRUE(!SetEvent(e) && ResetEvent(e) && !ResetEvent(e) && !ev(0, 0, "x") && !mx("x"));
    SEAM(pthread_mutex_init, [](pthread_mutex_t*, const pthread_mutexattr_t*) { return ENOMEM; });
    EXPECT_TRUE(!GetLastError() && !mx());
    SEAM(calloc, [](size_t, size_t) -> void* { return nullptr; });
    EXPECT_TRUE(!ev(0, 0, "x") && !mx() && GetLastError() == 0);
    SEAM(eventfd, [](unsigned int, int) { return fail_with(EMFILE); });
    EXPECT_TRUE(!ev(0, 1) && !ev(0, 0, "x") && (g_lock_fails = 2));
    EXPECT_TRUE(!ev(0, 0, "x") && GetLastError() == 21 && !mx("x") && GetLastError() == 21);
  }
  const std::string memo = ": no memo|3 ", no_fd = "3 CreateEvent: CreateEvent: event fd fail|";
  EXPECT_EQ(Log::said(), "2 SetEvent: KORVA Assert|3 SetEvent: bad handle|2 ResetEvent: KORVA "
                         "Assert|3 SetEvent: bad handle|2 SetEvent: Can not SetEvent when event is"
                         " used in overlapped operations|2 VCloseEvent: bad handle|2 VCloseMutex: "
                         "bad handle|3 CreateEvent: no memo|4 ResetEvent: ResetEvent: read error: "
                         "Input/output error|3 CreateEvent" + memo + "CreateMutex" + memo + "Create"
                         "Mutex: could not create POSIX mutex|3 CreateHandleL" + memo + "Create"
                         "Event" + memo + "CreateHandleL" + memo + "CreateMutex: no memo|" + no_fd
                         + no_fd + "3 CreateEvent: fail to lock dic_mutex|3 CreateMutex: fail to "
                         "lock dic_mutex|");
  EXPECT_TRUE(g_held == held + 3 && fds() == fd0 && fresh(ev(0, 0, "x")) && fresh(mx("x")));
}

TEST(Concurrency, AReopenRacingTheLastCloseNeverGetsADyingRecordAndHandOffsLoseNoSignal) {
  const long held = g_held, fd0 = fds();
  on_threads(4, [](int) {
    for (int i = 0; i < 3000; i++) {
      HANDLE e = ev(0, 0, "race"), m = mx("race"), e2 = ev(0, 0, "race"), m2 = mx("race");
      ASSERT_TRUE(e && m && e2 == e && m2 == m && GetLastError() == 183);  // the object held
      EXPECT_TRUE(SetEvent(e) && one(m, 5000) == 0 && ReleaseMutex(m));
      for (HANDLE h : {e, m, e2, m2}) EXPECT_TRUE(CloseHandle(h));
    }
  });
  EXPECT_TRUE(g_held == held && fds() == fd0 && fresh(ev(0, 0, "race")) && fresh(mx("race")));
  Owned ping(ev(0, 0)), pong(ev(0, 0));
  OwnThread partner([&] { for (int i = 0; i < 2000 && !one(ping, 5000); i++) SetEvent(pong); });
  for (int i = 0; i < 2000; i++) ASSERT_TRUE(SetEvent(ping) && one(pong, 5000) == 0) << i;
  EXPECT_TRUE(partner.join() && any({ping, pong}) == WAIT_TIMEOUT);
}

TEST(Cancellation, AThreadCancelledInAHeapArrayWaitOrHoldingTheDictionaryLockGivesThemBack) {
  if (under_thread_sanitizer()) GTEST_SKIP() << kCancelledInBlockingCall;
  const long held = g_held;
  OwnThread waiter([] { any(at(20, nullptr), INFINITE); });  // holes only: no end
  ASSERT_TRUE(blocked_in_syscall(rec(waiter.h())->tail.tid, SYS_ppoll) && g_held == held + 2);
  EXPECT_TRUE(TerminateThread(waiter.h(), 0) && waiter.join() && g_held == held + 1);
  Owned never(ev(1, 0)), inside(ev(1, 0));
  Log::on_line([&](const LogLine& line) {  // a cancellation point while CreateEvent holds the lock
    if (line.function == "CreateEvent") SetEvent(inside), one(never, 10000);
  });
  OwnThread creator([] { g_new_fails = 1, ev(0, 0, "locked-in"); });
  EXPECT_TRUE(one(inside, 10000) == 0 && TerminateThread(creator.h(), 0) && creator.join());
  EXPECT_TRUE(fresh(ev(0, 0, "locked-in")));  // the lock is free again
}

TEST(Wait, UpTo1024HandlesHolesKeepIndicesAMutexStartsFreeExcludesOtherThreadsAndMustBeAlone) {
  Owned e(ev(1, 1)), a(ev(0, 0)), b(ev(0, 1)), sem(CreateSemaphore(0, 1, 1, 0));
  Owned m(made(CreateMutex(nullptr, 1, "lock"), 0)), second(made(mx("lock"), 183));
  auto elsewhere = [&](DWORD ms) {  // what another thread's wait takes it gives back
    DWORD r;
    return on_threads(1, [&](int) { r = one(second, ms), r || ReleaseMutex(second); }), r;
  };
  EXPECT_TRUE(second.h == m.h && !elsewhere(0) && any({m}, INFINITE) == 0);  // was free
  EXPECT_TRUE(one(m, 20) == WAIT_TIMEOUT && elsewhere(30) == WAIT_TIMEOUT);  // not recursive
  EXPECT_TRUE(ReleaseMutex(m) && !elsewhere(50) && !ReleaseMutex(a) && !ReleaseMutex(nullptr));
  for (int n : {16, 17, 1024}) EXPECT_EQ(any(at(n, e)), n - 1u);
  EXPECT_TRUE(any({nullptr, b, nullptr}) == 1 && any({nullptr}, 10) == WAIT_TIMEOUT);
  EXPECT_TRUE(!made(mx("GlobalX"), 87) && one(nullptr) == WAIT_FAILED && GetLastError() == 6);
  EXPECT_TRUE(SetEvent(b) && any({a, b}, 1000, 1) == 1 && SetEvent(b) && any({a, b}, 0, 2) == 1);
  v_handle_t odd{}, s{V_HANDLE_MAGIC, V_HANDLE_SOCKET_EVENT, rec(b)->poll_entry, 0, 0, 0, 0, 0, {}};
  EXPECT_TRUE(any({b, sem}) == WAIT_FAILED && any({b, m}) == ~0u && one(&odd) == WAIT_FAILED);
  EXPECT_TRUE(!one(m) && SetEvent(b) && any({0, &s, b}) == 1 && s.tail.last_revents == POLLIN);
  // The socket's signal is not consumed, the mutex was not taken.
  EXPECT_TRUE(!one(&s) && !one(b) && ReleaseMutex(m) && WaitForMultipleObjects(2, 0, 0, 0) == ~0u);
  SEAM(calloc, [](size_t, size_t) -> void* { return nullptr; });
  EXPECT_TRUE(any(at(1025, e)) == ~0u && any({}) == ~0u && any(at(17, e)) == WAIT_FAILED);
  const std::string large = "7 " + kWait2 + "using large pollfd array, nCount = ";
  const std::string bad = "3 " + kWait + "bad handle position ";
  EXPECT_EQ(Log::said(), "3 ReleaseMutex: ReleaseMutex: bad handle|3 ReleaseMutex: ReleaseMutex:"
                         " bad handle|" + large + "17|" + large + "1024|3 CreateMutex: Global mutex"
                         " not implemented|2 " + kWait2 + "bWaitAll == TRUE not supported|" + bad +
                         "1, bat type 5|3 " + kWait + "WaitObject call for mutex must have a single"
                         " handle|" + bad + "0, bat type 0|2 " + kWait2 + "lpHandles == NULL|4 " +
                         kWait2 + "bad nCount = 1025, max is 1024|4 " + kWait2 + "bad nCount == 0|"
                         + large + "17|3 " + kWait + "no memo for pollfd|");
}

TEST(Wait, OnlySigintAndSigtermEndAWaitPpollGetsTheEntriesAndTheTimeoutItsFailuresAreReported) {
  static std::atomic<DWORD> handled, result;
  Owned e(ev(0, 0));
  for (int sig : {SIGINT, SIGTERM, SIGUSR1}) {
    signal(sig, [](int) { handled++; }), handled = 0;  // ppoll is never restarted
    OwnThread waiter([&] { result = one(e, INFINITE); });
    const pid_t tid = rec(waiter.h())->tail.tid;
    ASSERT_TRUE(blocked_in_syscall(tid, SYS_ppoll) && tgkill(getpid(), tid, sig) == 0);
    // SIGUSR1 is kept pending while ppoll waits: the thread is still in it.
    EXPECT_TRUE(sig != SIGUSR1 || (blocked_in_syscall(tid, SYS_ppoll) && !handled && SetEvent(e)));
    EXPECT_TRUE(waiter.join() && handled == 1 && result == (sig == SIGUSR1 ? 0 : WAIT_FAILED));
  }
  static struct pollfd seen[2];
  static struct timespec timeout, *given;  // &timeout or nullptr
  static int answer;                        // what ppoll gives; -1: fails with EINVAL
  SEAM(ppoll, [](struct pollfd* fds, nfds_t n, const struct timespec* t, const sigset_t*) {
    std::copy(fds, fds + n, seen), given = t ? &(timeout = *t) : nullptr;
    for (nfds_t i = 0; i < n; i++) fds[i].revents = i == 1 ? POLLPRI : 0;  // which does not count
    return answer < 0 ? fail_with(EINVAL) : answer;
  });
  EXPECT_TRUE(one(e, 2001) == WAIT_TIMEOUT && timeout.tv_sec == 2 && timeout.tv_nsec == 1000000);
  EXPECT_TRUE(one(e, INFINITE) == WAIT_TIMEOUT && !given && any({e, e}) == WAIT_TIMEOUT && given);
  EXPECT_TRUE((answer = 1, any({nullptr, e})) == ~0u && seen[0].fd == -1 && seen[0].events == 0);
  EXPECT_TRUE(seen[0].revents == 0 && seen[1].fd == rec(e)->poll_entry.fd && seen[1].events == 1);
  EXPECT_TRUE((answer = -1, one(e)) == WAIT_FAILED);
  const std::string w = "3 " + kWait + "WaitForMultipleObjects", sig = w + " got SIGINT or SIGTERM";
  EXPECT_EQ(Log::said(), sig + " signal|" + sig + " signal|3 " + kWait2 + "Could not"
                         " find reported eventent|7 " + kWait + "fds[0].revents = 0|7 " + kWait +
                         "fds[1].revents = 2|" + w + " ppoll errno = 22|" + w + " ppoll error: "
                         "Invalid argument|");
}

TEST(SetWaitableTimer, FiresOnceOnAThreadOfItsOwnAfterSleepingFromTheWholeSecondInDailySteps) {
  SEAM(time, [](time_t*) -> time_t { return 1700000000; });
  SEAM(nanosleep, fake_nanosleep);
  const int64_t now = 1700000000 * 10000000LL + int64_t(UNIX_EPOCH_FILETIME), soon = now + 25000001;
  Owned t(CreateWaitableTimer(0, 0, 0)), m(mx()), global(CreateWaitableTimer(0, 1, "GlobalTimer"));
  // Past due, down to where (due - now) * 100 leaves 64 bits: at once, once.
  for (int64_t due : {now, 0L, INT64_MIN, now - INT64_MAX / 100 - 1})  // the routine runs last
    EXPECT_TRUE(arm(t, due) && fired() && g_signalled && !one(t) && one(t) == WAIT_TIMEOUT) << due;
  ASSERT_TRUE(g_asked.empty() && arm(t, INT64_MAX) && fired(30000) && g_asked.size() == 106752);
  EXPECT_TRUE((Asked{g_asked[0], g_asked.back()} == Asked{{86400, 0}, {85636, 854775807}}));
  EXPECT_TRUE(arm(g_timer, 1, false) && !one(g_timer, 5000) && !one(g_timer));  // it only signals
  // Arming resets the timer at once; a signal cuts a sleep short, any other failure ends it.
  g_asked.clear(), g_failing = 2;
  EXPECT_TRUE(arm(g_timer, soon) && fired() && (g_asked == Asked{{2, 500000100}, {1, 7}}));
  // A global timer, or another kind of handle, signals nothing; the resets report nothing.
  EXPECT_TRUE(arm(global, 1) && fired() && !g_signalled && one(global) && arm(m, 1) && fired());
  EXPECT_EQ(Log::said(), "2 SetWaitableTimer: SetWaitableTimer: a negative (relative) lpDueTime "
                         "is not supported; it is taken as an absolute time long past and the "
                         "timer fires at once|" + kGlobalOff + "3 SetEvent: bad handle|");
  EXPECT_TRUE(!arm(nullptr, 1) && !SetWaitableTimer(t, 0, 0, on_fire, 0, 0) && !fired(50));
}
