// A small application built against an installed CommonL: the
// header by its installed name, a signal across threads, a time-out, a C
// call, and the version it compiled against. Copy this directory to start
// one of your own.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <CommonL/CommonL.h>

static unsigned int signal_it(void* event) {
  SetEvent(event);
  return 0;
}

static int fail(const char* what) {
  fprintf(stderr, "application: %s\n", what);
  return 1;
}

int main() {
  char version[32];
  snprintf(version, sizeof version, "%d.%d.%d", COMMONL_VERSION_MAJOR, COMMONL_VERSION_MINOR,
           COMMONL_VERSION_PATCH);
  if (strcmp(version, COMMONL_VERSION) != 0) return fail("version macros disagree");

  HANDLE ready = CreateEvent(NULL, FALSE, FALSE, NULL);
  if (ready == NULL) return fail("CreateEvent");
  if (_beginthreadex(NULL, 0, signal_it, ready, 0, NULL) == static_cast<uintptr_t>(-1))
    return fail("_beginthreadex");
  if (WaitForSingleObject(ready, 5000) != WAIT_OBJECT_0) return fail("no signal");
  if (WaitForSingleObject(ready, 10) != WAIT_TIMEOUT) return fail("no time-out");
  CloseHandle(ready);

  char* zone = TZ__get_name(TZ__get_num_timezones() - 1);
  if (zone == NULL || strcmp(zone, "UTC") != 0) return fail("TZ__get_name");
  free(zone);

  printf("application: CommonL %s\n", COMMONL_VERSION);
  return 0;
}
