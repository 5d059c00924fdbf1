// Handle records: creation, reference counting, the closes of every kind,
// DuplicateHandle, the process and thread handles, and the last error.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <thread>

#include "CommonL.h"
#include "support.h"

using testsupport::Log;
using Lines = std::vector<std::string>;

namespace {

bool fd_is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

BOOL dup(HANDLE h, HANDLE* copy) { return DuplicateHandle(nullptr, h, nullptr, copy, 0, 0, 0); }

// The log as "level text".
Lines log_lines() {
  Lines out;
  for (const auto& line : Log::lines()) out.push_back(std::to_string(line.level) + " " + line.text);
  return out;
}

}  // namespace

TEST(CreateHandleL, GivesAZeroedRecordWithMagicTypeAndOneReferenceOrNullWithoutMemory) {
  v_handle_t* h = CreateHandleL(V_HANDLE_SOCKET_EVENT);
  ASSERT_NE(h, nullptr);
  EXPECT_TRUE(h->magic == 0xdac2f746u && h->type == V_HANDLE_SOCKET_EVENT && h->ref_count == 1);
  EXPECT_TRUE(h->name == nullptr && h->poll_entry.fd == 0 && h->tail.second_fd == 0);
  EXPECT_EQ(h->global + h->manual_reset + h->overlapped, 0);
  free(h);
  testsupport::ScopedSys<decltype(commonl::sys.calloc)> no_memory(
      commonl::sys.calloc, [](size_t, size_t) -> void* { return nullptr; });
  EXPECT_EQ(CreateHandleL(V_HANDLE_FD), nullptr);
  EXPECT_EQ(log_lines(), Lines{"3 no memo"});
  EXPECT_EQ(Log::lines()[0].file, "../CommonL/Handles");
  EXPECT_EQ(Log::lines()[0].function, "CreateHandleL");
}

TEST(CloseHandle, NullIsSilentTrueRecordsItCannotReleaseAreRefusedTooManyClosesReportedAtLevel4) {
  EXPECT_EQ(CloseHandle(nullptr), TRUE);
  v_handle_t fake{}, *unknown = CreateHandleL(static_cast<v_handle_type_t>(9));
  v_handle_t* find = CreateHandleL(V_HANDLE_FIND);  // never released here
  EXPECT_EQ(CloseHandle(&fake), FALSE);
  EXPECT_EQ(CloseHandle(unknown), FALSE);
  EXPECT_EQ(CloseHandle(find), FALSE);
  EXPECT_TRUE(unknown->magic == V_HANDLE_MAGIC && find->magic == V_HANDLE_MAGIC);  // records stay
  Log::set_level(3);
  EXPECT_EQ(CloseHandle(find), FALSE);  // below zero, reported at level 4 only
  Log::set_level(2);
  EXPECT_EQ(CloseHandle(&fake), FALSE);  // "bad handle" is level 3
  Log::set_level(7);
  EXPECT_EQ(CloseHandle(find), FALSE);
  EXPECT_EQ(find->ref_count, -2);
  char too_many[128];
  snprintf(too_many, sizeof too_many, "4 CloseHandle %p called more times than should",
           static_cast<void*>(find));
  EXPECT_EQ(log_lines(),
            (Lines{"3 bad handle", "3 bad handle type",
                   "3 FindFirst handle must be close with FirstClose function", too_many}));
  free(unknown), free(find);
}

TEST(DuplicateHandle, AddsReferencesEvenConcurrentlyRefusesWhatItCannotCopyLastCloseFreesFds) {
  int fd = eventfd(0, 0), first = eventfd(0, 0), second = eventfd(0, 0);
  v_handle_t* h = CreateHandleL(V_HANDLE_FD);  // as outside code makes one
  h->tail.fd = fd;
  std::thread threads[4];
  for (auto& thread : threads)
    thread = std::thread([h, copy = HANDLE()]() mutable {
      for (int i = 0; i < 20000; i++) dup(h, &copy), CloseHandle(copy);
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(h->ref_count, 1);

  // No magic, no source, a socket event: the target is left alone; no target at all.
  v_handle_t fake{}, *socket_event = CreateHandleL(V_HANDLE_SOCKET_EVENT);
  socket_event->poll_entry = {first, POLLIN, 0};
  socket_event->tail.second_fd = second;
  HANDLE marker = reinterpret_cast<HANDLE>(0x1234), target = marker;
  for (HANDLE source : {HANDLE(&fake), HANDLE(nullptr), HANDLE(socket_event)})
    EXPECT_EQ(dup(source, &target), FALSE);
  EXPECT_EQ(target, marker);
  EXPECT_EQ(dup(h, nullptr), FALSE);
  EXPECT_TRUE(h->ref_count == 1 && socket_event->ref_count == 1);
  EXPECT_EQ(CloseHandle(socket_event), TRUE);  // closes both descriptors
  EXPECT_FALSE(fd_is_open(first) || fd_is_open(second));

  Log::set_level(0);  // level 2 is issued whatever the logger's level; arguments are ignored
  HANDLE copy1 = nullptr, copy2 = nullptr;
  ASSERT_EQ(DuplicateHandle(GetCurrentProcess(), h, nullptr, &copy1, 1, 1, 2), TRUE);
  ASSERT_EQ(dup(h, &copy2), TRUE);
  EXPECT_TRUE(copy1 == h && copy2 == h && h->ref_count == 3);
  EXPECT_TRUE(CloseHandle(copy1) && CloseHandle(h) && fd_is_open(fd));
  EXPECT_EQ(CloseHandle(copy2), TRUE);
  EXPECT_FALSE(fd_is_open(fd));
  EXPECT_EQ(log_lines(),
            (Lines{"3 bad handle", "3 bad handle", "3 Socket event handle can not be duplicated.",
                   "3 bad handle", "2 dwDesiredAccess must be zero",
                   "2 bInheritHandle must be FALSE", "2 dwOptions must be DUPLICATE_SAME_ACCESS",
                   "2 hSourceProcessHandle and hTargetProcessHandle must be equal"}));
}

TEST(ProcessAndThreadState, HandlesCarryTheirIdsAndSurviveAnyClosesLastErrorIsPerThread) {
  HANDLE process = GetCurrentProcess(), copy = nullptr;
  auto* record = static_cast<v_handle_t*>(process);
  EXPECT_EQ(process, GetCurrentProcess());
  EXPECT_TRUE(record->magic == V_HANDLE_MAGIC && record->type == V_HANDLE_PROCESS);
  EXPECT_EQ(record->tail.pid, getpid());
  for (int i = 0; i < 3; i++) EXPECT_EQ(CloseHandle(process), TRUE);
  EXPECT_EQ(record->ref_count, 0);
  EXPECT_EQ(DuplicateHandle(process, process, process, &copy, 0, 0, 0), TRUE);
  EXPECT_EQ(copy, process);
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
  // Threads ask for it at once and read it; the record is written once.
  std::vector<std::thread> askers;
  for (int t = 0; t < 4; t++)
    askers.emplace_back([process] {
      for (int i = 0; i < 1000; i++)
        EXPECT_TRUE(GetCurrentProcess() == process &&
                    __atomic_load_n(&static_cast<v_handle_t*>(process)->tail.pid,
                                    __ATOMIC_RELAXED) == getpid());
    });
  for (auto& asker : askers) asker.join();

  // The thread handle and the last error start zeroed in each thread.
  SetLastError(183);
  std::thread([] {
    v_handle_t& t = gt_thread_handle;
    EXPECT_TRUE(GetLastError() == 0 && t.magic == 0);
    EXPECT_EQ(CloseHandle(&t), FALSE);
    EXPECT_EQ(log_lines(), Lines{"3 bad handle"});
    PopulateThreadHandle();
    EXPECT_TRUE(t.magic == V_HANDLE_MAGIC && t.type == V_HANDLE_THREAD && t.ref_count == 0);
    EXPECT_TRUE(t.tail.tid == gettid() && pthread_equal(t.tail.thread, pthread_self()));
    for (int i = 0; i < 2; i++) EXPECT_EQ(CloseHandle(&t), TRUE);
    SetLastError(6);
    EXPECT_EQ(GetLastError(), 6u);
  }).join();
  EXPECT_EQ(GetLastError(), 183u);
}
