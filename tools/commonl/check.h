// What the two file checks share: findings with their place in the file,
// and the report.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "commonl.h"

namespace tool {

// Something the library refuses (an error: the file is not loaded), or
// reads otherwise than the file says (a warning: it loads, not as written).
struct Finding {
  bool error;
  size_t offset;  // kWholeFile for the file as a whole
  std::string message;
};

const size_t kWholeFile = static_cast<size_t>(-1);

struct Check {
  std::string path;
  std::string text;  // the file, when it could be read
  std::vector<Finding> findings;
  bool loads = false;  // the library's own verdict

  void error(size_t offset, const std::string& message) { findings.push_back({true, offset, message}); }
  void warning(size_t offset, const std::string& message) {
    findings.push_back({false, offset, message});
  }
  bool has_error() const;
};

// Reads the file into `check.text`; a file that can't be read or is empty
// is a finding, and the result is false.
bool read_checked_file(Check& check);

// What a report says beside the findings: for a file the library loads, a
// summary of what it holds; for one it refuses, what follows from that.
struct Verdict {
  std::function<void(Out&)> summary;  // the fields of "summary" in JSON
  std::string summary_text;
  std::string refusal_text;
};

// Writes the findings in file order, as "PATH:LINE:COLUMN: message" lines
// and a last line with the verdict, or as JSON. 0 when the library loads
// the file as written, else kFailed.
int report(const Options& o, Check& check, const Verdict& verdict);

// `text` in double quotes, for messages.
std::string quoted(const std::string& text);

}  // namespace tool
