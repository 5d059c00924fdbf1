// The hardware catalogue. The catalogue loads once per process, and ctest
// runs each test case in a process of its own, so every case starts unloaded.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "CommonL.h"
#include "support.h"

using testsupport::Log;
using testsupport::ScratchFile;
using Strings = std::vector<std::string>;

namespace {

const std::string kExample = R"({"Brands":[{"maker":"Acme","Models":[
  {"Model":"NV-4000","PoE":true,"PoE_driver":"acme_poe","PoE_NIC_name":"eth2","BuzzerAlarm":true,
   "NICs":[{"name":"eth0","description":"Network 1"},{"name":"eth1","description":"Network 2"}]},
  {"Model":"NV-1000"}]}]})";
const char* const kNv4000 = "NV-4000|1|acme_poe|eth2|1|eth0/Network 1,eth1/Network 2";
const char* const kNv1000 = "NV-1000|0|||0|";

// The log as "level function: text", after checking the source name.
Strings log_lines() {
  Strings out;
  for (const testsupport::LogLine& line : Log::lines()) {
    EXPECT_EQ(line.file, "../CommonL/HwModels");
    out.push_back(std::to_string(line.level) + " " + line.function + ": " + line.text);
  }
  return out;
}

// A load from `path` fails, and `report` is all it logs.
void expect_failed_load(const char* path, const std::string& report) {
  EXPECT_EQ(GetHwBrands(path), nullptr);
  EXPECT_EQ(log_lines(), Strings{"3 parse: " + report});
}

// What a refusal logs: the handler's report, if any, then the reader's.
Strings refused(int code, const std::string& handler_report = "") {
  Strings log{"3 parse:  rapidjson error for hw-models file, code: " + std::to_string(code)};
  if (!handler_report.empty()) log.insert(log.begin(), "3 " + handler_report);
  return log;
}

// Objects nested `levels` deep under the key "x", closed or not.
std::string nested(int levels, bool closed = true) {
  std::string json;
  for (int i = 1; i < levels; i++) json += R"({"x":)";
  return json + "{}" + (closed ? std::string(levels - 1, '}') : "");
}

// NICs as "name/description,...", a model as "Model|PoE|driver|NIC|buzzer|NICs".
std::string str(const std::vector<CHwNic>& nics) {
  std::string out;
  for (const CHwNic& nic : nics) out += (out.empty() ? "" : ",") + nic.name + "/" + nic.description;
  return out;
}
std::string str(const CHwModel& m) {
  return m.Model + "|" + std::to_string(m.PoE) + "|" + m.PoE_driver + "|" + m.PoE_NIC_name + "|" +
         std::to_string(m.BuzzerAlarm) + "|" + str(m.NICs.Nics);
}

// What the questions answer for `model`: "driver|NIC|PoE|buzzer|NICs".
std::string answers(const char* model, const char* path) {
  std::vector<CHwNic> nics{{"old", "old"}};
  const bool listed = getNicDescriptions(model, path, nics);  // always, even when unknown
  return GetPoEDriverName(model, path) + "|" + GetPoENicName(model, path) + "|" +
         std::to_string(isPoESupported(model, path)) + "|" +
         std::to_string(useBuzzerForAlarms(model, path)) + "|" + (listed ? str(nics) : "failed");
}

// The catalogue: "[brand name]", then its models.
Strings dump(const CHwBrands& brands) {
  Strings out;
  for (const CHwBrand& brand : brands.Brands) {
    out.push_back("[" + brand.name + "]");
    for (const CHwModel& model : brand.Models) out.push_back(str(model));
  }
  return out;
}

}  // namespace

TEST(HwCatalogue, TheFirstCallLoadsTheExampleInFullEvenIfItThrowsLookupsGoBySubstring) {
  ScratchFile file(kExample), other(R"({"Brands":[{"Models":[{"Model":"Other","PoE":true}]}]})");
  const char* path = file.path().c_str();
  try {  // a null model throws, after the load
    GetModelInfo(nullptr, path);
    ADD_FAILURE() << "no exception";
  } catch (const std::logic_error& e) {
    EXPECT_STREQ(e.what(), "basic_string::_M_construct null not valid");
  }
  EXPECT_THROW(useBuzzerForAlarms(nullptr, "/nonexistent"), std::logic_error);
  CHwBrands* brands = GetHwBrands(other.path().c_str());  // the path of the first call wins
  ASSERT_NE(brands, nullptr);
  EXPECT_EQ(GetHwBrands("/nonexistent"), brands);
  EXPECT_FALSE(isPoESupported("Other", other.path().c_str()));
  EXPECT_EQ(dump(*brands), (Strings{"[Acme]", kNv4000, kNv1000}));

  // Lookups follow the file order and match by substring, case and all.
  EXPECT_EQ(str(GetModelInfo("NV-4000", path)), kNv4000);
  CHwModel found = GetModelInfo("NV-4000-B\n", path);
  EXPECT_EQ(str(found), kNv4000);
  for (const char* miss : {"nv-4000", "NV-40", ""})
    EXPECT_EQ(str(GetModelInfo(miss, path)), "|0|||0|") << miss;
  // The questions: a match, an entry lacking the fields, an unknown model.
  EXPECT_EQ(answers("NV-4000\n", path), "acme_poe|eth2|1|1|eth0/Network 1,eth1/Network 2");
  for (const char* model : {"NV-1000", "unknown"}) EXPECT_EQ(answers(model, path), "||0|0|");
  found.NICs.Nics.clear();  // results are the caller's own
  found.PoE_driver = "changed";
  EXPECT_EQ(dump(*GetHwBrands(path)), (Strings{"[Acme]", kNv4000, kNv1000}));
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
}

TEST(HwCatalogue, EarlierEntriesShadowLaterOnes) {
  ScratchFile file(R"({"Brands":[
    {"b":"One","Models":[{"Model":"NV-40","PoE_driver":"short"},{"Model":"NV-4000","PoE_driver":"long"}]},
    {"b":"Two","Models":[{"Model":"NV-40","PoE_driver":"second brand"},{"PoE_driver":"any"},
                         {"Model":"Z-1","PoE_driver":"hidden"}]}]})");
  const char* path = file.path().c_str();
  for (const char* m : {"NV-4000", "XNV-40Y"}) EXPECT_EQ(GetPoEDriverName(m, path), "short");
  for (const char* m : {"Z-1", "", "anything"}) EXPECT_EQ(GetPoEDriverName(m, path), "any");
  EXPECT_EQ(GetHwBrands(path)->Brands[1].Models.size(), 3u);
}

TEST(HwCatalogue, BrandNamesModelAndNicMembersAreTakenAsTheReaderFindsThem) {
  ScratchFile file(R"({"Brands":[{"Models":[
    {"NICs":[{"description":"no name"},{"name":"","description":"empty"},{"name":"eth0","x":1,"y":true,"z":null}],
     "Model\u0000x":"M","Extra":true,"PoE":1,"BuzzerAlarm":null,"Big":-12345678901,"PoE_driver":"a","PoE_driver":"b\u0000c",
     "NICs":[{"name":"eth1","description":"d1"}]},
    {"Model":false,"PoE":true,"PoE":null},
    {"Model":"A","Inner":{"PoE":true},"PoE_driver":"ignored","BuzzerAlarm":true,"Colour":"ignored too"},
    {"Model":"B","NICs":[{"name":"eth0","More":{"description":"inner"},"description":"late","speed":"x"},{"name":"eth1"}]}
    ]},
    {"maker":"Lost"}, {"Models":[]}, {"x":"Gone"}, {"y":"Kept","Models":[]},
    {"a":"First","n":1,"t":true,"z":null,"b":"Second","Models":[{"Model":"M"}],"c":"After"},
    {"Models":[],"d":"Late"}]})");
  CHwBrands* brands = GetHwBrands(file.path().c_str());
  ASSERT_NE(brands, nullptr);
  // A nested object's closing brace ends the model or NIC around it ("A", "B").
  EXPECT_EQ(dump(*brands), (Strings{"[]", "M|0|b||0|eth0/,eth1/d1", "|1|||0|", "A|1|||0|",
                                    "B|0|||0|eth0/inner,eth1/", "[Lost]", "[Kept]", "[Second]",
                                    "M|0|||0|", "[]"}));
  EXPECT_EQ(log_lines(), (Strings{"3 Bool: unexpected bool for key Extra",
                                  "3 Bool: unexpected bool for key Model"}));
}

TEST(HwCatalogue, TheSampleCatalogue) {
  std::string source = __FILE__;
  std::string path = source.substr(0, source.rfind("/tests/")) + "/resources/hw-models.conf";
  const char* p = path.c_str();
  ASSERT_NE(GetHwBrands(p), nullptr) << Log::dump();
  EXPECT_TRUE(isPoESupported("HX-816P\n", p) && GetPoENicName("HX-816P\n", p) == "eth2");
  EXPECT_TRUE(useBuzzerForAlarms("HX-408\n", p) && !useBuzzerForAlarms("NB-2200\n", p));
}

// A catalogue file and what loading it logs. One that logs nothing loads as
// an empty catalogue, which is not a failed load; any report fails the whole load.
struct Case {
  const char* name;
  std::string json;
  Strings log = {};
};

void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

class OddCatalogue : public ::testing::TestWithParam<Case> {};

TEST_P(OddCatalogue, LoadsEmptyOrFailsWhole) {
  ScratchFile file(GetParam().json);
  CHwBrands* brands = GetHwBrands(file.path().c_str());
  EXPECT_EQ(log_lines(), GetParam().log);
  EXPECT_EQ(brands != nullptr, GetParam().log.empty());
  EXPECT_TRUE(brands == nullptr || brands->Brands.empty());
  for (const char* model : {"A", "NV-4000"})
    EXPECT_EQ(GetModelInfo(model, file.path().c_str()).Model, "") << model;
}

const std::string kTooDeep = "Too deep nesting in hw-models file, more than 64 levels";

INSTANTIATE_TEST_SUITE_P(
    HwCatalogue, OddCatalogue,
    ::testing::Values(
        Case{"EmptyRoot", "{}"}, Case{"EmptyBrands", R"({"Brands":[]})"},
        Case{"RootString", R"("bare")"}, Case{"RootNumber", "42"}, Case{"RootNull", "null"},
        Case{"ScalarsAtTop", R"({"x":"s","n":1,"t":true})"},
        Case{"NulBehindRoot", std::string("{}\0[", 4)}, Case{"DeepestAllowed", nested(64)},
        Case{"StringInLastModel",
             R"({"Brands":[{"Models":[{"Model":"A"}]},{"Models":[{"Model":"B","x":"y"}]}]})",
             refused(16, "String: Unexpected field: y, last_key: x, tree_state = 4")},
        Case{"StringUnderPoE", R"({"Brands":[{"Models":[{"PoE":"yes"}]}]})",
             refused(16, "String: Unexpected field: yes, last_key: PoE, tree_state = 4")},
        Case{"StringInNic", R"({"Brands":[{"Models":[{"NICs":[{"name":"e","speed":"1G"}]}]}]})",
             refused(16, "String: Unexpected field: 1G, last_key: speed, tree_state = 6")},
        Case{"ArrayInModel", R"({"Brands":[{"Models":[{"Tags":[]}]}]})",
             refused(16, "StartArray: Unexpected start array for key: Tags")},
        Case{"ArrayAtTop", R"({"List":[1]})",
             refused(16, "StartArray: Unexpected start array for key: List")},
        Case{"RootArray", "[]", refused(16, "StartArray: Unexpected start array for key: ")},
        Case{"DeepArrays", R"({"Brands":)" + std::string(1 << 20, '['),
             refused(16, "StartArray: " + kTooDeep)},
        Case{"DeepObjects", nested(65, false), refused(16, "StartObject: " + kTooDeep)},
        Case{"WhiteSpaceOnly", " \r\n\t ", refused(1)}, Case{"TextBehindRoot", "{} x", refused(2)},
        Case{"NumberTooBig", R"({"n":1e400})", refused(13)},
        Case{"NulInAKey", std::string("{\"Brands\0\":[]}", 14), refused(11)}),
    [](const ::testing::TestParamInfo<Case>& info) { return std::string(info.param.name); });

TEST(HwCatalogueLoad, RefusalWithTheLogTurnedDownStillFails) {
  ScratchFile file(R"({"Brands":[{"Models":[{"Colour":"red"}]}]})");
  Log::set_level(2);
  EXPECT_EQ(GetHwBrands(file.path().c_str()), nullptr);
  EXPECT_TRUE(Log::lines().empty()) << Log::dump();
}

TEST(HwCatalogueLoad, AMissingFileFailsConcurrentFirstCallsOnceAndLookupsFindNothing) {
  const char* path = "/nonexistent/hw-models.conf";
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; i++) threads.emplace_back([&] { EXPECT_EQ(GetHwBrands(path), nullptr); });
  for (std::thread& t : threads) t.join();
  EXPECT_FALSE(useBuzzerForAlarms("NV-4000", path));
  expect_failed_load(path, std::string("Missing hw-models file ") + path);
}

TEST(HwCatalogueLoad, ANullPathIsRefusedAndLeavesTheLoadToALaterCall) {
  EXPECT_EQ(GetHwBrands(nullptr), nullptr);
  EXPECT_EQ(log_lines(), Strings{"2 GetHwBrands: GetHwBrands: path == NULL"});
  ScratchFile file(kExample);
  EXPECT_TRUE(isPoESupported("NV-4000", file.path().c_str()));
  EXPECT_TRUE(isPoESupported("NV-4000", nullptr));  // loaded: the path is not looked at
}

TEST(HwCatalogueLoad, AFailedLoadStaysFailedAfterTheFileIsRepaired) {
  ScratchFile file("");
  expect_failed_load(file.path().c_str(), "Empty hw-models file: " + file.path());
  EXPECT_EQ(Log::lines().at(0).format, "Empty hw-models file: %s");
  file.write(kExample);
  EXPECT_FALSE(isPoESupported("NV-4000", file.path().c_str()));
  expect_failed_load(file.path().c_str(), "Empty hw-models file: " + file.path());
}

TEST(HwCatalogueLoad, ConcurrentFirstCallsShareOneLoad) {
  ScratchFile file(kExample);
  std::atomic<int> ready{0};
  std::vector<CHwBrands*> seen(8, nullptr);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < 8; i++)
    threads.emplace_back([&, i] {
      ready++;
      while (ready.load() < 8) std::this_thread::yield();
      seen[i] = GetHwBrands(file.path().c_str());
      EXPECT_TRUE(useBuzzerForAlarms("NV-4000", file.path().c_str()));
    });
  for (std::thread& t : threads) t.join();
  ASSERT_NE(seen[0], nullptr);
  EXPECT_EQ(seen, std::vector<CHwBrands*>(8, seen[0]));
  EXPECT_EQ(dump(*seen[0]), (Strings{"[Acme]", kNv4000, kNv1000}));
}
