// What crosses the library's source files and is not exported: the logging
// rule, the system-call seam, the fixed paths and the per-kind helpers.
// Not installed.
#pragma once

#include <poll.h>
#include <pthread.h>
#include <pwd.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>

#include "Handles.h"
#include "korvalogger.h"

namespace commonl {

// The logging rule, in one place: level 2 is the assertion level and always
// issued; levels 3 and above only when the logger's level allows them.
inline bool log_enabled(int level) { return level <= 2 || LoggerGetLevel() >= level; }

// The system calls whose failures the library handles. Production points
// them at libc; tests swap single entries to reach the failure paths and to
// keep commands, clock changes and files off the machine.
struct Sys {
  int (*eventfd)(unsigned int initval, int flags);
  ssize_t (*read)(int fd, void* buf, size_t count);
  ssize_t (*write)(int fd, const void* buf, size_t count);
  int (*ppoll)(struct pollfd* fds, nfds_t nfds, const struct timespec* timeout,
               const sigset_t* sigmask);
  void* (*calloc)(size_t nmemb, size_t size);
  // What came from calloc and strdup goes back here, so that tests can see
  // every path give back what it took.
  void (*free)(void* ptr);
  char* (*strdup)(const char* s);
  int (*pthread_mutex_lock)(pthread_mutex_t* mutex);
  int (*pthread_mutex_init)(pthread_mutex_t* mutex, const pthread_mutexattr_t* attr);
  int (*system)(const char* command);
  int (*settimeofday)(const struct timeval* tv, const struct timezone* tz);
  int (*pthread_create)(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*),
                        void* arg);
  int (*pthread_attr_getschedparam)(const pthread_attr_t* attr, struct sched_param* param);
  FILE* (*popen)(const char* command, const char* mode);
  int (*pclose)(FILE* stream);
  int (*gettimeofday)(struct timeval* tv, void* tz);
  time_t (*time)(time_t* tloc);
  int (*clock_gettime)(clockid_t clockid, struct timespec* tp);
  int (*nanosleep)(const struct timespec* request, struct timespec* remaining);
  int (*usleep)(useconds_t usec);
  FILE* (*fopen)(const char* path, const char* mode);
  struct passwd* (*getpwuid)(uid_t uid);
};
extern Sys sys;

// The installation's fixed files; tests point them at scratch files.
struct Paths {
  const char* sysinfo;    // /opt/Tessend/KORVA/resources/sysinfo.json
  const char* hw_models;  // /opt/Tessend/KORVA/resources/hw-models.conf
  const char* timezone;   // /etc/timezone
};
extern Paths paths;

// True for a non-NULL record with the magic and the given type.
inline bool handle_is(const void* h, v_handle_type_t type) {
  auto* record = static_cast<const v_handle_t*>(h);
  return record != nullptr && record->magic == V_HANDLE_MAGIC && record->type == type;
}

// ThreadSanitizer sees atomics, locks, semaphores and thread starts, but not
// that a write to an eventfd happens before the ppoll or read that sees it.
// In a ThreadSanitizer build (any: the library's own or a user's) these tell
// it so, with the event's record as the address; elsewhere they are nothing.
// The signalling write itself is over, descriptor and all, before any
// thread can see the signal, so its use of the descriptor does not race with
// a close that follows a wait: it is kept out of the checker's sight.
#if defined(__SANITIZE_THREAD__)
#define COMMONL_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define COMMONL_TSAN 1
#endif
#endif
#ifdef COMMONL_TSAN
extern "C" void __tsan_acquire(void* addr);
extern "C" void __tsan_release(void* addr);
extern "C" void __tsan_ignore_thread_begin();
extern "C" void __tsan_ignore_thread_end();
inline void tsan_release(const void* addr) { __tsan_release(const_cast<void*>(addr)); }
inline void tsan_acquire(const void* addr) { __tsan_acquire(const_cast<void*>(addr)); }
inline void tsan_unseen_begin() { __tsan_ignore_thread_begin(); }
inline void tsan_unseen_end() { __tsan_ignore_thread_end(); }
#else
inline void tsan_release(const void*) {}
inline void tsan_acquire(const void*) {}
inline void tsan_unseen_begin() {}
inline void tsan_unseen_end() {}
#endif

inline int ref_add(v_handle_t* h, int delta) {
  return __atomic_add_fetch(&h->ref_count, delta, __ATOMIC_SEQ_CST);
}

// Takes a reference only while the count is above 0: a record whose count
// has reached 0 is on its way to release and must not be handed out.
inline bool ref_acquire_if_live(v_handle_t* h) {
  int count = __atomic_load_n(&h->ref_count, __ATOMIC_SEQ_CST);
  while (count > 0) {
    if (__atomic_compare_exchange_n(&h->ref_count, &count, count + 1, false, __ATOMIC_SEQ_CST,
                                    __ATOMIC_SEQ_CST))
      return true;
  }
  return false;
}

// Gives back one reference if the count is above 0 and returns the count
// that is left; used under dic_mutex by the closers of named objects.
inline int ref_drop_if_positive(v_handle_t* h) {
  int count = __atomic_load_n(&h->ref_count, __ATOMIC_SEQ_CST);
  while (count > 0) {
    if (__atomic_compare_exchange_n(&h->ref_count, &count, count - 1, false, __ATOMIC_SEQ_CST,
                                    __ATOMIC_SEQ_CST))
      return count - 1;
  }
  return count;
}

// An absolute CLOCK_REALTIME deadline `ms` milliseconds ahead, worked out in
// whole milliseconds: the sub-millisecond part of the present is dropped.
inline struct timespec realtime_deadline_ms(unsigned int ms) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  uint64_t total = static_cast<uint64_t>(now.tv_sec) * 1000u +
                   static_cast<uint64_t>(now.tv_nsec / 1000000) + ms;
  struct timespec deadline;
  deadline.tv_sec = static_cast<time_t>(total / 1000u);
  deadline.tv_nsec = static_cast<long>(total % 1000u) * 1000000L;
  return deadline;
}

// The log lines of read_whole_file, each the literal text of the file's
// own message.
struct FileMessages {
  const char* missing;     // "%s": the path
  const char* empty;       // "%s": the path
  const char* no_memory;   // no argument
  const char* short_read;  // "%d", "%d": the size and the count read
  const char* too_large;   // "%s": the path
};

// The whole file at `path` in a NUL-terminated heap buffer that the caller
// gives back with sys.free, its length in *size; NULL on failure, which
// `function` of `unit` reports with `messages`.
char* read_whole_file(const char* path, const FileMessages& messages, const char* unit,
                      const char* function, int32_t* size);

// Brings the catalogue back to its state at load, so that the next call
// reads a file again. Not for the library's users (the catalogue loads once
// per process): the fuzzer starts each input from a fresh catalogue with it.
void catalogue_reset();

}  // namespace commonl

// Logs at `level` as coming from `unit` and `function`, under the rule of
// log_enabled. `function` is the operation whose message it is, also where a
// helper of that operation issues it.
#define KLOG_AT(unit, function, level, ...)                                \
  do {                                                                     \
    if (commonl::log_enabled(level))                                       \
      LogOutputLevel((level), (unit), __LINE__, (function), __VA_ARGS__);  \
  } while (0)

// Each source file defines COMMONL_UNIT as its path in the log, for example
// "../CommonL/Handles", before using KLOG.
#define KLOG_AS(function, level, ...) KLOG_AT(COMMONL_UNIT, function, level, __VA_ARGS__)
#define KLOG(level, ...) KLOG_AS(__func__, level, __VA_ARGS__)
