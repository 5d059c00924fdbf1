// A semaphore or a mutex among the handles of one wait.
void serve() {
  HANDLE jobs = CreateSemaphore(NULL, 0, 16, NULL);
  HANDLE lock = CreateMutex(NULL, FALSE, "queue");
  HANDLE stop = CreateEvent(NULL, TRUE, FALSE, NULL);
  HANDLE both[] = {stop, jobs};
  HANDLE guarded[2] = {stop, lock};
  HANDLE events[2] = {stop, stop};
  std::vector<HANDLE> pending;
  pending.push_back(lock);
  HANDLE slots[2];
  slots[0] = stop;
  slots[1] = CreateSemaphore(NULL, 0, 1, NULL);
  WaitForMultipleObjects(2, both, FALSE, INFINITE);  // expect: wait-sync-among
  WaitForMultipleObjects(2, guarded, FALSE, 100);  // expect: wait-sync-among
  WaitForMultipleObjects(pending.size(), pending.data(), FALSE, 100);  // expect: wait-sync-among
  WaitForMultipleObjects(2, slots, FALSE, 100);  // expect: wait-sync-among
  WaitForMultipleObjects(1, &jobs, FALSE, 100);  // expect: wait-sync-among
  WaitForMultipleObjects(1, &lock, FALSE, 100);
  WaitForMultipleObjects(2, events, FALSE, 100);
  WaitForSingleObject(jobs, INFINITE);
  WaitForSingleObject(lock, INFINITE);
}
