// Relative due times for waitable timers.
void arm(HANDLE timer, LONGLONG absolute) {
  LARGE_INTEGER due;
  due.QuadPart = -10000000LL;
  SetWaitableTimer(timer, &due, 0, NULL, NULL, FALSE);  // expect: relative-due-time
  due.QuadPart = absolute;
  SetWaitableTimer(timer, &due, 0, NULL, NULL, FALSE);
  LARGE_INTEGER* later = &due;
  later->QuadPart = -(LONGLONG)5 * 10000000;
  SetWaitableTimer(timer, later, 0, NULL, NULL, FALSE);  // expect: relative-due-time
  LARGE_INTEGER at;
  at.QuadPart = absolute - 10;
  SetWaitableTimer(timer, &at, 0, NULL, NULL, FALSE);
}
