// sysinfo.json through GetLinuxInfoEx: any file gives a record or null, and
// a record's texts are always terminated within their fields.
#include <stdlib.h>
#include <string.h>

#include "CommonL.h"
#include "fuzz_support.h"

using fuzzsupport::check;

namespace {

// A text field ends within its size; a text shorter than the field holds the
// whole value with its line feed, a text of all but the last byte was cut.
void check_text(const char* field, size_t size) {
  const void* end = memchr(field, '\0', size);
  check(end != nullptr, "a text field without its NUL");
  const size_t length = static_cast<size_t>(static_cast<const char*>(end) - field);
  if (length > 0 && length < size - 1) check(field[length - 1] == '\n', "a whole value without its line feed");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  LinuxInfo_t* info = GetLinuxInfoEx(fuzzsupport::scratch_file(data, size));
  if (info == nullptr) return 0;
  check_text(info->ProductName, sizeof info->ProductName);
  check_text(info->Cpu, sizeof info->Cpu);
  check_text(info->Model, sizeof info->Model);
  check_text(info->SerialNumber, sizeof info->SerialNumber);
  free(info);
  return 0;
}
