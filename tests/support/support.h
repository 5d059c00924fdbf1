// What the unit tests share: a capturing logger, seams over the library's
// system calls, recorders for commands and clock changes, scratch files for
// the library's fixed paths, and threads that end where a test can see it.
#pragma once

#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "CommonL.h"
#include "WinApiTime.h"
#include "internal.h"

namespace testsupport {

using Lines = std::vector<std::string>;

struct LogLine {
  int level;
  std::string file;
  int line;
  std::string function;
  std::string format;  // as given: the message's own text with its conversions
  std::string text;    // the format expanded with its arguments
};

// Every LogOutputLevel call of the library lands here instead of the logger.
// Like a real logger it may change errno: both calls leave it at ENOTTY. A
// line is logged under the name of the operation whose message it is, never
// under one of the library's file-local helpers (whose names begin with an
// underscore): such a line fails the test. The slow-start report of a thread
// started with real sleeps is left out: it tells the machine's load. Each test starts with an empty
// log at level 7 and no hook.
class Log {
 public:
  static void set_level(int level);  // what LoggerGetLevel() answers
  static void clear();
  static std::vector<LogLine> lines();
  // The lines so far up to `max_level`, as "level function: text", then
  // forgotten.
  static Lines take(int max_level = 7);
  // The same lines, each followed by "|", in one text.
  static std::string said(int max_level = 7);
  // Called with each line as it is logged, on the logging thread; it may block.
  static void on_line(std::function<void(const LogLine&)> hook);
};

// Replaces one entry of commonl::sys for the life of the object.
template <typename Fn>
class ScopedSys {
 public:
  ScopedSys(Fn& slot, Fn replacement) : slot_(slot), saved_(slot) { slot_ = replacement; }
  ~ScopedSys() { slot_ = saved_; }
  ScopedSys(const ScopedSys&) = delete;
  ScopedSys& operator=(const ScopedSys&) = delete;

 private:
  Fn& slot_;
  Fn saved_;
};

// Replaces commonl::sys.<slot> until the end of the scope.
#define SEAM(slot, ...)                                                             \
  testsupport::ScopedSys<decltype(commonl::sys.slot)> seam_##slot{commonl::sys.slot, \
                                                                  __VA_ARGS__}

// For a seam that fails: sets errno and gives -1.
inline int fail_with(int error) { return errno = error, -1; }

// Records the commands given to system() and answers with `status`; nothing
// runs. Without a recorder, system() fails the test.
class SystemRecorder {
 public:
  explicit SystemRecorder(int status = 0);
  ~SystemRecorder();
  void set_status(int status);
  Lines take();  // the commands since the last call
};

// Records the times given to settimeofday() and answers with `result` (a
// failure with EPERM).
// Without a recorder, settimeofday() fails the test.
class SettimeofdayRecorder {
 public:
  explicit SettimeofdayRecorder(int result = 0);
  ~SettimeofdayRecorder();
  std::vector<time_t> calls() const;  // the seconds of each call
};

// A file in a fresh scratch directory, removed with the object.
class ScratchFile {
 public:
  explicit ScratchFile(const std::string& content, const std::string& name = "file");
  ~ScratchFile();
  const std::string& path() const { return path_; }
  void write(const std::string& content) const;

 private:
  std::string dir_, path_;
};

// Points the library's fixed paths elsewhere; nullptr keeps a path as it is.
class ScopedPaths {
 public:
  ScopedPaths(const char* sysinfo, const char* hw_models, const char* timezone);
  ~ScopedPaths();

 private:
  commonl::Paths saved_;
};

// Closes its handle at the end of the scope.
struct Owned {
  HANDLE h;
  explicit Owned(HANDLE handle) : h(handle) {}
  ~Owned() { CloseHandle(h); }
  Owned(const Owned&) = delete;
  operator HANDLE() const { return h; }
};

// Runs `body` on a thread from _beginthreadex; `ended` is set when it leaves,
// also when it is cancelled. The destructor waits for it.
class OwnThread {
 public:
  explicit OwnThread(std::function<void()> body, unsigned int* id = nullptr);
  ~OwnThread() { join(); }
  bool join() const;  // true once it has ended, within 10 s
  HANDLE h() const { return reinterpret_cast<HANDLE>(handle_); }

 private:
  static unsigned int _run(void* self);
  std::function<void()> body_;
  Owned ended_;
  uintptr_t handle_;
};

// Runs body(0) ... body(n - 1) on threads of their own and joins them.
void on_threads(int n, const std::function<void(int)>& body);

// Selects the process's time zone, as TZ would.
void zone(const char* tz);

// The path of a sample file of the project's resources/.
std::string resource(const char* name);

// Waits until `done` holds, for at most `limit`; true if it held.
bool eventually(const std::function<bool()>& done,
                std::chrono::milliseconds limit = std::chrono::seconds(10));

// True once kernel thread `tid` of this process sits blocked in system call
// `syscall_nr` (read from /proc), within `limit`.
bool blocked_in_syscall(pid_t tid, long syscall_nr,
                        std::chrono::milliseconds limit = std::chrono::seconds(10));

}  // namespace testsupport
