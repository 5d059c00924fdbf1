/* Stand-in logger: one line per message on standard error, level from the
 * environment variable KORVA_LOG_LEVEL (default 3). */
#include "korvalogger.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#define DEFAULT_LEVEL 3

static int _level_from_env(void) {
  const char* text = getenv("KORVA_LOG_LEVEL");
  if (text == NULL || *text == '\0') return DEFAULT_LEVEL;
  char* end = NULL;
  long value = strtol(text, &end, 10);
  if (*end != '\0' || value < 0 || value > 100) return DEFAULT_LEVEL;
  return (int)value;
}

int LoggerGetLevel(void) {
  /* Read once: the level is fixed for the life of the process, and callers
   * ask for it on every gated message. Racing first calls compute the same
   * value; the atomic store and load keep that race defined. */
  static int cached = -1;
  int level = __atomic_load_n(&cached, __ATOMIC_RELAXED);
  if (level < 0) {
    level = _level_from_env();
    __atomic_store_n(&cached, level, __ATOMIC_RELAXED);
  }
  return level;
}

void LogOutputLevel(int level, const char* file, int line, const char* function,
                    const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  /* Some messages end in a line feed of their own; the line ends here. */
  size_t length = strlen(text);
  while (length > 0 && text[length - 1] == '\n') text[--length] = '\0';

  struct timespec now;
  struct tm parts;
  clock_gettime(CLOCK_REALTIME, &now);
  localtime_r(&now.tv_sec, &parts);
  char stamp[32];
  strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &parts);

  /* One fprintf per message keeps lines from different threads whole. */
  fprintf(stderr, "%s.%03ld [%d] %s:%d %s: %s\n", stamp, now.tv_nsec / 1000000L, level,
          file ? file : "?", line, function ? function : "?", text);
}
