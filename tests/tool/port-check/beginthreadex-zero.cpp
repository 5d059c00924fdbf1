// The result of _beginthreadex taken for 0 on failure.
void start(unsigned (*body)(void*)) {
  uintptr_t worker = _beginthreadex(NULL, 0, body, NULL, 0, NULL);
  if (worker == 0) fail();  // expect: beginthreadex-zero
  if (!worker) fail();  // expect: beginthreadex-zero
  if (NULL != worker) ok();  // expect: beginthreadex-zero
  HANDLE reader = (HANDLE)_beginthreadex(NULL, 0, body, NULL, 0, NULL);
  if (reader == NULL) fail();  // expect: beginthreadex-zero
  if (_beginthreadex(NULL, 0, body, NULL, 0, NULL) == 0) fail();  // expect: beginthreadex-zero
  if (!_beginthreadex(NULL, 0, body, NULL, 0, NULL)) fail();  // expect: beginthreadex-zero
  if ((worker = _beginthreadex(NULL, 0, body,  // expect: beginthreadex-zero
                               NULL, 0, NULL)) == 0)
    fail();
  if (worker == (uintptr_t)-1) fail();
  if (reader != INVALID_HANDLE_VALUE) ok();
  int started = 0;
  if (started == 0) none();
}
