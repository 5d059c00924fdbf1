// Test support: a capturing logger, seams over the library's system calls,
// recorders for commands and clock changes, and scratch files for the
// library's fixed paths.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "internal.h"

namespace testsupport {

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
// underscore): such a line fails the test.
class Log {
 public:
  // The level LoggerGetLevel() answers; 7 (everything) at the start of each test.
  static void set_level(int level);
  static void clear();
  static std::vector<LogLine> lines();
  // Lines with exactly this level and text.
  static int count(int level, const std::string& text);
  static bool has(int level, const std::string& text) { return count(level, text) > 0; }
  // Lines with this text at any level.
  static int count_text(const std::string& text);
  static std::string dump();
  // Called with each line as it is logged, on the logging thread, until the
  // end of the test; it may block there.
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

// Records the commands given to system() and answers with `status`; nothing runs.
class SystemRecorder {
 public:
  explicit SystemRecorder(int status = 0);
  ~SystemRecorder();
  void set_status(int status);
  std::vector<std::string> commands() const;
};

// Records the times given to settimeofday() and answers with `result`.
class SettimeofdayRecorder {
 public:
  explicit SettimeofdayRecorder(int result = 0);
  ~SettimeofdayRecorder();
  std::vector<struct timeval> calls() const;
};

// A file in a fresh scratch directory, removed with the object.
class ScratchFile {
 public:
  explicit ScratchFile(const std::string& content, const std::string& name = "file");
  ~ScratchFile();
  const std::string& path() const { return path_; }
  void write(const std::string& content) const;

 private:
  std::string dir_;
  std::string path_;
};

// Points the library's fixed paths elsewhere; nullptr keeps a path as it is.
class ScopedPaths {
 public:
  ScopedPaths(const char* sysinfo, const char* hw_models, const char* timezone);
  ~ScopedPaths();

 private:
  commonl::Paths saved_;
};

// Waits until `done` holds, for at most `limit`; true if it held.
bool eventually(const std::function<bool()>& done,
                std::chrono::milliseconds limit = std::chrono::seconds(10));

// True once kernel thread `tid` of this process sits blocked in system call
// `syscall_nr` (read from /proc); false after `limit`.
bool blocked_in_syscall(pid_t tid, long syscall_nr,
                        std::chrono::milliseconds limit = std::chrono::seconds(10));

}  // namespace testsupport
