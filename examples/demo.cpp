// The road of one signal: producer threads signal auto-reset and
// manual-reset events, a consumer waits for any of them with a time-out, and
// the lowest signalled index wins.
#include <stdio.h>

#include <chrono>
#include <initializer_list>
#include <thread>

#include "CommonL.h"

static const auto start = std::chrono::steady_clock::now();

static void say(const char* who, const char* text) {
  std::chrono::duration<double, std::milli> ms = std::chrono::steady_clock::now() - start;
  printf("%7.2f ms  %-9s %s\n", ms.count(), who, text);
  fflush(stdout);
}

int main() {
  HANDLE alarm = CreateEvent(NULL, FALSE, FALSE, NULL);          // auto-reset, index 0
  HANDLE frame = CreateEvent(NULL, FALSE, FALSE, "frame-ready");  // auto-reset, index 1
  HANDLE stop = CreateEvent(NULL, TRUE, FALSE, NULL);             // manual-reset, index 2
  HANDLE go = CreateEvent(NULL, FALSE, FALSE, NULL);              // the demo's pacing
  HANDLE done = CreateEvent(NULL, FALSE, FALSE, NULL);
  if (!alarm || !frame || !stop || !go || !done) {
    fprintf(stderr, "CreateEvent failed\n");
    return 1;
  }
  const char* names[] = {"alarm (auto-reset)", "frame-ready (auto-reset)", "stop (manual-reset)"};

  std::thread consumer([&] {
    HANDLE handles[] = {alarm, frame, stop};
    int stops_seen = 0;
    while (stops_seen < 2) {
      WaitForSingleObject(go, INFINITE);
      DWORD result = WaitForMultipleObjects(3, handles, FALSE, 100);
      char text[96];
      if (result == WAIT_TIMEOUT)
        snprintf(text, sizeof text, "WaitForMultipleObjects -> WAIT_TIMEOUT after 100 ms");
      else if (result == WAIT_FAILED)
        snprintf(text, sizeof text, "WaitForMultipleObjects -> WAIT_FAILED");
      else
        snprintf(text, sizeof text, "WaitForMultipleObjects -> %u: %s", result, names[result]);
      say("consumer", text);
      if (result == 2) stops_seen++;
      SetEvent(done);
    }
  });
  auto consume = [&] {
    SetEvent(go);
    WaitForSingleObject(done, INFINITE);
  };

  say("main", "1. one producer signals frame-ready");
  std::thread([&] {
    say("camera", "SetEvent(frame-ready)");
    SetEvent(frame);
  }).join();
  consume();

  say("main", "2. two producers signal alarm and frame-ready before the consumer looks");
  std::thread camera([&] {
    say("camera", "SetEvent(frame-ready)");
    SetEvent(frame);
  });
  std::thread sensor([&] {
    say("sensor", "SetEvent(alarm)");
    SetEvent(alarm);
  });
  camera.join();
  sensor.join();
  say("main", "   the lowest index wins; frame-ready keeps its signal for the next wait");
  consume();
  consume();

  say("main", "3. nothing is signalled: the wait times out");
  consume();

  say("main", "4. stop is manual-reset: every wait sees it until ResetEvent");
  std::thread([&] {
    say("operator", "SetEvent(stop)");
    SetEvent(stop);
  }).join();
  consume();
  consume();
  consumer.join();

  ResetEvent(stop);
  say("main", WaitForSingleObject(stop, 0) == WAIT_TIMEOUT ? "ResetEvent(stop): no longer signalled"
                                                           : "ResetEvent(stop) failed");
  for (HANDLE h : {alarm, frame, stop, go, done}) CloseHandle(h);
  return 0;
}
