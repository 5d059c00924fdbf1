// Whether a test runs under a checker that changes what it can show; the
// few tests that skip themselves there say why.
#pragma once

#include <dlfcn.h>

namespace testsupport {

// The ThreadSanitizer runtime is in the process.
inline bool under_thread_sanitizer() { return dlsym(RTLD_DEFAULT, "__tsan_init") != nullptr; }

// ThreadSanitizer's runtime has no unwind tables: a thread cancelled inside
// one of its blocking interceptors (ppoll) unwinds past the interceptor's
// cleanup, and the checker ignores that thread's locks from then on, so the
// locks it gives back as it unwinds stay held in the checker's books.
constexpr const char* kCancelledInBlockingCall =
    "ThreadSanitizer loses the locks of a thread cancelled in a blocking call";

}  // namespace testsupport
