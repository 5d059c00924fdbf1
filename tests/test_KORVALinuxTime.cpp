// The list of time zone names, the selected zone from /etc/timezone and
// selecting a zone by key.
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "KORVALinuxTime.h"
#include "support.h"

using testsupport::Log;
using Lines = std::vector<std::string>;

namespace {

std::string name_of(int key) {
  char* name = TZ__get_name(key);
  std::string copy = name ? name : "(null)";
  free(name);
  return copy;
}

// The log so far as "level function: text", then cleared.
Lines log_lines() {
  Lines out;
  for (const auto& l : Log::lines())
    out.push_back((l.file == "../CommonL/KORVALinuxTime" ? "" : l.file + " ") +
                  std::to_string(l.level) + " " + l.function + ": " + l.text);
  Log::clear();
  return out;
}

const std::string kSet = "/usr/bin/timedatectl set-timezone ";

}  // namespace

TEST(TimeZoneList, CountOrderRegionsSamplesAndKeysOutOfRange) {
  ASSERT_EQ(TZ__get_num_timezones(), 348);
  std::vector<std::string> names;
  size_t longest = 0;
  for (int key = 0; key < 348; key++) {
    names.push_back(name_of(key));
    longest = std::max(longest, names.back().size());
    EXPECT_EQ(TZ__get_id(key), key);
    EXPECT_EQ(TZ__get_dts(key), 0);
  }
  EXPECT_EQ(longest, 30u);
  for (int key = 1; key < 348; key++) EXPECT_LT(names[key - 1], names[key]) << key;
  // Each region from its first key to the next region's.
  const std::pair<int, std::string> regions[] = {
      {0, "Africa/"},   {20, "America/"},   {150, "Antarctica/"},
      {160, "Asia/"},   {237, "Atlantic/"}, {246, "Australia/"},
      {257, "Europe/"}, {303, "Indian/"},   {311, "Pacific/"},
      {347, "UTC"},     {348, ""}};
  for (int r = 0; r < 10; r++)
    for (int key = regions[r].first; key < regions[r + 1].first; key++)
      EXPECT_EQ(names[key].rfind(regions[r].second, 0), 0u) << names[key];
  // More names by key in the other cases.
  EXPECT_EQ(names[108], "America/New_York");
  EXPECT_EQ(names[195], "Asia/Kathmandu");

  for (int key : {348, -1, INT_MIN, INT_MAX}) {
    EXPECT_EQ(TZ__get_id(key), -1);
    EXPECT_EQ(name_of(key), "");
    EXPECT_EQ(TZ__get_dts(key), 0);
  }
  testsupport::ScopedSys<decltype(commonl::sys.strdup)> no_memory(
      commonl::sys.strdup, [](const char*) -> char* { return nullptr; });
  EXPECT_EQ(TZ__get_name(5), nullptr);
  EXPECT_EQ(TZ__get_name(-1), nullptr);
  EXPECT_EQ(log_lines(), Lines{});
}

TEST(SelectedZone, TheFirstLineMatchedByteForByteOrTheFileCannotBeOpened) {
  const std::string fills(300, 'A'),
      no_match = "3 TZ__get_selected_id: Could not find match for timezone ";
  // The content of /etc/timezone, the key, and the name logged without a match.
  const std::tuple<std::string, int, std::string> cases[] = {
      {"Europe/Paris", 284, ""},
      {"Europe/Paris\n", 284, ""},
      {"Europe/Paris\r\nAsia/Tokyo\n", 284, ""},
      {"UTC\n" + fills + fills, 347, ""},
      {"Etc/UTC\n", -1, "Etc/UTC"},
      {" Europe/Paris\n", -1, " Europe/Paris"},
      {"europe/paris", -1, "europe/paris"},
      {"", -1, ""},
      {"\nEurope/Paris\n", -1, ""},
      {fills.substr(0, 255) + "\n", -1, fills.substr(0, 255)},
      {fills + "\n", -1, fills.substr(0, 256)}};  // cut at the buffer's end
  for (const auto& [content, key, logged] : cases) {
    testsupport::ScratchFile file(content, "timezone");
    testsupport::ScopedPaths paths(nullptr, nullptr, file.path().c_str());
    EXPECT_EQ(TZ__get_selected_id(), key) << content;
    EXPECT_EQ(log_lines(), key >= 0 ? Lines{} : Lines{no_match + logged});
  }

  {  // The fixed path goes through the seam like every other file.
    static std::string opened;
    testsupport::ScratchFile file("UTC\n", "timezone");
    static const testsupport::ScratchFile* scratch;
    scratch = &file;
    testsupport::ScopedSys<decltype(commonl::sys.fopen)> seam(
        commonl::sys.fopen, [](const char* path, const char* mode) {
          opened = path;
          return fopen(scratch->path().c_str(), mode);
        });
    EXPECT_EQ(TZ__get_selected_id(), 347);
    EXPECT_EQ(opened, "/etc/timezone");
  }
  testsupport::ScopedPaths paths(nullptr, nullptr, "/nonexistent/commonl/timezone");
  EXPECT_EQ(TZ__get_selected_id(), -1);
  EXPECT_EQ(log_lines(),
            Lines{"3 TZ__get_selected_id: Could not open /nonexistent/commonl/timezone"});
  Log::set_level(2);
  EXPECT_EQ(TZ__get_selected_id(), -1);
  EXPECT_EQ(log_lines(), Lines{});
}

TEST(SetLinuxTimeZone, TheKeyInDecimalSelectsItsNameWithoutSudoBadKeysRunNothing) {
  testsupport::SystemRecorder recorder;
  // Leading blanks and a sign are read, the rest ignored, and the number is
  // narrowed to 32 bits (4294967580 = 2^32 + 284).
  for (const char* key : {"347", "", "abc", "12abc", " +284", "4294967580"})
    EXPECT_EQ(SetLinuxTimeZone(key), 1) << key;
  Lines expected = {kSet + "UTC",           kSet + "Africa/Abidjan", kSet + "Africa/Abidjan",
                    kSet + "Africa/Maputo", kSet + "Europe/Paris",   kSet + "Europe/Paris"};
  EXPECT_EQ(recorder.commands(), expected);
  EXPECT_EQ(log_lines(), Lines{});

  for (const char* key : {"348", "-1", "4294967295"}) {
    EXPECT_EQ(SetLinuxTimeZone(key), 0);
    EXPECT_EQ(log_lines(), Lines{std::string("3 SetLinuxTimeZone: Bad TimeZoneKey: ") + key});
  }
  EXPECT_EQ(SetLinuxTimeZone(nullptr), 0);
  EXPECT_EQ(log_lines(), Lines{"2 SetLinuxTimeZone: KORVA Assert"});
  EXPECT_EQ(recorder.commands(), expected);
  recorder.set_status(256);
  EXPECT_EQ(SetLinuxTimeZone("284"), 0);
  expected.push_back(kSet + "Europe/Paris");
  EXPECT_EQ(recorder.commands(), expected);
  EXPECT_EQ(log_lines(), Lines{"3 SetLinuxTimeZone: fail to run cmd: " + kSet + "Europe/Paris"});
}
