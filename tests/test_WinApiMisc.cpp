// The system information file, the alarm sound and the small Win32 calls.
// The catalogue behind the sound loads once per process; every sound test
// uses the same catalogue text, so they agree also when run in one process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <climits>
#include <filesystem>
#include <set>

#include "support.h"

using namespace testsupport;

namespace {

using Info = std::unique_ptr<LinuxInfo_t, void (*)(void*)>;

// What reading `json` gives: the fields that are set as "Name=text", or
// "null"; then the log, the reader's own lines at level 3 as their text alone.
Lines outcome(const std::string& json) {
  ScratchFile file(json, "sysinfo.json");
  Info info(GetLinuxInfoEx(file.path().c_str()), free);
  LinuxInfo_t none = {};
  const LinuxInfo_t& r = info ? *info : none;
  Lines out = info ? Lines{} : Lines{"null"};
  const std::pair<const char*, const char*> texts[] = {
      {"ProductName", r.ProductName}, {"Cpu", r.Cpu}, {"Model", r.Model}, {"SerialNumber", r.SerialNumber}};
  for (const auto& [name, text] : texts)
    if (*text) out.push_back(name + ("=" + std::string(text)));
  if (r.Ram) out.push_back("Ram=" + std::to_string(r.Ram));
  const std::string reader = "3 GetLinuxInfoEx: ";
  for (const std::string& line : Log::take())
    out.push_back(line.compare(0, reader.size(), reader) ? line : line.substr(reader.size()));
  return out;
}

// An object of `n` pairs "Cpu":"1" ... "Cpu":"n" and `tail`: 2n + 1 tokens and those of `tail`.
std::string pairs(int n, const char* tail = "") {
  std::string json = "{";
  for (int i = 1; i <= n; i++) json += "\"Cpu\":\"" + std::to_string(i) + "\",";
  return json + tail + "}";
}

int open_files() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

}  // namespace

TEST(LinuxInfoRead, FieldsAndLogPerFile) {
  const std::string p62(62, 'p'), c31(31, 'c');
  const std::pair<std::string, Lines> rows[] = {
      {R"({"ProductName":"Recorder","SerialNumber":"0001","Model":"NV-4000-B","Cpu":"x86-64",)"
       R"("Ram":8192})",
       {"ProductName=Recorder\n", "Cpu=x86-64\n", "Model=NV-4000-B\n", "SerialNumber=0001\n", "Ram=8192"}},
      {R"({"Ram":"3000000000"})", {"Ram=-1294967296"}},  // cut to 32 bits
      {R"({"Model":"A","Model":"B"})", {"Model=B\n"}},   // the last occurrence wins
      // Keys are case-sensitive; what is not taken is reported.
      {R"({"model":"X","Cpu":"y"})", {"Cpu=y\n", "Unexpected key: model\n", "Unexpected key: X\n"}},
      {R"({"a":{"Model":"X"}})", {"Model=X\n", "Unexpected key: a\n", "Unexpected key: {\"Model\":\"X\"}\n"}},
      {R"({"Owner":"Model","Ram":"x"})", {"Model=Ram\n", "Unexpected key: Owner\n", "Unexpected key: x\n"}},
      {R"({"Cpu":"c","Model"})", {"Cpu=c\n"}},  // a known key as the last token
      {pairs(15, "\"Model\""), {"Cpu=15\n"}},  // ... as the 32nd
      {pairs(15), {"Cpu=15\n"}},
      // Texts that fit keep their line feed; longer ones are cut without it.
      {"{\"ProductName\":\"" + p62 + "\",\"Cpu\":\"" + c31 + "\"}", {"ProductName=" + p62 + "\n", "Cpu=" + c31}},
      // Refused: NULL and one message.
      {" \n", {"null", "Object expected\n"}},
      {R"(["Model","x"])", {"null", "Object expected\n"}},
      {"\xEF\xBB\xBF{}", {"null", "Failed to parse JSON: -2\n"}},  // a byte order mark
      {pairs(16), {"null", "Failed to parse JSON: -1\n"}}};
  for (const auto& [json, want] : rows) EXPECT_EQ(outcome(json), want) << json;
}

// Every failure of the whole-file reader, which the catalogue shares.
TEST(LinuxInfoFile, FilesThatCannotBeReadGiveNullAndTheReaderSaysWhyAtLevel3) {
  ScratchFile empty("", "sysinfo.json"), fifo(""), large("");
  unlink(fifo.path().c_str());
  ASSERT_EQ(mkfifo(fifo.path().c_str(), 0600), 0);
  const int fd = open(fifo.path().c_str(), O_RDWR | O_NONBLOCK);  // so that fopen does not block
  ASSERT_EQ(truncate(large.path().c_str(), 1L << 31), 0);  // sparse
  const std::string dir = std::filesystem::path(empty.path()).parent_path();
  struct stat dir_stat;
  ASSERT_EQ(stat(dir.c_str(), &dir_stat), 0);
  const std::pair<std::string, std::string> rows[] = {
      {"/nonexistent/sysinfo.json", "Missing Linux info file /nonexistent/sysinfo.json"},
      {empty.path(), "Empty Linux info file: " + empty.path()},
      {fifo.path(), "Empty Linux info file: " + fifo.path()},  // no size
      {large.path(), "Too large Linux info file: " + large.path()},
      {dir, "Fail to read Linux info file, expected " + std::to_string(dir_stat.st_size) +
                " bytes, read 0"}};  // a directory opens, but can not be read
  for (const auto& [path, line] : rows) {
    EXPECT_EQ(GetLinuxInfoEx(path.c_str()), nullptr) << path;
    EXPECT_EQ(Log::take(), Lines{"3 GetLinuxInfoEx: " + line}) << path;
  }
  close(fd);
  EXPECT_EQ(GetLinuxInfoEx(nullptr), nullptr);
  EXPECT_EQ(Log::take(), Lines{"2 GetLinuxInfoEx: GetLinuxInfoEx: path == NULL"});
  static std::vector<size_t> asked;  // the sizes the calls to calloc asked for
  static size_t fail_at;
  SEAM(calloc, [](size_t n, size_t size) -> void* {
    asked.push_back(n * size);
    return asked.size() == fail_at ? nullptr : calloc(n, size);
  });
  const Lines want[] = {{"null", "No memo for Linux info file"}, {"null", "no memo for LinuxInfo_t\n"},
                        {"Model=x\n"}};
  for (fail_at = 1; fail_at <= 3; fail_at++) {
    asked.clear();
    EXPECT_EQ(outcome(R"({"Model":"x"})"), want[fail_at - 1]) << fail_at;  // the text, the record
  }
  EXPECT_EQ(asked, (std::vector<size_t>{14, sizeof(LinuxInfo_t)}));  // the file's length and a NUL
}

TEST(LinuxInfoFile, GetLinuxInfoReadsAnewAtEveryCallAndThreadsReadAtOnce) {
  ScratchFile file(R"({"Model":"A"})", "sysinfo.json");
  ScopedPaths paths(file.path().c_str(), nullptr, nullptr);
  Info first(GetLinuxInfo(), free);
  file.write(R"({"Model":"B"})");
  Info second(GetLinuxInfo(), free);
  ASSERT_TRUE(first && second);
  EXPECT_EQ(std::string(first->Model) + second->Model, "A\nB\n");
  const std::string sample = resource("sysinfo.json");
  on_threads(4, [&](int) {  // each into its own record
    for (int i = 0; i < 50; i++) {
      Info info(GetLinuxInfoEx(sample.c_str()), free);
      EXPECT_TRUE(info && std::string(info->Model) == "HX-408\n" && info->Ram == 8192);
    }
  });
  EXPECT_EQ(Log::take(), Lines{});
}

const char* const kPlay = "paplay /usr/share/sounds/sound-icons/cembalo-2.wav &";

class Sound : public ::testing::Test {
 protected:
  ScratchFile catalogue{R"({"Brands":[{"Brand":"Halvard","Models":[{"Model":"HX-408",)"
                        R"("BuzzerAlarm":true},{"Model":"HX-816P","BuzzerAlarm":false}]}]})",
                        "hw-models.conf"};
  ScratchFile sysinfo{R"({"Model":"HX-408"})", "sysinfo.json"};
  ScopedPaths paths{sysinfo.path().c_str(), catalogue.path().c_str(), nullptr};
  SystemRecorder recorder;
};

TEST_F(Sound, BuzzerMachinesBeepTheArgumentsOrTheTypesToneAndOthersPlayTheFile) {
  EXPECT_EQ((std::vector<int>{Beep(1000, 200), Beep(0, 0), Beep(4294967295u, 4294967295u),
                              MessageBeep(16), MessageBeep(48), MessageBeep(64),
                              MessageBeep(0xFFFFFFFF), MessageBeep(0), MessageBeep(32)}),
            std::vector<int>(9, 1));
  const std::string tone = " -l 400";
  EXPECT_EQ(recorder.take(), (Lines{"beep -f 1000 -l 200", "beep -f 0 -l 0",
                                    "beep -f 4294967295 -l 4294967295", "beep -f 600" + tone,
                                    "beep -f 523" + tone, "beep -f 440" + tone,
                                    "beep -f 500" + tone, "beep -f 755" + tone, "beep -f 755" + tone}));
  recorder.set_status(256);  // a command that fails gives 0, and no log line, on either machine
  EXPECT_EQ(Beep(1000, 200) + MessageBeep(1), 0);
  sysinfo.write(R"({"Model":"HX-816P"})");
  EXPECT_EQ(Beep(1000, 200) + MessageBeep(1), 0);
  recorder.set_status(0);
  EXPECT_EQ(recorder.take(), (Lines{"beep -f 1000 -l 200", "beep -f 755" + tone, kPlay, kPlay}));
  // The system information is read at every call; a machine it does not name plays the file.
  for (const char* json : {R"({"Model":"HX-816P"})", R"({"Model":"XY-1"})", "{}", "["}) {
    sysinfo.write(json);
    EXPECT_EQ((std::vector<int>{Beep(1000, 200), MessageBeep(16)}), std::vector<int>(2, 1));
  }
  unlink(sysinfo.path().c_str());
  EXPECT_EQ(MessageBeep(16), 1);
  EXPECT_EQ(recorder.take(), Lines(9, kPlay));
  const std::string parse = "3 GetLinuxInfoEx: Failed to parse JSON: -3\n";
  EXPECT_EQ(Log::take(), (Lines{parse, parse, "3 GetLinuxInfoEx: Missing Linux info file " +
                                                  sysinfo.path()}));
  sysinfo.write(R"({"Model":"HX-408"})");
  on_threads(4, [](int) {
    for (int i = 0; i < 10; i++) EXPECT_EQ(MessageBeep(48), 1);
  });
  EXPECT_EQ(recorder.take(), Lines(40, "beep -f 523" + tone));
}

TEST(Interlocked, ResultsOn64BitsNullTargetsAndManyThreadsAtOnce) {
  volatile long v = 0xFFFFFFFFL;
  EXPECT_EQ(InterlockedIncrement(&v), 0x100000000L);
  EXPECT_EQ(InterlockedDecrement(&v), 0xFFFFFFFFL);
  EXPECT_EQ(InterlockedExchange(&v, -1), 0xFFFFFFFFL);
  EXPECT_EQ(InterlockedCompareExchange(&v, 9, 0xFFFFFFFFL), -1);  // compared in all 64 bits
  EXPECT_EQ(InterlockedCompareExchange(&v, 1L << 40, -1), -1);
  EXPECT_EQ(v, 1L << 40);
  // A NULL target is refused with 0, never followed.
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
      InterlockedIncrement(&counter), InterlockedIncrement(&counter), InterlockedDecrement(&counter);
      for (long seen = cas_counter, found;
           (found = InterlockedCompareExchange(&cas_counter, seen + 1, seen)) != seen;)
        seen = found;
      taken += InterlockedExchange(&slot, t * kRounds + i);
    }
  });
  EXPECT_EQ(std::make_pair(counter, cas_counter), std::make_pair((1L << 33) + 4 * kRounds, 4 * kRounds));
  EXPECT_EQ(taken + slot, 4 * kRounds * (4 * kRounds + 1) / 2);  // each value came out once
}

TEST(SmallCalls, StubsBitTestAndTheNexcomTable) {
  EXPECT_EQ(IsBadWritePtr(nullptr, 100), 0);
  EXPECT_EQ((std::vector<int>{IsBitSet(0x80000000u, 31), IsBitSet(2, 0), IsBitSet(1, 0),
                              IsBitSet(6, 2), IsBitSet(~0u, 32), IsBitSet(~0u, -1)}),
            (std::vector<int>{INT_MIN, 0, 1, 4, 0, 0}));
  EXPECT_EQ(Lines(gNexcomModels, gNexcomModels + 2), (Lines{"NViS-1482", "NVR-1U-8CH"}));
  EXPECT_EQ(gNexcomModels[2], nullptr);
  char name[8] = "keep";
  EXPECT_EQ(GetModuleFileName(nullptr, name, sizeof name), 0u);
  EXPECT_STREQ(name, "keep");
  EXPECT_EQ(Log::take(), Lines{"3 GetModuleFileName: Should not call this function"});
}

TEST(CoCreateGuid, RandomGuidsInTheOrderOfTheKernelsTextAndNoSourceLeavesTheRecordAlone) {
  std::set<std::string> seen;
  GUID guid;
  const auto* b = reinterpret_cast<const unsigned char*>(&guid);
  const int files = open_files();
  for (int i = 0; i < 100; i++) {  // version 4, variant RFC 4122
    ASSERT_EQ(CoCreateGuid(&guid), 0);
    EXPECT_TRUE(b[6] >> 4 == 4 && b[8] >> 6 == 2);
    seen.insert(std::string(reinterpret_cast<const char*>(b), 16));
  }
  EXPECT_EQ(std::make_pair(seen.size(), open_files()), std::make_pair(size_t(100), files));
  {
    SEAM(fopen, [](const char* path, const char* mode) -> FILE* {
      static char text[] = "00112233-4455-6677-8899-aabbccddeeff\n";
      return strcmp(path, "/proc/sys/kernel/random/uuid") || strcmp(mode, "r")
                 ? nullptr : fmemopen(text, strlen(text), "r");
    });
    ASSERT_EQ(CoCreateGuid(&guid), 0);
    for (int i = 0; i < 16; i++) EXPECT_EQ(b[i], i * 0x11) << i;
  }
  SEAM(fopen, [](const char*, const char*) -> FILE* { return nullptr; });
  memset(&guid, 0xA5, sizeof guid);
  EXPECT_EQ(CoCreateGuid(&guid) * 10 + CoCreateGuid(nullptr), 11);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(b), 16), std::string(16, '\xA5'));
  EXPECT_EQ(Log::take(), Lines{"2 CoCreateGuid: CoCreateGuid: pguid == NULL"});
}

TEST(SplitPath, TheTableAllAtOnceOrOneBufferAtATimeAndANullPath) {
  const char* const rows[][4] = {  // {path, dir, fname, ext}; the drive stays empty
      {"name", "", "name", ""},     {"name.txt", "", "name", "txt"},     {"a.b.c", "", "a.b", "c"},
      {".profile", "", ".profile", ""}, {"/usr/lib/x.so", "/usr/lib/", "x", "so"},
      {"/usr/lib/x", "/usr/lib/", "x", ""}, {"/usr/lib/", "/usr/lib/", "", ""},
      {"/usr/.cfg", "/usr/", ".cfg", ""},  {"/usr.d/x", "/usr.d/", "x", ""}, {"x.", "", "x", ""},
      {"..", "", ".", ""}, {"/", "", "/", ""}, {"/x.so", "/", "x", "so"}, {"", "", "", ""}};
  for (const auto& row : rows) {
    char parts[4][32] = {"junk", "junk", "junk", "junk"};
    _splitpath(row[0], parts[0], parts[1], parts[2], parts[3]);
    EXPECT_STREQ(parts[0], "") << row[0];
    for (int k = 1; k < 4; k++) {
      EXPECT_STREQ(parts[k], row[k]) << row[0];
      char one[32] = "junk", *alone[4] = {};  // one buffer at a time: the null ones are skipped
      alone[k] = one;
      _splitpath(row[0], alone[0], alone[1], alone[2], alone[3]);
      EXPECT_STREQ(one, row[k]) << row[0];
    }
  }
  char part[8] = "x";
  _splitpath(nullptr, part, part, part, part);
  EXPECT_STREQ(part, "");
}
