// Periodic waitable timers. A declaration is no call.
BOOL SetWaitableTimer(HANDLE timer, const LARGE_INTEGER* due, long lPeriod, void (*routine)(void*),
                      void* arg, BOOL resume);
void arm(HANDLE timer, LARGE_INTEGER* due) {
  SetWaitableTimer(timer, due, 1000, on_tick, NULL, FALSE);  // expect: timer-period
  SetWaitableTimer(timer, due, period_ms, NULL, NULL, FALSE);  // expect: timer-period
  SetWaitableTimer(timer, due, 0, on_tick, NULL, FALSE);
  SetWaitableTimer(timer, due, 0L, NULL, NULL, FALSE);
}
