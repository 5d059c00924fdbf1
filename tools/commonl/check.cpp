// The report of a file check.
#include "check.h"

#include <stdio.h>

#include <algorithm>

namespace tool {

namespace {

const char* _where(const Check& check, const LineIndex& lines, const Finding& finding,
                   std::string& buffer) {
  buffer = check.path;
  if (finding.offset != kWholeFile)
    buffer += ":" + std::to_string(lines.line(finding.offset)) + ":" +
              std::to_string(lines.column(finding.offset));
  return buffer.c_str();
}

void _text_report(const Check& check, const LineIndex& lines, const Verdict& verdict) {
  std::string where;
  for (const Finding& finding : check.findings)
    printf("%s: %s\n", _where(check, lines, finding, where), finding.message.c_str());
  if (!check.loads)
    printf("%s: the library refuses this file: %s\n", check.path.c_str(), verdict.refusal_text.c_str());
  else if (check.findings.empty())
    printf("%s: good: %s\n", check.path.c_str(), verdict.summary_text.c_str());
  else
    printf("%s: the library loads this file, but not as written: %s\n", check.path.c_str(),
           verdict.summary_text.c_str());
}

void _json_report(const Check& check, const LineIndex& lines, const Verdict& verdict) {
  auto out = Out::make(true);
  out->text("path", check.path);
  out->flag("loads", check.loads);
  out->flag("good", check.loads && check.findings.empty());
  out->open_array("findings");
  for (const Finding& finding : check.findings) {
    out->open_object(nullptr);
    if (finding.offset == kWholeFile) {
      out->null("line");
      out->null("column");
    } else {
      out->number("line", lines.line(finding.offset));
      out->number("column", lines.column(finding.offset));
    }
    out->text("severity", finding.error ? "error" : "warning");
    out->text("message", finding.message);
    out->close();
  }
  out->close();
  if (check.loads) {
    out->open_object("summary");
    verdict.summary(*out);
    out->close();
  } else {
    out->null("summary");
  }
  // In JSON the library's own lines are part of the report.
  out->open_array("log");
  for (const std::string& line : take_library_log()) out->text(nullptr, line);
  out->close();
  out->finish();
}

}  // namespace

bool Check::has_error() const {
  return std::any_of(findings.begin(), findings.end(), [](const Finding& f) { return f.error; });
}

bool read_checked_file(Check& check) {
  std::string reason;
  if (!read_file(check.path, check.text, reason)) {
    check.error(kWholeFile, "can't be read: " + reason);
    return false;
  }
  if (check.text.empty()) {
    check.error(kWholeFile, "the file is empty");
    return false;
  }
  return true;
}

int report(const Options& o, Check& check, const Verdict& verdict) {
  // The verdict is the library's. Should it refuse a file in which this
  // check saw nothing wrong, its log is all there is to go by.
  if (!check.loads && !check.has_error())
    check.error(kWholeFile, "the library refuses this file for a reason this check does not know; its log says why");
  // The whole file first, then in file order.
  auto rank = [](const Finding& f) { return f.offset == kWholeFile ? 0 : f.offset + 1; };
  std::stable_sort(check.findings.begin(), check.findings.end(),
                   [&](const Finding& a, const Finding& b) { return rank(a) < rank(b); });
  LineIndex lines(check.text);
  if (o.json)
    _json_report(check, lines, verdict);
  else
    _text_report(check, lines, verdict);
  return check.loads && check.findings.empty() ? 0 : kFailed;
}

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

}  // namespace tool
