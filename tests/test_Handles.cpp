// Handle records: creation, reference counting, the closes of every kind,
// DuplicateHandle, the process and thread handles, and the last error.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "CommonL.h"
#include "support.h"

using testsupport::Log;

namespace {

bool fd_is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

// A record as outside code makes it: CreateHandleL, then its own fields.
v_handle_t* make_fd_handle(int fd) {
  v_handle_t* h = CreateHandleL(V_HANDLE_FD);
  h->tail.fd = fd;
  return h;
}

}  // namespace

TEST(CreateHandleL, GivesAZeroedRecordWithMagicTypeAndOneReference) {
  v_handle_t* h = CreateHandleL(V_HANDLE_SOCKET_EVENT);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->magic, 0xdac2f746u);
  EXPECT_EQ(h->type, V_HANDLE_SOCKET_EVENT);
  EXPECT_EQ(h->ref_count, 1);
  EXPECT_EQ(h->name, nullptr);
  EXPECT_EQ(h->poll_entry.fd, 0);
  EXPECT_EQ(h->global + h->manual_reset + h->overlapped, 0);
  EXPECT_EQ(h->tail.second_fd, 0);
  free(h);
}

TEST(CreateHandleL, OutOfMemoryReportsNoMemoAndGivesNull) {
  testsupport::ScopedSys<decltype(commonl::sys.calloc)> no_memory(
      commonl::sys.calloc, [](size_t, size_t) -> void* { return nullptr; });
  EXPECT_EQ(CreateHandleL(V_HANDLE_FD), nullptr);
  ASSERT_EQ(Log::lines().size(), 1u);
  EXPECT_EQ(Log::lines()[0].level, 3);
  EXPECT_EQ(Log::lines()[0].text, "no memo");
  EXPECT_EQ(Log::lines()[0].file, "../CommonL/Handles");
  EXPECT_EQ(Log::lines()[0].function, "CreateHandleL");
}

TEST(CloseHandle, NullIsTrueAndSilent) {
  EXPECT_EQ(CloseHandle(nullptr), TRUE);
  EXPECT_TRUE(Log::lines().empty());
}

TEST(CloseHandle, WithoutMagicIsFalseWithBadHandleAtLevel3Only) {
  v_handle_t fake{};
  EXPECT_EQ(CloseHandle(&fake), FALSE);
  EXPECT_EQ(Log::count(3, "bad handle"), 1);

  Log::clear();
  Log::set_level(2);
  EXPECT_EQ(CloseHandle(&fake), FALSE);
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
}

TEST(CloseHandle, FdRecordClosesItsDescriptorAtTheLastReference) {
  int fd = eventfd(0, 0);
  v_handle_t* h = make_fd_handle(fd);
  HANDLE copy1 = nullptr, copy2 = nullptr;
  ASSERT_EQ(DuplicateHandle(nullptr, h, nullptr, &copy1, 0, 0, 0), TRUE);
  ASSERT_EQ(DuplicateHandle(nullptr, h, nullptr, &copy2, 0, 0, 0), TRUE);
  EXPECT_EQ(copy1, h);
  EXPECT_EQ(copy2, h);
  EXPECT_EQ(h->ref_count, 3);

  EXPECT_EQ(CloseHandle(copy1), TRUE);
  EXPECT_EQ(CloseHandle(h), TRUE);
  EXPECT_TRUE(fd_is_open(fd));
  EXPECT_EQ(CloseHandle(copy2), TRUE);
  EXPECT_FALSE(fd_is_open(fd));
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
}

TEST(CloseHandle, SocketEventClosesBothDescriptors) {
  int first = eventfd(0, 0), second = eventfd(0, 0);
  v_handle_t* h = CreateHandleL(V_HANDLE_SOCKET_EVENT);
  h->poll_entry.fd = first;
  h->poll_entry.events = POLLIN;
  h->tail.second_fd = second;
  EXPECT_EQ(CloseHandle(h), TRUE);
  EXPECT_FALSE(fd_is_open(first));
  EXPECT_FALSE(fd_is_open(second));
}

TEST(CloseHandle, FindHandleIsRefusedAndItsCountThenGoesBelowZero) {
  v_handle_t* h = CreateHandleL(V_HANDLE_FIND);
  EXPECT_EQ(CloseHandle(h), FALSE);
  EXPECT_EQ(Log::count(3, "FindFirst handle must be close with FirstClose function"), 1);
  EXPECT_EQ(h->magic, V_HANDLE_MAGIC);  // the record stays

  EXPECT_EQ(CloseHandle(h), FALSE);
  char expected[128];
  snprintf(expected, sizeof expected, "CloseHandle %p called more times than should",
           static_cast<void*>(h));
  EXPECT_EQ(Log::count(4, expected), 1) << Log::dump();
  EXPECT_EQ(h->ref_count, -1);
  free(h);
}

TEST(CloseHandle, UnknownTypeIsFalseWithBadHandleType) {
  v_handle_t* h = CreateHandleL(static_cast<v_handle_type_t>(9));
  EXPECT_EQ(CloseHandle(h), FALSE);
  EXPECT_EQ(Log::count(3, "bad handle type"), 1);
  EXPECT_EQ(h->magic, V_HANDLE_MAGIC);
  free(h);
}

TEST(CloseHandle, TooManyClosesAreGatedAtLevel4) {
  v_handle_t* h = CreateHandleL(V_HANDLE_FIND);
  Log::set_level(3);
  CloseHandle(h);
  CloseHandle(h);
  EXPECT_EQ(Log::lines().size(), 1u) << Log::dump();  // only the level-3 FindFirst line
  free(h);
}

TEST(ProcessHandle, IsStaticCarriesThePidAndSurvivesAnyNumberOfCloses) {
  HANDLE process = GetCurrentProcess();
  EXPECT_EQ(process, GetCurrentProcess());
  auto* record = static_cast<v_handle_t*>(process);
  EXPECT_EQ(record->magic, V_HANDLE_MAGIC);
  EXPECT_EQ(record->type, V_HANDLE_PROCESS);
  EXPECT_EQ(record->tail.pid, getpid());
  for (int i = 0; i < 3; i++) EXPECT_EQ(CloseHandle(process), TRUE);
  EXPECT_EQ(record->ref_count, 0);

  HANDLE copy = nullptr;
  EXPECT_EQ(DuplicateHandle(process, process, process, &copy, 0, 0, 0), TRUE);
  EXPECT_EQ(copy, process);
  EXPECT_EQ(CloseHandle(copy), TRUE);
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
}

TEST(ThreadHandle, UnpopulatedIsAllZeroAndPopulatedCanBeClosedFreely) {
  std::thread([] {
    EXPECT_EQ(gt_thread_handle.magic, 0u);
    EXPECT_EQ(CloseHandle(&gt_thread_handle), FALSE);
    EXPECT_EQ(Log::count(3, "bad handle"), 1);

    PopulateThreadHandle();
    EXPECT_EQ(gt_thread_handle.magic, V_HANDLE_MAGIC);
    EXPECT_EQ(gt_thread_handle.type, V_HANDLE_THREAD);
    EXPECT_EQ(gt_thread_handle.tail.tid, gettid());
    EXPECT_TRUE(pthread_equal(gt_thread_handle.tail.thread, pthread_self()));
    EXPECT_EQ(gt_thread_handle.ref_count, 0);
    EXPECT_EQ(CloseHandle(&gt_thread_handle), TRUE);
    EXPECT_EQ(CloseHandle(&gt_thread_handle), TRUE);
  }).join();
}

TEST(DuplicateHandle, UnsupportedArgumentsAreReportedAtLevel2AndIgnored) {
  v_handle_t* h = make_fd_handle(eventfd(0, 0));
  HANDLE copy = nullptr;
  Log::set_level(0);  // level 2 is issued whatever the logger's level
  EXPECT_EQ(DuplicateHandle(GetCurrentProcess(), h, nullptr, &copy, 1, 1, 2), TRUE);
  EXPECT_EQ(copy, h);
  EXPECT_EQ(Log::count(2, "dwDesiredAccess must be zero"), 1);
  EXPECT_EQ(Log::count(2, "bInheritHandle must be FALSE"), 1);
  EXPECT_EQ(Log::count(2, "dwOptions must be DUPLICATE_SAME_ACCESS"), 1);
  EXPECT_EQ(Log::count(2, "hSourceProcessHandle and hTargetProcessHandle must be equal"), 1);
  EXPECT_EQ(Log::lines().size(), 4u);
  EXPECT_EQ(CloseHandle(h), TRUE);
  EXPECT_EQ(CloseHandle(copy), TRUE);
}

TEST(DuplicateHandle, RefusesBadSourcesAndSocketEventsLeavingTheTargetAlone) {
  v_handle_t fake{};
  HANDLE marker = reinterpret_cast<HANDLE>(0x1234);
  HANDLE target = marker;
  EXPECT_EQ(DuplicateHandle(nullptr, &fake, nullptr, &target, 0, 0, 0), FALSE);
  EXPECT_EQ(DuplicateHandle(nullptr, nullptr, nullptr, &target, 0, 0, 0), FALSE);
  EXPECT_EQ(target, marker);
  EXPECT_EQ(Log::count(3, "bad handle"), 2);

  v_handle_t* fd_handle = make_fd_handle(eventfd(0, 0));
  EXPECT_EQ(DuplicateHandle(nullptr, fd_handle, nullptr, nullptr, 0, 0, 0), FALSE);
  EXPECT_EQ(fd_handle->ref_count, 1);
  EXPECT_EQ(Log::count(3, "bad handle"), 3);
  CloseHandle(fd_handle);

  v_handle_t* socket_event = CreateHandleL(V_HANDLE_SOCKET_EVENT);
  EXPECT_EQ(DuplicateHandle(nullptr, socket_event, nullptr, &target, 0, 0, 0), FALSE);
  EXPECT_EQ(Log::count(3, "Socket event handle can not be duplicated."), 1);
  EXPECT_EQ(target, marker);
  EXPECT_EQ(socket_event->ref_count, 1);
  free(socket_event);
}

TEST(ReferenceCount, ConcurrentDuplicatesAndClosesBalance) {
  int fd = eventfd(0, 0);
  v_handle_t* h = make_fd_handle(fd);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; t++)
    threads.emplace_back([h] {
      for (int i = 0; i < 20000; i++) {
        HANDLE copy = nullptr;
        DuplicateHandle(nullptr, h, nullptr, &copy, 0, 0, 0);
        CloseHandle(copy);
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(h->ref_count, 1);
  EXPECT_TRUE(fd_is_open(fd));
  EXPECT_EQ(CloseHandle(h), TRUE);
  EXPECT_FALSE(fd_is_open(fd));
}

TEST(LastError, IsPerThreadAndStartsAtZero) {
  SetLastError(183);
  EXPECT_EQ(GetLastError(), 183u);
  std::thread([] {
    EXPECT_EQ(GetLastError(), 0u);
    SetLastError(6);
    EXPECT_EQ(GetLastError(), 6u);
  }).join();
  EXPECT_EQ(GetLastError(), 183u);
}
