// Waits on thread handles.
void join(unsigned (*body)(void*)) {
  HANDLE worker = (HANDLE)_beginthreadex(NULL, 0, body, NULL, 0, NULL);
  HANDLE threads[2];
  threads[0] = worker;
  WaitForSingleObject(worker, INFINITE);  // expect: wait-thread
  WaitForSingleObject(GetCurrentThread(), 0);  // expect: wait-thread
  WaitForMultipleObjects(1, threads, FALSE, INFINITE);  // expect: wait-thread
  HANDLE finished = CreateEvent(NULL, TRUE, FALSE, NULL);
  WaitForSingleObject(finished, INFINITE);
  SetThreadPriority(worker, 4);
}
