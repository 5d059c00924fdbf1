#include "support.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace {

std::mutex g_mutex;  // guards what follows
std::vector<testsupport::LogLine> g_lines;
std::function<void(const testsupport::LogLine&)> g_hook;
std::vector<std::string> g_commands;
std::vector<time_t> g_times;
std::atomic<int> g_level{7}, g_system_status{0}, g_settimeofday_result{0};

// The operations whose own names begin with an underscore.
bool _is_operation(const std::string& function) {
  for (const char* name : {"_beginthreadex", "_beginthreadex_proxy", "_dic_find", "_dic_insert",
                           "_dic_remove", "_splitpath"})
    if (function == name) return true;
  return function.empty() || function[0] != '_';
}

int _unexpected_system(const char* command) {
  ADD_FAILURE() << "system() reached without a SystemRecorder: " << command;
  return -1;
}

int _unexpected_settimeofday(const struct timeval*, const struct timezone*) {
  ADD_FAILURE() << "settimeofday() reached without a SettimeofdayRecorder";
  return -1;
}

// Every test starts with an empty log at full detail, no hook, and the
// machine out of reach of system() and settimeofday().
class _Reset : public ::testing::EmptyTestEventListener {
  void OnTestStart(const ::testing::TestInfo&) override {
    testsupport::Log::clear();
    testsupport::Log::set_level(7);
  }
  void OnTestEnd(const ::testing::TestInfo&) override { testsupport::Log::on_line(nullptr); }
};

struct _Install {
  _Install() {
    commonl::sys.system = _unexpected_system;
    commonl::sys.settimeofday = _unexpected_settimeofday;
    ::testing::UnitTest::GetInstance()->listeners().Append(new _Reset);
  }
} _install;

}  // namespace

extern "C" int LoggerGetLevel(void) {
  errno = ENOTTY;
  return g_level;
}

extern "C" void LogOutputLevel(int level, const char* file, int line, const char* function,
                               const char* format, ...) {
  char text[4096];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  testsupport::LogLine logged{level, file, line, function, format, text};
  // A real thread start is slow whenever the machine is busy: only the
  // handshake's own tests (which replace its sleeps) see that report.
  if (commonl::sys.usleep == ::usleep &&
      logged.format == "_beginthreadex: thread took %d milliseconds to start")
    return;
  EXPECT_TRUE(_is_operation(function)) << "logged under the helper " << function << ": " << text;
  std::function<void(const testsupport::LogLine&)> hook;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.push_back(logged);
    hook = g_hook;
  }
  if (hook) hook(logged);
  errno = ENOTTY;
}

namespace testsupport {

void Log::set_level(int level) { g_level = level; }

void Log::clear() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_lines.clear();
}

std::vector<LogLine> Log::lines() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_lines;
}

Lines Log::take(int max_level) {
  Lines out;
  std::lock_guard<std::mutex> lock(g_mutex);
  for (const LogLine& l : g_lines)
    if (l.level <= max_level)
      out.push_back(std::to_string(l.level) + " " + l.function + ": " + l.text);
  return g_lines.clear(), out;
}

std::string Log::said(int max_level) {
  std::string out;
  for (const std::string& line : take(max_level)) out += line + "|";
  return out;
}

void Log::on_line(std::function<void(const LogLine&)> hook) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_hook = std::move(hook);
}

SystemRecorder::SystemRecorder(int status) {
  take();
  g_system_status = status;
  commonl::sys.system = [](const char* command) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_commands.push_back(command);
    return g_system_status.load();
  };
}

SystemRecorder::~SystemRecorder() { commonl::sys.system = _unexpected_system; }

void SystemRecorder::set_status(int status) { g_system_status = status; }

Lines SystemRecorder::take() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return std::exchange(g_commands, {});
}

SettimeofdayRecorder::SettimeofdayRecorder(int result) {
  g_times.clear();
  g_settimeofday_result = result;
  commonl::sys.settimeofday = [](const struct timeval* tv, const struct timezone* tz) {
    EXPECT_TRUE(tv->tv_usec == 0 && tz == nullptr);
    std::lock_guard<std::mutex> lock(g_mutex);
    g_times.push_back(tv->tv_sec);
    // A refusal as for a process without the right to set the clock.
    return g_settimeofday_result ? fail_with(EPERM) : 0;
  };
}

SettimeofdayRecorder::~SettimeofdayRecorder() {
  commonl::sys.settimeofday = _unexpected_settimeofday;
}

std::vector<time_t> SettimeofdayRecorder::calls() const {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_times;
}

ScratchFile::ScratchFile(const std::string& content, const std::string& name) {
  char pattern[] = "/tmp/commonl-test-XXXXXX";
  if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
  dir_ = pattern;
  path_ = dir_ + "/" + name;
  write(content);
}

ScratchFile::~ScratchFile() {
  unlink(path_.c_str());
  rmdir(dir_.c_str());
}

void ScratchFile::write(const std::string& content) const {
  std::ofstream(path_, std::ios::binary | std::ios::trunc) << content;
}

ScopedPaths::ScopedPaths(const char* sysinfo, const char* hw_models, const char* timezone)
    : saved_(commonl::paths) {
  if (sysinfo) commonl::paths.sysinfo = sysinfo;
  if (hw_models) commonl::paths.hw_models = hw_models;
  if (timezone) commonl::paths.timezone = timezone;
}

ScopedPaths::~ScopedPaths() { commonl::paths = saved_; }

OwnThread::OwnThread(std::function<void()> body, unsigned int* id)
    : body_(std::move(body)),
      ended_(CreateEvent(nullptr, TRUE, FALSE, nullptr)),
      handle_(_beginthreadex(nullptr, 0, _run, this, 0, id)) {}

unsigned int OwnThread::_run(void* self) {
  auto* me = static_cast<OwnThread*>(self);
  std::unique_ptr<void, BOOL (*)(HANDLE)> on_exit(me->ended_.h, SetEvent);  // also if cancelled
  me->body_();
  return 0;
}

bool OwnThread::join() const {
  return handle_ == uintptr_t(-1) || WaitForSingleObject(ended_, 10000) == WAIT_OBJECT_0;
}

void on_threads(int n, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < n; t++) threads.emplace_back(body, t);
  for (std::thread& thread : threads) thread.join();
}

void zone(const char* tz) {
  setenv("TZ", tz, 1);
  tzset();
}

std::string resource(const char* name) {
  return std::string(COMMONL_SOURCE_DIR "/resources/") + name;
}

bool eventually(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

bool blocked_in_syscall(pid_t tid, long syscall_nr, std::chrono::milliseconds limit) {
  const std::string path = "/proc/self/task/" + std::to_string(tid) + "/syscall";
  return eventually([&] {
    long nr = -1;
    return (std::ifstream(path) >> nr) && nr == syscall_nr;
  }, limit);
}

}  // namespace testsupport
