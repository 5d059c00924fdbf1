// The system information file, the alarm sound and the small Win32 calls.
#include <sys/stat.h>

#include <set>

#include "support.h"

using namespace testsupport;

namespace {

// What reading `json` gives: the record as "ProductName|Cpu|Model|SerialNumber|Ram" or
// "null", then "#" and the log, the reader's own lines at level 3 as their text alone.
std::string outcome(const std::string& json) {
  ScratchFile file(json, "sysinfo.json");
  std::unique_ptr<LinuxInfo_t, void (*)(void*)> r(GetLinuxInfoEx(file.path().c_str()), free);
  char got[300] = "null";
  if (r) sprintf(got, "%s|%s|%s|%s|%d", r->ProductName, r->Cpu, r->Model, r->SerialNumber, r->Ram);
  std::string log = got + ("#" + Log::said());
  for (size_t at; (at = log.find("3 GetLinuxInfoEx: ")) != std::string::npos;) log.erase(at, 18);
  return log;
}

}  // namespace

// Texts that fit keep their line feed, longer ones are cut without it; the last
// of a key's values counts, and Ram keeps its low 32 bits. Keys are
// case-sensitive: what is not taken is reported, its value as a key too. The
// whole-file reader, which the catalogue shares, says why it can not read.
TEST(LinuxInfo, FieldsAndLogPerFileFilesThatCannotBeReadMemoryFailuresAndReadersAtOnce) {
  const std::string p62(62, 'p'), c31(31, 'c'), deep = std::string(31, '[') + std::string(31, ']');
  const std::pair<std::string, std::string> rows[] = {
      {"{\"ProductName\":\"" + p62 + R"(","SerialNumber":"1","Model":"A","Model":"B","Cpu":")" +
           c31 + R"(","Ram":"3000000000"})",
       p62 + "\n|" + c31 + "|B\n|1\n|-1294967296#"},
      {R"({"model":"X","Ram":8192})", "||||8192#Unexpected key: model\n|Unexpected key: X\n|"},
      {R"({"Cpu":"c","Model"})", "|c\n|||0#"},  // a known key as the last token
      {" \n", "null#Object expected\n|"}, {R"(["Model","x"])", "null#Object expected\n|"},
      {"{\"a\":" + deep + "}", "null#Failed to parse JSON: -1\n|"}};  // 33 tokens
  for (const auto& [json, want] : rows) EXPECT_EQ(outcome(json), want) << json;
  on_threads(4, [](int) {
    for (int i = 0; i < 50; i++) EXPECT_EQ(outcome(R"({"Model":"HX-408"})"), "||HX-408\n||0#");
  });
  ScratchFile empty("", "sysinfo.json"), large("");
  ASSERT_EQ(truncate(large.path().c_str(), 1L << 31), 0);  // sparse
  const std::string dir = empty.path().substr(0, empty.path().rfind('/'));
  const std::string op = "|3 GetLinuxInfoEx: ";
  struct stat dir_stat;
  ASSERT_EQ(stat(dir.c_str(), &dir_stat), 0);
  for (const char* path : {(const char*)nullptr, "/nonexistent/sysinfo.json", empty.path().c_str(),
                           large.path().c_str(), dir.c_str()})
    EXPECT_EQ(GetLinuxInfoEx(path), nullptr);
  EXPECT_EQ(Log::said(), "2 GetLinuxInfoEx: GetLinuxInfoEx: path == NULL" + op +
                             "Missing Linux info file /nonexistent/sysinfo.json" + op +
                             "Empty Linux info file: " + empty.path() + op +
                             "Too large Linux info file: " + large.path() + op +
                             "Fail to read Linux info file, expected " +
                             std::to_string(dir_stat.st_size) + " bytes, read 0|");
  static size_t refused;  // the size calloc refuses: the text and its NUL, the record, none
  SEAM(calloc, [](size_t n, size_t s) { return n * s == refused ? nullptr : calloc(n, s); });
  std::string got;
  for (size_t size : {size_t(14), sizeof(LinuxInfo_t), size_t(0)})
    got += (refused = size, outcome(R"({"Model":"x"})"));
  EXPECT_EQ(got, "null#No memo for Linux info file|null#no memo for LinuxInfo_t\n|||x\n||0#");
}

// The system information is read at every call; a machine the catalogue does
// not name plays the file. A command that fails gives 0, and no log line.
TEST(Sound, BuzzerMachinesBeepTheArgumentsOrTheTypesToneAlsoFromThreadsOthersPlayTheFile) {
  ScratchFile sysinfo(R"({"Model":"B-1"})", "sysinfo.json"), catalogue(
      R"({"Brands":[{"Brand":"H","Models":[{"Model":"B-1","BuzzerAlarm":true}]}]})",
      "hw-models.conf");
  ScopedPaths paths(sysinfo.path().c_str(), catalogue.path().c_str(), nullptr);
  SystemRecorder recorder;
  const std::string f = "beep -f ", tone = " -l 400";
  const std::string play = "paplay /usr/share/sounds/sound-icons/cembalo-2.wav &";
  const std::pair<unsigned int, const char*> tones[] = {
      {16, "600"}, {48, "523"}, {64, "440"}, {0xFFFFFFFF, "500"}, {0, "755"}, {32, "755"}};
  for (auto [type, hz] : tones)
    EXPECT_TRUE(MessageBeep(type) == 1 && recorder.take() == Lines{f + hz + tone}) << type;
  on_threads(4, [](int) {
    for (int i = 0; i < 10; i++) EXPECT_EQ(MessageBeep(48), 1);
  });
  EXPECT_EQ(recorder.take(), Lines(40, f + "523" + tone));
  const std::vector<int> got{(sysinfo.write("{}"), Beep(1000, 200)), MessageBeep(16),
      (unlink(sysinfo.path().c_str()), MessageBeep(16)), (recorder.set_status(256),
      sysinfo.write(R"({"Model":"B-1"})"), Beep(1000, 2)), (sysinfo.write("{}"), MessageBeep(1))};
  EXPECT_EQ(got, (std::vector<int>{1, 1, 1, 0, 0}));
  EXPECT_EQ(recorder.take(), (Lines{play, play, play, f + "1000 -l 2", play}));
  EXPECT_EQ(Log::said(), "3 GetLinuxInfoEx: Missing Linux info file " + sysinfo.path() + "|");
}

TEST(SmallCalls, InterlockedOn64BitsAndFromManyThreadsStubsBitTestGuidsAndSplitPath) {
  volatile long v = 0xFFFFFFFFL, cas = 0, slot = 0;  // 64 bits wide, compared in all of them
  const std::vector<long> got{InterlockedIncrement(&v), InterlockedExchange(&v, -1),
      InterlockedCompareExchange(&v, 9, ~0u), InterlockedDecrement(&v), InterlockedIncrement(0),
      InterlockedDecrement(0), InterlockedExchange(0, 5), InterlockedCompareExchange(0, 5, 0),
      IsBadWritePtr(0, 100), GetModuleFileName(0, 0, 0), IsBitSet(0x80000000u, 31),
      IsBitSet(2, 0), IsBitSet(1, 0), IsBitSet(6, 2), IsBitSet(~0u, 32), IsBitSet(~0u, -1)};
  EXPECT_EQ(got, (std::vector<long>{1L << 32, 1L << 32, -1, -2, 0, 0, 0, 0, 0, 0, INT32_MIN, 0, 1,
                                    4, 0, 0}));
  const long kRounds = 20000, n = 4 * kRounds;
  std::atomic<long> taken{0};  // what the exchanges took out of the slot
  on_threads(4, [&](int t) {
    for (long i = 1; i <= kRounds; i++) {
      InterlockedIncrement(&v), InterlockedDecrement(&v), InterlockedIncrement(&v);
      for (long seen = 0, was; (was = InterlockedCompareExchange(&cas, seen + 1, seen)) != seen;)
        seen = was;
      taken += InterlockedExchange(&slot, t * kRounds + i);
    }
  });
  // Each value is taken out of the slot once.
  EXPECT_EQ(std::make_tuple(v, cas, taken + slot), std::make_tuple(n - 2, n, n * (n + 1) / 2));
  GUID guid;
  const auto* b = reinterpret_cast<const unsigned char*>(&guid);
  std::set<std::string> seen;
  const int fd = dup(0);  // the lowest free descriptor, which a file left open would take
  close(fd);
  for (int i = 0; i < 100; i++)  // random, each new: version 4, variant RFC 4122
    EXPECT_TRUE(CoCreateGuid(&guid) == 0 && b[6] >> 4 == 4 && b[8] >> 6 == 2 &&
                seen.insert(std::string(reinterpret_cast<const char*>(b), 16)).second);
  EXPECT_EQ(close(fd), -1);  // still free
  static bool none = false;
  SEAM(fopen, [](const char*, const char*) -> FILE* {  // the bytes in the order of the text
    static char text[] = "00112233-4455-6677-8899-aabbccddeeff\n";
    return none ? nullptr : fmemopen(text, sizeof text - 1, "r");
  });
  EXPECT_EQ(CoCreateGuid(&guid), 0);
  for (int i = 0; i < 16; i++) EXPECT_EQ(b[i], i * 0x11) << i;
  EXPECT_EQ((none = true, CoCreateGuid(&guid) * 10 + CoCreateGuid(nullptr)), 11);
  EXPECT_EQ(Log::said(), "2 InterlockedIncrement: InterlockedIncrement: Addend == NULL|"
                         "2 InterlockedDecrement: InterlockedDecrement: Addend == NULL|"
                         "2 InterlockedExchange: InterlockedExchange: Target == NULL|"
                         "2 InterlockedCompareExchange: InterlockedCompareExchange: Destination "
                         "== NULL|3 GetModuleFileName: Should not call this function|"
                         "2 CoCreateGuid: CoCreateGuid: pguid == NULL|");
  // Each path, then "dir|fname|ext" from it; the drive stays empty.
  // clang-format off
  const char* const rows[] = {"name", "|name|", "name.txt", "|name|txt", "a.b.c", "|a.b|c",
      ".profile", "|.profile|", "/usr/lib/x.so", "/usr/lib/|x|so", "/usr/lib/x", "/usr/lib/|x|",
      "/usr/lib/", "/usr/lib/||", "/usr/.cfg", "/usr/|.cfg|", "/usr.d/x", "/usr.d/|x|", "x.", "|x|",
      "..", "|.|", "/", "|/|", "/x.so", "/|x|so", "", "||", nullptr, "||"};
  // clang-format on
  for (size_t i = 0; i < std::size(rows); i += 2) {
    char parts[4][16] = {};
    memset(parts, 'x', sizeof parts - 1);  // each part gets its text and a NUL, nothing more
    _splitpath(rows[i], parts[0], parts[1], parts[2], parts[3]);
    _splitpath(rows[i], nullptr, nullptr, nullptr, nullptr);  // each part is skipped when null
    std::string got;
    for (const char* part : parts)
      got += "|" + std::string(part) + (part[strlen(part) + 1] == 'x' ? "" : " and more");
    EXPECT_EQ(got, "||" + std::string(rows[i + 1])) << (rows[i] ? rows[i] : "null");
  }
}
