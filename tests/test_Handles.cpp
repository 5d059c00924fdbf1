// Handle records: creation, reference counting, the closes of every kind,
// DuplicateHandle, the process and thread handles, and the last error.
#include <malloc.h>
#include <unistd.h>

#include "support.h"

using namespace testsupport;

static BOOL copy(HANDLE h, HANDLE* to) { return DuplicateHandle(nullptr, h, nullptr, to, 0, 0, 0); }
static bool holds(const void* h, v_handle_t record) { return !memcmp(h, &record, sizeof record); }
static int freed = 0;  // what CloseHandle gave back

TEST(CloseHandle, ReleasesEachKindAtItsLastReferenceRefusesTheRestLeavesProcessAndThreadHandles) {
  SEAM(free, [](void* p) { freed += p != nullptr, free(p); });
  v_handle_t fake{}, *fd = CreateHandleL(V_HANDLE_FD), *find = CreateHandleL(V_HANDLE_FIND);
  v_handle_t *sock = CreateHandleL(V_HANDLE_SOCKET_EVENT), *odd = CreateHandleL(v_handle_type_t(9));
  // CreateHandleL gives one zeroed record: the magic, the type, one reference.
  EXPECT_TRUE(holds(sock, {V_HANDLE_MAGIC, V_HANDLE_SOCKET_EVENT, {}, 0, 0, 0, 0, 1, {}}));
  const int a = fd->tail.fd = dup(2), b = sock->poll_entry.fd = dup(2);
  const int c = sock->tail.second_fd = dup(2);
  EXPECT_TRUE(malloc_usable_size(fd) < 2 * sizeof fake && CloseHandle(fd) && CloseHandle(sock));
  EXPECT_TRUE(close(a) + close(b) + close(c) == -3 && CloseHandle(CreateSemaphore(0, 0, 1, 0)));
  EXPECT_FALSE(freed != 3 || CloseHandle(&fake) || CloseHandle(odd) || CloseHandle(find));
  EXPECT_TRUE(!CloseHandle(find) && CloseHandle(nullptr) && Log::lines().back().level == 4);
  EXPECT_EQ(Log::lines().back().format, "CloseHandle %p called more times than should");
  free(odd), free(find);  // the records it refused to release
  SetLastError(183);
  on_threads(1, [](int) {  // a new thread: its last error and thread handle are its own
    v_handle_t& t = gt_thread_handle;
    EXPECT_TRUE(GetLastError() == 0 && t.magic == 0 && !CloseHandle(&t));
    PopulateThreadHandle(), SetLastError(6);
    EXPECT_TRUE(t.magic == V_HANDLE_MAGIC && t.type == V_HANDLE_THREAD && t.tail.tid == gettid());
    EXPECT_TRUE(pthread_equal(t.tail.thread, pthread_self()) && CloseHandle(&t) && !t.ref_count);
  });
  HANDLE p = GetCurrentProcess();  // its count is never looked at
  EXPECT_TRUE(CloseHandle(p) && CloseHandle(p) && GetLastError() == 183);  // the main thread's
  EXPECT_TRUE(holds(p, {V_HANDLE_MAGIC, V_HANDLE_PROCESS, {}, 0, 0, 0, 0, 0, {getpid()}}));
  EXPECT_EQ(Log::said(3), "3 CloseHandle: bad handle|3 CloseHandle: bad handle type|3 CloseHandle:"
                          " FindFirst handle must be close with FirstClose function|3 CloseHandle:"
                          " bad handle|");
}

TEST(DuplicateHandle, AddsAReferenceEvenConcurrentlyRefusesWhatItCannotCopyReportsOddArguments) {
  v_handle_t fake{}, *h = CreateHandleL(V_HANDLE_FD), *sock = CreateHandleL(V_HANDLE_SOCKET_EVENT);
  const int fd = h->tail.fd = dup(2);
  on_threads(4, [h](int) { HANDLE c; for (int i = 0; i < 9999; i++) copy(h, &c), CloseHandle(c); });
  HANDLE target = &fake, first = nullptr, second = nullptr;
  EXPECT_FALSE(copy(&fake, &target) || copy(nullptr, &target) || copy(sock, &target) || copy(h, 0));
  EXPECT_TRUE(target == &fake && h->ref_count == 1 && copy(h, &first) && first == h);
  EXPECT_TRUE(DuplicateHandle(GetCurrentProcess(), h, nullptr, &second, 1, 1, 2) && second == h);
  EXPECT_TRUE(h->ref_count == 3 && CloseHandle(first) && CloseHandle(h) && h->ref_count == 1);
  EXPECT_TRUE(CloseHandle(second) && close(fd) == -1);  // the last one
  const std::string bad = "3 DuplicateHandle: bad handle|", odd = "|2 DuplicateHandle: ";
  EXPECT_EQ(Log::said(), bad + bad + "3 DuplicateHandle: Socket event handle can not be "
                         "duplicated.|" + bad + "2 DuplicateHandle: dwDesiredAccess must be zero" +
                         odd + "bInheritHandle must be FALSE" + odd + "dwOptions must be "
                         "DUPLICATE_SAME_ACCESS" + odd + "hSourceProcessHandle and "
                         "hTargetProcessHandle must be equal|");
  free(sock);
}
