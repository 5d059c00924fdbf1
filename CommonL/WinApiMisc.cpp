// The per-thread last-error value, the library's seams to the system, the
// machine's sysinfo.json, the alarm sound and the small Win32 calls.
#define COMMONL_UNIT "../CommonL/WinApiMisc"

#include "WinApiMisc.h"

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "HwModels.h"
#include "internal.h"

// The library carries jsmn and exports its two functions.
#pragma GCC visibility push(default)
#include <jsmn.h>
#pragma GCC visibility pop

using commonl::sys;

namespace commonl {

Sys sys = {
    ::eventfd, ::read, ::write, ::ppoll, ::calloc, ::free, ::strdup, ::pthread_mutex_lock,
    ::pthread_mutex_init, ::system, ::settimeofday, ::pthread_create,
    ::pthread_attr_getschedparam, ::popen, ::pclose, ::gettimeofday, ::time, ::clock_gettime,
    ::nanosleep, ::usleep, ::fopen, ::getpwuid,
};

Paths paths = {
    "/opt/Tessend/KORVA/resources/sysinfo.json",
    "/opt/Tessend/KORVA/resources/hw-models.conf",
    "/etc/timezone",
};

// The size of the open file by a seek to its end, or -1. A directory (whose
// seek gives LONG_MAX) or a pipe has no such size: what the system gives as
// its size stands then, and the read shows whether anything can be read. A
// plain file beyond 32 bits has no size the library can use.
static long _file_size(FILE* file) {
  const long end = fseek(file, 0, SEEK_END) == 0 ? ftell(file) : -1;
  rewind(file);
  if (end >= 0 && end <= INT32_MAX) return end;
  struct stat info;
  if (fstat(fileno(file), &info) != 0 || S_ISREG(info.st_mode)) return -1;
  return static_cast<long>(info.st_size);
}

char* read_whole_file(const char* path, const FileMessages& messages, const char* unit,
                      const char* function, int32_t* size) {
  // A thread cancelled in the read still closes the file as it unwinds.
  std::unique_ptr<FILE, int (*)(FILE*)> file(sys.fopen(path, "r"), fclose);
  if (!file) {
    KLOG_AT(unit, function, 3, messages.missing, path);
    return nullptr;
  }
  const long end = _file_size(file.get());
  if (end < 0 || end > INT32_MAX) {
    KLOG_AT(unit, function, 3, messages.too_large, path);
    return nullptr;
  }
  if (end == 0) {
    KLOG_AT(unit, function, 3, messages.empty, path);
    return nullptr;
  }
  *size = static_cast<int32_t>(end);
  std::unique_ptr<char, void (*)(void*)> text(
      static_cast<char*>(sys.calloc(static_cast<size_t>(*size) + 1, 1)), sys.free);
  if (!text) {
    // A message's own literal text that takes no argument, held in
    // `messages`, where clang can not see it is a literal.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    KLOG_AT(unit, function, 3, messages.no_memory);
#pragma GCC diagnostic pop
    return nullptr;
  }
  size_t count = fread(text.get(), 1, static_cast<size_t>(*size), file.get());
  file.reset();
  if (count != static_cast<size_t>(*size)) {
    KLOG_AT(unit, function, 3, messages.short_read, *size, static_cast<int>(count));
    return nullptr;
  }
  return text.release();
}

}  // namespace commonl

static __thread DWORD _last_error;

DWORD GetLastError() { return _last_error; }

void SetLastError(DWORD dwErrCode) { _last_error = dwErrCode; }

// --- system information ---

namespace {

// Where a known key's value goes; Ram is formatted into a local buffer and
// converted instead.
struct _InfoField {
  const char* key;
  size_t offset;
  size_t size;  // for snprintf, line feed and NUL included
};

const size_t _RAM = static_cast<size_t>(-1);

const _InfoField _info_fields[] = {
    {"ProductName", offsetof(LinuxInfo_t, ProductName), sizeof(LinuxInfo_t::ProductName)},
    {"SerialNumber", offsetof(LinuxInfo_t, SerialNumber), sizeof(LinuxInfo_t::SerialNumber)},
    {"Model", offsetof(LinuxInfo_t, Model), sizeof(LinuxInfo_t::Model)},
    {"Cpu", offsetof(LinuxInfo_t, Cpu), sizeof(LinuxInfo_t::Cpu)},
    {"Ram", _RAM, 64},
};

const int _MAX_TOKENS = 32;

}  // namespace

static const _InfoField* _info_field(const char* text, int length) {
  for (const _InfoField& field : _info_fields)
    if (strlen(field.key) == static_cast<size_t>(length) &&
        memcmp(field.key, text, static_cast<size_t>(length)) == 0)
      return &field;
  return nullptr;
}

static const commonl::FileMessages _INFO_FILE_MESSAGES = {
    "Missing Linux info file %s",
    "Empty Linux info file: %s",
    "No memo for Linux info file",
    "Fail to read Linux info file, expected %d bytes, read %d",
    "Too large Linux info file: %s",
};

LinuxInfo_t* GetLinuxInfoEx(char const* path) {
  if (path == nullptr) {
    KLOG(2, "GetLinuxInfoEx: path == NULL");
    return nullptr;
  }
  int32_t size = 0;
  std::unique_ptr<char, void (*)(void*)> buffer(
      commonl::read_whole_file(path, _INFO_FILE_MESSAGES, COMMONL_UNIT, __func__, &size),
      sys.free);
  if (!buffer) return nullptr;
  const char* text = buffer.get();

  jsmn_parser parser;
  jsmntok_t tokens[_MAX_TOKENS];
  jsmn_init(&parser);
  const int found = jsmn_parse(&parser, text, static_cast<size_t>(size), tokens, _MAX_TOKENS);
  if (found < 0) {
    KLOG(3, "Failed to parse JSON: %d\n", found);
    return nullptr;
  }
  if (found == 0 || tokens[0].type != JSMN_OBJECT) {
    KLOG(3, "Object expected\n");
    return nullptr;
  }
  auto* info = static_cast<LinuxInfo_t*>(sys.calloc(1, sizeof(LinuxInfo_t)));
  if (info == nullptr) {
    KLOG(3, "no memo for LinuxInfo_t\n");
    return nullptr;
  }

  // A flat walk: every token is taken for a key, and the one behind a known
  // key for its value, whatever the nesting.
  for (int i = 1; i < found;) {
    const char* key = text + tokens[i].start;
    const int key_length = tokens[i].end - tokens[i].start;
    const _InfoField* field = _info_field(key, key_length);
    if (field == nullptr) {
      KLOG(3, "Unexpected key: %.*s\n", key_length, key);
      i++;
      continue;
    }
    // A known key as the last token has no value that jsmn filled in.
    if (i + 1 >= found) break;
    const char* value = text + tokens[i + 1].start;
    const int value_length = tokens[i + 1].end - tokens[i + 1].start;
    if (field->offset == _RAM) {
      char number[64];
      snprintf(number, sizeof number, "%.*s\n", value_length, value);
      // Cut to the low 32 bits.
      info->Ram = static_cast<int32_t>(static_cast<uint32_t>(strtol(number, nullptr, 10)));
    } else {
      snprintf(reinterpret_cast<char*>(info) + field->offset, field->size, "%.*s\n", value_length,
               value);
    }
    i += 2;
  }
  return info;
}

LinuxInfo_t* GetLinuxInfo() { return GetLinuxInfoEx(commonl::paths.sysinfo); }

// --- the alarm sound ---

char const* const gNexcomModels[3] = {"NViS-1482", "NVR-1U-8CH", nullptr};

static const char* const _SOUND_FILE = "/usr/share/sounds/sound-icons/cembalo-2.wav";
static const unsigned int _MESSAGE_BEEP_MS = 400;

// The catalogue's answer for this machine's model, asked anew each time. A
// machine whose system information cannot be read counts as an unknown model.
static bool _use_buzzer() {
  std::unique_ptr<LinuxInfo_t, void (*)(void*)> info(GetLinuxInfo(), free);
  if (!info) return false;
  return useBuzzerForAlarms(info->Model, commonl::paths.hw_models);
}

// The shell puts the player in the background: the result tells only that
// the job could be started.
static int play_file(char const* path) {
  const std::string command = std::string("paplay ") + path + " &";
  return sys.system(command.c_str()) == 0 ? 1 : 0;
}

int Beep(unsigned int dwFreq, unsigned int dwDuration) {
  if (!_use_buzzer()) return play_file(_SOUND_FILE);
  const std::string command =
      "beep -f " + std::to_string(dwFreq) + " -l " + std::to_string(dwDuration);
  return sys.system(command.c_str()) == 0 ? 1 : 0;
}

int MessageBeep(unsigned int uType) {
  if (!_use_buzzer()) return play_file(_SOUND_FILE);
  unsigned int frequency;
  switch (uType) {
    case 0x10:
      frequency = 600;
      break;
    case 0x30:
      frequency = 523;
      break;
    case 0x40:
      frequency = 440;
      break;
    case 0xFFFFFFFFu:
      frequency = 500;
      break;
    default:
      frequency = 755;
      break;
  }
  return Beep(frequency, _MESSAGE_BEEP_MS);
}

// --- small Win32 calls ---

// Win32 gives these no failure result: a NULL target is reported and gives 0.
long InterlockedExchange(long volatile* Target, long Value) {
  if (Target == nullptr) {
    KLOG(2, "InterlockedExchange: Target == NULL");
    return 0;
  }
  return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}

long InterlockedIncrement(long volatile* Addend) {
  if (Addend == nullptr) {
    KLOG(2, "InterlockedIncrement: Addend == NULL");
    return 0;
  }
  return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}

long InterlockedDecrement(long volatile* Addend) {
  if (Addend == nullptr) {
    KLOG(2, "InterlockedDecrement: Addend == NULL");
    return 0;
  }
  return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}

long InterlockedCompareExchange(long volatile* Destination, long Exchange, long Comperand) {
  if (Destination == nullptr) {
    KLOG(2, "InterlockedCompareExchange: Destination == NULL");
    return 0;
  }
  return __sync_val_compare_and_swap(Destination, Comperand, Exchange);  // a full barrier
}

BOOL IsBadWritePtr(void* /*lp*/, unsigned int /*ucb*/) { return 0; }

int IsBitSet(unsigned int value, int bit) {
  if (bit < 0 || bit > 31) return 0;
  return static_cast<int>(value & (1u << bit));
}

DWORD GetModuleFileName(void* /*hModule*/, char* /*lpFilename*/, unsigned int /*nSize*/) {
  KLOG(3, "Should not call this function");
  return 0;
}

int CoCreateGuid(_GUID* pguid) {
  if (pguid == nullptr) {
    KLOG(2, "CoCreateGuid: pguid == NULL");
    return 1;
  }
  FILE* source = sys.fopen("/proc/sys/kernel/random/uuid", "r");
  if (source == nullptr) return 1;
  unsigned char* b = reinterpret_cast<unsigned char*>(pguid);
  (void)fscanf(
      source,
      "%2hhx%2hhx%2hhx%2hhx-%2hhx%2hhx-%2hhx%2hhx-%2hhx%2hhx-%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx", &b[0],
      &b[1], &b[2], &b[3], &b[4], &b[5], &b[6], &b[7], &b[8], &b[9], &b[10], &b[11], &b[12], &b[13],
      &b[14], &b[15]);
  fclose(source);
  return 0;
}

// Copies `length` characters of `from` and a NUL, unless `out` is null.
static void _set_part(char* out, const char* from, size_t length) {
  if (out == nullptr) return;
  memcpy(out, from, length);
  out[length] = '\0';
}

void _splitpath(char const* path, char* drive, char* dir, char* fname, char* ext) {
  for (char* out : {drive, dir, fname, ext})
    if (out != nullptr) out[0] = '\0';
  if (path == nullptr || path[0] == '\0') return;
  const size_t length = strlen(path);

  size_t at = length;  // one past the nearest "." or "/" from the end
  while (at > 0 && path[at - 1] != '.' && path[at - 1] != '/') at--;
  if (at == 0) {
    _set_part(fname, path, length);
    return;
  }
  const size_t i = at - 1;

  if (path[i] == '/') {
    if (i + 1 < length) {
      _set_part(fname, path + i + 1, length - i - 1);
      _set_part(dir, path, i + 1);
    } else if (i == 0) {
      _set_part(fname, path, 1);
    } else {
      _set_part(dir, path, length);
    }
    return;
  }

  // A dot. Leading, or right behind a slash, it belongs to the name.
  if (i == 0) {
    _set_part(fname, path, length);
    return;
  }
  if (path[i - 1] == '/') {
    _set_part(fname, path + i, length - i);
    _set_part(dir, path, i);
    return;
  }
  _set_part(ext, path + i + 1, length - i - 1);
  size_t slash = i;  // one past the nearest "/" before the dot
  while (slash > 0 && path[slash - 1] != '/') slash--;
  if (slash == 0) {
    _set_part(fname, path, i);
  } else {
    _set_part(dir, path, slash);
    _set_part(fname, path + slash, i - slash);
  }
}
