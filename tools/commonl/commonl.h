// The commonl tool: what the CommonL library sees on a machine, asked
// through the library's exported calls, and the checks of its two files and
// of Win32 sources that are being ported. Shared between the tool's files.
#pragma once

#include <stddef.h>

#include <memory>
#include <string>
#include <vector>

struct LinuxInfo_t;

namespace tool {

// The installation's fixed files, the library's defaults.
extern const char* const kSysinfoPath;
extern const char* const kCataloguePath;

// Exit statuses: a failed check or lookup, and a command line that can't be used.
const int kFailed = 1;
const int kUsage = 2;

// The library's version, from the build.
const char* library_version();

// --- output: one description, written as JSON (rapidjson's writer) or as
// indented "key: value" text for people ---

class Out {
 public:
  // JSON when `json`, else text; both to standard output.
  static std::unique_ptr<Out> make(bool json);
  virtual ~Out() = default;
  // `key` is null for an element of an array.
  virtual void open_object(const char* key) = 0;
  virtual void open_array(const char* key) = 0;
  virtual void close() = 0;
  virtual void text(const char* key, const std::string& value) = 0;
  virtual void number(const char* key, long long value) = 0;
  virtual void flag(const char* key, bool value) = 0;
  // Unknown; text leaves it out.
  virtual void null(const char* key) = 0;
  // Ends the document; JSON is written here.
  virtual void finish() = 0;
};

// --- what the library logs through LogOutputLevel, which this tool
// provides in place of the logger's ---

// The lines logged since the last call, oldest first.
std::vector<std::string> take_library_log();
// Writes the lines not yet taken to standard error as "library: ...".
void print_library_log();

// A failed command: the library's lines so far, then "commonl: " and the
// message on standard error. Returns kFailed.
int failure(const char* format, ...) __attribute__((format(printf, 1, 2)));

// --- source text ---

// The whole file at `path` in `text`; false with a reason in `error`.
bool read_file(const std::string& path, std::string& text, std::string& error);

// Turns byte offsets into 1-based lines and columns (columns count bytes).
class LineIndex {
 public:
  explicit LineIndex(const std::string& text);
  int line(size_t offset) const;
  int column(size_t offset) const;
  size_t line_start(int line) const { return starts_[static_cast<size_t>(line) - 1]; }
  int lines() const { return static_cast<int>(starts_.size()); }

 private:
  std::vector<size_t> starts_;
};

// --- the system information record ---

// A field of LinuxInfo_t and the key it is read from; Ram, the one number,
// has size 0.
struct SysinfoField {
  const char* key;
  size_t offset;
  size_t size;
};
// In the record's order.
extern const SysinfoField kSysinfoFields[5];

// A text field as the file gave it: without the line feed the library adds.
std::string sysinfo_text(const LinuxInfo_t& info, const SysinfoField& field);
// The five fields, or nulls when there is no record.
void write_sysinfo_fields(Out& out, const LinuxInfo_t* info);

// --- the commands; each returns the exit status ---

struct Options {
  std::string sysinfo = kSysinfoPath;
  std::string catalogue = kCataloguePath;
  bool json = false;
  std::string model;             // model TEXT
  std::string check_path;        // check catalogue|sysinfo [PATH]
  unsigned int beep_type = 0xFFFFFFFFu;
  bool dry_run = false;
  std::vector<std::string> command;  // run COMMAND...
  int buffer_size = 4096;
  std::string end_marker;
  bool has_end_marker = false;
  std::vector<std::string> paths;  // port-check PATH...
};

int cmd_info(const Options& o);
int cmd_model(const Options& o);
int cmd_brands(const Options& o);
int cmd_zones(const Options& o);
int cmd_zone(const Options& o);
int cmd_beep(const Options& o);
int cmd_run(const Options& o);
int cmd_check_catalogue(const Options& o);
int cmd_check_sysinfo(const Options& o);
int cmd_port_check(const Options& o);

// MessageBeep's types by name or number ("exclamation", "0x30", "48");
// false if `text` is neither.
bool parse_beep_type(const std::string& text, unsigned int& type);

}  // namespace tool
