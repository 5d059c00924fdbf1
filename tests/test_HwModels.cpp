// The hardware catalogue. The catalogue loads once per process, and ctest
// runs each test case in a process of its own, so every case starts unloaded.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "CommonL.h"
#include "support.h"

using testsupport::Log;
using testsupport::ScratchFile;

namespace {

const std::string kExample = R"({"Brands":[{"maker":"Acme","Models":[
  {"Model":"NV-4000","PoE":true,"PoE_driver":"acme_poe","PoE_NIC_name":"eth2","BuzzerAlarm":true,
   "NICs":[{"name":"eth0","description":"Network 1"},{"name":"eth1","description":"Network 2"}]},
  {"Model":"NV-1000"}]}]})";

// The log as "level function: text", after checking the source name.
std::vector<std::string> log_lines() {
  std::vector<std::string> out;
  for (const testsupport::LogLine& line : Log::lines()) {
    EXPECT_EQ(line.file, "../CommonL/HwModels");
    out.push_back(std::to_string(line.level) + " " + line.function + ": " + line.text);
  }
  return out;
}

std::string rapidjson_error(int code) {
  return "3 parse:  rapidjson error for hw-models file, code: " + std::to_string(code);
}

// Objects nested `levels` deep under the key "x", closed or not.
std::string nested(int levels, bool closed = true) {
  std::string json;
  for (int i = 1; i < levels; i++) json += R"({"x":)";
  return json + "{}" + (closed ? std::string(levels - 1, '}') : "");
}

std::vector<std::string> names(const std::vector<CHwNic>& nics) {
  std::vector<std::string> out;
  for (const CHwNic& nic : nics) out.push_back(nic.name + "/" + nic.description);
  return out;
}

}  // namespace

TEST(HwCatalogue, TheExampleIsReadInFull) {
  ScratchFile file(kExample);
  CHwBrands* brands = GetHwBrands(file.path().c_str());
  ASSERT_NE(brands, nullptr);
  ASSERT_EQ(brands->Brands.size(), 1u);
  const CHwBrand& acme = brands->Brands[0];
  EXPECT_EQ(acme.name, "Acme");
  ASSERT_EQ(acme.Models.size(), 2u);
  const CHwModel& nv4000 = acme.Models[0];
  EXPECT_EQ(nv4000.Model, "NV-4000");
  EXPECT_TRUE(nv4000.PoE);
  EXPECT_EQ(nv4000.PoE_driver, "acme_poe");
  EXPECT_EQ(nv4000.PoE_NIC_name, "eth2");
  EXPECT_TRUE(nv4000.BuzzerAlarm);
  EXPECT_EQ(names(nv4000.NICs.Nics),
            (std::vector<std::string>{"eth0/Network 1", "eth1/Network 2"}));
  const CHwModel& nv1000 = acme.Models[1];
  EXPECT_EQ(nv1000.Model, "NV-1000");
  EXPECT_FALSE(nv1000.PoE || nv1000.BuzzerAlarm);
  EXPECT_TRUE(nv1000.PoE_driver.empty() && nv1000.PoE_NIC_name.empty() && nv1000.NICs.Nics.empty());
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
}

TEST(HwCatalogue, LookupsFollowFileOrderBySubstring) {
  ScratchFile file(kExample);
  const char* path = file.path().c_str();
  EXPECT_EQ(GetModelInfo("NV-4000", path).PoE_driver, "acme_poe");
  CHwModel found = GetModelInfo("NV-4000-B\n", path);
  EXPECT_EQ(found.Model, "NV-4000");
  EXPECT_EQ(found.NICs.Nics.size(), 2u);
  for (const char* miss : {"nv-4000", "NV-40", ""})
    EXPECT_EQ(GetModelInfo(miss, path).Model, "") << miss;

  // The questions: a match, an entry lacking the fields, an unknown model.
  EXPECT_EQ(GetPoEDriverName("NV-4000\n", path), "acme_poe");
  EXPECT_EQ(GetPoENicName("NV-4000\n", path), "eth2");
  EXPECT_TRUE(isPoESupported("NV-4000\n", path));
  EXPECT_TRUE(useBuzzerForAlarms("NV-4000\n", path));
  std::vector<CHwNic> nics{{"old", "old"}};
  EXPECT_TRUE(getNicDescriptions("NV-4000\n", path, nics));
  EXPECT_EQ(names(nics), (std::vector<std::string>{"eth0/Network 1", "eth1/Network 2"}));
  for (const char* model : {"NV-1000", "unknown"}) {
    EXPECT_EQ(GetPoEDriverName(model, path), "");
    EXPECT_EQ(GetPoENicName(model, path), "");
    EXPECT_FALSE(isPoESupported(model, path));
    EXPECT_FALSE(useBuzzerForAlarms(model, path));
    nics = {{"old", "old"}};
    EXPECT_TRUE(getNicDescriptions(model, path, nics));
    EXPECT_TRUE(nics.empty());
  }

  // Results are the caller's own.
  found.NICs.Nics.clear();
  found.PoE_driver = "changed";
  EXPECT_EQ(GetHwBrands(path)->Brands[0].Models[0].PoE_driver, "acme_poe");
  EXPECT_EQ(GetHwBrands(path)->Brands[0].Models[0].NICs.Nics.size(), 2u);
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
}

TEST(HwCatalogue, EarlierEntriesShadowLaterOnes) {
  ScratchFile file(R"({"Brands":[
    {"b":"One","Models":[{"Model":"NV-40","PoE_driver":"short"},{"Model":"NV-4000","PoE_driver":"long"}]},
    {"b":"Two","Models":[{"Model":"NV-40","PoE_driver":"second brand"},{"PoE_driver":"any"},
                         {"Model":"Z-1","PoE_driver":"hidden"}]}]})");
  const char* path = file.path().c_str();
  EXPECT_EQ(GetPoEDriverName("NV-4000", path), "short");
  EXPECT_EQ(GetPoEDriverName("XNV-40Y", path), "short");
  for (const char* model : {"Z-1", "", "anything"}) EXPECT_EQ(GetPoEDriverName(model, path), "any");
  EXPECT_EQ(GetHwBrands(path)->Brands[1].Models.size(), 3u);
}

TEST(HwCatalogue, BrandNames) {
  ScratchFile file(R"({"Brands":[
    {"maker":"Lost"},
    {"Models":[]},
    {"x":"Gone"},
    {"y":"Kept","Models":[]},
    {"a":"First","n":1,"t":true,"z":null,"b":"Second","Models":[{"Model":"M"}],"c":"After"},
    {"Models":[],"d":"Late"}]})");
  CHwBrands* brands = GetHwBrands(file.path().c_str());
  ASSERT_NE(brands, nullptr);
  std::vector<std::string> got;
  for (const CHwBrand& brand : brands->Brands)
    got.push_back(brand.name + ":" + std::to_string(brand.Models.size()));
  EXPECT_EQ(got, (std::vector<std::string>{"Lost:0", "Kept:0", "Second:1", ":0"}));
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
}

TEST(HwCatalogue, ModelAndNicMembers) {
  ScratchFile file(R"({"Brands":[{"Models":[
    {"NICs":[{"description":"no name"},{"name":"","description":"empty"},{"name":"eth0","x":1,"y":true,"z":null}],
     "Model\u0000x":"M","Extra":true,"PoE":1,"BuzzerAlarm":null,"Big":-12345678901,"PoE_driver":"a","PoE_driver":"b\u0000c",
     "NICs":[{"name":"eth1","description":"d1"}]},
    {"Model":false,"PoE":true,"PoE":null},
    {"Model":"A","Inner":{"PoE":true},"PoE_driver":"ignored","BuzzerAlarm":true,"Colour":"ignored too"},
    {"Model":"B","NICs":[{"name":"eth0","More":{"description":"inner"},"description":"late","speed":"x"},{"name":"eth1"}]}
  ]}]})");
  CHwBrands* brands = GetHwBrands(file.path().c_str());
  ASSERT_NE(brands, nullptr);
  const std::vector<CHwModel>& models = brands->Brands.at(0).Models;
  ASSERT_EQ(models.size(), 4u);
  EXPECT_EQ(models[0].Model, "M");
  EXPECT_FALSE(models[0].PoE || models[0].BuzzerAlarm);
  EXPECT_EQ(models[0].PoE_driver, "b");
  EXPECT_EQ(names(models[0].NICs.Nics), (std::vector<std::string>{"eth0/", "eth1/d1"}));
  EXPECT_EQ(models[1].Model, "");
  EXPECT_TRUE(models[1].PoE);
  // A nested object's closing brace ends the model or NIC around it.
  EXPECT_EQ(models[2].Model, "A");
  EXPECT_TRUE(models[2].PoE);
  EXPECT_FALSE(models[2].BuzzerAlarm);
  EXPECT_EQ(models[2].PoE_driver, "");
  EXPECT_EQ(names(models[3].NICs.Nics), (std::vector<std::string>{"eth0/inner", "eth1/"}));
  EXPECT_EQ(log_lines(), (std::vector<std::string>{"3 Bool: unexpected bool for key Extra",
                                                   "3 Bool: unexpected bool for key Model"}));
}

TEST(HwCatalogue, TheSampleCatalogue) {
  std::string source = __FILE__;
  std::string path = source.substr(0, source.rfind("/tests/")) + "/resources/hw-models.conf";
  ASSERT_NE(GetHwBrands(path.c_str()), nullptr) << Log::dump();
  EXPECT_TRUE(isPoESupported("HX-816P\n", path.c_str()));
  EXPECT_EQ(GetPoENicName("HX-816P\n", path.c_str()), "eth2");
  EXPECT_TRUE(useBuzzerForAlarms("HX-408\n", path.c_str()));
  EXPECT_FALSE(useBuzzerForAlarms("NB-2200\n", path.c_str()));
}

// A catalogue file and, for a refused one, the handler's line and the code.
struct Case {
  const char* name;
  std::string json;
  std::string handler_line = "";  // empty: the reader's own error
  int code = 0;
};

void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

std::string case_name(const ::testing::TestParamInfo<Case>& info) { return info.param.name; }

// Files that load as an empty catalogue, which is not a failed load.
class EmptyCatalogue : public ::testing::TestWithParam<Case> {};

TEST_P(EmptyCatalogue, LoadsWithNoBrands) {
  ScratchFile file(GetParam().json);
  CHwBrands* brands = GetHwBrands(file.path().c_str());
  ASSERT_NE(brands, nullptr) << Log::dump();
  EXPECT_TRUE(brands->Brands.empty());
  EXPECT_EQ(GetModelInfo("NV-4000", file.path().c_str()).Model, "");
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
}

INSTANTIATE_TEST_SUITE_P(HwCatalogue, EmptyCatalogue,
                         ::testing::Values(Case{"EmptyRoot", "{}"},
                                           Case{"EmptyBrands", R"({"Brands":[]})"},
                                           Case{"RootString", R"("bare")"},
                                           Case{"RootNumber", "42"}, Case{"RootNull", "null"},
                                           Case{"ScalarsAtTop", R"({"x":"s","n":1,"t":true})"},
                                           Case{"NulBehindRoot", std::string("{}\0[", 4)},
                                           Case{"DeepestAllowed", nested(64)}),
                         case_name);

class RefusedCatalogue : public ::testing::TestWithParam<Case> {};

TEST_P(RefusedCatalogue, FailsTheWholeLoad) {
  ScratchFile file(GetParam().json);
  EXPECT_EQ(GetHwBrands(file.path().c_str()), nullptr);
  std::vector<std::string> expected;
  if (!GetParam().handler_line.empty()) expected.push_back(GetParam().handler_line);
  expected.push_back(rapidjson_error(GetParam().code));
  EXPECT_EQ(log_lines(), expected);
  EXPECT_EQ(GetModelInfo("A", file.path().c_str()).Model, "");
}

INSTANTIATE_TEST_SUITE_P(
    HwCatalogue, RefusedCatalogue,
    ::testing::Values(
        Case{"StringInLastModel",
             R"({"Brands":[{"Models":[{"Model":"A"}]},{"Models":[{"Model":"B","x":"y"}]}]})",
             "3 String: Unexpected field: y, last_key: x, tree_state = 4", 16},
        Case{"StringUnderPoE", R"({"Brands":[{"Models":[{"PoE":"yes"}]}]})",
             "3 String: Unexpected field: yes, last_key: PoE, tree_state = 4", 16},
        Case{"StringInNic", R"({"Brands":[{"Models":[{"NICs":[{"name":"e","speed":"1G"}]}]}]})",
             "3 String: Unexpected field: 1G, last_key: speed, tree_state = 6", 16},
        Case{"ArrayInModel", R"({"Brands":[{"Models":[{"Tags":[]}]}]})",
             "3 StartArray: Unexpected start array for key: Tags", 16},
        Case{"ArrayAtTop", R"({"List":[1]})", "3 StartArray: Unexpected start array for key: List",
             16},
        Case{"RootArray", "[]", "3 StartArray: Unexpected start array for key: ", 16},
        Case{"DeepArrays", R"({"Brands":)" + std::string(1 << 20, '['),
             "3 StartArray: Too deep nesting in hw-models file, more than 64 levels", 16},
        Case{"DeepObjects", nested(65, false),
             "3 StartObject: Too deep nesting in hw-models file, more than 64 levels", 16},
        Case{"WhiteSpaceOnly", " \r\n\t ", "", 1}, Case{"TextBehindRoot", "{} x", "", 2},
        Case{"NumberTooBig", R"({"n":1e400})", "", 13},
        Case{"NulInAKey", std::string("{\"Brands\0\":[]}", 14), "", 11}),
    case_name);

TEST(HwCatalogueLoad, RefusalWithTheLogTurnedDownStillFails) {
  ScratchFile file(R"({"Brands":[{"Models":[{"Colour":"red"}]}]})");
  Log::set_level(2);
  EXPECT_EQ(GetHwBrands(file.path().c_str()), nullptr);
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
}

TEST(HwCatalogueLoad, MissingFile) {
  std::string path = "/nonexistent/hw-models.conf";
  EXPECT_FALSE(useBuzzerForAlarms("NV-4000", path.c_str()));
  EXPECT_EQ(log_lines(), std::vector<std::string>{"3 parse: Missing hw-models file " + path});
  EXPECT_EQ(GetHwBrands(path.c_str()), nullptr);
  EXPECT_EQ(Log::lines().size(), 1u);
}

TEST(HwCatalogueLoad, NullPathCountsAsMissing) {
  EXPECT_EQ(GetHwBrands(nullptr), nullptr);
  EXPECT_EQ(log_lines(), std::vector<std::string>{"3 parse: Missing hw-models file (null)"});
}

TEST(HwCatalogueLoad, AFailedLoadStaysFailedAfterTheFileIsRepaired) {
  ScratchFile file("");
  EXPECT_EQ(GetHwBrands(file.path().c_str()), nullptr);
  EXPECT_EQ(log_lines(), std::vector<std::string>{"3 parse: Empty hw-models file: " + file.path()});
  file.write(kExample);
  EXPECT_EQ(GetHwBrands(file.path().c_str()), nullptr);
  EXPECT_FALSE(isPoESupported("NV-4000", file.path().c_str()));
  EXPECT_EQ(Log::lines().size(), 1u);
}

TEST(HwCatalogueLoad, ThePathOfTheFirstCallWins) {
  ScratchFile first(kExample);
  ScratchFile second(R"({"Brands":[{"Models":[{"Model":"Other","PoE":true}]}]})");
  EXPECT_EQ(GetModelInfo("unknown", first.path().c_str()).Model, "");
  CHwBrands* brands = GetHwBrands(second.path().c_str());
  ASSERT_NE(brands, nullptr);
  EXPECT_EQ(brands->Brands.at(0).name, "Acme");
  EXPECT_FALSE(isPoESupported("Other", second.path().c_str()));
  EXPECT_EQ(GetHwBrands("/nonexistent"), brands);
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
}

TEST(HwCatalogueLoad, ANullModelThrowsAfterTheLoad) {
  ScratchFile file(kExample);
  try {
    GetModelInfo(nullptr, file.path().c_str());
    ADD_FAILURE() << "no exception";
  } catch (const std::logic_error& e) {
    EXPECT_STREQ(e.what(), "basic_string::_M_construct null not valid");
  }
  EXPECT_THROW(useBuzzerForAlarms(nullptr, "/nonexistent"), std::logic_error);
  CHwBrands* brands = GetHwBrands("/nonexistent");
  ASSERT_NE(brands, nullptr);
  EXPECT_EQ(brands->Brands.size(), 1u);
}

TEST(HwCatalogueLoad, ConcurrentFirstCallsShareOneLoad) {
  ScratchFile file(kExample);
  std::atomic<int> ready{0};
  std::vector<CHwBrands*> seen(8, nullptr);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < seen.size(); i++)
    threads.emplace_back([&, i] {
      ready++;
      while (ready.load() < static_cast<int>(seen.size())) std::this_thread::yield();
      seen[i] = GetHwBrands(file.path().c_str());
      EXPECT_TRUE(useBuzzerForAlarms("NV-4000", file.path().c_str()));
    });
  for (std::thread& t : threads) t.join();
  ASSERT_NE(seen[0], nullptr);
  for (CHwBrands* brands : seen) EXPECT_EQ(brands, seen[0]);
  ASSERT_EQ(seen[0]->Brands.size(), 1u);
  EXPECT_EQ(seen[0]->Brands[0].Models.size(), 2u);
}

TEST(HwCatalogueLoad, ConcurrentFirstCallsShareOneFailure) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; i++)
    threads.emplace_back([] { EXPECT_EQ(GetHwBrands("/nonexistent"), nullptr); });
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(Log::lines().size(), 1u) << Log::dump();
}

TEST(HwCatalogueFile, ASizeThatCannotBeTakenFailsTheLoad) {
  ScratchFile file("");
  unlink(file.path().c_str());
  ASSERT_EQ(mkfifo(file.path().c_str(), 0600), 0);
  int writer = open(file.path().c_str(), O_RDWR | O_NONBLOCK);  // so that fopen does not block
  ASSERT_GE(writer, 0);
  EXPECT_EQ(GetHwBrands(file.path().c_str()), nullptr);
  EXPECT_EQ(log_lines(),
            std::vector<std::string>{"3 parse: Unknown size of hw-models file: " + file.path()});
  close(writer);
}

TEST(HwCatalogueFile, ASizeBeyond32BitsFailsTheLoad) {
  ScratchFile file("");
  ASSERT_EQ(truncate(file.path().c_str(), 1L << 31), 0);  // sparse
  EXPECT_EQ(GetHwBrands(file.path().c_str()), nullptr);
  EXPECT_EQ(log_lines(),
            std::vector<std::string>{"3 parse: Too large hw-models file: " + file.path()});
}

TEST(HwCatalogueFile, NoMemoryForTheText) {
  ScratchFile file(kExample);
  testsupport::ScopedSys<decltype(commonl::sys.calloc)> no_memory(
      commonl::sys.calloc, [](size_t, size_t) -> void* { return nullptr; });
  EXPECT_EQ(GetHwBrands(file.path().c_str()), nullptr);
  EXPECT_EQ(log_lines(), std::vector<std::string>{"3 parse: No memo for hw-models file"});
}

TEST(HwCatalogueFile, AShortReadFailsTheLoad) {
  // sysfs reports a page as the size of an attribute that holds a few bytes.
  const char* path = "/sys/devices/system/cpu/online";
  struct stat st;
  if (stat(path, &st) != 0 || st.st_size == 0) GTEST_SKIP() << "no " << path;
  std::ifstream in(path);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(GetHwBrands(path), nullptr);
  EXPECT_EQ(log_lines(),
            std::vector<std::string>{"3 parse: Fail to read hw-models file, expected " +
                                     std::to_string(st.st_size) + " bytes, read " +
                                     std::to_string(text.size())});
}
