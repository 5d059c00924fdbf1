// The hardware catalogue. It loads once per process (ctest runs each case in
// a process of its own); the grammar is read through commonl::catalogue_reset,
// which gives each file a first load of its own.

#include <stdexcept>

#include "support.h"

using namespace testsupport;

namespace {

const std::string kExample = R"({"Brands":[{"maker":"Acme","Models":[
  {"Model":"NV-4000","PoE":true,"PoE_driver":"acme_poe","PoE_NIC_name":"eth2","BuzzerAlarm":true,
   "NICs":[{"name":"eth0","description":"Network 1"},{"name":"eth1","description":"Network 2"}]},
  {"Model":"NV-1000"}]}]})";
const char* const kLoaded =
    "[Acme]|NV-4000 1 acme_poe eth2 1 eth0/Network 1,eth1/Network 2|"
    "NV-1000 0   0 |";

// NICs as "name/description,...", a model as "Model PoE driver NIC buzzer NICs".
std::string str(const std::vector<CHwNic>& nics) {
  std::string out;
  for (const CHwNic& nic : nics) out += (out.empty() ? "" : ",") + nic.name + "/" + nic.description;
  return out;
}
std::string str(const CHwModel& m) {
  return m.Model + " " + std::to_string(m.PoE) + " " + m.PoE_driver + " " + m.PoE_NIC_name + " " +
         std::to_string(m.BuzzerAlarm) + " " + str(m.NICs.Nics);
}

// The catalogue as "[brand name]|" and "model|" each, or "null|".
std::string dump(const CHwBrands* brands) {
  if (brands == nullptr) return "null|";
  std::string out;
  for (const CHwBrand& brand : brands->Brands) {
    out += "[" + brand.name + "]|";
    for (const CHwModel& model : brand.Models) out += str(model) + "|";
  }
  return out;
}

// What the five questions answer for `model`: "driver NIC PoE buzzer NICs".
std::string answers(const char* model, const char* path) {
  std::vector<CHwNic> nics{{"old", "old"}};
  const bool listed = getNicDescriptions(model, path, nics);  // always, even when unknown
  return GetPoEDriverName(model, path) + " " + GetPoENicName(model, path) + " " +
         std::to_string(isPoESupported(model, path)) + " " +
         std::to_string(useBuzzerForAlarms(model, path)) + " " + (listed ? str(nics) : "failed");
}

// Objects nested `levels` deep under the key "x", closed or not; arrays and
// objects each closed before the next, more than the levels allowed.
std::string nested(int levels, bool closed = true) {
  std::string json;
  for (int i = 1; i < levels; i++) json += R"({"x":)";
  return json + "{}" + (closed ? std::string(levels - 1, '}') : "");
}
std::string closed_levels() {
  std::string json = "{";
  for (int i = 0; i < 70; i++) json += R"("NICs":[],"x":{},)";
  return json + R"("y":0})";
}

const std::string kRefused = "3 parse:  rapidjson error for hw-models file, code: ",
                  kField = "null|3 String: Unexpected field: ",
                  kTooDeep = "Too deep nesting in hw-models file, more than 64 levels|";

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
  EXPECT_TRUE(!isPoESupported("Other", other.path().c_str()) && dump(brands) == kLoaded);
  // By substring, case and all; the catalogue's name comes back.
  for (const char* text : {"NV-4000", "NV-4000-B\n", "XNV-4000Y"})
    EXPECT_EQ(str(GetModelInfo(text, path)),
              "NV-4000 1 acme_poe eth2 1 eth0/Network 1,eth1/Network 2");
  for (const char* miss : {"nv-4000", "NV-40", ""})
    EXPECT_EQ(str(GetModelInfo(miss, path)), " 0   0 ");
  EXPECT_EQ(answers("NV-4000\n", path), "acme_poe eth2 1 1 eth0/Network 1,eth1/Network 2");
  for (const char* model : {"NV-1000", "unknown"}) EXPECT_EQ(answers(model, path), "  0 0 ");
  CHwModel found = GetModelInfo("NV-4000", path);
  found.NICs.Nics.clear(), found.PoE_driver = "changed";  // results are the caller's own
  EXPECT_TRUE(dump(GetHwBrands(path)) == kLoaded && Log::said().empty());
}

TEST(HwCatalogue, EachFileLoadsAsTheGrammarReadsItOrFailsWhole) {
  ScratchFile file("");
  // The file, then the catalogue ("null" for a failed load) and the log.
  const std::pair<std::string, std::string> rows[] = {
      {kExample, kLoaded},
      {R"({"Brands":[{"Models":[
    {"NICs":[{"description":"no name"},{"name":"","description":"empty"},{"name":"eth0","x":1,"y":true,"z":null}],
     "Model\u0000x":"M","Extra":true,"PoE":1,"BuzzerAlarm":null,"PoE_driver":"a","PoE_driver":"b\u0000c",
     "NICs":[{"name":"eth1","description":"d1"}]},
    {"Model":false,"PoE":true,"PoE":null},
    {"Model":"A","Inner":{"PoE":true},"PoE_driver":"ignored","BuzzerAlarm":true,"Colour":"ignored too"},
    {"Model":"B","NICs":[{"name":"eth0","More":{"description":"inner"},"description":"late","speed":"x"},{"name":"eth1"}]}
    ]}, {"maker":"Lost"}, {"Models":[]}, {"x":"Gone"}, {"y":"Kept","Models":[]},
    {"a":"First","n":1,"t":true,"z":null,"b":"Second","Models":[{"Model":"M"}],"c":"After"},
    {"Models":[],"d":"Late"}]})",  // a nested object's closing brace ends its model or NIC
       "[]|M 0 b  0 eth0/,eth1/d1| 1   0 |A 1   0 |B 0   0 eth0/inner,eth1/|[Lost]|[Kept]|[Second]|"
       "M 0   0 |[]|3 Bool: unexpected bool for key Extra|3 Bool: unexpected bool for key Model|"},
      {"{}", ""},
      {R"({"Brands":[]})", ""},
      {R"("bare")", ""},
      {std::string("{}\0[", 4), ""},
      {R"({"x":"s","n":-1,"u":18446744073709551615,"d":0.5,"t":true})", ""},
      {nested(64), ""},
      {closed_levels(), ""},
      {R"({"Brands":[{"Models":[{"Model":"A"}]},{"Models":[{"Model":"B","x":"y"}]}]})",
       kField + "y, last_key: x, tree_state = 4|" + kRefused + "16|"},
      {R"({"Brands":[{"Models":[{"NICs":[{"name":"e"}],"PoE":"yes"}]}]})",
       kField + "yes, last_key: PoE, tree_state = 4|" + kRefused + "16|"},
      {R"({"x":"s","Brands":[{"Models":[{}]}]})", "[]| 0   0 |"},  // nothing left from before
      {R"({"Brands":[{"Models":[{"NICs":[{"name":"e","speed":"1G"}]}]}]})",
       kField + "1G, last_key: speed, tree_state = 6|" + kRefused + "16|"},
      {R"({"Brands":[{"Models":[{"Tags":[]}]}]})",
       "null|3 StartArray: Unexpected start array for key: Tags|" + kRefused + "16|"},
      {"[]", "null|3 StartArray: Unexpected start array for key: |" + kRefused + "16|"},
      {R"({"Brands":)" + std::string(1 << 20, '['),
       "null|3 StartArray: " + kTooDeep + kRefused + "16|"},
      {nested(65, false), "null|3 StartObject: " + kTooDeep + kRefused + "16|"},
      {" \r\n\t ", "null|" + kRefused + "1|"},
      {"{} x", "null|" + kRefused + "2|"},
      {R"({"n":1e400})", "null|" + kRefused + "13|"},
      {std::string("{\"Brands\0\":[]}", 14), "null|" + kRefused + "11|"},
      {"", "null|3 parse: Empty hw-models file: " + file.path() + "|"}};
  for (const auto& [json, loaded] : rows) {
    commonl::catalogue_reset();
    file.write(json);
    const std::string catalogue = dump(GetHwBrands(file.path().c_str()));
    EXPECT_EQ(catalogue + Log::said(), loaded) << json.substr(0, 80);
  }
  commonl::catalogue_reset();  // the log turned down: a refusal still fails
  file.write(R"({"Brands":[{"Models":[{"Colour":"red"}]}]})");
  EXPECT_TRUE(!GetHwBrands((Log::set_level(2), file.path().c_str())) && Log::said().empty());
  commonl::catalogue_reset();  // earlier entries shadow later ones; an empty name matches all
  file.write(R"({"Brands":[{"b":"One","Models":[{"Model":"NV-40","PoE_driver":"short"},
    {"Model":"NV-4000","PoE_driver":"long"}]}, {"b":"Two","Models":[{"Model":"NV-40",
    "PoE_driver":"second brand"},{"PoE_driver":"any"},{"Model":"Z-1","PoE_driver":"hidden"}]}]})");
  for (const char* m : {"NV-4000", "XNV-40Y", "Z-1", "", "any"})
    EXPECT_EQ(GetPoEDriverName(m, file.path().c_str()),
              m[0] == 'N' || m[0] == 'X' ? "short" : "any");
  commonl::catalogue_reset();
  const std::string sample = resource("hw-models.conf");
  const char* p = sample.c_str();
  EXPECT_TRUE(isPoESupported("HX-816P\n", p) && GetPoENicName("HX-816P\n", p) == "eth2");
  EXPECT_TRUE(useBuzzerForAlarms("HX-408\n", p) && !useBuzzerForAlarms("NB-2200\n", p));
}

TEST(HwCatalogueLoad, AFailedLoadIsFinalUntilAResetConcurrentFirstCallsShareOneLoad) {
  ScratchFile file("");
  EXPECT_TRUE(!GetHwBrands(nullptr) && !GetHwBrands(file.path().c_str()));  // null: no load
  EXPECT_EQ(Log::lines().at(1).format, "Empty hw-models file: %s");
  file.write(kExample);  // repaired: no effect
  EXPECT_FALSE(GetHwBrands(file.path().c_str()) || isPoESupported("NV-4000", file.path().c_str()));
  EXPECT_EQ(Log::said(), "2 GetHwBrands: GetHwBrands: path == NULL|3 parse: Empty hw-models "
                         "file: " + file.path() + "|");
  for (const char* path : {"/nonexistent/hw-models.conf", file.path().c_str()}) {
    commonl::catalogue_reset();
    std::vector<const CHwBrands*> seen(8, nullptr);
    Owned go(CreateEvent(nullptr, TRUE, FALSE, nullptr));
    on_threads(8, [&](int i) {
      if (i == 7) SetEvent(go);
      seen[i] = (WaitForSingleObject(go, 10000), GetHwBrands(path));
    });
    EXPECT_TRUE(seen == std::vector<const CHwBrands*>(8, seen[0]));
    EXPECT_EQ(dump(seen[0]) + std::to_string(isPoESupported("NV-4000", nullptr)),
              seen[0] ? kLoaded + std::string("1") : "null|0");
    EXPECT_EQ(Log::said(), seen[0] ? "" : "3 parse: Missing hw-models file " + std::string(path) +
                                              "|");
  }
}
