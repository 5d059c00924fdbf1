// A WAIT_TIMEOUT of the file's own.
#ifndef WAIT_TIMEOUT
#define WAIT_TIMEOUT 258L  // expect: wait-timeout-defined
#endif
static const DWORD WAIT_TIMEOUT = 0x102;  // expect: wait-timeout-defined
enum { WAIT_TIMEOUT = 258 };  // expect: wait-timeout-defined

bool timed_out(DWORD r) { return r == WAIT_TIMEOUT; }
DWORD MY_WAIT_TIMEOUT = 5;
