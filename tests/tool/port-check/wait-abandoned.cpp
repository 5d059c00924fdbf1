// A wait that expects an abandoned mutex.
void take(HANDLE lock) {
  DWORD r = WaitForSingleObject(lock, INFINITE);
  if (r == WAIT_ABANDONED) repair();  // expect: wait-abandoned
  if (r >= WAIT_ABANDONED_0 && r < WAIT_ABANDONED_0 + 4) repair();  // expect: wait-abandoned
  if (r == WAIT_OBJECT_0) work();
  // WAIT_ABANDONED in a comment is no use of it
  int WAIT_ABANDONED_COUNT = 0;
}
