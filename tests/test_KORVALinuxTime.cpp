// The list of time zone names, the selected zone from /etc/timezone and
// selecting a zone by key.
#include <sys/stat.h>

#include "support.h"

using namespace testsupport;

static std::string name_of(int key) {
  std::unique_ptr<char, void (*)(void*)> name(TZ__get_name(key), free);
  return name ? name.get() : "(null)";
}

TEST(TimeZoneList, AscendingTzDatabaseNamesByKeyAndEmptyNamesOutOfRange) {
  ASSERT_EQ(TZ__get_num_timezones(), 348);
  struct stat info;
  for (int key = 0; key < 348; key++) {
    EXPECT_TRUE(TZ__get_id(key) == key && TZ__get_dts(key) == 0) << key;
    EXPECT_EQ(stat(("/usr/share/zoneinfo/" + name_of(key)).c_str(), &info), 0) << name_of(key);
    EXPECT_TRUE(key == 0 || name_of(key - 1) < name_of(key)) << key;
  }
  for (int key : {348, -1, INT_MIN, INT_MAX})
    EXPECT_TRUE(TZ__get_id(key) == -1 && name_of(key).empty() && TZ__get_dts(key) == 0) << key;
  SEAM(strdup, [](const char*) -> char* { return nullptr; });
  EXPECT_TRUE(name_of(5) + name_of(-1) == "(null)(null)" && Log::said().empty());
}

TEST(SelectedZone, TheFirstLineOfTheFileMatchedByteForByteThroughTheSeam) {
  const std::string fills(300, 'A'), a255(255, 'A');
  // The file, the key, and the name logged when nothing matches.
  const std::tuple<std::string, int, std::string> rows[] = {
      {"Africa/Abidjan", 0, ""}, {"Europe/Paris\r\nAsia/Tokyo\n", 284, ""},
      {"UTC\n" + fills + fills, 347, ""}, {"Etc/UTC\n", -1, "Etc/UTC"},
      {" Europe/Paris\n", -1, " Europe/Paris"}, {"europe/paris", -1, "europe/paris"},
      {"\nEurope/Paris\n", -1, ""}, {a255 + "\n", -1, a255}, {fills + "\n", -1, a255 + "A"}};
  static ScratchFile* file;
  static std::string opened;
  ScratchFile scratch("", "timezone");
  file = &scratch;
  {
    SEAM(fopen, [](const char* path, const char* mode) {
      return opened = path, fopen(file->path().c_str(), mode);
    });
    for (const auto& [text, key, logged] : rows) {
      scratch.write(text);
      EXPECT_EQ(TZ__get_selected_id(), key) << text;
      EXPECT_EQ(Log::said(), key >= 0 ? "" : "3 TZ__get_selected_id: Could not find match for "
                                             "timezone " + logged + "|");
    }
  }
  EXPECT_EQ(opened, "/etc/timezone");
  ScopedPaths paths(nullptr, nullptr, "/nonexistent/timezone");
  EXPECT_EQ(TZ__get_selected_id(), -1);
  EXPECT_EQ(Log::take(), Lines{"3 TZ__get_selected_id: Could not open /nonexistent/timezone"});
}

TEST(SetLinuxTimeZone, TheKeyInDecimalSelectsItsNameWithoutSudoBadKeysRunNothing) {
  SystemRecorder recorder;
  // Blanks and a sign are read, the rest ignored, the number narrowed to 32
  // bits (4294967580 = 2^32 + 284); then {result, command or log}.
  const std::tuple<const char*, int, std::string> rows[] = {
      {"347", 1, "UTC"}, {"", 1, "Africa/Abidjan"}, {"12abc", 1, "Africa/Maputo"},
      {" +284", 1, "Europe/Paris"}, {"4294967580", 1, "Europe/Paris"},
      {"348", 0, "3 SetLinuxTimeZone: Bad TimeZoneKey: 348"},
      {"-1", 0, "3 SetLinuxTimeZone: Bad TimeZoneKey: -1"}};
  for (const auto& [key, result, said] : rows) {
    EXPECT_EQ(SetLinuxTimeZone(key), result) << key;
    EXPECT_EQ(result ? recorder.take() : Log::take(),
              Lines{result ? "/usr/bin/timedatectl set-timezone " + said : said});
  }
  recorder.set_status(256);
  EXPECT_EQ(SetLinuxTimeZone("0") + SetLinuxTimeZone(nullptr), 0);
  EXPECT_EQ(recorder.take().size(), 1u);
  EXPECT_EQ(Log::said(), "3 SetLinuxTimeZone: fail to run cmd: /usr/bin/timedatectl set-timezone "
                         "Africa/Abidjan|2 SetLinuxTimeZone: KORVA Assert|");
}
