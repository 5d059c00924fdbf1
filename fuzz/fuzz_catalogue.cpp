// hw-models.conf through GetHwBrands and the questions about a model. Each
// input starts from a fresh catalogue; the questions are asked with texts
// from the input and with the names the catalogue itself holds.
#include <algorithm>
#include <string>
#include <vector>

#include "CommonL.h"
#include "fuzz_support.h"
#include "internal.h"

using fuzzsupport::check;

namespace {

const size_t kTextBytes = 48;  // of the input, for a search text
const size_t kCatalogueNames = 16;  // the catalogue's own names asked for, at most

bool same_nics(const std::vector<CHwNic>& a, const std::vector<CHwNic>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const CHwNic& x, const CHwNic& y) {
    return x.name == y.name && x.description == y.description;
  });
}

// A found record is the first entry, in file order, whose name occurs in the
// text; the five questions answer from that same record.
void ask(const std::string& text, const char* path, const CHwBrands* brands) {
  const CHwModel found = GetModelInfo(text.c_str(), path);
  const CHwModel* first = nullptr;
  if (brands != nullptr)
    for (const CHwBrand& brand : brands->Brands)
      for (const CHwModel& entry : brand.Models)
        if (first == nullptr && text.find(entry.Model) != std::string::npos) first = &entry;
  if (first == nullptr) {
    check(found.Model.empty() && !found.PoE && !found.BuzzerAlarm && found.PoE_driver.empty() &&
              found.PoE_NIC_name.empty() && found.NICs.Nics.empty(),
          "no match gives the default record");
  } else {
    check(found.Model == first->Model && found.PoE == first->PoE &&
              found.PoE_driver == first->PoE_driver && found.PoE_NIC_name == first->PoE_NIC_name &&
              found.BuzzerAlarm == first->BuzzerAlarm && same_nics(found.NICs.Nics, first->NICs.Nics),
          "a match gives a copy of the first entry");
  }
  check(isPoESupported(text.c_str(), path) == found.PoE, "isPoESupported");
  check(useBuzzerForAlarms(text.c_str(), path) == found.BuzzerAlarm, "useBuzzerForAlarms");
  check(GetPoEDriverName(text.c_str(), path) == found.PoE_driver, "GetPoEDriverName");
  check(GetPoENicName(text.c_str(), path) == found.PoE_NIC_name, "GetPoENicName");
  std::vector<CHwNic> nics{{"old", "old"}};
  check(getNicDescriptions(text.c_str(), path, nics) && same_nics(nics, found.NICs.Nics),
        "getNicDescriptions");
}

// The input's first and last bytes, each up to its first NUL.
std::vector<std::string> texts_from(const uint8_t* data, size_t size) {
  const char* text = reinterpret_cast<const char*>(data);
  const size_t n = std::min(size, kTextBytes);
  std::string head(text, n), tail(text + size - n, n);
  return {head.c_str(), tail.c_str(), ""};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* path = fuzzsupport::scratch_file(data, size);
  commonl::catalogue_reset();
  const CHwBrands* brands = GetHwBrands(path);
  check(GetHwBrands("/nonexistent") == brands, "the first load stands");
  std::vector<std::string> texts = texts_from(data, size);
  if (brands != nullptr)
    for (const CHwBrand& brand : brands->Brands)
      for (const CHwModel& model : brand.Models) {
        for (const CHwNic& nic : model.NICs.Nics) check(!nic.name.empty(), "a NIC without a name");
        if (texts.size() < kCatalogueNames) texts.push_back(model.Model + "\n");
      }
  for (const std::string& text : texts) ask(text, path, brands);
  return 0;
}
