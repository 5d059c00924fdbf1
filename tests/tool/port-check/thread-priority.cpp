// Win32 priorities given to SetThreadPriority.
void tune(HANDLE worker) {
  SetThreadPriority(worker, THREAD_PRIORITY_HIGHEST);  // expect: thread-priority
  SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_BELOW_NORMAL);  // expect: thread-priority
  SetThreadPriority(worker, -2);  // expect: thread-priority
  SetThreadPriority(worker, 0);  // expect: thread-priority
  SetThreadPriority(worker, 15);  // expect: thread-priority
  SetThreadPriority(worker, 4);
  SetThreadPriority(worker, 7);
  SetThreadPriority(worker, priority_for(THREAD_PRIORITY_HIGHEST));
}
