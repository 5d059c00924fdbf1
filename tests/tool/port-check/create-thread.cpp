// Threads started with CreateThread.
void start(LPTHREAD_START_ROUTINE body) {
  HANDLE worker = CreateThread(NULL, 0, body, NULL, 0, NULL);  // expect: create-thread
  HANDLE other = ::CreateThread(NULL, 0, body, NULL, 0, NULL);  // expect: create-thread
  uintptr_t reader = _beginthreadex(NULL, 0, reader_main, NULL, 0, NULL);
  MyCreateThread(body);
  // CreateThread( in a comment is no use of it
}
