// Output for people and for programs, the library's log, and source text.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <mutex>

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include "commonl.h"
#include "korvalogger.h"

namespace tool {

namespace {

class _JsonOut : public Out {
 public:
  _JsonOut() : writer_(buffer_) {
    writer_.SetIndent(' ', 2);
    writer_.StartObject();
  }
  void open_object(const char* key) override {
    _key(key);
    writer_.StartObject();
    open_.push_back(false);
  }
  void open_array(const char* key) override {
    _key(key);
    writer_.StartArray();
    open_.push_back(true);
  }
  void close() override {
    if (open_.back())
      writer_.EndArray();
    else
      writer_.EndObject();
    open_.pop_back();
  }
  void text(const char* key, const std::string& value) override {
    _key(key);
    writer_.String(value.c_str(), static_cast<rapidjson::SizeType>(value.size()));
  }
  void number(const char* key, long long value) override {
    _key(key);
    writer_.Int64(value);
  }
  void flag(const char* key, bool value) override {
    _key(key);
    writer_.Bool(value);
  }
  void null(const char* key) override {
    _key(key);
    writer_.Null();
  }
  void finish() override {
    writer_.EndObject();
    fputs(buffer_.GetString(), stdout);
    fputc('\n', stdout);
  }

 private:
  void _key(const char* key) {
    if (key != nullptr) writer_.Key(key);
  }

  rapidjson::StringBuffer buffer_;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> writer_;
  std::vector<bool> open_;  // true for an array
};

// "key: value" lines, two blanks deeper per level; the elements of an array
// begin with "- ", as in YAML. An array's "key:" line waits for its first
// element, so that an empty one can read "key: none".
class _TextOut : public Out {
 public:
  _TextOut() { levels_.push_back({false, 0, ""}); }
  void open_object(const char* key) override {
    if (key != nullptr) {
      _line(std::string(key) + ":");
      levels_.push_back({false, _indent() + 2, ""});
    } else {
      _announce();
      levels_.push_back({false, _indent() + 2, ""});
      dash_ = true;
    }
  }
  void open_array(const char* key) override {
    _announce();
    levels_.push_back({true, _indent() + 2, std::string(key) + ":"});
  }
  void close() override {
    if (levels_.back().array && !levels_.back().pending.empty()) {
      std::string header = levels_.back().pending;
      levels_.pop_back();
      _line(header + " none");
      return;
    }
    levels_.pop_back();
  }
  void text(const char* key, const std::string& value) override {
    _value(key, value.empty() ? "\"\"" : value);
  }
  void number(const char* key, long long value) override { _value(key, std::to_string(value)); }
  void flag(const char* key, bool value) override { _value(key, value ? "yes" : "no"); }
  void null(const char*) override {}
  void finish() override {}

 private:
  struct _Level {
    bool array;
    int indent;           // of the lines inside it
    std::string pending;  // an array's "key:" line, until its first element
  };

  int _indent() const { return levels_.back().indent; }

  void _value(const char* key, const std::string& value) {
    _announce();
    _line(key != nullptr ? std::string(key) + ": " + value : "- " + value);
  }

  // Writes the "key:" line of the array being filled, if still due.
  void _announce() {
    _Level& level = levels_.back();
    if (!level.array || level.pending.empty()) return;
    std::string header;
    header.swap(level.pending);
    levels_.pop_back();
    _line(header);
    levels_.push_back({true, _indent() + 2, ""});
  }

  // One line at the current depth; the first line of an object that is an
  // element of an array carries the element's dash.
  void _line(const std::string& text) {
    std::string prefix(static_cast<size_t>(_indent()), ' ');
    if (dash_) {
      prefix.replace(prefix.size() - 2, 2, "- ");
      dash_ = false;
    }
    printf("%s%s\n", prefix.c_str(), text.c_str());
  }

  std::vector<_Level> levels_;
  bool dash_ = false;
};

std::mutex _log_mutex;
std::vector<std::string> _log_lines;

}  // namespace

std::unique_ptr<Out> Out::make(bool json) {
  if (json) return std::unique_ptr<Out>(new _JsonOut());
  return std::unique_ptr<Out>(new _TextOut());
}

std::vector<std::string> take_library_log() {
  std::lock_guard<std::mutex> lock(_log_mutex);
  std::vector<std::string> lines;
  lines.swap(_log_lines);
  return lines;
}

void print_library_log() {
  // After what the command wrote, also when standard output is a pipe.
  fflush(stdout);
  for (const std::string& line : take_library_log()) fprintf(stderr, "library: %s\n", line.c_str());
}

int failure(const char* format, ...) {
  print_library_log();
  va_list args;
  va_start(args, format);
  fputs("commonl: ", stderr);
  vfprintf(stderr, format, args);
  fputc('\n', stderr);
  va_end(args);
  return kFailed;
}

bool read_file(const std::string& path, std::string& text, std::string& error) {
  struct stat info;
  if (stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
    error = "is a directory";
    return false;
  }
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) {
    error = strerror(errno);
    return false;
  }
  text.clear();
  char chunk[65536];
  size_t count;
  while ((count = fread(chunk, 1, sizeof chunk, file)) > 0) text.append(chunk, count);
  bool failed = ferror(file) != 0;
  fclose(file);
  if (failed) error = "read error";
  return !failed;
}

LineIndex::LineIndex(const std::string& text) {
  starts_.push_back(0);
  for (size_t i = 0; i < text.size(); i++)
    if (text[i] == '\n') starts_.push_back(i + 1);
}

int LineIndex::line(size_t offset) const {
  return static_cast<int>(std::upper_bound(starts_.begin(), starts_.end(), offset) - starts_.begin());
}

int LineIndex::column(size_t offset) const {
  return static_cast<int>(offset - line_start(line(offset))) + 1;
}

}  // namespace tool

// The library logs through these two calls. The tool's definitions take the
// place of the logger library's, so that what the library says arrives here
// whole, without time stamps, and the tool decides where it goes. Level 3:
// the library's failures and complaints, not its traces.
extern "C" int LoggerGetLevel(void) { return 3; }

extern "C" void LogOutputLevel(int, const char*, int, const char*, const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  size_t length = strlen(text);
  while (length > 0 && text[length - 1] == '\n') text[--length] = '\0';
  std::lock_guard<std::mutex> lock(tool::_log_mutex);
  tool::_log_lines.push_back(text);
}
