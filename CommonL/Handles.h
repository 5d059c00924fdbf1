// The handle record shared by every kernel object, reference counting and
// the handles of the process and of the calling thread.
//
// The layout of v_handle_t and the numbers of v_handle_type_t are an
// interface: code outside the library creates handles of the types
// V_HANDLE_FD, V_HANDLE_FIND and V_HANDLE_SOCKET_EVENT with CreateHandleL
// and fills the fields itself. The static_asserts below pin them.
#pragma once

#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <stddef.h>
#include <stdint.h>

#include "WinTypes.h"

#define V_HANDLE_MAGIC 0xdac2f746u

// A fixed 32-bit type: records made outside the library may carry any
// number, and reading one is defined.
typedef enum : int32_t {
  V_HANDLE_EVENT = 0,         // events and waitable timers; waitable
  V_HANDLE_FD = 1,            // owns tail.fd; created outside CommonL
  V_HANDLE_PROCESS = 2,       // the static process handle
  V_HANDLE_FIND = 3,          // a FindFirst search; closed by its own function
  V_HANDLE_SOCKET_EVENT = 4,  // created outside CommonL; waitable
  V_HANDLE_SEMAPHORE = 5,     // waitable by WaitForSingleObject only
  V_HANDLE_THREAD = 6,        // a thread's gt_thread_handle
  V_HANDLE_MUTEX = 7          // waitable as the single handle of a wait
} v_handle_type_t;

typedef struct v_handle {
  uint32_t magic;              // V_HANDLE_MAGIC on every live record
  v_handle_type_t type;
  struct pollfd poll_entry;    // events and socket events; zero otherwise
  char* name;                  // named events and mutexes: owned heap copy
  int32_t global;              // events: the name begins with "Global"
  int32_t manual_reset;        // events: 0 is auto-reset
  int32_t overlapped;          // events: set by outside code only
  int32_t ref_count;           // open references; changed atomically only
  // Outside code names the members of the anonymous structs directly
  // (tail.second_fd, tail.tid); __extension__ keeps pedantic builds quiet.
  union {
    int32_t fd;                // V_HANDLE_FD: the owned descriptor
    int32_t pid;               // V_HANDLE_PROCESS
    __extension__ struct {     // V_HANDLE_SOCKET_EVENT
      int32_t creator_word;
      int32_t second_fd;       // a second owned descriptor
      void* creator_data[3];
      uint16_t last_revents;   // what the last wait's ppoll reported
    };
    sem_t sem;                 // V_HANDLE_SEMAPHORE
    __extension__ struct {     // V_HANDLE_THREAD
      int32_t tid;             // kernel thread id
      pthread_t thread;
    };
    pthread_mutex_t mutex;     // V_HANDLE_MUTEX; the largest member
  } tail;
} v_handle_t;

static_assert(sizeof(v_handle_type_t) == 4, "v_handle_type_t is 32 bits");
static_assert(V_HANDLE_EVENT == 0 && V_HANDLE_FD == 1 && V_HANDLE_PROCESS == 2 &&
                  V_HANDLE_FIND == 3 && V_HANDLE_SOCKET_EVENT == 4 &&
                  V_HANDLE_SEMAPHORE == 5 && V_HANDLE_THREAD == 6 && V_HANDLE_MUTEX == 7,
              "v_handle_type_t numbers are an interface");
static_assert(offsetof(v_handle_t, magic) == 0, "v_handle_t layout");
static_assert(offsetof(v_handle_t, type) == 4, "v_handle_t layout");
static_assert(offsetof(v_handle_t, poll_entry) == 8, "v_handle_t layout");
static_assert(offsetof(v_handle_t, name) == 16, "v_handle_t layout");
static_assert(offsetof(v_handle_t, global) == 24, "v_handle_t layout");
static_assert(offsetof(v_handle_t, manual_reset) == 28, "v_handle_t layout");
static_assert(offsetof(v_handle_t, overlapped) == 32, "v_handle_t layout");
static_assert(offsetof(v_handle_t, ref_count) == 36, "v_handle_t layout");
static_assert(offsetof(v_handle_t, tail) == 40, "v_handle_t layout");
static_assert(offsetof(v_handle_t, tail.second_fd) == 44, "v_handle_t layout");
static_assert(offsetof(v_handle_t, tail.thread) == 48, "v_handle_t layout");
static_assert(sizeof(((v_handle_t*)0)->tail) == sizeof(pthread_mutex_t),
              "the mutex sets the size of the tail");
static_assert(sizeof(v_handle_t) == 80, "v_handle_t layout");

// The calling thread's handle record, all zero until PopulateThreadHandle.
extern __thread COMMONL_API v_handle_t gt_thread_handle;

COMMONL_API v_handle_t* CreateHandleL(v_handle_type_t type);
COMMONL_API BOOL CloseHandle(HANDLE hObject);
COMMONL_API BOOL DuplicateHandle(HANDLE hSourceProcessHandle, HANDLE hSourceHandle,
                                 HANDLE hTargetProcessHandle, HANDLE* lpTargetHandle,
                                 DWORD dwDesiredAccess, BOOL bInheritHandle, DWORD dwOptions);
COMMONL_API HANDLE GetCurrentProcess();
COMMONL_API void PopulateThreadHandle();
