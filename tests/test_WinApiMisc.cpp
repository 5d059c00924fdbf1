// The system information file, the alarm sound and the small Win32 calls.
// The catalogue behind the sound loads once per process; every sound test
// uses the same catalogue text, so they agree also when run in one process.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <set>

#include "support.h"

using namespace testsupport;

namespace {

// What reading `json` gives: the record as "ProductName|Cpu|Model|SerialNumber|Ram", or
// "null"; then the log, the reader's own lines at level 3 as their text alone.
Lines outcome(const std::string& json) {
  ScratchFile file(json, "sysinfo.json");
  std::unique_ptr<LinuxInfo_t, void (*)(void*)> r(GetLinuxInfoEx(file.path().c_str()), free);
  Lines out{r ? r->ProductName + ("|" + std::string(r->Cpu)) + "|" + r->Model + "|" +
                    r->SerialNumber + "|" + std::to_string(r->Ram)
              : "null"};
  for (const std::string& line : Log::take())
    out.push_back(line.rfind("3 GetLinuxInfoEx: ", 0) ? line : line.substr(18));
  return out;
}

const char* const kPlay = "paplay /usr/share/sounds/sound-icons/cembalo-2.wav &";

}  // namespace

TEST(LinuxInfoRead, FieldsAndLogPerFile) {
  const std::string p62(62, 'p'), c31(31, 'c'), deep = std::string(31, '[') + std::string(31, ']');
  const std::pair<std::string, Lines> rows[] = {
      {R"({"ProductName":"R","SerialNumber":"0001","Model":"NV-4000-B","Cpu":"x86","Ram":8192})",
       {"R\n|x86\n|NV-4000-B\n|0001\n|8192"}},
      {R"({"Ram":"3000000000","Model":"A","Model":"B"})", {"||B\n||-1294967296"}},  // 32 bits
      // Keys are case-sensitive; what is not taken is reported, its value as a key too.
      {R"({"model":"X"})", {"||||0", "Unexpected key: model\n", "Unexpected key: X\n"}},
      {R"({"Cpu":"c","Model"})", {"|c\n|||0"}},  // a known key as the last token
      // Texts that fit keep their line feed; longer ones are cut without it.
      {"{\"ProductName\":\"" + p62 + "\",\"Cpu\":\"" + c31 + "\"}", {p62 + "\n|" + c31 + "|||0"}},
      {" \n", {"null", "Object expected\n"}},
      {R"(["Model","x"])", {"null", "Object expected\n"}},
      {"{\"a\":" + deep + "}", {"null", "Failed to parse JSON: -1\n"}}};  // 33 tokens
  for (const auto& [json, want] : rows) EXPECT_EQ(outcome(json), want) << json;
}

// Every failure of the whole-file reader, which the catalogue shares; and readers at once.
TEST(LinuxInfoFile, FilesThatCannotBeReadGiveNullAndTheReaderSaysWhyAndThreadsReadAtOnce) {
  ScratchFile empty("", "sysinfo.json"), large("");
  ASSERT_EQ(truncate(large.path().c_str(), 1L << 31), 0);  // sparse
  const std::string dir = empty.path().substr(0, empty.path().rfind('/'));
  struct stat dir_stat;
  ASSERT_EQ(stat(dir.c_str(), &dir_stat), 0);
  const std::string size = std::to_string(dir_stat.st_size), op = "3 GetLinuxInfoEx: ";
  // clang-format off
  const std::pair<const char*, std::string> rows[] = {
      {nullptr, "2 GetLinuxInfoEx: GetLinuxInfoEx: path == NULL"},
      {"/nonexistent/sysinfo.json", op + "Missing Linux info file /nonexistent/sysinfo.json"},
      {empty.path().c_str(), op + "Empty Linux info file: " + empty.path()},
      {large.path().c_str(), op + "Too large Linux info file: " + large.path()},
      {dir.c_str(), op + "Fail to read Linux info file, expected " + size + " bytes, read 0"}};
  // clang-format on
  for (const auto& [path, line] : rows)
    EXPECT_TRUE(GetLinuxInfoEx(path) == nullptr && Log::take() == Lines{line}) << line;
  const std::string sample = resource("sysinfo.json");
  on_threads(4, [&](int) {
    for (int i = 0; i < 50; i++) {
      std::unique_ptr<LinuxInfo_t, void (*)(void*)> info(GetLinuxInfoEx(sample.c_str()), free);
      EXPECT_TRUE(info && std::string(info->Model) == "HX-408\n" && info->Ram == 8192);
    }
  });
  EXPECT_EQ(Log::take(), Lines{});
  static std::vector<size_t> asked;  // the sizes the calls to calloc asked for
  static size_t fail_at;
  SEAM(calloc, [](size_t n, size_t size) -> void* {
    asked.push_back(n * size);
    return asked.size() == fail_at ? nullptr : calloc(n, size);
  });
  // Failing for the text, then for the record, then not.
  const Lines want[] = {
      {"null", "No memo for Linux info file"}, {"null", "no memo for LinuxInfo_t\n"}, {"||x\n||0"}};
  for (fail_at = 1; fail_at <= 3; fail_at++)
    EXPECT_EQ((asked.clear(), outcome(R"({"Model":"x"})")), want[fail_at - 1]) << fail_at;
  EXPECT_EQ(asked, (std::vector<size_t>{14, sizeof(LinuxInfo_t)}));  // the file's length and a NUL
}

class Sound : public ::testing::Test {
 protected:
  ScratchFile catalogue{
      R"({"Brands":[{"Brand":"Halvard","Models":[{"Model":"HX-408","BuzzerAlarm":true}]}]})",
      "hw-models.conf"};
  ScratchFile sysinfo{R"({"Model":"HX-408"})", "sysinfo.json"};
  ScopedPaths paths{sysinfo.path().c_str(), catalogue.path().c_str(), nullptr};
  SystemRecorder recorder;
};

TEST_F(Sound, BuzzerMachinesBeepTheArgumentsOrTheTypesToneAlsoFromThreadsOthersPlayTheFile) {
  const std::string f = "beep -f ", tone = " -l 400";
  const std::pair<unsigned int, const char*> tones[] = {
      {16, "600"}, {48, "523"}, {64, "440"}, {0xFFFFFFFF, "500"}, {0, "755"}, {32, "755"}};
  for (auto [type, hz] : tones)
    EXPECT_TRUE(MessageBeep(type) == 1 && recorder.take() == Lines{f + hz + tone}) << type;
  on_threads(4, [](int) {
    for (int i = 0; i < 10; i++) EXPECT_EQ(MessageBeep(48), 1);
  });
  EXPECT_EQ(recorder.take(), Lines(40, f + "523" + tone));
  // The system information is read at every call; a machine it does not name plays the file.
  sysinfo.write("{}");
  EXPECT_EQ((std::vector<int>{Beep(1000, 200), MessageBeep(16)}), std::vector<int>(2, 1));
  unlink(sysinfo.path().c_str());
  EXPECT_EQ(MessageBeep(16), 1);
  EXPECT_EQ(recorder.take(), Lines(3, kPlay));
  EXPECT_EQ(Log::take(), Lines{"3 GetLinuxInfoEx: Missing Linux info file " + sysinfo.path()});
  recorder.set_status(256);  // a command that fails gives 0, and no log line, on either machine
  EXPECT_EQ((std::vector<int>{(sysinfo.write(R"({"Model":"HX-408"})"), Beep(1000, 2)),
                              (sysinfo.write("{}"), MessageBeep(1))}),
            std::vector<int>(2, 0));
  EXPECT_EQ(recorder.take(), (Lines{f + "1000 -l 2", kPlay}));
}

TEST(Interlocked, ResultsOn64BitsNullTargetsAndManyThreadsAtOnce) {
  volatile long v = 0xFFFFFFFFL;  // 64 bits wide, compared in all of them
  EXPECT_EQ((std::vector<long>{InterlockedIncrement(&v), InterlockedExchange(&v, -1),
                               InterlockedCompareExchange(&v, 9, ~0u), InterlockedDecrement(&v)}),
            (std::vector<long>{1L << 32, 1L << 32, -1, -2}));
  EXPECT_FALSE(InterlockedIncrement(nullptr) || InterlockedDecrement(nullptr) ||
               InterlockedExchange(nullptr, 5) || InterlockedCompareExchange(nullptr, 5, 0));
  EXPECT_EQ(Log::take(), (Lines{"2 InterlockedIncrement: InterlockedIncrement: Addend == NULL",
                                "2 InterlockedDecrement: InterlockedDecrement: Addend == NULL",
                                "2 InterlockedExchange: InterlockedExchange: Target == NULL",
                                "2 InterlockedCompareExchange: InterlockedCompareExchange: "
                                "Destination == NULL"}));
  const long kRounds = 20000;
  volatile long counter = 1L << 33, cas_counter = 0, slot = 0;
  std::atomic<long> taken{0};  // what the exchanges took out of the slot
  on_threads(4, [&](int t) {
    for (long i = 1; i <= kRounds; i++) {
      InterlockedIncrement(&counter), InterlockedDecrement(&counter), InterlockedIncrement(&v);
      for (long seen = __atomic_load_n(&cas_counter, __ATOMIC_RELAXED), found;
           (found = InterlockedCompareExchange(&cas_counter, seen + 1, seen)) != seen;)
        seen = found;
      taken += InterlockedExchange(&slot, t * kRounds + i);
    }
  });
  EXPECT_EQ((std::vector<long>{counter, v, cas_counter, taken + slot}),
            (std::vector<long>{1L << 33, 4 * kRounds - 2, 4 * kRounds,
                               4 * kRounds * (4 * kRounds + 1) / 2}));  // each value out once
}

TEST(SmallCalls, StubsBitTestTheNexcomTableGuidsAndSplitPath) {
  EXPECT_EQ(IsBadWritePtr(nullptr, 100), 0);
  EXPECT_EQ((std::vector<int>{IsBitSet(0x80000000u, 31), IsBitSet(2, 0), IsBitSet(1, 0),
                              IsBitSet(6, 2), IsBitSet(~0u, 32), IsBitSet(~0u, -1)}),
            (std::vector<int>{int(0x80000000u), 0, 1, 4, 0, 0}));
  EXPECT_EQ(Lines(gNexcomModels, gNexcomModels + 2), (Lines{"NViS-1482", "NVR-1U-8CH"}));
  EXPECT_EQ(GetModuleFileName(nullptr, nullptr, 0), 0u);
  EXPECT_EQ(Log::take(), Lines{"3 GetModuleFileName: Should not call this function"});
  GUID guid;
  const auto* b = reinterpret_cast<const unsigned char*>(&guid);
  std::set<std::string> seen;
  const int fd = dup(0);  // the lowest free descriptor, which a file left open would take
  close(fd);
  for (int i = 0; i < 100; i++)  // random, each new: version 4, variant RFC 4122
    EXPECT_TRUE(CoCreateGuid(&guid) == 0 && b[6] >> 4 == 4 && b[8] >> 6 == 2 &&
                seen.insert(std::string(reinterpret_cast<const char*>(b), 16)).second);
  EXPECT_EQ(close(fd), -1);  // still free
  {
    SEAM(fopen, [](const char*, const char*) -> FILE* {  // the bytes in the order of the text
      static char text[] = "00112233-4455-6677-8899-aabbccddeeff\n";
      return fmemopen(text, sizeof text - 1, "r");
    });
    EXPECT_EQ(CoCreateGuid(&guid), 0);
    for (int i = 0; i < 16; i++) EXPECT_EQ(b[i], i * 0x11) << i;
  }
  SEAM(fopen, [](const char*, const char*) -> FILE* { return nullptr; });
  EXPECT_EQ(CoCreateGuid(&guid) * 10 + CoCreateGuid(nullptr), 11);
  EXPECT_EQ(Log::take(), Lines{"2 CoCreateGuid: CoCreateGuid: pguid == NULL"});
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
