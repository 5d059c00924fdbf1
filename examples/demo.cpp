// The road of one signal: producer threads signal auto-reset and
// manual-reset events, a consumer waits for any of them with a time-out, and
// the lowest signalled index wins. Then a worker pool started with
// _beginthreadex shares a job queue through a named mutex and a semaphore.
// Last, the road of one alarm tone: the machine's model from its system
// information, the catalogue's answer for it, and MessageBeep.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <chrono>
#include <initializer_list>
#include <string>
#include <thread>
#include <vector>

#include <CommonL/CommonL.h>

static const auto start = std::chrono::steady_clock::now();

static void say(const char* who, const char* text) {
  std::chrono::duration<double, std::milli> ms = std::chrono::steady_clock::now() - start;
  printf("%7.2f ms  %-9s %s\n", ms.count(), who, text);
  fflush(stdout);
}

// --- the worker pool ---

static const int kWorkers = 3;
static const int kJobs = 8;

struct Queue {
  std::vector<int> jobs;   // guarded by the named mutex "job-queue"
  HANDLE queued = nullptr;  // semaphore: one count per queued job
};

struct Worker {
  Queue* queue;
  int number;
  HANDLE finished;  // set when the worker leaves
};

static unsigned int worker_main(void* arg) {
  Worker* me = static_cast<Worker*>(arg);
  char who[16];
  snprintf(who, sizeof who, "worker %d", me->number);
  // Each worker opens the queue's lock by its name: one object for all.
  HANDLE lock = CreateMutex(NULL, FALSE, "job-queue");
  bool reopened = GetLastError() == ERROR_ALREADY_EXISTS;
  char text[96];
  snprintf(text, sizeof text, "started, tid %u, CreateMutex(\"job-queue\") %s", GetCurrentThreadId(),
           reopened ? "found the existing mutex" : "made the mutex");
  say(who, text);
  for (;;) {
    WaitForSingleObject(me->queue->queued, INFINITE);
    WaitForSingleObject(lock, INFINITE);
    int job = me->queue->jobs.front();
    me->queue->jobs.erase(me->queue->jobs.begin());
    size_t left = me->queue->jobs.size();
    ReleaseMutex(lock);
    if (job < 0) break;
    snprintf(text, sizeof text, "took job %d, %zu left in the queue", job, left);
    say(who, text);
  }
  say(who, "stop job taken, leaving");
  CloseHandle(lock);
  SetEvent(me->finished);
  return 0;
}

static void worker_pool() {
  say("main", "5. a pool of workers shares a queue: a named mutex guards it, a semaphore counts it");
  Queue queue;
  queue.queued = CreateSemaphore(NULL, 0, kJobs + kWorkers, NULL);
  HANDLE lock = CreateMutex(NULL, FALSE, "job-queue");
  Worker workers[kWorkers];
  HANDLE finished[kWorkers];
  for (int i = 0; i < kWorkers; i++) {
    finished[i] = CreateEvent(NULL, TRUE, FALSE, NULL);
    workers[i] = Worker{&queue, i + 1, finished[i]};
    unsigned int tid = 0;
    uintptr_t thread = _beginthreadex(NULL, 0, worker_main, &workers[i], 0, &tid);
    if (thread == static_cast<uintptr_t>(-1)) say("main", "_beginthreadex failed");
  }
  // Jobs 1..kJobs, then one stop job (-1) per worker.
  for (int job = 1; job <= kJobs + kWorkers; job++) {
    WaitForSingleObject(lock, INFINITE);
    queue.jobs.push_back(job <= kJobs ? job : -1);
    ReleaseMutex(lock);
    ReleaseSemaphore(queue.queued, 1, NULL);
  }
  // bWaitAll is not supported: wait for the workers one after the other.
  for (int i = 0; i < kWorkers; i++) WaitForSingleObject(finished[i], INFINITE);
  say("main", "every worker has left; the queue is empty");
  for (HANDLE h : finished) CloseHandle(h);
  CloseHandle(lock);
  CloseHandle(queue.queued);
}

// --- the road of one alarm tone ---

static void alarm_tone() {
  say("main", "6. the road of one alarm tone: system information, catalogue, sound");
  const char* sysinfo = COMMONL_RESOURCES_DIR "/sysinfo.json";
  const char* catalogue = COMMONL_RESOURCES_DIR "/hw-models.conf";
  char text[192];
  LinuxInfo_t* info = GetLinuxInfoEx(sysinfo);
  if (info == nullptr) {
    say("main", "GetLinuxInfoEx(sample) failed");
  } else {
    // The model keeps the line feed of the record; the catalogue allows for it.
    snprintf(text, sizeof text, "sample sysinfo.json: model \"%.*s\", %d MB of RAM, serial %.*s",
             static_cast<int>(strcspn(info->Model, "\n")), info->Model, info->Ram,
             static_cast<int>(strcspn(info->SerialNumber, "\n")), info->SerialNumber);
    say("main", text);
    CHwModel model = GetModelInfo(info->Model, catalogue);
    snprintf(text, sizeof text, "sample hw-models.conf: entry \"%s\", alarms %s", model.Model.c_str(),
             useBuzzerForAlarms(info->Model, catalogue) ? "on the buzzer (beep)"
                                                       : "through the sound file (paplay)");
    say("main", text);
    free(info);
  }
  // MessageBeep reads the installation's own sysinfo.json; the catalogue
  // stays the sample loaded above, since a process loads it once.
  info = GetLinuxInfo();
  snprintf(text, sizeof text, "this machine's sysinfo.json: %s",
           info ? "found" : "missing, so the model is unknown and the sound file plays");
  say("main", text);
  free(info);
  int result = MessageBeep(0x30);
  snprintf(text, sizeof text, "MessageBeep(0x30, exclamation) -> %d (%s)", result,
           result ? "the shell started the sound" : "the sound command failed");
  say("main", text);
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

  worker_pool();
  alarm_tone();
  return 0;
}
