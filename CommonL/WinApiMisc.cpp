// The per-thread last-error value, and the library's seams to the system.
#define COMMONL_UNIT "../CommonL/WinApiMisc"

#include "WinApiMisc.h"

#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "internal.h"

namespace commonl {

Sys sys = {
    ::eventfd, ::read, ::write, ::ppoll, ::calloc, ::strdup, ::pthread_mutex_lock,
    ::pthread_mutex_init, ::system,
    ::settimeofday, ::pthread_create, ::pthread_attr_getschedparam, ::popen, ::pclose,
    ::gettimeofday, ::time, ::clock_gettime, ::nanosleep,
};

Paths paths = {
    "/opt/Tessend/KORVA/resources/sysinfo.json",
    "/opt/Tessend/KORVA/resources/hw-models.conf",
    "/etc/timezone",
};

}  // namespace commonl

static __thread DWORD _last_error;

DWORD GetLastError() { return _last_error; }

void SetLastError(DWORD dwErrCode) { _last_error = dwErrCode; }
