// The installed shape: an application linked against libCommonL.so and the
// logger library by name. Each test case runs in a process of its own, and
// the logger reads its level once.
#include <gtest/gtest.h>

#include <regex>

#include <CommonL/CommonL.h>
#include "korvalogger.h"

TEST(SharedLibrary, EventsWaitsHandlesAndTheLastErrorWorkThroughTheExportsTheLevelIs3) {
  unsetenv("KORVA_LOG_LEVEL");
  HANDLE done = CreateEvent(nullptr, 0, 1, nullptr);  // signalled
  v_handle_t* fd = CreateHandleL(V_HANDLE_FD);  // as an application makes one
  fd->tail.fd = -1;
  EXPECT_TRUE(WaitForSingleObject(done, 0) == 0 && CloseHandle(done) && CloseHandle(fd));
  EXPECT_TRUE(WaitForSingleObject(0, 0) == ~0u && GetLastError() == 6 && LoggerGetLevel() == 3);
}

TEST(LoggerStandIn, TakesItsLevelFromTheEnvironmentAndWritesOneLinePerMessage) {
  setenv("KORVA_LOG_LEVEL", "7", 1);
  testing::internal::CaptureStderr();
  EXPECT_TRUE(LoggerGetLevel() == 7 && !DuplicateHandle(0, 0, 0, 0, 0, 0, 0));  // reported at 3
  LogOutputLevel(3, "../CommonL/WinApiProc", 7, "_beginthreadex", "_beginthreadex error\n");
  const std::regex stamp_and_line(".* \\[(.)\\] (.*):\\d+ ");  // left out of the comparison
  EXPECT_EQ(std::regex_replace(testing::internal::GetCapturedStderr(), stamp_and_line, "$1 $2 "),
            "3 ../CommonL/Handles DuplicateHandle: bad handle\n"
            "3 ../CommonL/WinApiProc _beginthreadex: _beginthreadex error\n");
}
