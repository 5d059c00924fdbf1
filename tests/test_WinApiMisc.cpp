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
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "CommonL.h"
#include "support.h"

using testsupport::Log;
using testsupport::LogLine;
using testsupport::ScopedPaths;
using testsupport::ScopedSys;
using testsupport::ScratchFile;
using testsupport::SystemRecorder;
using Lines = std::vector<std::string>;

namespace {

using Info = std::unique_ptr<LinuxInfo_t, void (*)(void*)>;

Info read_info(const std::string& json) {
  ScratchFile file(json, "sysinfo.json");
  return Info(GetLinuxInfoEx(file.path().c_str()), free);
}

// Swaps one system call for the life of the result.
template <typename Fn>
ScopedSys<Fn> fake(Fn& slot, std::common_type_t<Fn> with) {
  return {slot, with};
}

// Runs body(0) ... body(n - 1) on threads of their own and joins them.
void on_threads(int n, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < n; t++) threads.emplace_back(body, t);
  for (std::thread& thread : threads) thread.join();
}

// The log as "level function: text", after checking the source name; the
// reader's own lines at level 3 are given as their text alone.
Lines log_lines() {
  Lines out;
  for (const LogLine& line : Log::lines()) {
    EXPECT_EQ(line.file, "../CommonL/WinApiMisc");
    const bool reader = line.level == 3 && line.function == "GetLinuxInfoEx";
    out.push_back(reader ? line.text
                         : std::to_string(line.level) + " " + line.function + ": " + line.text);
  }
  return out;
}

// The record's fields that are set, as "Name=text"; a byte behind a text that
// is not zero is named too.
Lines fields(const LinuxInfo_t& info) {
  Lines out;
  auto add = [&out](const char* name, const char* field, size_t size) {
    size_t length = strnlen(field, size);
    if (length > 0) out.push_back(std::string(name) + "=" + std::string(field, length));
    if (std::string(field + length, size - length) != std::string(size - length, '\0'))
      out.push_back(std::string(name) + ": bytes behind the text");
  };
  add("ProductName", info.ProductName, sizeof info.ProductName);
  add("Cpu", info.Cpu, sizeof info.Cpu);
  add("Model", info.Model, sizeof info.Model);
  add("SerialNumber", info.SerialNumber, sizeof info.SerialNumber);
  if (info.Ram != 0) out.push_back("Ram=" + std::to_string(info.Ram));
  return out;
}

// What reading `json` gives: the fields set (or "null"), then the log.
Lines outcome(const std::string& json) {
  Log::clear();
  Info info = read_info(json);
  Lines out = info ? fields(*info) : Lines{"null"}, log = log_lines();
  out.insert(out.end(), log.begin(), log.end());
  return out;
}

// An object of `n` pairs "Cpu":"1" ... "Cpu":"n": 2n + 1 tokens.
std::string pairs(int n) {
  std::string json = "{";
  for (int i = 1; i <= n; i++)
    json += (i > 1 ? ",\"Cpu\":\"" : "\"Cpu\":\"") + std::to_string(i) + "\"";
  return json + "}";
}

const char* const kPlay = "paplay /usr/share/sounds/sound-icons/cembalo-2.wav &";

// The third entry matches only a model text that keeps its line feed.
const char* const kCatalogue = R"({"Brands":[{"Brand":"Halvard","Models":[
  {"Model":"HX-408","BuzzerAlarm":true},{"Model":"HX-816P","BuzzerAlarm":false},
  {"Model":"HX-900\n","BuzzerAlarm":true}]}]})";

}  // namespace

// --- system information ---

TEST(LinuxInfoRead, FieldsAndLogPerFile) {
  const std::string p62(62, 'p'), p63(63, 'p'), c30(30, 'c'), c31(31, 'c');
  const std::pair<std::string, Lines> rows[] = {
      {R"({"ProductName":"Recorder","SerialNumber":"0001","Model":"NV-4000-B","Cpu":"x86-64",)"
       R"("Ram":8192})",
       {"ProductName=Recorder\n", "Cpu=x86-64\n", "Model=NV-4000-B\n", "SerialNumber=0001\n",
        "Ram=8192"}},
      {"{}", {}},
      {R"({"Ram":"8192"})", {"Ram=8192"}},
      {"{\"Ram\":\"16 GB\"}\n", {"Ram=16"}},
      {R"({"Ram":"lots"})", {}},
      {R"({"Ram":3000000000})", {"Ram=-1294967296"}},  // cut to 32 bits
      {R"({"Ram":-5})", {"Ram=-5"}},
      {R"({"Model":"A","Model":"B"})", {"Model=B\n"}},  // the last occurrence wins
      // Keys are case-sensitive; what is not taken is reported.
      {R"({"model":"X","Cpu":"y"})", {"Cpu=y\n", "Unexpected key: model\n", "Unexpected key: X\n"}},
      {R"({"Model":["a","b"]})",
       {"Model=[\"a\",\"b\"]\n", "Unexpected key: a\n", "Unexpected key: b\n"}},
      {R"({"a":{"Model":"X"}})",
       {"Model=X\n", "Unexpected key: a\n", "Unexpected key: {\"Model\":\"X\"}\n"}},
      // A value taken for a key.
      {R"({"Owner":"Model","Ram":"x"})",
       {"Model=Ram\n", "Unexpected key: Owner\n", "Unexpected key: x\n"}},
      {R"({"Model":"x"} "Cpu" "y")", {"Cpu=y\n", "Model=x\n"}},  // tokens behind the object
      {"{Model:HX-408 \"Cpu\" true \"Ram\" 12,}", {"Cpu=true\n", "Model=HX-408\n", "Ram=12"}},
      {R"({"Model":"a\"b\\n"})", {"Model=a\\\"b\\\\n\n"}},  // escapes stay verbatim
      {pairs(15), {"Cpu=15\n"}},
      {R"({"Cpu":"c","Model"})", {"Cpu=c\n"}},  // a known key as the last token
      // 31 tokens and the key as the 32nd: its value would lie behind the array.
      {pairs(15).substr(0, pairs(15).size() - 1) + ",\"Model\"}", {"Cpu=15\n"}},
      // Texts that fit keep their line feed; longer ones are cut without it.
      {"{\"ProductName\":\"" + p62 + "\",\"Cpu\":\"" + c30 + "\",\"Model\":\"" + p62 +
           "\",\"SerialNumber\":\"" + p62 + "\"}",
       {"ProductName=" + p62 + "\n", "Cpu=" + c30 + "\n", "Model=" + p62 + "\n",
        "SerialNumber=" + p62 + "\n"}},
      {"{\"ProductName\":\"" + p63 + "\",\"Cpu\":\"" + c31 + "\",\"Model\":\"" + p63 +
           "x\",\"SerialNumber\":\"" + std::string(100, 'p') + "\"}",
       {"ProductName=" + p63, "Cpu=" + c31, "Model=" + p63, "SerialNumber=" + p63}},
      // Refused: NULL and one message.
      {" \n\t\r\n", {"null", "Object expected\n"}},
      {R"(["Model","x"])", {"null", "Object expected\n"}},
      {R"("Model")", {"null", "Object expected\n"}},
      {"\xEF\xBB\xBF{}", {"null", "Failed to parse JSON: -2\n"}},  // a byte order mark
      {pairs(16), {"null", "Failed to parse JSON: -1\n"}},
      {R"({"Model":[1})", {"null", "Failed to parse JSON: -2\n"}},
      {R"({"Model":"a\qb"})", {"null", "Failed to parse JSON: -2\n"}},
      {R"({"Model":"x)", {"null", "Failed to parse JSON: -3\n"}},
      {R"({"Model":"x")", {"null", "Failed to parse JSON: -3\n"}},
  };
  for (const auto& [json, want] : rows) EXPECT_EQ(outcome(json), want) << json;
}

// Every failure of the whole-file reader that the catalogue shares too.
TEST(LinuxInfoFile, FilesThatCannotBeReadGiveNullAndTheReaderSaysWhyAtLevel3) {
  ScratchFile empty("", "sysinfo.json"), fifo(""), large("");
  EXPECT_EQ(GetLinuxInfoEx("/nonexistent/sysinfo.json"), nullptr);
  EXPECT_EQ(GetLinuxInfoEx(empty.path().c_str()), nullptr);
  EXPECT_EQ(GetLinuxInfoEx(nullptr), nullptr);
  unlink(fifo.path().c_str());
  ASSERT_EQ(mkfifo(fifo.path().c_str(), 0600), 0);
  int writer = open(fifo.path().c_str(), O_RDWR | O_NONBLOCK);  // so that fopen does not block
  ASSERT_GE(writer, 0);
  EXPECT_EQ(GetLinuxInfoEx(fifo.path().c_str()), nullptr);
  close(writer);
  ASSERT_EQ(truncate(large.path().c_str(), 1L << 31), 0);  // sparse
  EXPECT_EQ(GetLinuxInfoEx(large.path().c_str()), nullptr);
  // A directory opens but can not be read.
  char dir_pattern[] = "/tmp/commonl-dir-XXXXXX";
  const std::string dir = mkdtemp(dir_pattern);
  struct stat dir_stat;
  ASSERT_EQ(stat(dir.c_str(), &dir_stat), 0);
  EXPECT_EQ(GetLinuxInfoEx(dir.c_str()), nullptr);
  rmdir(dir.c_str());
  {
    static std::atomic<int> calls, fail_at;
    auto counted = fake(commonl::sys.calloc, [](size_t n, size_t size) -> void* {
      return ++calls == fail_at ? nullptr : calloc(n, size);
    });
    for (int at : {1, 2}) {  // the text, then the record
      calls = 0;
      fail_at = at;
      EXPECT_EQ(read_info(R"({"Model":"x"})"), nullptr);
    }
  }
  Lines want = {"Missing Linux info file /nonexistent/sysinfo.json",
                "Empty Linux info file: " + empty.path(),
                "2 GetLinuxInfoEx: GetLinuxInfoEx: path == NULL",
                "Empty Linux info file: " + fifo.path(),
                "Too large Linux info file: " + large.path(),
                "Fail to read Linux info file, expected " + std::to_string(dir_stat.st_size) +
                    " bytes, read 0",
                "No memo for Linux info file",
                "no memo for LinuxInfo_t\n"};
  // sysfs reports a page as the size of an attribute that holds a few bytes.
  const char* sysfs = "/sys/devices/system/cpu/online";
  struct stat st;
  const bool short_read = stat(sysfs, &st) == 0 && st.st_size > 0;
  if (short_read) {
    std::ifstream in(sysfs);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(GetLinuxInfoEx(sysfs), nullptr);
    want.push_back("Fail to read Linux info file, expected " + std::to_string(st.st_size) +
                   " bytes, read " + std::to_string(text.size()));
  }
  EXPECT_EQ(log_lines(), want);
  // Each line carries its message's own text as the format.
  const Lines formats = {"Missing Linux info file %s", "Empty Linux info file: %s",
                         "GetLinuxInfoEx: path == NULL", "Empty Linux info file: %s",
                         "Too large Linux info file: %s",
                         "Fail to read Linux info file, expected %d bytes, read %d"};
  for (size_t i = 0; i < formats.size(); i++) EXPECT_EQ(Log::lines().at(i).format, formats[i]);
  Log::clear();
  Log::set_level(2);
  EXPECT_EQ(GetLinuxInfoEx("/nonexistent/sysinfo.json"), nullptr);
  EXPECT_EQ(read_info("[]"), nullptr);
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
  if (!short_read) GTEST_SKIP() << "no " << sysfs << " for a short read";
}

TEST(LinuxInfoFile, GetLinuxInfoReadsAnewAtEveryCallAndThreadsReadTheSampleAtOnce) {
  ScratchFile file(R"({"Model":"A"})", "sysinfo.json");
  ScopedPaths paths(file.path().c_str(), nullptr, nullptr);
  Info first(GetLinuxInfo(), free);
  file.write(R"({"Model":"B"})");
  Info second(GetLinuxInfo(), free);
  ASSERT_TRUE(first && second);
  EXPECT_NE(first.get(), second.get());
  EXPECT_STREQ(first->Model, "A\n");
  EXPECT_STREQ(second->Model, "B\n");

  std::string source = __FILE__;
  std::string path = source.substr(0, source.rfind("/tests/")) + "/resources/sysinfo.json";
  on_threads(4, [&](int) {  // each into its own record
    for (int i = 0; i < 50; i++) {
      Info info(GetLinuxInfoEx(path.c_str()), free);
      ASSERT_NE(info, nullptr);
      EXPECT_STREQ(info->Model, "HX-408\n");
      EXPECT_EQ(info->Ram, 8192);
    }
  });
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
}

// --- the alarm sound ---

class Sound : public ::testing::Test {
 protected:
  void machine(const std::string& model) { sysinfo.write(R"({"Model":")" + model + "\"}"); }
  // The commands given since the last call.
  Lines taken() {
    Lines all = recorder.commands();
    Lines fresh(all.begin() + seen, all.end());
    seen = all.size();
    return fresh;
  }

  ScratchFile catalogue{kCatalogue, "hw-models.conf"};
  ScratchFile sysinfo{R"({"Model":"HX-408"})", "sysinfo.json"};
  ScopedPaths paths{sysinfo.path().c_str(), catalogue.path().c_str(), nullptr};
  SystemRecorder recorder;
  size_t seen = 0;
};

TEST_F(Sound, BuzzerMachinesBeepTheArgumentsUncheckedOrTheMessageTypesToneAlsoFromThreads) {
  EXPECT_EQ(Beep(1000, 200), 1);
  EXPECT_EQ(Beep(0, 0), 1);
  EXPECT_EQ(Beep(4294967295u, 4294967295u), 1);
  EXPECT_EQ(taken(),
            (Lines{"beep -f 1000 -l 200", "beep -f 0 -l 0", "beep -f 4294967295 -l 4294967295"}));
  const std::pair<unsigned int, int> tones[] = {{16, 600},          {48, 523},         {64, 440},
                                                {0xFFFFFFFFu, 500}, {0, 755},          {32, 755},
                                                {1, 755},           {0xFFFFFFFEu, 755}};
  for (const auto& [type, frequency] : tones) {
    EXPECT_EQ(MessageBeep(type), 1) << type;
    EXPECT_EQ(taken(), Lines{"beep -f " + std::to_string(frequency) + " -l 400"}) << type;
  }
  machine("HX-900");
  EXPECT_EQ(Beep(2000, 10), 1);
  EXPECT_EQ(taken(), Lines{"beep -f 2000 -l 10"});

  // A failing command gives 0, and no log line, on either kind of machine.
  for (int status : {256, 127 << 8, -1}) {
    recorder.set_status(status);
    for (const char* model : {"HX-408", "HX-816P"}) {
      machine(model);
      EXPECT_EQ(Beep(1000, 200), 0);
      EXPECT_EQ(MessageBeep(64), 0);
    }
  }
  EXPECT_EQ(taken().size(), 12u);

  recorder.set_status(0);
  machine("HX-408");
  on_threads(4, [](int) {
    for (int i = 0; i < 10; i++) EXPECT_EQ(MessageBeep(48), 1);
  });
  EXPECT_EQ(taken(), Lines(40, "beep -f 523 -l 400"));
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
}

TEST_F(Sound, OtherMachinesPlayTheFileAndTheSystemInformationIsReadAtEveryDecision) {
  unlink(sysinfo.path().c_str());
  EXPECT_EQ(MessageBeep(48), 1);
  EXPECT_EQ(Beep(1000, 200), 1);
  EXPECT_EQ(taken(), Lines(2, kPlay));
  // Only the reader speaks.
  EXPECT_EQ(log_lines(), Lines(2, "Missing Linux info file " + sysinfo.path()));
  for (const char* json :
       {R"({"Model":"HX-816P"})", R"({"Model":"XY-1"})", "{}", "[]", "{", R"({"Model":"HX-90"})"}) {
    sysinfo.write(json);
    EXPECT_EQ(Beep(1000, 200), 1) << json;
    EXPECT_EQ(Beep(440, 5000), 1) << json;
    EXPECT_EQ(MessageBeep(16), 1) << json;
    EXPECT_EQ(MessageBeep(0xFFFFFFFFu), 1) << json;
  }
  EXPECT_EQ(taken(), Lines(24, kPlay));

  static std::atomic<int> opens{0};
  auto counting = fake(commonl::sys.fopen, [](const char* path, const char* mode) -> FILE* {
    opens += strcmp(path, commonl::paths.sysinfo) == 0;
    return fopen(path, mode);
  });
  opens = 0;
  machine("HX-408");
  Beep(1000, 200);
  EXPECT_EQ(opens.load(), 1);
  MessageBeep(0);  // decides, then Beep decides again
  EXPECT_EQ(opens.load(), 3);
  machine("HX-816P");
  MessageBeep(0);
  EXPECT_EQ(opens.load(), 4);
  EXPECT_EQ(taken(), (Lines{"beep -f 1000 -l 200", "beep -f 755 -l 400", kPlay}));
}

// --- small Win32 calls ---

TEST(Interlocked, ResultsAndValuesBeyond32BitsAlsoFromSeveralThreads) {
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
  // A NULL target is refused with 0, never followed.
  EXPECT_EQ(InterlockedIncrement(nullptr) + InterlockedDecrement(nullptr) +
                InterlockedExchange(nullptr, 5) + InterlockedCompareExchange(nullptr, 5, 0),
            0);
  EXPECT_EQ(log_lines(), (Lines{"2 InterlockedIncrement: InterlockedIncrement: Addend == NULL",
                                "2 InterlockedDecrement: InterlockedDecrement: Addend == NULL",
                                "2 InterlockedExchange: InterlockedExchange: Target == NULL",
                                "2 InterlockedCompareExchange: InterlockedCompareExchange: "
                                "Destination == NULL"}));

  // From several threads.
  const int kThreads = 4, kRounds = 20000;
  volatile long counter = 1L << 33, cas_counter = 0, slot = -1;
  std::vector<long> taken[kThreads];
  on_threads(kThreads, [&](int t) {
    for (int i = 0; i < kRounds; i++) {
      InterlockedIncrement(&counter);
      InterlockedIncrement(&counter);
      InterlockedDecrement(&counter);
      for (long seen = __atomic_load_n(&cas_counter, __ATOMIC_RELAXED), found;
           (found = InterlockedCompareExchange(&cas_counter, seen + 1, seen)) != seen;)
        seen = found;
      taken[t].push_back(InterlockedExchange(&slot, long(t) * kRounds + i));
    }
  });
  EXPECT_EQ(static_cast<long>(counter), (1L << 33) + kThreads * kRounds);
  EXPECT_EQ(static_cast<long>(cas_counter), kThreads * kRounds);
  // Every value put in the slot comes out exactly once.
  std::multiset<long> values{slot}, expected{-1};
  for (const std::vector<long>& list : taken) values.insert(list.begin(), list.end());
  for (long n = 0; n < kThreads * kRounds; n++) expected.insert(n);
  EXPECT_TRUE(values == expected);
}

TEST(SmallCalls, StubsBitTestAndTheNexcomTable) {
  char byte = 'x';
  EXPECT_EQ(IsBadWritePtr(nullptr, 100), 0);
  EXPECT_EQ(IsBadWritePtr(&byte, 1), 0);
  EXPECT_EQ(IsBitSet(0x80000000u, 31), static_cast<int>(0x80000000u));
  EXPECT_EQ(IsBitSet(2, 0), 0);
  EXPECT_EQ(IsBitSet(6, 2), 4);
  EXPECT_EQ(IsBitSet(0xFFFFFFFFu, 32), 0);
  EXPECT_EQ(IsBitSet(0xFFFFFFFFu, -1), 0);
  EXPECT_STREQ(gNexcomModels[0], "NViS-1482");
  EXPECT_STREQ(gNexcomModels[1], "NVR-1U-8CH");
  EXPECT_EQ(gNexcomModels[2], nullptr);

  char name[8] = "keep";
  EXPECT_EQ(GetModuleFileName(nullptr, name, sizeof name), 0u);
  EXPECT_STREQ(name, "keep");
  EXPECT_EQ(log_lines(), Lines{"3 GetModuleFileName: Should not call this function"});
  Log::clear();
  Log::set_level(2);
  GetModuleFileName(nullptr, name, sizeof name);
  EXPECT_TRUE(Log::lines().empty());
}

TEST(CoCreateGuid, RandomVersion4GuidsInTheOrderOfTheTextAndNoSourceLeavesTheRecordAlone) {
  std::set<std::string> seen;
  GUID guid;
  const auto* b = reinterpret_cast<const unsigned char*>(&guid);
  for (int i = 0; i < 100; i++) {
    ASSERT_EQ(CoCreateGuid(&guid), 0);
    EXPECT_EQ(b[6] >> 4, 4);  // version: random
    EXPECT_EQ(b[8] >> 6, 2);  // variant: RFC 4122
    seen.insert(std::string(reinterpret_cast<const char*>(b), 16));
  }
  EXPECT_EQ(seen.size(), 100u);
  EXPECT_EQ(sizeof(GUID), 16u);
  {
    auto fixed = fake(commonl::sys.fopen, [](const char* path, const char* mode) -> FILE* {
      static char text[] = "00112233-4455-6677-8899-aabbccddeeff\n";
      if (strcmp(path, "/proc/sys/kernel/random/uuid") != 0 || strcmp(mode, "r") != 0)
        return nullptr;
      return fmemopen(text, strlen(text), "r");
    });
    ASSERT_EQ(CoCreateGuid(&guid), 0);
    for (int i = 0; i < 16; i++) EXPECT_EQ(b[i], i * 0x11) << i;
  }
  auto failing =
      fake(commonl::sys.fopen, [](const char*, const char*) -> FILE* { return nullptr; });
  memset(&guid, 0xA5, sizeof guid);
  EXPECT_EQ(CoCreateGuid(&guid), 1);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(b), 16), std::string(16, '\xA5'));
  EXPECT_EQ(CoCreateGuid(nullptr), 1);
  EXPECT_EQ(log_lines(), Lines{"2 CoCreateGuid: CoCreateGuid: pguid == NULL"});
}

TEST(SplitPath, TheTableAllAtOnceOrOneBufferAtATimeAndANullPath) {
  // clang-format off
  const char* const rows[][4] = {  // {path, dir, fname, ext}; the drive stays empty
      {"name", "", "name", ""},                 {"name.txt", "", "name", "txt"},
      {"a.b.c", "", "a.b", "c"},                {".profile", "", ".profile", ""},
      {"/usr/lib/x.so", "/usr/lib/", "x", "so"}, {"/usr/lib/x", "/usr/lib/", "x", ""},
      {"/usr/lib/", "/usr/lib/", "", ""},       {"/usr/.cfg", "/usr/", ".cfg", ""},
      {"/usr.d/x", "/usr.d/", "x", ""},         {"x.", "", "x", ""},
      {"..", "", ".", ""},                      {"/", "", "/", ""},
      {"/x.so", "/", "x", "so"},                {"", "", "", ""}};
  // clang-format on
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
    _splitpath(row[0], nullptr, nullptr, nullptr, nullptr);
  }
  char drive[8] = "d", dir[8] = "d", fname[8] = "f", ext[8] = "e";
  _splitpath(nullptr, drive, dir, fname, ext);  // four empty strings
  for (const char* out : {drive, dir, fname, ext}) EXPECT_STREQ(out, "");
}
