// The installed shape: an application linked against libCommonL.so and the
// logger library by name.
#include <gtest/gtest.h>

#include <thread>

#include <CommonL/CommonL.h>
#include "korvalogger.h"

TEST(SharedLibrary, EventsAndWaitsWorkAcrossThreads) {
  HANDLE done = CreateEvent(nullptr, 0, 0, nullptr);
  ASSERT_NE(done, nullptr);
  std::thread producer([&] { SetEvent(done); });
  EXPECT_EQ(WaitForSingleObject(done, 5000), WAIT_OBJECT_0);
  producer.join();
  EXPECT_EQ(CloseHandle(done), TRUE);
}

TEST(SharedLibrary, HandlesMadeOutsideTheLibraryAreClosedByIt) {
  v_handle_t* h = CreateHandleL(V_HANDLE_FD);
  ASSERT_NE(h, nullptr);
  h->tail.fd = -1;
  EXPECT_EQ(CloseHandle(h), TRUE);
}

TEST(SharedLibrary, LastErrorIsVisibleThroughTheExports) {
  EXPECT_EQ(WaitForSingleObject(nullptr, 0), WAIT_FAILED);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

// The stand-in's own behaviour; a build with COMMONL_LOGGER=system links
// another logger.
#ifdef COMMONL_TEST_LOGGER_STANDIN
TEST(LoggerStandIn, LevelComesFromTheEnvironmentAndDefaultsTo3) {
  // Each test case runs in a process of its own; the level is read once.
  unsetenv("KORVA_LOG_LEVEL");
  EXPECT_EQ(LoggerGetLevel(), 3);
}

TEST(LoggerStandIn, WritesOneLinePerMessageToStandardError) {
  setenv("KORVA_LOG_LEVEL", "7", 1);
  EXPECT_EQ(LoggerGetLevel(), 7);
  testing::internal::CaptureStderr();
  LogOutputLevel(3, "../CommonL/Handles", 42, "CloseHandle", "bad %s", "handle");
  LogOutputLevel(3, "../CommonL/WinApiProc", 7, "_beginthreadex", "_beginthreadex error\n");
  std::string out = testing::internal::GetCapturedStderr();
  EXPECT_NE(out.find("[3] ../CommonL/Handles:42 CloseHandle: bad handle\n"), std::string::npos)
      << out;
  EXPECT_NE(out.find("_beginthreadex: _beginthreadex error\n"), std::string::npos) << out;
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 2);
}
#endif
