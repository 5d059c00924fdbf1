// The scratch file and a quiet logger: the library's lines are formatted, so
// that the sanitizers see every argument, and then dropped.
#include "fuzz_support.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include "korvalogger.h"

namespace fuzzsupport {

const char* scratch_file(const uint8_t* data, size_t size) {
  static int fd = -1;
  static char path[64];
  if (fd < 0) {
    fd = memfd_create("commonl-fuzz", 0);
    if (fd < 0) broken("memfd_create failed");
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
  }
  if (ftruncate(fd, 0) != 0) broken("ftruncate failed");
  size_t done = 0;
  while (done < size) {
    ssize_t n = pwrite(fd, data + done, size - done, static_cast<off_t>(done));
    if (n <= 0) broken("pwrite failed");
    done += static_cast<size_t>(n);
  }
  return path;
}

void broken(const char* what) {
  fprintf(stderr, "broken promise: %s\n", what);
  abort();
}

}  // namespace fuzzsupport

// Every level, so that every message of the library is formatted.
extern "C" int LoggerGetLevel(void) { return 7; }

extern "C" void LogOutputLevel(int, const char*, int, const char*, const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
}
