// What the fuzz targets share: the scratch file that each input is written
// to, and a check that ends the run when a promise of the library breaks.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace fuzzsupport {

// The path of a file that holds exactly `data`: a memory file made once per
// process and rewritten for each input.
const char* scratch_file(const uint8_t* data, size_t size);

// Reports `what` and ends the process, which the fuzzer takes for a crash.
[[noreturn]] void broken(const char* what);

inline void check(bool holds, const char* what) {
  if (!holds) broken(what);
}

}  // namespace fuzzsupport
