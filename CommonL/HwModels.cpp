// The hardware catalogue: hw-models.conf read once per process through
// rapidjson's SAX reader, and the lookups by model text.
#define COMMONL_UNIT "../CommonL/HwModels"

#include "HwModels.h"

#include <rapidjson/reader.h>
#include <rapidjson/stream.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <memory>
#include <mutex>
#include <stdexcept>

#include "internal.h"

using commonl::sys;

// Where the reader stands in the tree. The numbers show in a log message.
enum : int32_t {
  TREE_TOP = 0,     // before any list key
  TREE_BRANDS = 1,  // between brands, or in a brand behind its "Models"
  TREE_BRAND = 2,   // in a brand, before its "Models"
  TREE_MODELS = 3,  // between models
  TREE_MODEL = 4,
  TREE_NICS = 5,  // between NICs
  TREE_NIC = 6,
};

// The handler works on this state only, so one parse at a time. It is built
// in this order at load and lives as long as the library.
static CHwBrands allBrands;
static CHwBrand currentBrand;
static CHwModel currentModel;
static CHwNics allNics;  // the finished NICs of the model being read
static CHwNic currentNic;
static const CHwNics allNicsEmpty;
static const CHwNic currentNicEmpty;
static std::string last_key;  // the key read last, at whatever depth
static int32_t tree_state = TREE_TOP;
static bool has_parsed = false;
// What GetHwBrands hands out: &allBrands after a complete parse, else null.
static CHwBrands* BrandsToCallers = nullptr;

// The reader recurses once per level and has no bound of its own; deeper
// files are refused before they can exhaust the caller's stack. The grammar
// needs seven levels.
static const int _MAX_NESTING = 64;
static int nesting_depth;  // set to 0 by each parse

// Makes concurrent first calls wait for the one that loads.
static std::mutex load_mutex;

namespace {

class MyHandler {
 public:
  bool Null() { return true; }
  bool Bool(bool b);
  bool Int(int) { return true; }
  bool Uint(unsigned) { return true; }
  bool Int64(int64_t) { return true; }
  bool Uint64(uint64_t) { return true; }
  bool Double(double) { return true; }
  // Part of the handler concept; not called with the default parse flags.
  bool RawNumber(const char*, rapidjson::SizeType, bool) { return true; }
  bool String(const char* str, rapidjson::SizeType length, bool copy);
  bool StartObject();
  bool Key(const char* str, rapidjson::SizeType length, bool copy);
  bool EndObject(rapidjson::SizeType memberCount);
  bool StartArray();
  bool EndArray(rapidjson::SizeType elementCount);
};

bool MyHandler::Bool(bool b) {
  if (tree_state != TREE_MODEL) return true;
  if (last_key == "BuzzerAlarm")
    currentModel.BuzzerAlarm = b;
  else if (last_key == "PoE")
    currentModel.PoE = b;
  else
    KLOG(3, "unexpected bool for key %s", last_key.c_str());
  return true;
}

// Texts are taken up to their first NUL, like the keys.
bool MyHandler::String(const char* str, rapidjson::SizeType, bool) {
  switch (tree_state) {
    case TREE_BRAND:
      currentBrand.name = str;
      return true;
    case TREE_MODEL:
      if (last_key == "Model")
        currentModel.Model = str;
      else if (last_key == "PoE_driver")
        currentModel.PoE_driver = str;
      else if (last_key == "PoE_NIC_name")
        currentModel.PoE_NIC_name = str;
      else
        break;
      return true;
    case TREE_NIC:
      if (last_key == "name")
        currentNic.name = str;
      else if (last_key == "description")
        currentNic.description = str;
      else
        break;
      return true;
    default:
      return true;
  }
  KLOG(3, "Unexpected field: %s, last_key: %s, tree_state = %d", str, last_key.c_str(), tree_state);
  return false;
}

bool MyHandler::StartObject() {
  if (nesting_depth >= _MAX_NESTING) {
    KLOG(3, "Too deep nesting in hw-models file, more than %d levels", _MAX_NESTING);
    return false;
  }
  nesting_depth++;
  // Objects in other states add nothing: their members count for the
  // record around them.
  if (tree_state == TREE_BRANDS) {
    currentBrand = CHwBrand();
    tree_state = TREE_BRAND;
  } else if (tree_state == TREE_MODELS) {
    currentModel = CHwModel();
    tree_state = TREE_MODEL;
  } else if (tree_state == TREE_NICS) {
    currentNic = CHwNic();
    tree_state = TREE_NIC;
  }
  return true;
}

bool MyHandler::Key(const char* str, rapidjson::SizeType, bool) {
  last_key = str;
  return true;
}

bool MyHandler::EndObject(rapidjson::SizeType) {
  nesting_depth--;
  if (tree_state == TREE_MODEL) {
    if (!allNics.Nics.empty()) {
      currentModel.NICs = allNics;
      allNics = allNicsEmpty;
    }
    currentBrand.Models.push_back(currentModel);
    tree_state = TREE_MODELS;
  } else if (tree_state == TREE_NIC) {
    if (!currentNic.name.empty()) {
      allNics.Nics.push_back(currentNic);
      currentNic.name = currentNicEmpty.name;
      currentNic.description = currentNicEmpty.description;
    }
    tree_state = TREE_NICS;
  }
  return true;
}

// The list keys act at any level: only the key decides.
bool MyHandler::StartArray() {
  int32_t next;
  if (last_key == "Brands") {
    next = TREE_BRANDS;
  } else if (last_key == "Models") {
    next = TREE_MODELS;
  } else if (last_key == "NICs") {
    next = TREE_NICS;
  } else {
    KLOG(3, "Unexpected start array for key: %s", last_key.c_str());
    return false;
  }
  if (nesting_depth >= _MAX_NESTING) {
    KLOG(3, "Too deep nesting in hw-models file, more than %d levels", _MAX_NESTING);
    return false;
  }
  nesting_depth++;
  tree_state = next;
  return true;
}

// A brand is stored when its "Models" array closes, not at its own brace.
bool MyHandler::EndArray(rapidjson::SizeType) {
  nesting_depth--;
  if (tree_state == TREE_MODELS) {
    allBrands.Brands.push_back(currentBrand);
    tree_state = TREE_BRANDS;
  } else if (tree_state == TREE_NICS) {
    tree_state = TREE_MODEL;
  }
  return true;
}

}  // namespace

// Reads the file at `path` into allBrands; true after a complete parse.
// A failure leaves what was read unreachable, and says why in the log.
static const commonl::FileMessages _CATALOGUE_FILE_MESSAGES = {
    "Missing hw-models file %s",
    "Empty hw-models file: %s",
    "No memo for hw-models file",
    "Fail to read hw-models file, expected %d bytes, read %d",
    "Too large hw-models file: %s",
};

static bool parse(const char* path) {
  int32_t size = 0;
  std::unique_ptr<char, void (*)(void*)> buffer(
      commonl::read_whole_file(path, _CATALOGUE_FILE_MESSAGES, COMMONL_UNIT, __func__, &size),
      sys.free);
  if (!buffer) return false;

  rapidjson::Reader reader;
  rapidjson::StringStream stream(buffer.get());
  MyHandler handler;
  nesting_depth = 0;
  reader.Parse<rapidjson::kParseDefaultFlags>(stream, handler);
  buffer.reset();
  if (reader.HasParseError()) {
    KLOG(3, " rapidjson error for hw-models file, code: %d",
         static_cast<int>(reader.GetParseErrorCode()));
    return false;
  }
  return true;
}

// After an allocation failure in the load: a later call reads the file again
// from the state at load, not on top of the half-built records. (The brand,
// model and NIC being read start afresh at their own opening brace.)
static void _forget_partial_load() {
  allBrands.Brands.clear();
  allNics.Nics.clear();
  last_key.clear();
  tree_state = TREE_TOP;
}

CHwBrands* GetHwBrands(char const* path) {
  std::lock_guard<std::mutex> lock(load_mutex);
  if (has_parsed) return BrandsToCallers;
  // Without a path there is nothing to load; a later call with one still can.
  if (path == nullptr) {
    KLOG(2, "GetHwBrands: path == NULL");
    return nullptr;
  }
  bool parsed;
  try {
    parsed = parse(path);
  } catch (...) {
    _forget_partial_load();
    throw;
  }
  if (parsed) BrandsToCallers = &allBrands;
  has_parsed = true;
  return BrandsToCallers;
}

namespace commonl {

void catalogue_reset() {
  std::lock_guard<std::mutex> lock(load_mutex);
  _forget_partial_load();
  allBrands = CHwBrands();
  has_parsed = false;
  BrandsToCallers = nullptr;
}

}  // namespace commonl

CHwModel GetModelInfo(char const* model, char const* path) {
  const CHwBrands* brands = GetHwBrands(path);
  // What constructing the search text from null throws, with a fixed text.
  if (model == nullptr) throw std::logic_error("basic_string::_M_construct null not valid");
  const std::string text(model);
  CHwModel result;
  if (brands == nullptr) return result;
  // File order decides: the first entry whose name occurs in the text.
  for (const CHwBrand& brand : brands->Brands)
    for (const CHwModel& entry : brand.Models)
      if (text.find(entry.Model) != std::string::npos) {
        result = entry;
        return result;
      }
  return result;
}

std::string GetPoEDriverName(char const* model, char const* path) {
  return GetModelInfo(model, path).PoE_driver;
}

std::string GetPoENicName(char const* model, char const* path) {
  return GetModelInfo(model, path).PoE_NIC_name;
}

bool isPoESupported(char const* model, char const* path) { return GetModelInfo(model, path).PoE; }

bool useBuzzerForAlarms(char const* model, char const* path) {
  return GetModelInfo(model, path).BuzzerAlarm;
}

bool getNicDescriptions(char const* model, char const* path, std::vector<CHwNic>& nics) {
  nics = GetModelInfo(model, path).NICs.Nics;
  return true;
}
