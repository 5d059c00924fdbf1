// The system information file, the alarm sound and the small Win32 calls.
// The catalogue behind the sound loads once per process; every sound test
// uses the same catalogue text, so they agree also when run in one process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "CommonL.h"
#include "support.h"

using testsupport::Log;
using testsupport::ScopedPaths;
using testsupport::ScopedSys;
using testsupport::ScratchFile;
using testsupport::SystemRecorder;

namespace {

using Info = std::unique_ptr<LinuxInfo_t, void (*)(void*)>;

Info read_info(const std::string& json) {
  ScratchFile file(json, "sysinfo.json");
  return Info(GetLinuxInfoEx(file.path().c_str()), free);
}

// The log as "level function: text", after checking the source name.
std::vector<std::string> log_lines() {
  std::vector<std::string> out;
  for (const testsupport::LogLine& line : Log::lines()) {
    EXPECT_EQ(line.file, "../CommonL/WinApiMisc");
    out.push_back(std::to_string(line.level) + " " + line.function + ": " + line.text);
  }
  return out;
}

std::vector<std::string> reader_says(const std::vector<std::string>& texts) {
  std::vector<std::string> out;
  for (const std::string& text : texts) out.push_back("3 GetLinuxInfoEx: " + text);
  return out;
}

std::vector<std::string> unexpected(const std::vector<std::string>& keys) {
  std::vector<std::string> texts;
  for (const std::string& key : keys) texts.push_back("Unexpected key: " + key + "\n");
  return reader_says(texts);
}

// A field's whole bytes: the text, then zeros to its end.
template <size_t N>
void expect_field(const char (&field)[N], const std::string& text, const char* name) {
  std::string want = text;
  want.resize(N, '\0');
  EXPECT_EQ(std::string(field, N), want) << name;
}

struct Record {
  std::string ProductName, Cpu, Model, SerialNumber;
  int32_t Ram;
};

void expect_record(const LinuxInfo_t& info, const Record& want) {
  expect_field(info.ProductName, want.ProductName, "ProductName");
  expect_field(info.Cpu, want.Cpu, "Cpu");
  expect_field(info.Model, want.Model, "Model");
  expect_field(info.SerialNumber, want.SerialNumber, "SerialNumber");
  EXPECT_EQ(info.Ram, want.Ram);
}

// An object of `n` pairs "Cpu":"1" ... "Cpu":"n": 2n + 1 tokens.
std::string pairs(int n) {
  std::string json = "{";
  for (int i = 1; i <= n; i++)
    json += (i > 1 ? ",\"Cpu\":\"" : "\"Cpu\":\"") + std::to_string(i) + "\"";
  return json + "}";
}

struct ReadCase {
  const char* name;
  std::string json;
  Record record;
  std::vector<std::string> unexpected_keys;
};

void PrintTo(const ReadCase& c, std::ostream* out) { *out << c.name; }

const std::string p62(62, 'p'), p63(63, 'p'), c30(30, 'c'), c31(31, 'c');

}  // namespace

// --- system information ---

class LinuxInfoRead : public ::testing::TestWithParam<ReadCase> {};

TEST_P(LinuxInfoRead, FieldsAndLog) {
  Info info = read_info(GetParam().json);
  ASSERT_NE(info, nullptr) << Log::dump();
  expect_record(*info, GetParam().record);
  EXPECT_EQ(log_lines(), unexpected(GetParam().unexpected_keys));
}

INSTANTIATE_TEST_SUITE_P(
    Files, LinuxInfoRead,
    ::testing::Values(
        ReadCase{
            "AllFiveKeys",
            R"({"ProductName":"Recorder","SerialNumber":"0001",)"
            R"("Model":"NV-4000-B","Cpu":"x86-64","Ram":8192})",
            {"Recorder\n", "x86-64\n", "NV-4000-B\n", "0001\n", 8192},
            {}},
        ReadCase{"Empty", "{}", {"", "", "", "", 0}, {}},
        ReadCase{"RamAsString", R"({"Ram":"8192"})", {"", "", "", "", 8192}, {}},
        ReadCase{"RamWithUnit", "{\"Ram\":\"16 GB\"}\n", {"", "", "", "", 16}, {}},
        ReadCase{"RamWithoutDigits", R"({"Ram":"lots"})", {"", "", "", "", 0}, {}},
        ReadCase{"RamCutTo32Bits", R"({"Ram":3000000000})", {"", "", "", "", -1294967296}, {}},
        ReadCase{"NegativeRam", R"({"Ram":-5})", {"", "", "", "", -5}, {}},
        ReadCase{"LastOccurrenceWins", R"({"Model":"A","Model":"B"})", {"", "", "B\n", "", 0}, {}},
        ReadCase{"KeysAreCaseSensitive",
                 R"({"model":"X","Cpu":"y"})",
                 {"", "y\n", "", "", 0},
                 {"model", "X"}},
        ReadCase{
            "ArrayValue", R"({"Model":["a","b"]})", {"", "", "[\"a\",\"b\"]\n", "", 0}, {"a", "b"}},
        ReadCase{"NestedKnownKey",
                 R"({"a":{"Model":"X"}})",
                 {"", "", "X\n", "", 0},
                 {"a", R"({"Model":"X"})"}},
        ReadCase{"ValueTakenForAKey",
                 R"({"Owner":"Model","Ram":"x"})",
                 {"", "", "Ram\n", "", 0},
                 {"Owner", "x"}},
        ReadCase{
            "TokensBehindTheObject", R"({"Model":"x"} "Cpu" "y")", {"", "y\n", "x\n", "", 0}, {}},
        ReadCase{"BareTokensMissingColonsAndTrailingComma",
                 "{Model:HX-408 \"Cpu\" true \"Ram\" 12,}",
                 {"", "true\n", "HX-408\n", "", 12},
                 {}},
        ReadCase{
            "EscapesStayVerbatim", R"({"Model":"a\"b\\n"})", {"", "", "a\\\"b\\\\n\n", "", 0}, {}},
        ReadCase{"FifteenPairs", pairs(15), {"", "15\n", "", "", 0}, {}},
        ReadCase{"KnownKeyAsTheLastToken", R"({"Cpu":"c","Model"})", {"", "c\n", "", "", 0}, {}},
        // 31 tokens and the key as the 32nd: its value would lie behind the array.
        ReadCase{"KnownKeyAsTheLastOf32Tokens",
                 pairs(15).substr(0, pairs(15).size() - 1) + ",\"Model\"}",
                 {"", "15\n", "", "", 0},
                 {}},
        ReadCase{"TextsThatKeepTheLineFeed",
                 "{\"ProductName\":\"" + p62 + "\",\"Cpu\":\"" + c30 + "\",\"Model\":\"" + p62 +
                     "\",\"SerialNumber\":\"" + p62 + "\"}",
                 {p62 + "\n", c30 + "\n", p62 + "\n", p62 + "\n", 0},
                 {}},
        ReadCase{"TextsCutWithoutLineFeed",
                 "{\"ProductName\":\"" + p63 + "\",\"Cpu\":\"" + c31 + "\",\"Model\":\"" + p63 +
                     "x\",\"SerialNumber\":\"" + std::string(100, 'p') + "\"}",
                 {p63, c31, p63, p63, 0},
                 {}}),
    [](const ::testing::TestParamInfo<ReadCase>& info) { return std::string(info.param.name); });

struct RefusedCase {
  const char* name;
  std::string json;
  std::string message;
};

void PrintTo(const RefusedCase& c, std::ostream* out) { *out << c.name; }

class LinuxInfoRefused : public ::testing::TestWithParam<RefusedCase> {};

TEST_P(LinuxInfoRefused, NullAndOneMessage) {
  EXPECT_EQ(read_info(GetParam().json), nullptr);
  EXPECT_EQ(log_lines(), reader_says({GetParam().message}));
}

INSTANTIATE_TEST_SUITE_P(
    Files, LinuxInfoRefused,
    ::testing::Values(RefusedCase{"WhiteSpaceOnly", " \n\t\r\n", "Object expected\n"},
                      RefusedCase{"RootArray", R"(["Model","x"])", "Object expected\n"},
                      RefusedCase{"BareString", R"("Model")", "Object expected\n"},
                      RefusedCase{"ByteOrderMark", "\xEF\xBB\xBF{}", "Failed to parse JSON: -2\n"},
                      RefusedCase{"SixteenPairs", pairs(16), "Failed to parse JSON: -1\n"},
                      RefusedCase{"MismatchedBracket", R"({"Model":[1})",
                                  "Failed to parse JSON: -2\n"},
                      RefusedCase{"BadEscape", R"({"Model":"a\qb"})", "Failed to parse JSON: -2\n"},
                      RefusedCase{"OpenString", R"({"Model":"x)", "Failed to parse JSON: -3\n"},
                      RefusedCase{"OpenObject", R"({"Model":"x")", "Failed to parse JSON: -3\n"}),
    [](const ::testing::TestParamInfo<RefusedCase>& info) { return std::string(info.param.name); });

TEST(LinuxInfoFile, MissingEmptyAndNull) {
  ScratchFile empty("", "sysinfo.json");
  EXPECT_EQ(GetLinuxInfoEx("/nonexistent/sysinfo.json"), nullptr);
  EXPECT_EQ(GetLinuxInfoEx(empty.path().c_str()), nullptr);
  EXPECT_EQ(GetLinuxInfoEx(nullptr), nullptr);
  EXPECT_EQ(log_lines(), reader_says({"Missing Linux info file /nonexistent/sysinfo.json",
                                      "Empty Linux info file: " + empty.path(),
                                      "Missing Linux info file (null)"}));
  Log::clear();
  Log::set_level(2);
  EXPECT_EQ(GetLinuxInfoEx("/nonexistent/sysinfo.json"), nullptr);
  EXPECT_EQ(read_info("[]"), nullptr);
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
}

TEST(LinuxInfoFile, SizesThatCannotBeTakenOrExceed32Bits) {
  ScratchFile fifo("");
  unlink(fifo.path().c_str());
  ASSERT_EQ(mkfifo(fifo.path().c_str(), 0600), 0);
  int writer = open(fifo.path().c_str(), O_RDWR | O_NONBLOCK);  // so that fopen does not block
  ASSERT_GE(writer, 0);
  EXPECT_EQ(GetLinuxInfoEx(fifo.path().c_str()), nullptr);
  close(writer);
  ScratchFile large("");
  ASSERT_EQ(truncate(large.path().c_str(), 1L << 31), 0);  // sparse
  EXPECT_EQ(GetLinuxInfoEx(large.path().c_str()), nullptr);
  EXPECT_EQ(log_lines(), reader_says({"Unknown size of Linux info file: " + fifo.path(),
                                      "Too large Linux info file: " + large.path()}));
}

TEST(LinuxInfoFile, NoMemoryForTheTextOrTheRecord) {
  static std::atomic<int> calls, fail_at;
  testsupport::ScopedSys<decltype(commonl::sys.calloc)> counted(
      commonl::sys.calloc, [](size_t n, size_t size) -> void* {
        return ++calls == fail_at ? nullptr : calloc(n, size);
      });
  calls = 0;
  fail_at = 1;
  EXPECT_EQ(read_info(R"({"Model":"x"})"), nullptr);
  calls = 0;
  fail_at = 2;
  EXPECT_EQ(read_info(R"({"Model":"x"})"), nullptr);
  EXPECT_EQ(log_lines(), reader_says({"No memo for Linux info file", "no memo for LinuxInfo_t\n"}));
}

TEST(LinuxInfoFile, AShortRead) {
  // sysfs reports a page as the size of an attribute that holds a few bytes.
  const char* path = "/sys/devices/system/cpu/online";
  struct stat st;
  if (stat(path, &st) != 0 || st.st_size == 0) GTEST_SKIP() << "no " << path;
  std::ifstream in(path);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(GetLinuxInfoEx(path), nullptr);
  EXPECT_EQ(log_lines(),
            reader_says({"Fail to read Linux info file, expected " + std::to_string(st.st_size) +
                         " bytes, read " + std::to_string(text.size())}));
}

TEST(LinuxInfoFile, GetLinuxInfoReadsTheFixedPathAnewAtEveryCall) {
  ScratchFile file(R"({"Model":"A"})", "sysinfo.json");
  ScopedPaths paths(file.path().c_str(), nullptr, nullptr);
  Info first(GetLinuxInfo(), free);
  file.write(R"({"Model":"B"})");
  Info second(GetLinuxInfo(), free);
  ASSERT_TRUE(first && second);
  EXPECT_NE(first.get(), second.get());
  EXPECT_STREQ(first->Model, "A\n");
  EXPECT_STREQ(second->Model, "B\n");
}

TEST(LinuxInfoFile, ThreadsReadAtOnceEachIntoItsOwnRecord) {
  ScratchFile file(R"({"Model":"HX-408","Ram":4096})", "sysinfo.json");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; t++)
    threads.emplace_back([&] {
      for (int i = 0; i < 50; i++) {
        Info info(GetLinuxInfoEx(file.path().c_str()), free);
        ASSERT_NE(info, nullptr);
        EXPECT_STREQ(info->Model, "HX-408\n");
        EXPECT_EQ(info->Ram, 4096);
      }
    });
  for (std::thread& t : threads) t.join();
  EXPECT_TRUE(Log::lines().empty());
}

TEST(LinuxInfoFile, TheSample) {
  std::string source = __FILE__;
  std::string path = source.substr(0, source.rfind("/tests/")) + "/resources/sysinfo.json";
  Info info(GetLinuxInfoEx(path.c_str()), free);
  ASSERT_NE(info, nullptr) << Log::dump();
  EXPECT_STREQ(info->Model, "HX-408\n");
  EXPECT_EQ(info->Ram, 8192);
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
}

// --- the alarm sound ---

namespace {

const char* const kPlay = "paplay /usr/share/sounds/sound-icons/cembalo-2.wav &";

// The third entry matches only a model text that keeps its line feed.
const char* const kCatalogue = R"({"Brands":[{"Brand":"Halvard","Models":[
  {"Model":"HX-408","BuzzerAlarm":true},{"Model":"HX-816P","BuzzerAlarm":false},
  {"Model":"HX-900\n","BuzzerAlarm":true}]}]})";

std::atomic<int> sysinfo_opens{0};

FILE* _counting_fopen(const char* path, const char* mode) {
  if (strcmp(path, commonl::paths.sysinfo) == 0) sysinfo_opens++;
  return fopen(path, mode);
}

}  // namespace

class Sound : public ::testing::Test {
 protected:
  void machine(const std::string& model) { sysinfo.write(R"({"Model":")" + model + "\"}"); }
  std::vector<std::string> commands() const { return recorder.commands(); }

  ScratchFile catalogue{kCatalogue, "hw-models.conf"};
  ScratchFile sysinfo{R"({"Model":"HX-408"})", "sysinfo.json"};
  ScopedPaths paths{sysinfo.path().c_str(), catalogue.path().c_str(), nullptr};
  SystemRecorder recorder;
};

TEST_F(Sound, BeepOnABuzzerMachinePassesItsArgumentsUnchecked) {
  EXPECT_EQ(Beep(1000, 200), 1);
  EXPECT_EQ(Beep(0, 0), 1);
  EXPECT_EQ(Beep(4294967295u, 4294967295u), 1);
  machine("HX-900");
  EXPECT_EQ(Beep(2000, 10), 1);
  EXPECT_EQ(commands(),
            (std::vector<std::string>{"beep -f 1000 -l 200", "beep -f 0 -l 0",
                                      "beep -f 4294967295 -l 4294967295", "beep -f 2000 -l 10"}));
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
}

TEST_F(Sound, MessageBeepTypesOnABuzzerMachine) {
  const std::pair<unsigned int, const char*> table[] = {
      {16, "beep -f 600 -l 400"}, {48, "beep -f 523 -l 400"},
      {64, "beep -f 440 -l 400"}, {0xFFFFFFFFu, "beep -f 500 -l 400"},
      {0, "beep -f 755 -l 400"},  {32, "beep -f 755 -l 400"},
      {1, "beep -f 755 -l 400"},  {0xFFFFFFFEu, "beep -f 755 -l 400"}};
  std::vector<std::string> expected;
  for (const auto& row : table) {
    EXPECT_EQ(MessageBeep(row.first), 1) << row.first;
    expected.push_back(row.second);
  }
  EXPECT_EQ(commands(), expected);
}

TEST_F(Sound, MachinesWithoutABuzzerPlayTheFileWhateverTheArguments) {
  for (const char* json :
       {R"({"Model":"HX-816P"})", R"({"Model":"XY-1"})", "{}", "[]", "{", R"({"Model":"HX-90"})"}) {
    sysinfo.write(json);
    EXPECT_EQ(Beep(1000, 200), 1) << json;
    EXPECT_EQ(Beep(440, 5000), 1) << json;
    EXPECT_EQ(MessageBeep(16), 1) << json;
    EXPECT_EQ(MessageBeep(0xFFFFFFFFu), 1) << json;
  }
  EXPECT_EQ(commands(), std::vector<std::string>(24, kPlay));
}

TEST_F(Sound, AMissingSystemInformationFilePlaysTheFile) {
  ScopedPaths missing("/nonexistent/sysinfo.json", nullptr, nullptr);
  EXPECT_EQ(MessageBeep(48), 1);
  EXPECT_EQ(Beep(1000, 200), 1);
  EXPECT_EQ(commands(), std::vector<std::string>(2, kPlay));
  // Only the reader speaks.
  EXPECT_EQ(log_lines(), reader_says({"Missing Linux info file /nonexistent/sysinfo.json",
                                      "Missing Linux info file /nonexistent/sysinfo.json"}));
}

TEST_F(Sound, AFailingCommandGivesZeroAndNoLogLine) {
  for (int status : {256, 127 << 8, -1}) {
    recorder.set_status(status);
    machine("HX-408");
    EXPECT_EQ(Beep(1000, 200), 0);
    EXPECT_EQ(MessageBeep(64), 0);
    machine("HX-816P");
    EXPECT_EQ(Beep(1000, 200), 0);
    EXPECT_EQ(MessageBeep(64), 0);
  }
  EXPECT_EQ(commands().size(), 12u);
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
}

TEST_F(Sound, TheSystemInformationIsReadAtEveryDecision) {
  ScopedSys<decltype(commonl::sys.fopen)> counting(commonl::sys.fopen, _counting_fopen);
  sysinfo_opens = 0;
  Beep(1000, 200);
  EXPECT_EQ(sysinfo_opens.load(), 1);
  MessageBeep(0);  // decides, then Beep decides again
  EXPECT_EQ(sysinfo_opens.load(), 3);
  machine("HX-816P");
  MessageBeep(0);
  EXPECT_EQ(sysinfo_opens.load(), 4);
  EXPECT_EQ(commands(),
            (std::vector<std::string>{"beep -f 1000 -l 200", "beep -f 755 -l 400", kPlay}));
}

TEST_F(Sound, ThreadsSoundAtOnce) {
  ASSERT_EQ(MessageBeep(48), 1);  // the catalogue loads before the threads enter
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; t++)
    threads.emplace_back([] {
      for (int i = 0; i < 10; i++) EXPECT_EQ(MessageBeep(48), 1);
    });
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(commands(), std::vector<std::string>(41, "beep -f 523 -l 400"));
}

TEST(NexcomModels, TheTable) {
  EXPECT_STREQ(gNexcomModels[0], "NViS-1482");
  EXPECT_STREQ(gNexcomModels[1], "NVR-1U-8CH");
  EXPECT_EQ(gNexcomModels[2], nullptr);
}

// --- small Win32 calls ---

TEST(Interlocked, ResultsAndValuesBeyond32Bits) {
  volatile long v = 0;
  EXPECT_EQ(InterlockedIncrement(&v), 1);
  EXPECT_EQ(InterlockedExchange(&v, 0), 1);
  EXPECT_EQ(InterlockedDecrement(&v), -1);
  EXPECT_EQ(InterlockedExchange(&v, 1L << 40), -1);
  EXPECT_EQ(static_cast<long>(v), 1L << 40);
  v = 0xFFFFFFFFL;
  EXPECT_EQ(InterlockedIncrement(&v), 0x100000000L);
  EXPECT_EQ(InterlockedDecrement(&v), 0xFFFFFFFFL);
  // Compared in all 64 bits: equal low halves are not enough.
  v = 0x200000005L;
  EXPECT_EQ(InterlockedCompareExchange(&v, 9, 0x100000005L), 0x200000005L);
  EXPECT_EQ(static_cast<long>(v), 0x200000005L);
  EXPECT_EQ(InterlockedCompareExchange(&v, -0x300000000L, 0x200000005L), 0x200000005L);
  EXPECT_EQ(static_cast<long>(v), -0x300000000L);
}

TEST(Interlocked, FromSeveralThreads) {
  const int kThreads = 4, kRounds = 20000;
  volatile long counter = 1L << 33, cas_counter = 0, slot = -1;
  std::vector<long> taken[kThreads];
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; i++) {
        InterlockedIncrement(&counter);
        InterlockedIncrement(&counter);
        InterlockedDecrement(&counter);
        long seen = cas_counter;
        for (;;) {
          long found = InterlockedCompareExchange(&cas_counter, seen + 1, seen);
          if (found == seen) break;
          seen = found;
        }
        taken[t].push_back(InterlockedExchange(&slot, long(t) * kRounds + i));
      }
    });
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(static_cast<long>(counter), (1L << 33) + kThreads * kRounds);
  EXPECT_EQ(static_cast<long>(cas_counter), kThreads * kRounds);
  // Every value put in the slot comes out exactly once.
  std::multiset<long> values{slot};
  for (const std::vector<long>& list : taken) values.insert(list.begin(), list.end());
  std::multiset<long> expected{-1};
  for (long n = 0; n < kThreads * kRounds; n++) expected.insert(n);
  EXPECT_TRUE(values == expected);
}

TEST(SmallCalls, StubsAndBitTest) {
  char byte = 'x';
  EXPECT_EQ(IsBadWritePtr(nullptr, 100), 0);
  EXPECT_EQ(IsBadWritePtr(&byte, 1), 0);
  EXPECT_EQ(IsBitSet(0x80000000u, 31), static_cast<int>(0x80000000u));
  EXPECT_EQ(IsBitSet(2, 0), 0);
  EXPECT_EQ(IsBitSet(6, 2), 4);
  EXPECT_EQ(IsBitSet(0xFFFFFFFFu, 32), 0);
  EXPECT_EQ(IsBitSet(0xFFFFFFFFu, -1), 0);

  char name[8] = "keep";
  EXPECT_EQ(GetModuleFileName(nullptr, name, sizeof name), 0u);
  EXPECT_STREQ(name, "keep");
  EXPECT_EQ(log_lines(),
            std::vector<std::string>{"3 GetModuleFileName: Should not call this function"});
  Log::clear();
  Log::set_level(2);
  GetModuleFileName(nullptr, name, sizeof name);
  EXPECT_TRUE(Log::lines().empty());
}

TEST(CoCreateGuid, RandomVersion4GuidsInTheOrderOfTheText) {
  std::set<std::string> seen;
  for (int i = 0; i < 100; i++) {
    GUID guid;
    ASSERT_EQ(CoCreateGuid(&guid), 0);
    const auto* b = reinterpret_cast<const unsigned char*>(&guid);
    EXPECT_EQ(b[6] >> 4, 4);  // version: random
    EXPECT_EQ(b[8] >> 6, 2);  // variant: RFC 4122
    seen.insert(std::string(reinterpret_cast<const char*>(b), 16));
  }
  EXPECT_EQ(seen.size(), 100u);
  EXPECT_EQ(sizeof(GUID), 16u);

  ScopedSys<decltype(commonl::sys.fopen)> fixed(
      commonl::sys.fopen, [](const char* path, const char* mode) -> FILE* {
        static char text[] = "00112233-4455-6677-8899-aabbccddeeff\n";
        if (strcmp(path, "/proc/sys/kernel/random/uuid") != 0 || strcmp(mode, "r") != 0)
          return nullptr;
        return fmemopen(text, strlen(text), "r");
      });
  GUID guid;
  ASSERT_EQ(CoCreateGuid(&guid), 0);
  const auto* b = reinterpret_cast<const unsigned char*>(&guid);
  for (int i = 0; i < 16; i++) EXPECT_EQ(b[i], i * 0x11) << i;
}

TEST(CoCreateGuid, NoSourceLeavesTheRecordAlone) {
  ScopedSys<decltype(commonl::sys.fopen)> failing(
      commonl::sys.fopen, [](const char*, const char*) -> FILE* { return nullptr; });
  GUID guid;
  memset(&guid, 0xA5, sizeof guid);
  EXPECT_EQ(CoCreateGuid(&guid), 1);
  for (int i = 0; i < 16; i++) EXPECT_EQ(reinterpret_cast<unsigned char*>(&guid)[i], 0xA5);
  EXPECT_EQ(CoCreateGuid(nullptr), 1);
}

namespace {

struct SplitCase {
  const char* path;
  const char* dir;
  const char* fname;
  const char* ext;
};

void PrintTo(const SplitCase& c, std::ostream* out) { *out << '"' << c.path << '"'; }

}  // namespace

class SplitPath : public ::testing::TestWithParam<SplitCase> {};

TEST_P(SplitPath, Parts) {
  const SplitCase& c = GetParam();
  char drive[32], dir[32], fname[32], ext[32];
  for (char* out : {drive, dir, fname, ext}) strcpy(out, "junk");
  _splitpath(c.path, drive, dir, fname, ext);
  EXPECT_STREQ(drive, "");
  EXPECT_STREQ(dir, c.dir);
  EXPECT_STREQ(fname, c.fname);
  EXPECT_STREQ(ext, c.ext);
  // One buffer at a time: the null ones are skipped.
  char one[32];
  _splitpath(c.path, nullptr, one, nullptr, nullptr);
  EXPECT_STREQ(one, c.dir);
  _splitpath(c.path, nullptr, nullptr, one, nullptr);
  EXPECT_STREQ(one, c.fname);
  _splitpath(c.path, nullptr, nullptr, nullptr, one);
  EXPECT_STREQ(one, c.ext);
  _splitpath(c.path, nullptr, nullptr, nullptr, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Table, SplitPath,
    ::testing::Values(SplitCase{"name", "", "name", ""}, SplitCase{"name.txt", "", "name", "txt"},
                      SplitCase{"a.b.c", "", "a.b", "c"}, SplitCase{".profile", "", ".profile", ""},
                      SplitCase{"/usr/lib/x.so", "/usr/lib/", "x", "so"},
                      SplitCase{"/usr/lib/x", "/usr/lib/", "x", ""},
                      SplitCase{"/usr/lib/", "/usr/lib/", "", ""},
                      SplitCase{"/usr/.cfg", "/usr/", ".cfg", ""},
                      SplitCase{"/usr.d/x", "/usr.d/", "x", ""}, SplitCase{"x.", "", "x", ""},
                      SplitCase{"..", "", ".", ""}, SplitCase{"/", "", "/", ""},
                      SplitCase{"/x.so", "/", "x", "so"}, SplitCase{"", "", "", ""}));

TEST(SplitPathArguments, NullPathLeavesFourEmptyStrings) {
  char drive[8] = "d", dir[8] = "d", fname[8] = "f", ext[8] = "e";
  _splitpath(nullptr, drive, dir, fname, ext);
  for (const char* out : {drive, dir, fname, ext}) EXPECT_STREQ(out, "");
}
