// The hardware catalogue. The catalogue loads once per process, and ctest
// runs each test case in a process of its own, so every case starts unloaded.
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "support.h"

using namespace testsupport;

namespace {

const std::string kExample = R"({"Brands":[{"maker":"Acme","Models":[
  {"Model":"NV-4000","PoE":true,"PoE_driver":"acme_poe","PoE_NIC_name":"eth2","BuzzerAlarm":true,
   "NICs":[{"name":"eth0","description":"Network 1"},{"name":"eth1","description":"Network 2"}]},
  {"Model":"NV-1000"}]}]})";
const char* const kNv4000 = "NV-4000|1|acme_poe|eth2|1|eth0/Network 1,eth1/Network 2";

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

// What the five questions answer for `model`: "driver|NIC|PoE|buzzer|NICs".
std::string answers(const char* model, const char* path) {
  std::vector<CHwNic> nics{{"old", "old"}};
  const bool listed = getNicDescriptions(model, path, nics);  // always, even when unknown
  return GetPoEDriverName(model, path) + "|" + GetPoENicName(model, path) + "|" +
         std::to_string(isPoESupported(model, path)) + "|" +
         std::to_string(useBuzzerForAlarms(model, path)) + "|" + (listed ? str(nics) : "failed");
}

// The catalogue: "[brand name]", then its models.
Lines dump(const CHwBrands* brands) {
  Lines out;
  for (const CHwBrand& brand : brands ? brands->Brands : std::vector<CHwBrand>{}) {
    out.push_back("[" + brand.name + "]");
    for (const CHwModel& model : brand.Models) out.push_back(str(model));
  }
  return out;
}

const std::string kRefused = "3 parse:  rapidjson error for hw-models file, code: ";

}  // namespace

TEST(HwCatalogue, TheFirstCallLoadsTheFileForGoodAndLookupsFindByTextInFileOrder) {
  ScratchFile file(kExample), other(R"({"Brands":[{"Models":[{"Model":"Other","PoE":true}]}]})");
  const char* path = file.path().c_str();
  try {  // a null model throws, after the load
    GetModelInfo(nullptr, path);
    ADD_FAILURE() << "no exception";
  } catch (const std::logic_error& e) {
    EXPECT_STREQ(e.what(), "basic_string::_M_construct null not valid");
  }
  EXPECT_THROW(useBuzzerForAlarms(nullptr, "/nonexistent"), std::logic_error);
  const CHwBrands* brands = GetHwBrands(other.path().c_str());  // the path of the first call wins
  EXPECT_TRUE(brands != nullptr && GetHwBrands("/nonexistent") == brands);
  EXPECT_FALSE(isPoESupported("Other", other.path().c_str()));
  EXPECT_EQ(dump(brands), (Lines{"[Acme]", kNv4000, "NV-1000|0|||0|"}));
  // By substring, case and all; the catalogue's name comes back.
  for (const char* text : {"NV-4000", "NV-4000-B\n", "XNV-4000Y"})
    EXPECT_EQ(str(GetModelInfo(text, path)), kNv4000) << text;
  for (const char* miss : {"nv-4000", "NV-40", ""})
    EXPECT_EQ(str(GetModelInfo(miss, path)), "|0|||0|") << miss;
  // A match, an entry lacking the fields, an unknown model.
  EXPECT_EQ(answers("NV-4000\n", path), "acme_poe|eth2|1|1|eth0/Network 1,eth1/Network 2");
  for (const char* model : {"NV-1000", "unknown"}) EXPECT_EQ(answers(model, path), "||0|0|");
  CHwModel found = GetModelInfo("NV-4000", path);
  found.NICs.Nics.clear(), found.PoE_driver = "changed";  // results are the caller's own
  EXPECT_EQ(dump(GetHwBrands(path)), (Lines{"[Acme]", kNv4000, "NV-1000|0|||0|"}));
  EXPECT_EQ(Log::take(), Lines{});
}

TEST(HwCatalogue, EarlierEntriesShadowLaterOnesAndAnEmptyNameMatchesEverything) {
  ScratchFile file(R"({"Brands":[
    {"b":"One","Models":[{"Model":"NV-40","PoE_driver":"short"},{"Model":"NV-4000","PoE_driver":"long"}]},
    {"b":"Two","Models":[{"Model":"NV-40","PoE_driver":"second brand"},{"PoE_driver":"any"},
                         {"Model":"Z-1","PoE_driver":"hidden"}]}]})");
  const char* path = file.path().c_str();
  for (const char* m : {"NV-4000", "XNV-40Y"}) EXPECT_EQ(GetPoEDriverName(m, path), "short");
  for (const char* m : {"Z-1", "", "anything"}) EXPECT_EQ(GetPoEDriverName(m, path), "any");
}

TEST(HwCatalogue, MembersAreTakenAsTheReaderFindsThemAtEachLevel) {
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
  // A nested object's closing brace ends the model or NIC around it ("A", "B").
  EXPECT_EQ(dump(GetHwBrands(file.path().c_str())),
            (Lines{"[]", "M|0|b||0|eth0/,eth1/d1", "|1|||0|", "A|1|||0|",
                   "B|0|||0|eth0/inner,eth1/", "[Lost]", "[Kept]", "[Second]", "M|0|||0|", "[]"}));
  EXPECT_EQ(Log::take(), (Lines{"3 Bool: unexpected bool for key Extra",
                                "3 Bool: unexpected bool for key Model"}));
}

TEST(HwCatalogue, TheSampleCatalogue) {
  const std::string path = resource("hw-models.conf");
  const char* p = path.c_str();
  ASSERT_NE(GetHwBrands(p), nullptr) << Log::dump();
  EXPECT_TRUE(isPoESupported("HX-816P\n", p) && GetPoENicName("HX-816P\n", p) == "eth2");
  EXPECT_TRUE(useBuzzerForAlarms("HX-408\n", p) && !useBuzzerForAlarms("NB-2200\n", p));
}

// A catalogue file and what loading it logs. One that logs nothing loads as
// an empty catalogue, which is not a failed load; any refusal fails it whole.
struct Case {
  const char* name;
  std::string json;
  Lines log = {};
};
void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }
class OddCatalogue : public ::testing::TestWithParam<Case> {};

TEST_P(OddCatalogue, LoadsEmptyOrFailsWhole) {
  ScratchFile file(GetParam().json);
  const CHwBrands* brands = GetHwBrands(file.path().c_str());
  EXPECT_EQ(Log::take(), GetParam().log);
  EXPECT_EQ(brands != nullptr, GetParam().log.empty());
  EXPECT_TRUE(brands == nullptr || brands->Brands.empty());
  EXPECT_EQ(GetModelInfo("A", file.path().c_str()).Model, "");
}

// Objects nested `levels` deep under the key "x", closed or not.
std::string nested(int levels, bool closed = true) {
  std::string json;
  for (int i = 1; i < levels; i++) json += R"({"x":)";
  return json + "{}" + (closed ? std::string(levels - 1, '}') : "");
}
// Arrays and objects, each closed before the next, more than the levels allowed.
std::string many_closed_levels() {
  std::string json = "{";
  for (int i = 0; i < 70; i++) json += R"("NICs":[],"x":{},)";
  return json + R"("y":0})";
}
const std::string kUnexpected = "3 String: Unexpected field: ",
                  kTooDeep = "Too deep nesting in hw-models file, more than 64 levels";

INSTANTIATE_TEST_SUITE_P(
    HwCatalogue, OddCatalogue,
    ::testing::Values(
        Case{"EmptyRoot", "{}"}, Case{"EmptyBrands", R"({"Brands":[]})"},
        Case{"RootString", R"("bare")"},
        Case{"ScalarsAtTop", R"({"x":"s","n":-1,"u":18446744073709551615,"d":0.5,"t":true})"},
        Case{"NulBehindRoot", std::string("{}\0[", 4)}, Case{"DeepestAllowed", nested(64)},
        Case{"ManyClosedLevels", many_closed_levels()},
        Case{"StringInLastModel",
             R"({"Brands":[{"Models":[{"Model":"A"}]},{"Models":[{"Model":"B","x":"y"}]}]})",
             {kUnexpected + "y, last_key: x, tree_state = 4", kRefused + "16"}},
        Case{"StringUnderPoE", R"({"Brands":[{"Models":[{"PoE":"yes"}]}]})",
             {kUnexpected + "yes, last_key: PoE, tree_state = 4", kRefused + "16"}},
        Case{"StringInNic", R"({"Brands":[{"Models":[{"NICs":[{"name":"e","speed":"1G"}]}]}]})",
             {kUnexpected + "1G, last_key: speed, tree_state = 6", kRefused + "16"}},
        Case{"ArrayInModel", R"({"Brands":[{"Models":[{"Tags":[]}]}]})",
             {"3 StartArray: Unexpected start array for key: Tags", kRefused + "16"}},
        Case{"RootArray", "[]",
             {"3 StartArray: Unexpected start array for key: ", kRefused + "16"}},
        Case{"DeepArrays", R"({"Brands":)" + std::string(1 << 20, '['),
             {"3 StartArray: " + kTooDeep, kRefused + "16"}},
        Case{"DeepObjects", nested(65, false), {"3 StartObject: " + kTooDeep, kRefused + "16"}},
        Case{"WhiteSpaceOnly", " \r\n\t ", {kRefused + "1"}},
        Case{"TextBehindRoot", "{} x", {kRefused + "2"}},
        Case{"NumberTooBig", R"({"n":1e400})", {kRefused + "13"}},
        Case{"NulInAKey", std::string("{\"Brands\0\":[]}", 14), {kRefused + "11"}}),
    [](const ::testing::TestParamInfo<Case>& info) { return std::string(info.param.name); });

TEST(HwCatalogueLoad, ARefusalWithTheLogTurnedDownStillFails) {
  ScratchFile file(R"({"Brands":[{"Models":[{"Colour":"red"}]}]})");
  Log::set_level(2);
  EXPECT_TRUE(GetHwBrands(file.path().c_str()) == nullptr && Log::take().empty());
}

TEST(HwCatalogueLoad, AMissingFileFailsConcurrentFirstCallsOnceAndLookupsFindNothing) {
  const char* path = "/nonexistent/hw-models.conf";
  on_threads(8, [&](int) { EXPECT_EQ(GetHwBrands(path), nullptr); });
  EXPECT_FALSE(useBuzzerForAlarms("NV-4000", path));
  EXPECT_EQ(Log::take(), Lines{"3 parse: Missing hw-models file /nonexistent/hw-models.conf"});
}

TEST(HwCatalogueLoad, ANullPathIsRefusedAndLeavesTheLoadToALaterCall) {
  EXPECT_EQ(GetHwBrands(nullptr), nullptr);
  EXPECT_EQ(Log::take(), Lines{"2 GetHwBrands: GetHwBrands: path == NULL"});
  ScratchFile file(kExample);
  EXPECT_TRUE(isPoESupported("NV-4000", file.path().c_str()) && isPoESupported("NV-4000", nullptr));
}

TEST(HwCatalogueLoad, AFailedLoadStaysFailedAfterTheFileIsRepaired) {
  ScratchFile file("");
  EXPECT_EQ(GetHwBrands(file.path().c_str()), nullptr);
  EXPECT_EQ(Log::lines().at(0).format, "Empty hw-models file: %s");
  file.write(kExample);
  EXPECT_EQ(GetHwBrands(file.path().c_str()), nullptr);
  EXPECT_FALSE(isPoESupported("NV-4000", file.path().c_str()));
  EXPECT_EQ(Log::take(), Lines{"3 parse: Empty hw-models file: " + file.path()});
}

TEST(HwCatalogueLoad, ConcurrentFirstCallsShareOneLoad) {
  ScratchFile file(kExample);
  std::vector<const CHwBrands*> seen(8, nullptr);
  Owned go(CreateEvent(nullptr, TRUE, FALSE, nullptr));
  on_threads(8, [&](int i) {
    if (i == 7) SetEvent(go);
    WaitForSingleObject(go, 10000);
    seen[i] = GetHwBrands(file.path().c_str());
    EXPECT_TRUE(useBuzzerForAlarms("NV-4000", file.path().c_str()));
  });
  EXPECT_TRUE(seen[0] != nullptr && seen == std::vector<const CHwBrands*>(8, seen[0]));
  EXPECT_EQ(dump(seen[0]), (Lines{"[Acme]", kNv4000, "NV-1000|0|||0|"}));
}

// The fuzzer's way to start each input from a fresh catalogue.
TEST(HwCatalogueLoad, AResetBringsBackTheStateAtLoadFailedLoadsIncluded) {
  ScratchFile example(kExample), other(R"({"Brands":[{"Models":[{"Model":"Other"}]}]})");
  EXPECT_EQ(GetHwBrands("/nonexistent"), nullptr);
  commonl::catalogue_reset();
  EXPECT_TRUE(isPoESupported("NV-4000", example.path().c_str()));
  commonl::catalogue_reset();
  EXPECT_EQ(dump(GetHwBrands(other.path().c_str())), (Lines{"[]", "Other|0|||0|"}));
  EXPECT_EQ(Log::take(), Lines{"3 parse: Missing hw-models file /nonexistent"});
}
