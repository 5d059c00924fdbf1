#include "support.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

namespace {

std::mutex g_log_mutex;
std::vector<testsupport::LogLine> g_log_lines;
std::atomic<int> g_log_level{7};
std::function<void(const testsupport::LogLine&)> g_log_hook;

// The operations whose own names begin with an underscore.
bool _is_operation(const std::string& function) {
  for (const char* name : {"_beginthreadex", "_beginthreadex_proxy", "_dic_find", "_dic_insert",
                           "_dic_remove", "_splitpath"})
    if (function == name) return true;
  return function.empty() || function[0] != '_';
}

std::mutex g_record_mutex;
std::vector<std::string> g_commands;
std::atomic<int> g_system_status{0};
std::vector<struct timeval> g_times;
std::atomic<int> g_settimeofday_result{0};

int _recording_system(const char* command) {
  std::lock_guard<std::mutex> lock(g_record_mutex);
  g_commands.push_back(command ? command : "(null)");
  return g_system_status.load();
}

int _recording_settimeofday(const struct timeval* tv, const struct timezone*) {
  std::lock_guard<std::mutex> lock(g_record_mutex);
  g_times.push_back(tv ? *tv : timeval{});
  return g_settimeofday_result.load();
}

// Every test starts with an empty log at full detail, and with the real
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
    commonl::sys.system = [](const char* command) -> int {
      ADD_FAILURE() << "system() reached without a SystemRecorder: " << command;
      return -1;
    };
    commonl::sys.settimeofday = [](const struct timeval*, const struct timezone*) -> int {
      ADD_FAILURE() << "settimeofday() reached without a SettimeofdayRecorder";
      return -1;
    };
    ::testing::UnitTest::GetInstance()->listeners().Append(new _Reset);
  }
};

}  // namespace

extern "C" int LoggerGetLevel(void) {
  errno = ENOTTY;
  return g_log_level.load();
}

extern "C" void LogOutputLevel(int level, const char* file, int line, const char* function,
                               const char* format, ...) {
  char text[4096];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  testsupport::LogLine logged{level,          file ? file : "", line, function ? function : "",
                              format ? format : "", text};
  EXPECT_TRUE(_is_operation(logged.function))
      << "logged under the helper " << logged.function << ": " << logged.text;
  std::function<void(const testsupport::LogLine&)> hook;
  {
    std::lock_guard<std::mutex> lock(g_log_mutex);
    g_log_lines.push_back(logged);
    hook = g_log_hook;
  }
  if (hook) hook(logged);
  errno = ENOTTY;
}

namespace testsupport {

void Log::set_level(int level) { g_log_level = level; }

void Log::on_line(std::function<void(const LogLine&)> hook) {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  g_log_hook = std::move(hook);
}

void Log::clear() {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  g_log_lines.clear();
}

std::vector<LogLine> Log::lines() {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  return g_log_lines;
}

int Log::count(int level, const std::string& text) {
  int n = 0;
  for (const LogLine& line : lines())
    if (line.level == level && line.text == text) n++;
  return n;
}

int Log::count_text(const std::string& text) {
  int n = 0;
  for (const LogLine& line : lines())
    if (line.text == text) n++;
  return n;
}

std::string Log::dump() {
  std::ostringstream out;
  for (const LogLine& line : lines())
    out << "[" << line.level << "] " << line.file << ":" << line.line << " " << line.function
        << ": " << line.text << "\n";
  return out.str();
}

SystemRecorder::SystemRecorder(int status) {
  std::lock_guard<std::mutex> lock(g_record_mutex);
  g_commands.clear();
  g_system_status = status;
  commonl::sys.system = _recording_system;
}

SystemRecorder::~SystemRecorder() {
  commonl::sys.system = [](const char*) -> int {
    ADD_FAILURE() << "system() reached without a SystemRecorder";
    return -1;
  };
}

void SystemRecorder::set_status(int status) { g_system_status = status; }

std::vector<std::string> SystemRecorder::commands() const {
  std::lock_guard<std::mutex> lock(g_record_mutex);
  return g_commands;
}

SettimeofdayRecorder::SettimeofdayRecorder(int result) {
  std::lock_guard<std::mutex> lock(g_record_mutex);
  g_times.clear();
  g_settimeofday_result = result;
  commonl::sys.settimeofday = _recording_settimeofday;
}

SettimeofdayRecorder::~SettimeofdayRecorder() {
  commonl::sys.settimeofday = [](const struct timeval*, const struct timezone*) -> int {
    ADD_FAILURE() << "settimeofday() reached without a SettimeofdayRecorder";
    return -1;
  };
}

std::vector<struct timeval> SettimeofdayRecorder::calls() const {
  std::lock_guard<std::mutex> lock(g_record_mutex);
  return g_times;
}

ScratchFile::ScratchFile(const std::string& content, const std::string& name) {
  char pattern[] = "/tmp/commonl-test-XXXXXX";
  const char* dir = mkdtemp(pattern);
  if (dir == nullptr) throw std::runtime_error("mkdtemp failed");
  dir_ = dir;
  path_ = dir_ + "/" + name;
  write(content);
}

ScratchFile::~ScratchFile() {
  unlink(path_.c_str());
  rmdir(dir_.c_str());
}

void ScratchFile::write(const std::string& content) const {
  std::ofstream out(path_, std::ios::binary | std::ios::trunc);
  out << content;
}

ScopedPaths::ScopedPaths(const char* sysinfo, const char* hw_models, const char* timezone)
    : saved_(commonl::paths) {
  if (sysinfo) commonl::paths.sysinfo = sysinfo;
  if (hw_models) commonl::paths.hw_models = hw_models;
  if (timezone) commonl::paths.timezone = timezone;
}

ScopedPaths::~ScopedPaths() { commonl::paths = saved_; }

bool eventually(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

bool blocked_in_syscall(pid_t tid, long syscall_nr, std::chrono::milliseconds limit) {
  std::string path = "/proc/self/task/" + std::to_string(tid) + "/syscall";
  return eventually(
      [&] {
        std::ifstream in(path);
        long nr = -1;
        return (in >> nr) && nr == syscall_nr;
      },
      limit);
}

}  // namespace testsupport

static _Install _install;
