// Handle records: creation, reference counting, the closes of every kind,
// DuplicateHandle, the process and thread handles, and the last error.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/eventfd.h>

#include "support.h"

using namespace testsupport;

namespace {

BOOL copy(HANDLE h, HANDLE* to) { return DuplicateHandle(nullptr, h, nullptr, to, 0, 0, 0); }
bool holds(const void* h, v_handle_t record) { return !memcmp(h, &record, sizeof record); }
// The lines of Log::take(to), each ended by "|".
auto logged(int to = 7) { std::string s; for (auto& l : Log::take(to)) s += l + '|'; return s; }
int freed = 0;  // what CloseHandle gave back

}  // namespace

TEST(CloseHandle, ReleasesEachKindOfCreateHandleLRecordAtItsLastReferenceRefusesTheRest) {
  SEAM(free, [](void* p) { freed += p != nullptr, free(p); });
  v_handle_t fake{}, *fd = CreateHandleL(V_HANDLE_FD), *find = CreateHandleL(V_HANDLE_FIND);
  v_handle_t *sock = CreateHandleL(V_HANDLE_SOCKET_EVENT), *odd = CreateHandleL(v_handle_type_t(9));
  // CreateHandleL gives one zeroed record: the magic, the type, one reference.
  EXPECT_TRUE(holds(sock, {V_HANDLE_MAGIC, V_HANDLE_SOCKET_EVENT, {}, 0, 0, 0, 0, 1, {}}));
  const int a = eventfd(0, 0), b = eventfd(0, 0), c = eventfd(0, 0);
  fd->tail.fd = a, sock->poll_entry.fd = b, sock->tail.second_fd = c;
  EXPECT_TRUE(malloc_usable_size(fd) < 2 * sizeof fake && CloseHandle(fd) && CloseHandle(sock));
  EXPECT_TRUE(close(a) + close(b) + close(c) == -3 && CloseHandle(CreateSemaphore(0, 0, 1, 0)));
  EXPECT_FALSE(freed != 3 || CloseHandle(&fake) || CloseHandle(odd) || CloseHandle(find));
  EXPECT_TRUE(!CloseHandle(find) && CloseHandle(nullptr) && Log::lines().back().level == 4);
  EXPECT_EQ(Log::lines().back().format, "CloseHandle %p called more times than should");
  EXPECT_EQ(logged(3), "3 CloseHandle: bad handle|3 CloseHandle: bad handle type|3 CloseHandle: "
                       "FindFirst handle must be close with FirstClose function|");
  SEAM(calloc, [](size_t, size_t) -> void* { return nullptr; });
  EXPECT_TRUE(!CreateHandleL(V_HANDLE_FD) && logged() == "3 CreateHandleL: no memo|");
  free(odd), free(find);  // the records it refused to release
}

TEST(DuplicateHandle, AddsAReferenceEvenConcurrentlyRefusesWhatItCannotCopyReportsOddArguments) {
  v_handle_t fake{}, *h = CreateHandleL(V_HANDLE_FD), *sock = CreateHandleL(V_HANDLE_SOCKET_EVENT);
  const int fd = h->tail.fd = eventfd(0, 0);
  on_threads(4, [h](int) { HANDLE c; for (int i = 0; i < 9999; i++) copy(h, &c), CloseHandle(c); });
  HANDLE target = &fake, first = nullptr, second = nullptr;
  EXPECT_FALSE(copy(&fake, &target) || copy(nullptr, &target) || copy(sock, &target) || copy(h, 0));
  EXPECT_TRUE(target == &fake && h->ref_count == 1 && copy(h, &first) && first == h);
  EXPECT_TRUE(DuplicateHandle(GetCurrentProcess(), h, nullptr, &second, 1, 1, 2) && second == h);
  EXPECT_TRUE(h->ref_count == 3 && CloseHandle(first) && CloseHandle(h) && h->ref_count == 1);
  EXPECT_TRUE(CloseHandle(second) && close(fd) == -1);  // the last one
  const std::string bad = "3 DuplicateHandle: bad handle|", odd = "|2 DuplicateHandle: ";
  EXPECT_EQ(logged(), bad + bad + "3 DuplicateHandle: Socket event handle can not be duplicated.|" +
                      bad + "2 DuplicateHandle: dwDesiredAccess must be zero" + odd + "bInherit"
                      "Handle must be FALSE" + odd + "dwOptions must be DUPLICATE_SAME_ACCESS" +
                      odd + "hSourceProcessHandle and hTargetProcessHandle must be equal|");
  free(sock);
}

TEST(ProcessAndThreadHandles, CarryTheirIdsSurviveAnyClosesAndTheLastErrorIsPerThread) {
  HANDLE p = GetCurrentProcess();  // its count is never looked at
  EXPECT_TRUE(CloseHandle(p) && CloseHandle(p) && CloseHandle(p) && GetCurrentProcess() == p);
  EXPECT_TRUE(holds(p, {V_HANDLE_MAGIC, V_HANDLE_PROCESS, {}, 0, 0, 0, 0, 0, {getpid()}}));
  SetLastError(183);
  on_threads(1, [](int) {  // a new thread
    v_handle_t& t = gt_thread_handle;
    EXPECT_TRUE(GetLastError() == 0 && t.magic == 0 && !CloseHandle(&t));
    PopulateThreadHandle(), SetLastError(6);
    EXPECT_TRUE(t.magic == V_HANDLE_MAGIC && t.type == V_HANDLE_THREAD && t.tail.tid == gettid());
    EXPECT_TRUE(pthread_equal(t.tail.thread, pthread_self()) && CloseHandle(&t) && !t.ref_count);
  });
  EXPECT_TRUE(GetLastError() == 183 && logged() == "3 CloseHandle: bad handle|");
}
