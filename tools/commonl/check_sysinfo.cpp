// check sysinfo: sysinfo.json as the library reads it.
//
// The verdict is the library's: GetLinuxInfoEx on the file. Where and why
// come from the library's own jsmn, which it exports, run here the same way
// (one pass, 32 tokens, no strict mode), and from the library's flat walk
// over the tokens, followed here key for key.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <set>

#include <CommonL/CommonL.h>
#include "check.h"

// The declarations only: the code is the library's.
#define JSMN_HEADER
#include <jsmn.h>

namespace tool {

namespace {

const unsigned int _MAX_TOKENS = 32;  // the library's one token array

std::string _text(const std::string& text, const jsmntok_t& token) {
  return text.substr(static_cast<size_t>(token.start), static_cast<size_t>(token.end - token.start));
}

// Where a token begins in the file: jsmn's strings begin inside their quotes.
size_t _at(const jsmntok_t& token) {
  return static_cast<size_t>(token.type == JSMN_STRING ? token.start - 1 : token.start);
}

const SysinfoField* _field(const std::string& key) {
  for (const SysinfoField& field : kSysinfoFields)
    if (key == field.key) return &field;
  return nullptr;
}

const char* _kind(jsmntype_t type) {
  switch (type) {
    case JSMN_OBJECT: return "an object";
    case JSMN_ARRAY: return "a list";
    case JSMN_STRING: return "a string";
    default: return "a bare value";
  }
}

// Where jsmn gave up and why, for its three negative results.
void _jsmn_failure(Check& check, int result, const jsmn_parser& parser, const jsmntok_t* tokens) {
  const std::string& text = check.text;
  size_t at = parser.pos;
  const char c = at < text.size() ? text[at] : '\0';
  std::string why;
  if (result == JSMN_ERROR_NOMEM) {
    why = "a 33rd token, where the library takes 32 (the object, and 15 keys with their values)";
  } else if (result == JSMN_ERROR_INVAL) {
    if (text.compare(0, 3, "\xEF\xBB\xBF") == 0 && at == 0) {
      why = "a byte order mark";
    } else if (c == '}' || c == ']') {
      why = std::string("a closing ") + c + " that matches no opening bracket";
    } else {
      char byte[8];
      snprintf(byte, sizeof byte, "0x%02X", static_cast<unsigned char>(c));
      why = std::string("the byte ") + byte + " outside a string";
    }
  } else if (c == '"') {
    why = "a string that is not closed";
  } else {
    // The innermost object or list still open at the end.
    for (unsigned int i = parser.toknext; i-- > 0;)
      if (tokens[i].start != -1 && tokens[i].end == -1) {
        at = static_cast<size_t>(tokens[i].start);
        why = std::string(_kind(tokens[i].type)) + " that is not closed";
        break;
      }
  }
  check.error(at, why + "; the library refuses the file (jsmn " + std::to_string(result) + ")");
}

// What the library makes of Ram: the text and a line feed cut to 64 bytes,
// read by strtol in base 10, and its low 32 bits.
int32_t _ram(const std::string& value) {
  char number[64];
  snprintf(number, sizeof number, "%.*s\n", static_cast<int>(value.size()), value.c_str());
  return static_cast<int32_t>(static_cast<uint32_t>(strtol(number, nullptr, 10)));
}

void _value(Check& check, const SysinfoField& field, const jsmntok_t& token) {
  const std::string value = _text(check.text, token);
  const size_t at = _at(token);
  const std::string key = quoted(field.key);
  if (token.type == JSMN_OBJECT || token.type == JSMN_ARRAY) {
    check.warning(at, "the value of " + key + " is " + _kind(token.type) +
                          ": the library takes its whole text, and reads what is inside as keys");
    return;
  }
  if (field.size == 0) {
    const int32_t ram = _ram(value);
    if (value != std::to_string(ram))
      check.warning(at, "Ram " + quoted(value) + " is not a whole number of 32 bits: the library reads " +
                            std::to_string(ram));
    return;
  }
  if (token.type != JSMN_STRING)
    check.warning(at, "the value of " + key + " is not a string: the library takes the text " + value +
                          " as it stands");
  if (value.find('\\') != std::string::npos)
    check.warning(at, "the value of " + key + " holds an escape: the library keeps it as written, "
                          "backslash and all");
  // The field holds the value, a line feed and a NUL.
  if (value.size() > field.size - 2)
    check.warning(at, "the value of " + key + " has " + std::to_string(value.size()) +
                          " characters: the library keeps " +
                          std::to_string(std::min(value.size(), field.size - 1)) +
                          " of them, without the line feed");
  if (value.empty() && field.key == std::string("Model"))
    check.warning(at, "the model is empty: the machine counts as an unknown model, and the alarm "
                      "plays the sound file");
}

// An unknown key is logged, and the token behind it is taken for a key in
// turn: for a value that is not itself a known key that means a second
// line in the log, for one that is, a known key with the wrong value.
int _unknown_key(Check& check, const jsmntok_t* tokens, int i, int count) {
  const std::string key = quoted(_text(check.text, tokens[i]));
  const size_t at = _at(tokens[i]);
  if (i + 1 >= count) {
    check.warning(at, "unknown key " + key + ": the library logs it");
    return 1;
  }
  const std::string next = _text(check.text, tokens[i + 1]);
  if (_field(next) != nullptr) {
    check.warning(at, "unknown key " + key + ": the library logs it, takes its value " + quoted(next) +
                          " for a key, and the token after that for that key's value");
    return 1;
  }
  check.warning(at, "unknown key " + key + ": the library logs it and its value as unexpected keys");
  return 2;
}

// The library's flat walk: a token is a key, and the one behind a known key
// its value, whatever the nesting.
void _walk(Check& check, const jsmntok_t* tokens, int count) {
  std::set<std::string> seen;
  bool behind_reported = false;
  for (int i = 1; i < count;) {
    const size_t at = _at(tokens[i]);
    if (!behind_reported && tokens[i].start >= tokens[0].end) {
      check.warning(at, "text behind the object: the library still reads it as keys and values");
      behind_reported = true;
    }
    const std::string key = _text(check.text, tokens[i]);
    const SysinfoField* field = _field(key);
    if (field == nullptr) {
      i += _unknown_key(check, tokens, i, count);
      continue;
    }
    const bool again = !seen.insert(key).second;
    if (i + 1 >= count) {
      check.warning(at, "the key " + quoted(key) + " has no value: the library leaves its field empty");
      break;
    }
    if (again) check.warning(at, quoted(key) + " stands twice: the library takes the last value");
    _value(check, *field, tokens[i + 1]);
    i += 2;
  }
  for (const SysinfoField& field : kSysinfoFields)
    if (seen.count(field.key) == 0)
      check.warning(_at(tokens[0]),
                    std::string("no ") + quoted(field.key) + ": the library leaves the field " +
                        (field.size == 0 ? "0" : "empty"));
}

void _read(Check& check) {
  jsmn_parser parser;
  jsmntok_t tokens[_MAX_TOKENS];
  jsmn_init(&parser);
  const int count = jsmn_parse(&parser, check.text.c_str(), check.text.size(), tokens, _MAX_TOKENS);
  if (count < 0) {
    _jsmn_failure(check, count, parser, tokens);
  } else if (count == 0) {
    check.error(kWholeFile, "no JSON in the file: the library wants an object, and refuses the file");
  } else if (tokens[0].type != JSMN_OBJECT) {
    check.error(_at(tokens[0]),
                std::string("the file holds ") + _kind(tokens[0].type) +
                    ", not an object: the library wants an object, and refuses the file");
  } else {
    _walk(check, tokens, count);
  }
}

void _summary(Out& out, const LinuxInfo_t& info) { write_sysinfo_fields(out, &info); }

std::string _summary_text(const LinuxInfo_t& info) {
  std::string text;
  for (const SysinfoField& field : kSysinfoFields)
    text += (text.empty() ? "" : ", ") + std::string(field.key) + " " +
            (field.size == 0 ? std::to_string(info.Ram) : quoted(sysinfo_text(info, field)));
  return text;
}

}  // namespace

int cmd_check_sysinfo(const Options& o) {
  Check check;
  check.path = o.check_path;
  std::unique_ptr<LinuxInfo_t, void (*)(void*)> info(GetLinuxInfoEx(check.path.c_str()), free);
  check.loads = info != nullptr;
  if (read_checked_file(check)) _read(check);
  Verdict verdict;
  if (info) {
    const LinuxInfo_t* record = info.get();
    verdict.summary = [record](Out& out) { _summary(out, *record); };
    verdict.summary_text = _summary_text(*record);
  }
  verdict.refusal_text = "GetLinuxInfo gives no record, so the machine counts as an unknown model, and "
                         "the alarm plays the sound file";
  return report(o, check, verdict);
}

}  // namespace tool
