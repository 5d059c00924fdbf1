// The list of time zone names, the selected zone from /etc/timezone and
// selecting a zone by key.
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>

#include <algorithm>
#include <string>
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
  for (const auto& line : Log::lines())
    out.push_back((line.file == "../CommonL/KORVALinuxTime" ? "" : line.file + " ") +
                  std::to_string(line.level) + " " + line.function + ": " + line.text);
  Log::clear();
  return out;
}

// TZ__get_selected_id with /etc/timezone holding `content`.
int selected(const std::string& content) {
  testsupport::ScratchFile file(content, "timezone");
  testsupport::ScopedPaths paths(nullptr, nullptr, file.path().c_str());
  return TZ__get_selected_id();
}

}  // namespace

TEST(TimeZoneList, CountOrderRegionsAndSamples) {
  ASSERT_EQ(TZ__get_num_timezones(), 348);
  std::vector<std::string> names;
  size_t longest = 0;
  for (int key = 0; key < 348; key++) {
    names.push_back(name_of(key));
    longest = std::max(longest, names.back().size());
    if (key > 0) {
      EXPECT_LT(names[key - 1], names[key]) << key;
    }
  }
  EXPECT_EQ(longest, 30u);
  // Each region from its first key to the next region's.
  const std::pair<int, std::string> regions[] = {
      {0, "Africa/"},   {20, "America/"},   {150, "Antarctica/"},
      {160, "Asia/"},   {237, "Atlantic/"}, {246, "Australia/"},
      {257, "Europe/"}, {303, "Indian/"},   {311, "Pacific/"},
      {347, "UTC"},     {348, ""}};
  for (int r = 0; r + 1 < 11; r++)
    for (int key = regions[r].first; key < regions[r + 1].first; key++)
      EXPECT_EQ(names[key].rfind(regions[r].second, 0), 0u) << names[key];
  EXPECT_EQ(names[12], "Africa/Maputo");
  EXPECT_EQ(names[108], "America/New_York");
  EXPECT_EQ(names[195], "Asia/Kathmandu");
  EXPECT_EQ(names[284], "Europe/Paris");
  EXPECT_EQ(names[347], "UTC");
}

TEST(TimeZoneKeys, OutOfRangeGivesMinusOneAndAnEmptyStringOfTheCallers) {
  for (int key : {0, 284, 347}) EXPECT_EQ(TZ__get_id(key), key);
  for (int key : {348, -1, INT_MIN, INT_MAX}) {
    EXPECT_EQ(TZ__get_id(key), -1);
    EXPECT_EQ(name_of(key), "");
    EXPECT_EQ(TZ__get_dts(key), 0);
  }
  EXPECT_EQ(TZ__get_dts(284), 0);
  testsupport::ScopedSys<decltype(commonl::sys.strdup)> no_memory(
      commonl::sys.strdup, [](const char*) -> char* { return nullptr; });
  EXPECT_EQ(TZ__get_name(5), nullptr);
  EXPECT_EQ(TZ__get_name(-1), nullptr);
  EXPECT_EQ(log_lines(), Lines{});
}

TEST(SelectedZone, TheFirstLineMatchedByteForByte) {
  const std::string fills(300, 'A');
  const struct {
    std::string content;
    int key;
    std::string name_read;
  } cases[] = {{"Europe/Paris", 284, ""},
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
  for (const auto& c : cases) {
    EXPECT_EQ(selected(c.content), c.key) << c.content;
    EXPECT_EQ(log_lines(), c.key >= 0 ? Lines{}
                                      : Lines{"3 TZ__get_selected_id: Could not find match for "
                                              "timezone " +
                                              c.name_read});
  }
}

TEST(SelectedZone, AFileThatCannotBeOpened) {
  testsupport::ScopedPaths paths(nullptr, nullptr, "/nonexistent/commonl/timezone");
  EXPECT_EQ(TZ__get_selected_id(), -1);
  EXPECT_EQ(log_lines(),
            Lines{"3 TZ__get_selected_id: Could not open /nonexistent/commonl/timezone"});
  Log::set_level(2);
  EXPECT_EQ(TZ__get_selected_id(), -1);
  EXPECT_EQ(log_lines(), Lines{});
}

TEST(SetLinuxTimeZone, TheKeyInDecimalSelectsItsNameWithoutSudo) {
  testsupport::SystemRecorder recorder;
  // Leading blanks and a sign are read, the rest ignored, and the number is
  // narrowed to 32 bits (4294967580 = 2^32 + 284).
  const std::pair<const char*, const char*> cases[] = {{"347", "UTC"},
                                                       {"", "Africa/Abidjan"},
                                                       {"abc", "Africa/Abidjan"},
                                                       {"12abc", "Africa/Maputo"},
                                                       {" +284", "Europe/Paris"},
                                                       {"4294967580", "Europe/Paris"}};
  Lines expected;
  for (const auto& c : cases) {
    EXPECT_EQ(SetLinuxTimeZone(c.first), 1) << c.first;
    expected.push_back(std::string("/usr/bin/timedatectl set-timezone ") + c.second);
  }
  EXPECT_EQ(recorder.commands(), expected);
  EXPECT_EQ(log_lines(), Lines{});
}

TEST(SetLinuxTimeZone, BadKeysRunNothingAFailedCommandIsLogged) {
  testsupport::SystemRecorder recorder(256);
  for (const char* key : {"348", "-1", "4294967295"}) {
    EXPECT_EQ(SetLinuxTimeZone(key), 0);
    EXPECT_EQ(log_lines(), Lines{std::string("3 SetLinuxTimeZone: Bad TimeZoneKey: ") + key});
  }
  EXPECT_EQ(SetLinuxTimeZone(nullptr), 0);
  EXPECT_EQ(log_lines(), Lines{"2 SetLinuxTimeZone: KORVA Assert"});
  EXPECT_EQ(recorder.commands(), Lines{});
  EXPECT_EQ(SetLinuxTimeZone("284"), 0);
  EXPECT_EQ(recorder.commands(), Lines{"/usr/bin/timedatectl set-timezone Europe/Paris"});
  EXPECT_EQ(log_lines(),
            Lines{"3 SetLinuxTimeZone: fail to run cmd: /usr/bin/timedatectl set-timezone "
                  "Europe/Paris"});
}
