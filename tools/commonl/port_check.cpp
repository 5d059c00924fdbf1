// port-check: the uses of Win32 in C and C++ sources that behave otherwise
// under CommonL, one line a finding: what differs, and what to do.
//
// A rule is a pattern over the lines of a file whose comments are blanked
// out, with what light context the file itself gives: the variables that
// hold wait results, semaphores, mutexes and thread handles, the members of
// handle arrays, the names defined as 258, the due times set negative. It
// reads one file at a time and knows no types; it aims at the common forms.
#include <stdio.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>
#include <set>

#include "commonl.h"

namespace tool {

namespace {

using _Names = std::set<std::string>;

// The file with its comments blanked, offsets and line ends kept: patterns
// then see code and string literals only.
std::string _blank_comments(std::string code) {
  enum { CODE, LINE, BLOCK, STRING, CHAR } state = CODE;
  for (size_t i = 0; i < code.size(); i++) {
    const char c = code[i], next = i + 1 < code.size() ? code[i + 1] : '\0';
    switch (state) {
      case CODE:
        if (c == '/' && (next == '/' || next == '*')) {
          state = next == '/' ? LINE : BLOCK;
          code[i] = code[i + 1] = ' ';
          i++;
        } else if (c == '"' || c == '\'') {
          state = c == '"' ? STRING : CHAR;
        }
        break;
      case LINE:
        if (c == '\n') state = CODE;
        else code[i] = ' ';
        break;
      case BLOCK:
        if (c == '*' && next == '/') {
          code[i] = code[i + 1] = ' ';
          i++;
          state = CODE;
        } else if (c != '\n') {
          code[i] = ' ';
        }
        break;
      case STRING:
      case CHAR:
        if (c == '\\') i++;
        else if (c == '\n' || c == (state == STRING ? '"' : '\'')) state = CODE;
        break;
    }
  }
  return code;
}

std::string _trim(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// The identifier an argument or array member is about: `h` in `&h`,
// `(HANDLE)h`, `h[0]` or `h.data()`; "GetCurrentThread" for its call.
std::string _base(const std::string& expression) {
  static const std::regex base(R"(^\s*(?:\([^()]*\)\s*)*[&*]?\s*(\w+))");
  std::smatch match;
  return std::regex_search(expression, match, base) ? match[1].str() : "";
}

// `a|b|c` for a pattern; a name that matches nothing when there are none.
std::string _alternatives(const _Names& names) {
  std::string pattern;
  for (const std::string& name : names) pattern += (pattern.empty() ? "" : "|") + name;
  return pattern.empty() ? "(?!)" : pattern;
}

class _Source {
 public:
  explicit _Source(const std::string& text);

  const std::string& code() const { return code_; }
  int lines() const { return index_.lines(); }
  const std::string& line(int n) const { return lines_[static_cast<size_t>(n) - 1]; }
  size_t line_start(int n) const { return index_.line_start(n); }

  // Calls `each(line, match, offset of the match)` for every match in every line.
  template <typename Each>
  void each_match(const std::regex& pattern, Each each) const {
    for (int n = 1; n <= lines(); n++)
      for (std::sregex_iterator it(line(n).begin(), line(n).end(), pattern), end; it != end; ++it)
        each(n, *it, line_start(n) + static_cast<size_t>(it->position()));
  }
  // Every call of a function matching `callee`, with its arguments; a
  // declaration, where a type stands before the name, is none.
  template <typename Each>
  void each_call(const std::string& callee, Each each) const {
    static const std::regex declared(R"(\b(?!(?:return|else|do|case|throw)\b)[A-Za-z_][\w:<>]*[\s*&]+$)");
    each_match(std::regex("\\b(?:" + callee + ")\\s*\\("), [&](int n, const std::smatch& m, size_t at) {
      if (std::regex_search(line(n).substr(0, at - line_start(n)), declared)) return;
      size_t end = 0;
      std::vector<std::string> args = arguments(at + static_cast<size_t>(m.length()) - 1, end);
      each(n, args, at, end);
    });
  }
  // The arguments of the call or list whose bracket is at `open`, split at
  // the commas outside brackets; `end` becomes the offset behind the close.
  std::vector<std::string> arguments(size_t open, size_t& end) const;

  // The names assigned from a call of `callee`: `h` in `HANDLE h =
  // CreateMutex(...)`, and the array in `handles[1] = CreateMutex(...)`.
  _Names assigned_from(const std::string& callee) const;
  // The members of an array or list: the identifiers it is initialised with,
  // and those assigned to its elements or appended to it.
  _Names members(const std::string& array) const;

  _Names waits, semaphores, mutexes, threads, spawned, timeout_names;
  // The due times given to a LARGE_INTEGER, by line: negative or not.
  std::map<std::string, std::map<int, bool>> due_times;

 private:
  std::string code_;
  LineIndex index_;
  std::vector<std::string> lines_;
  std::map<std::string, _Names> arrays_;
};

std::vector<std::string> _Source::arguments(size_t open, size_t& end) const {
  std::vector<std::string> args(1);
  int depth = 0;
  char quote = '\0';
  for (size_t i = open + 1; i < code_.size(); i++) {
    const char c = code_[i];
    if (quote != '\0') {
      if (c == '\\') args.back() += code_[i++];
      else if (c == quote) quote = '\0';
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '(' || c == '[' || c == '{') {
      depth++;
    } else if (c == ')' || c == ']' || c == '}') {
      if (depth-- == 0) {
        end = i + 1;
        for (std::string& arg : args) arg = _trim(arg);
        return args;
      }
    } else if (c == ',' && depth == 0) {
      args.emplace_back();
      continue;
    }
    args.back() += c;
  }
  end = code_.size();
  return {};
}

_Names _Source::assigned_from(const std::string& callee) const {
  _Names names;
  each_match(std::regex(R"(\b(\w+)\s*(?:\[[^\]]*\]\s*)?=(?!=)[^;]*?\b(?:)" + callee + R"()\s*\()"),
             [&](int, const std::smatch& m, size_t) { names.insert(m[1].str()); });
  return names;
}

_Names _Source::members(const std::string& array) const {
  auto found = arrays_.find(array);
  return found == arrays_.end() ? _Names{} : found->second;
}

_Source::_Source(const std::string& text) : code_(_blank_comments(text)), index_(code_) {
  for (int n = 1; n <= index_.lines(); n++) {
    const size_t start = index_.line_start(n);
    const size_t stop = n < index_.lines() ? index_.line_start(n + 1) - 1 : code_.size();
    lines_.push_back(code_.substr(start, stop - start));
  }
  waits = assigned_from(R"(WaitFor(?:SingleObject|MultipleObjects)(?:Ex)?|WaitForSemaphore)");
  semaphores = assigned_from(R"(CreateSemaphore(?:Ex)?[AW]?)");
  mutexes = assigned_from(R"(CreateMutex(?:Ex)?[AW]?)");
  spawned = assigned_from("_beginthreadex");
  threads = assigned_from(R"(_beginthreadex|_beginthread|CreateThread|OpenThread)");
  threads.insert("GetCurrentThread");

  // Arrays: `h[] = {a, b}`, `h[1] = a;`, `h.push_back(a)`.
  each_match(std::regex(R"(\b(\w+)\s*(?:\[[^\]]*\])?\s*=\s*\{)"), [&](int, const std::smatch& m, size_t at) {
    size_t end = 0;
    for (const std::string& member : arguments(at + static_cast<size_t>(m.length()) - 1, end))
      arrays_[m[1].str()].insert(_base(member));
  });
  each_match(std::regex(R"(\b(\w+)\s*\[[^\]]*\]\s*=(?!=)\s*([^;]+);)"),
             [&](int, const std::smatch& m, size_t) { arrays_[m[1].str()].insert(_base(m[2].str())); });
  each_match(std::regex(R"(\b(\w+)\s*(?:\.|->)\s*(?:push_back|emplace_back)\s*\(([^;]+)\))"),
             [&](int, const std::smatch& m, size_t) { arrays_[m[1].str()].insert(_base(m[2].str())); });

  each_match(std::regex(R"(#\s*define\s+(\w+)\s+\(?\s*(?:258|0[xX]0*102)[uUlL]*\s*\)?\s*$)"),
             [&](int, const std::smatch& m, size_t) { timeout_names.insert(m[1].str()); });
  each_match(std::regex(R"(\b(\w+)\s*=\s*(?:258|0[xX]0*102)[uUlL]*\s*[;,}])"),
             [&](int, const std::smatch& m, size_t) { timeout_names.insert(m[1].str()); });
  each_match(std::regex(R"(\b(\w+)\s*(?:\.|->)\s*QuadPart\s*=(?!=)\s*(-?))"),
             [&](int n, const std::smatch& m, size_t) { due_times[m[1].str()][n] = m[2].length() > 0; });
}

// The handles a wait's argument stands for: the name and, for an array,
// its members.
_Names _handles(const _Source& source, const std::string& argument) {
  const std::string name = _base(argument);
  _Names handles = source.members(name);
  handles.insert(name);
  return handles;
}

bool _any_in(const _Names& names, const _Names& set) {
  return std::any_of(names.begin(), names.end(), [&](const std::string& n) { return set.count(n) > 0; });
}

using _Lines = std::set<int>;

const char* const _WAIT_MULTIPLE = R"(WaitForMultipleObjects(?:Ex)?)";
const char* const _WAIT_SINGLE = R"(WaitForSingleObject(?:Ex)?)";
const char* const _SET_TIMER = R"(SetWaitableTimer(?:Ex)?)";

void _wait_timeout_value(const _Source& s, _Lines& found) {
  const std::string values = "258|0[xX]0*102|" + _alternatives(s.timeout_names);
  const std::regex compared(R"((?:==|!=)\s*\(?\s*(?:)" + values + R"()[uUlL]*\b|\b(?:)" + values +
                            R"()[uUlL]*\s*\)?\s*(?:==|!=))");
  const std::regex label(R"(\bcase\s+\(?\s*(?:)" + values + R"()[uUlL]*\s*\)?\s*:)");
  const std::regex wait(R"(\bWaitFor\w*\s*\(|\b(?:)" + _alternatives(s.waits) + R"()\b)");
  const std::regex switch_(R"(\bswitch\s*\()");
  bool wait_switch = false;  // the last switch is over a wait's result
  for (int n = 1; n <= s.lines(); n++) {
    const bool waits = std::regex_search(s.line(n), wait);
    if (std::regex_search(s.line(n), switch_)) wait_switch = waits;
    if ((waits && std::regex_search(s.line(n), compared)) ||
        (wait_switch && std::regex_search(s.line(n), label)))
      found.insert(n);
  }
}

void _wait_timeout_defined(const _Source& s, _Lines& found) {
  s.each_match(std::regex(R"(#\s*define\s+WAIT_TIMEOUT\b|\bWAIT_TIMEOUT\s*=(?!=))"),
               [&](int n, const std::smatch&, size_t) { found.insert(n); });
}

void _wait_all(const _Source& s, _Lines& found) {
  s.each_call(_WAIT_MULTIPLE, [&](int n, const std::vector<std::string>& args, size_t, size_t) {
    if (args.size() >= 3 && (args[2] == "TRUE" || args[2] == "true" || args[2] == "1")) found.insert(n);
  });
}

void _wait_abandoned(const _Source& s, _Lines& found) {
  s.each_match(std::regex(R"(\bWAIT_ABANDONED(?:_0)?\b)"),
               [&](int n, const std::smatch&, size_t) { found.insert(n); });
}

void _wait_sync(const _Source& s, _Lines& found) {
  s.each_call(_WAIT_MULTIPLE, [&](int n, const std::vector<std::string>& args, size_t, size_t) {
    if (args.size() < 2) return;
    const _Names handles = _handles(s, args[1]);
    if (_any_in(handles, s.semaphores) || (args[0] != "1" && _any_in(handles, s.mutexes))) found.insert(n);
  });
}

void _beginthreadex_zero(const _Source& s, _Lines& found) {
  const std::string names = _alternatives(s.spawned);
  const std::string zero = "(?:0|NULL|nullptr)";
  s.each_match(std::regex(R"(\b(?:)" + names + R"()\s*(?:==|!=)\s*)" + zero + R"(\b|\b)" + zero +
                          R"(\s*(?:==|!=)\s*(?:)" + names + R"()\b|!\s*(?:)" + names +
                          R"()\b(?!\s*(?:[.\[(]|->))|\bif\s*\(\s*(?:)" + names + R"()\s*\))"),
               [&](int n, const std::smatch&, size_t) { found.insert(n); });
  // The call's result compared directly.
  static const std::regex before(R"((?:!|\b(?:0|NULL|nullptr)\s*(?:==|!=))\s*(?:\([^()]*\)\s*)?$)");
  static const std::regex after(R"(^[\s)]*(?:==|!=)\s*(?:0|NULL|nullptr)\b)");
  s.each_call("_beginthreadex", [&](int n, const std::vector<std::string>&, size_t at, size_t end) {
    const std::string head = s.code().substr(s.line_start(n), at - s.line_start(n));
    if (std::regex_search(head, before) || std::regex_search(s.code().substr(end, 64), after))
      found.insert(n);
  });
}

void _wait_thread(const _Source& s, _Lines& found) {
  s.each_call(_WAIT_SINGLE, [&](int n, const std::vector<std::string>& args, size_t, size_t) {
    if (!args.empty() && s.threads.count(_base(args[0])) > 0) found.insert(n);
  });
  s.each_call(_WAIT_MULTIPLE, [&](int n, const std::vector<std::string>& args, size_t, size_t) {
    if (args.size() >= 2 && _any_in(_handles(s, args[1]), s.threads)) found.insert(n);
  });
}

void _thread_priority(const _Source& s, _Lines& found) {
  static const std::regex win32(R"(^THREAD_PRIORITY_\w+$)");
  static const std::regex number(R"(^\(?\s*(-?\s*\d+)\s*\)?$)");
  s.each_call("SetThreadPriority", [&](int n, const std::vector<std::string>& args, size_t, size_t) {
    if (args.size() < 2) return;
    std::smatch m;
    if (std::regex_search(args[1], win32)) {
      found.insert(n);
    } else if (std::regex_search(args[1], m, number)) {
      std::string digits = m[1].str();
      digits.erase(std::remove(digits.begin(), digits.end(), ' '), digits.end());
      const long value = strtol(digits.c_str(), nullptr, 10);
      if (value < 1 || value > 7) found.insert(n);
    }
  });
}

void _relative_due_time(const _Source& s, _Lines& found) {
  s.each_call(_SET_TIMER, [&](int n, const std::vector<std::string>& args, size_t, size_t) {
    if (args.size() < 2) return;
    auto due = s.due_times.find(_base(args[1]));
    if (due == s.due_times.end()) return;
    // The latest value given before the call counts.
    auto set = due->second.upper_bound(n);
    if (set != due->second.begin() && std::prev(set)->second) found.insert(n);
  });
}

void _timer_period(const _Source& s, _Lines& found) {
  static const std::regex zero(R"(^0[lL]{0,2}$)");
  s.each_call(_SET_TIMER, [&](int n, const std::vector<std::string>& args, size_t, size_t) {
    if (args.size() >= 3 && !std::regex_search(args[2], zero)) found.insert(n);
  });
}

void _global_name(const _Source& s, _Lines& found) {
  s.each_match(std::regex(R"(L?"Global\\\\)"), [&](int n, const std::smatch&, size_t) { found.insert(n); });
  static const std::regex global(R"(^L?"Global)");
  s.each_call(R"((?:Create|Open)(?:Event|Mutex|Semaphore|WaitableTimer)(?:Ex)?[AW]?)",
              [&](int n, const std::vector<std::string>& args, size_t, size_t) {
                if (!args.empty() && std::regex_search(args.back(), global)) found.insert(n);
              });
}

void _create_thread(const _Source& s, _Lines& found) {
  s.each_match(std::regex(R"(\bCreateThread\s*\()"), [&](int n, const std::smatch&, size_t) { found.insert(n); });
}

const struct _Rule {
  const char* name;
  const char* message;  // what differs; what to do
  void (*scan)(const _Source&, _Lines&);
} _RULES[] = {
    {"wait-timeout-value",
     "WAIT_TIMEOUT is 0xFFFFFFFE under CommonL, not 258 (0x102); compare with the WAIT_TIMEOUT of "
     "CommonL.h",
     _wait_timeout_value},
    {"wait-timeout-defined",
     "a WAIT_TIMEOUT of this file's own hides CommonL's 0xFFFFFFFE; remove it and use CommonL.h's",
     _wait_timeout_defined},
    {"wait-all",
     "bWaitAll TRUE is not supported: the wait ends on the first signalled handle; wait for the "
     "handles one at a time",
     _wait_all},
    {"wait-abandoned",
     "CommonL never returns WAIT_ABANDONED: a mutex has no owner; drop the case, and learn of a dead "
     "owner some other way",
     _wait_abandoned},
    {"wait-sync-among",
     "a semaphore or mutex among the handles of WaitForMultipleObjects fails with WAIT_FAILED (a "
     "semaphore even alone); wait for it on its own with WaitForSingleObject",
     _wait_sync},
    {"beginthreadex-zero",
     "_beginthreadex returns -1 (all bits set) on failure, never 0; compare with (uintptr_t)-1",
     _beginthreadex_zero},
    {"wait-thread",
     "a thread handle can not be waited on (WAIT_FAILED): threads are detached; let the thread set "
     "an event as it ends, and wait for that",
     _wait_thread},
    {"thread-priority",
     "SetThreadPriority takes CommonL's priorities 1 to 7 (4 normal, 1-3 idle, 5-7 real-time), not "
     "Win32's THREAD_PRIORITY_* values; map them",
     _thread_priority},
    {"relative-due-time",
     "a negative (relative) due time is not supported: SetWaitableTimer takes an absolute FILETIME "
     "count; add the delay to the present time in 100 ns units since 1601",
     _relative_due_time},
    {"timer-period",
     "lPeriod is ignored: the timer fires once per SetWaitableTimer; arm it again from its routine",
     _timer_period},
    {"global-name",
     "a \"Global\" name stays inside the process under CommonL: a \"Global\" event never signals and "
     "a \"Global\" mutex is refused; drop the prefix",
     _global_name},
    {"create-thread",
     "CommonL has no CreateThread; start the thread with _beginthreadex (detached, -1 on failure, "
     "not waitable)",
     _create_thread},
};

// The number of findings in one file, printed in line order; a file that
// can't be read counts as one.
int _check_file(const std::string& path) {
  std::string text, error;
  if (!read_file(path, text, error)) {
    fprintf(stderr, "commonl: %s: can't be read: %s\n", path.c_str(), error.c_str());
    return 1;
  }
  const _Source source(text);
  std::map<int, std::vector<const _Rule*>> findings;
  for (const _Rule& rule : _RULES) {
    _Lines lines;
    rule.scan(source, lines);
    for (int n : lines) findings[n].push_back(&rule);
  }
  int count = 0;
  for (const auto& line : findings)
    for (const _Rule* rule : line.second) {
      printf("%s:%d: %s [%s]\n", path.c_str(), line.first, rule->message, rule->name);
      count++;
    }
  return count;
}

bool _is_source(const std::filesystem::path& path) {
  static const _Names extensions = {".c", ".cc", ".cpp", ".cxx", ".c++", ".h", ".hh", ".hpp", ".hxx", ".inl", ".ipp"};
  return extensions.count(path.extension().string()) > 0;
}

// The files to read: those named, and the sources under the directories
// named, in order.
std::vector<std::string> _files(const std::vector<std::string>& paths) {
  std::vector<std::string> files;
  for (const std::string& path : paths) {
    if (!std::filesystem::is_directory(path)) {
      files.push_back(path);
      continue;
    }
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path))
      if (entry.is_regular_file() && _is_source(entry.path())) found.push_back(entry.path().string());
    std::sort(found.begin(), found.end());
    files.insert(files.end(), found.begin(), found.end());
  }
  return files;
}

}  // namespace

int cmd_port_check(const Options& o) {
  int findings = 0;
  for (const std::string& file : _files(o.paths)) findings += _check_file(file);
  return findings > 0 ? kFailed : 0;
}

}  // namespace tool
