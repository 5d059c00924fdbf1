// A wait result compared with Win32's number for WAIT_TIMEOUT, or with a
// name of this file's own for it.
#define MY_TIMEOUT 258

void poll_camera(HANDLE frame, HANDLE stop) {
  DWORD r = WaitForSingleObject(frame, 100);
  if (r == 258) return;  // expect: wait-timeout-value
  if (0x102 != r) return;  // expect: wait-timeout-value
  if (r == MY_TIMEOUT) return;  // expect: wait-timeout-value
  if (WaitForSingleObject(stop, 0) == 0x102u) return;  // expect: wait-timeout-value
  switch (WaitForMultipleObjects(2, handles, FALSE, 50)) {
    case 258:  // expect: wait-timeout-value
      break;
  }
  if (r == WAIT_TIMEOUT) return;
  int frames = 258;
  if (frames == 258) return;
  switch (frames) {
    case 258:
      break;
  }
  // r == 258 in a comment is no use of it
}
