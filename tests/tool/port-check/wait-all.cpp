// Waits for all of several handles at once.
void wait_for_workers(HANDLE* done, DWORD count) {
  WaitForMultipleObjects(count, done, TRUE, INFINITE);  // expect: wait-all
  WaitForMultipleObjects(count, done, true, 1000);  // expect: wait-all
  WaitForMultipleObjects(sizeof(done) / sizeof(done[0]),  // expect: wait-all
                         done, 1, INFINITE);
  WaitForMultipleObjects(count, done, FALSE, INFINITE);
  WaitForMultipleObjects(count, done, 0, f(1, TRUE));
  WaitForSingleObject(done[0], INFINITE);
}
