// Names in the global namespace.
#define SHUTDOWN_EVENT "Global\\RecorderShutdown"  // expect: global-name
void open_objects() {
  HANDLE stop = CreateEvent(NULL, TRUE, FALSE, "Global\\Stop");  // expect: global-name
  HANDLE lock = CreateMutex(NULL, FALSE, "GlobalStore");  // expect: global-name
  HANDLE tick = CreateWaitableTimer(NULL, FALSE, L"Global\\Tick");  // expect: global-name
  HANDLE local = CreateEvent(NULL, TRUE, FALSE, "Local\\Stop");
  HANDLE mine = CreateMutex(NULL, FALSE, "MyGlobalStore");
  log("Global settings loaded");
  // "Global\\Commented" is no use of it
}
