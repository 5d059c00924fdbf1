// Semaphores.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "CommonL.h"
#include "support.h"

using testsupport::Log;

TEST(Semaphore, CountsAreKeptAndTheMaximumIsNotEnforced) {
  HANDLE s = CreateSemaphore(nullptr, 2, 1, nullptr);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(WaitForSingleObject(s, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSemaphore(s, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(s, 0), WAIT_TIMEOUT);

  EXPECT_EQ(ReleaseSemaphore(s, 3, nullptr), TRUE);
  for (int i = 0; i < 3; i++) EXPECT_EQ(WaitForSingleObject(s, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(s, 20), WAIT_TIMEOUT);
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
  EXPECT_EQ(CloseHandle(s), TRUE);
}

TEST(Semaphore, UnsupportedArgumentsAreReportedAtLevel2) {
  Log::set_level(0);
  HANDLE a = CreateSemaphore(nullptr, 0, 1, "named");
  HANDLE b = CreateSemaphore(nullptr, 0, 1, "named");
  EXPECT_NE(a, b);  // names play no part
  EXPECT_EQ(Log::count(2, "Named Semaphore not supported"), 2);

  long previous = 77;
  EXPECT_EQ(ReleaseSemaphore(a, 1, &previous), TRUE);
  EXPECT_EQ(previous, 77);
  EXPECT_EQ(Log::count(2, "Previous count value not available"), 1);
  EXPECT_EQ(ReleaseSemaphore(a, 0, nullptr), TRUE);
  EXPECT_EQ(ReleaseSemaphore(a, -1, nullptr), TRUE);
  EXPECT_EQ(Log::count(2, "lReleaseCount must be > 0"), 2);
  EXPECT_EQ(WaitForSemaphore(a, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSemaphore(a, 0), WAIT_TIMEOUT);
  CloseHandle(a);
  CloseHandle(b);
}

TEST(Semaphore, BadHandlesGiveInvalidHandle) {
  HANDLE e = CreateEvent(nullptr, 0, 1, nullptr);
  SetLastError(0);
  EXPECT_EQ(WaitForSemaphore(e, 0), WAIT_FAILED);
  EXPECT_EQ(GetLastError(), 6u);
  SetLastError(0);
  EXPECT_EQ(ReleaseSemaphore(e, 1, nullptr), FALSE);
  EXPECT_EQ(GetLastError(), 6u);
  SetLastError(0);
  EXPECT_EQ(ReleaseSemaphore(nullptr, 1, nullptr), FALSE);
  EXPECT_EQ(GetLastError(), 6u);
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
  EXPECT_EQ(WaitForSingleObject(e, 0), WAIT_OBJECT_0);  // untouched
  CloseHandle(e);
}

TEST(Semaphore, InitialCountAboveTheSystemBoundIsRefused) {
  EXPECT_EQ(CreateSemaphore(nullptr, 0x80000000L, 1, nullptr), nullptr);
  EXPECT_EQ(Log::count(3, "Fail to create native semaphore"), 1);
}

TEST(Semaphore, DuplicatesShareOneCount) {
  HANDLE s = CreateSemaphore(nullptr, 0, 10, nullptr);
  HANDLE copy = nullptr;
  ASSERT_EQ(DuplicateHandle(GetCurrentProcess(), s, GetCurrentProcess(), &copy, 0, 0, 0), TRUE);
  ReleaseSemaphore(copy, 1, nullptr);
  EXPECT_EQ(CloseHandle(copy), TRUE);
  EXPECT_EQ(WaitForSingleObject(s, 0), WAIT_OBJECT_0);
  EXPECT_EQ(CloseHandle(s), TRUE);
}

TEST(Semaphore, ProducersAndConsumersBalance) {
  HANDLE s = CreateSemaphore(nullptr, 0, 1, nullptr);
  std::atomic<int> taken{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; t++)
    threads.emplace_back([&] {
      for (int i = 0; i < 5000; i++)
        if (WaitForSingleObject(s, INFINITE) == WAIT_OBJECT_0) taken++;
    });
  for (int t = 0; t < 2; t++)
    threads.emplace_back([&] {
      for (int i = 0; i < 2500; i++) ReleaseSemaphore(s, 2, nullptr);
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(taken.load(), 10000);
  EXPECT_EQ(WaitForSingleObject(s, 0), WAIT_TIMEOUT);
  CloseHandle(s);
}
