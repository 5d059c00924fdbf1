// check catalogue: hw-models.conf as the library reads it.
//
// The verdict is the library's: GetHwBrands on the file, the one load of
// this process. Where and why come from rapidjson's reader run here once
// more, with the library's parse flags, and a handler that follows the
// library's reading state for state (its tree state, its last key, its
// bound on nesting) and notes, at their place in the file, what the library
// refuses, drops or ignores there.
#include <ctype.h>
#include <string.h>

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include <CommonL/CommonL.h>
#include "check.h"

namespace tool {

namespace {

// Where the library's reader stands, with the library's numbers.
enum _Tree : int {
  TREE_TOP,
  TREE_BRANDS,  // between brands, or in a brand behind its "Models"
  TREE_BRAND,   // in a brand, before its "Models"
  TREE_MODELS,
  TREE_MODEL,
  TREE_NICS,
  TREE_NIC,
};

const int _MAX_NESTING = 64;  // the library refuses deeper files

// rapidjson's StringStream has a copy optimisation: inside a string the
// reader works on a copy, and the stream's Tell() lags behind. This one has
// none, so in every callback Tell() is the offset just behind the token.
class _Stream {
 public:
  typedef char Ch;
  explicit _Stream(const char* text) : begin_(text), at_(text) {}
  Ch Peek() const { return *at_; }
  Ch Take() { return *at_++; }
  size_t Tell() const { return static_cast<size_t>(at_ - begin_); }
  // For parsing in situ only, which the library doesn't do.
  Ch* PutBegin() { return nullptr; }
  void Put(Ch) {}
  void Flush() {}
  size_t PutEnd(Ch*) { return 0; }

 private:
  const char* begin_;
  const char* at_;
};

// Where the token that ends just before `end` begins.
size_t _token_start(const std::string& text, size_t end) {
  size_t at = end - 1;
  if (text[at] == '{' || text[at] == '[') return at;
  if (text[at] == '"') {
    // The opening quote: the first quote before that no odd run of
    // backslashes escapes.
    while (at > 0) {
      at--;
      size_t run = 0;
      while (run < at && text[at - 1 - run] == '\\') run++;
      if (text[at] == '"' && run % 2 == 0) return at;
    }
    return at;
  }
  while (at > 0 && (isalnum(static_cast<unsigned char>(text[at - 1])) || strchr("+-.", text[at - 1])))
    at--;
  return at;
}

// What an object or array is to the reading.
enum class _Role { Root, Brand, Model, Nic, List, Other };

struct _Frame {
  _Role role;
  size_t at;        // where it begins
  std::string key;  // the key it stands under; empty for an element
  int lists = 0;    // of a brand: its "Models" lists so far
};

// The members the grammar knows in a model and in a NIC, and what they take.
const struct _Known {
  int state;
  const char* key;
  bool flag;  // true or false; else a string
} _KNOWN[] = {
    {TREE_MODEL, "Model", false},       {TREE_MODEL, "PoE", true},
    {TREE_MODEL, "PoE_driver", false},  {TREE_MODEL, "PoE_NIC_name", false},
    {TREE_MODEL, "BuzzerAlarm", true},  {TREE_NIC, "name", false},
    {TREE_NIC, "description", false},
};

// The lists the library takes, and the record each belongs in.
const struct _List {
  const char* key;
  int state;
  _Role parent;
  const char* parent_name;
} _LISTS[] = {
    {"Brands", TREE_BRANDS, _Role::Root, "the root object"},
    {"Models", TREE_MODELS, _Role::Brand, "a brand"},
    {"NICs", TREE_NICS, _Role::Model, "a model"},
};

const char* _record_name(int state) {
  switch (state) {
    case TREE_MODEL: return "a model";
    case TREE_NIC: return "a NIC";
    case TREE_BRAND: return "a brand";
    default: return "the root object";
  }
}

// A model as the library stores it, with its place in the file.
struct _Stored {
  std::string name;
  size_t at;  // its "Model" member, or the model's brace
};

// The handler: the library's transitions, and the findings on the way.
class _Reader {
 public:
  _Reader(Check& check, const _Stream& stream) : check_(check), text_(check.text), stream_(stream) {}

  bool Null() { return true; }
  bool Bool(bool) {
    _scalar(true);
    return true;
  }
  bool Int(int) { return _number(); }
  bool Uint(unsigned) { return _number(); }
  bool Int64(int64_t) { return _number(); }
  bool Uint64(uint64_t) { return _number(); }
  bool Double(double) { return _number(); }
  bool RawNumber(const char*, rapidjson::SizeType, bool) { return _number(); }
  bool String(const char* str, rapidjson::SizeType, bool);
  bool Key(const char* str, rapidjson::SizeType, bool) {
    last_key_ = str;
    key_at_ = _start();
    return true;
  }
  bool StartObject();
  bool EndObject(rapidjson::SizeType);
  bool StartArray();
  bool EndArray(rapidjson::SizeType);

  // After a complete parse: what only the whole catalogue shows.
  void finish();

 private:
  size_t _start() const { return _token_start(text_, stream_.Tell()); }
  std::string _token() const {
    size_t start = _start();
    return text_.substr(start, stream_.Tell() - start);
  }
  bool _member() const { return !frames_.empty() && frames_.back().role != _Role::List; }
  bool _in_list() const { return !frames_.empty() && frames_.back().role == _Role::List; }
  // Where a value stands: at its key for a member, else where it begins.
  size_t _value_at() const { return _member() ? key_at_ : _start(); }
  const _Known* _known() const {
    for (const _Known& known : _KNOWN)
      if (known.state == state_ && last_key_ == known.key) return &known;
    return nullptr;
  }
  bool _too_deep();
  bool _number() {
    _scalar(false);
    return true;
  }
  void _scalar(bool is_flag);
  bool _refuse_string(const std::string& value);
  void _brand_name(const std::string& name);

  Check& check_;
  const std::string& text_;
  const _Stream& stream_;
  int state_ = TREE_TOP;
  std::string last_key_;
  size_t key_at_ = 0;
  int depth_ = 0;
  std::vector<_Frame> frames_;
  bool saw_brands_ = false;
  // The brand being read, as the library keeps it.
  std::string brand_name_;
  bool brand_named_ = false;
  std::vector<_Stored> brand_models_;
  // The model and the NIC being read.
  _Stored model_;
  std::string nic_name_;
  size_t nic_at_ = 0;
  std::vector<_Stored> stored_;  // the catalogue's models in lookup order
};

bool _Reader::_too_deep() {
  if (depth_ < _MAX_NESTING) return false;
  check_.error(stream_.Tell() - 1, "more than " + std::to_string(_MAX_NESTING) +
                                       " levels of nesting: the library refuses the whole file");
  return true;
}

// Booleans and numbers: the library takes true and false under "PoE" and
// "BuzzerAlarm" of a model and ignores every other; it logs those in a model.
void _Reader::_scalar(bool is_flag) {
  const std::string value = _token();
  if (_in_list()) {
    check_.warning(_start(), value + " in the " + quoted(frames_.back().key) +
                                 " list: the library ignores it; the list holds objects");
    return;
  }
  const _Known* known = _known();
  if (known != nullptr && known->flag == is_flag) return;
  if (known != nullptr) {
    check_.warning(key_at_, quoted(last_key_) + " takes " + (known->flag ? "true or false" : "a string") +
                                ": the library ignores " + (is_flag ? "" : "the number ") + value +
                                ", and the field stays " + (known->flag ? "false" : "empty"));
  } else if (is_flag && state_ == TREE_MODEL) {
    check_.warning(key_at_, value + " under " + quoted(last_key_) +
                                " in a model: the library ignores it (and logs \"unexpected bool for key " +
                                last_key_ + "\")");
  }
}

bool _Reader::String(const char* str, rapidjson::SizeType, bool) {
  const std::string value = str;  // up to a NUL, as the library takes it
  if (state_ == TREE_MODEL || state_ == TREE_NIC) {
    const _Known* known = _known();
    if (known == nullptr || known->flag) return _refuse_string(value);
    if (state_ == TREE_MODEL && last_key_ == "Model") model_ = {value, key_at_};
    if (state_ == TREE_NIC && last_key_ == "name") nic_name_ = value;
    return true;
  }
  if (state_ == TREE_BRAND) {
    _brand_name(value);
  } else if (_in_list()) {
    check_.warning(_start(), "a string in the " + quoted(frames_.back().key) +
                                 " list: the library ignores it; the list holds objects");
  } else if (state_ == TREE_BRANDS && _member() && frames_.back().role == _Role::Brand) {
    check_.warning(key_at_, "brand name " + quoted(value) +
                                " after the \"Models\" list: the library ignores it; the name must come "
                                "before the list");
  }
  return true;
}

bool _Reader::_refuse_string(const std::string& value) {
  const _Known* known = _known();
  if (known != nullptr)
    check_.error(_value_at(), quoted(last_key_) + " holds the string " + quoted(value) +
                                  ": the library takes true or false there, and refuses the whole file "
                                  "over a string");
  else if (state_ == TREE_MODEL)
    check_.error(_value_at(), "string under " + quoted(last_key_) +
                                  " in a model: the library refuses the whole file over a string member "
                                  "other than \"Model\", \"PoE_driver\" and \"PoE_NIC_name\"");
  else
    check_.error(_value_at(), "string under " + quoted(last_key_) +
                                  " in a NIC: the library refuses the whole file over a string member "
                                  "other than \"name\" and \"description\"");
  return false;
}

// Any string member of a brand before its "Models" names it; the last wins.
void _Reader::_brand_name(const std::string& name) {
  if (brand_named_ && name != brand_name_)
    check_.warning(key_at_, quoted(last_key_) + " names the brand " + quoted(name) + " in place of " +
                                quoted(brand_name_) +
                                ": the library takes the last string member before \"Models\" for the "
                                "brand's name");
  brand_name_ = name;
  brand_named_ = true;
}

bool _Reader::StartObject() {
  if (_too_deep()) return false;
  depth_++;
  const size_t at = stream_.Tell() - 1;
  const std::string key = _member() ? last_key_ : "";
  _Role role = _Role::Other;
  if (frames_.empty()) {
    role = _Role::Root;
  } else if (state_ == TREE_BRANDS) {
    role = _Role::Brand;
    brand_name_.clear();
    brand_named_ = false;
    brand_models_.clear();
    state_ = TREE_BRAND;
  } else if (state_ == TREE_MODELS) {
    role = _Role::Model;
    model_ = {"", at};
    state_ = TREE_MODEL;
  } else if (state_ == TREE_NICS) {
    role = _Role::Nic;
    nic_name_.clear();
    nic_at_ = at;
    state_ = TREE_NIC;
  } else if (state_ == TREE_BRAND && _in_list()) {
    // The brand before had no "Models": the library goes on in the same
    // state, and this brand is read into what is left of that one.
    role = _Role::Brand;
  } else if (frames_.back().role == _Role::Other) {
    // Inside an object already reported: its members count as its own do.
  } else if (state_ == TREE_MODEL || state_ == TREE_NIC) {
    const char* record = state_ == TREE_MODEL ? "model" : "NIC";
    check_.warning(_value_at(), "an object under " + quoted(key) + " in a " + record +
                                    ": the library ends the " + record +
                                    " at its closing brace and ignores the members after it");
  } else if (_member()) {
    check_.warning(_value_at(), "an object under " + quoted(key) + " in " + _record_name(state_) +
                                    ": the library reads its members as members of the object around it");
  } else {
    check_.warning(at, "an object the library does not expect here: it reads its members as members of "
                       "the record around it");
  }
  frames_.push_back({role, at, key});
  return true;
}

bool _Reader::EndObject(rapidjson::SizeType) {
  depth_--;
  const _Frame frame = frames_.back();
  frames_.pop_back();
  if (state_ == TREE_MODEL) {
    brand_models_.push_back(model_);
    state_ = TREE_MODELS;
  } else if (state_ == TREE_NIC) {
    if (nic_name_.empty()) check_.warning(nic_at_, "a NIC without a name: the library drops it");
    state_ = TREE_NICS;
  } else if (state_ == TREE_BRAND && frame.role == _Role::Brand) {
    check_.warning(frame.at, "a brand without a \"Models\" list: the library drops it");
    brand_named_ = false;
  }
  return true;
}

bool _Reader::StartArray() {
  const _List* list = nullptr;
  for (const _List& known : _LISTS)
    if (last_key_ == known.key) list = &known;
  const size_t at = stream_.Tell() - 1;
  if (list == nullptr) {
    if (frames_.empty())
      check_.error(at, "the file is a list: the library wants an object with a \"Brands\" list, and "
                       "refuses the whole file");
    else if (_member())
      check_.error(key_at_, "a list under " + quoted(last_key_) +
                                ": the library takes lists only under \"Brands\", \"Models\" and \"NICs\", "
                                "and refuses the whole file over any other");
    else
      check_.error(at, "a list where the library expects none (the last key read was " +
                           quoted(last_key_) + "): it refuses the whole file");
    return false;
  }
  if (_too_deep()) return false;
  depth_++;
  if (!_member())
    check_.warning(at, "a list inside a list: the library reads it as a " + quoted(list->key) +
                           " list, which the file does not mean");
  else if (frames_.back().role != list->parent)
    check_.warning(key_at_, "a " + quoted(list->key) + " list in " + _record_name(state_) +
                                ": the library still reads it, but not as the file means; it belongs in " +
                                list->parent_name);
  else if (list->state == TREE_MODELS && ++frames_.back().lists == 2)
    check_.warning(key_at_, "a second \"Models\" list in one brand: the library stores the brand once "
                            "more, with the models of both lists");
  saw_brands_ |= list->state == TREE_BRANDS;
  state_ = list->state;
  frames_.push_back({_Role::List, at, list->key});
  return true;
}

bool _Reader::EndArray(rapidjson::SizeType) {
  depth_--;
  frames_.pop_back();
  if (state_ == TREE_MODELS) {
    // The brand enters the catalogue here, with every model it has read.
    stored_.insert(stored_.end(), brand_models_.begin(), brand_models_.end());
    state_ = TREE_BRANDS;
  } else if (state_ == TREE_NICS) {
    state_ = TREE_MODEL;
  }
  return true;
}

// Lookups take the first entry whose name occurs in the model text: an
// empty name matches every text, and a name that occurs in a later one
// hides it.
void _Reader::finish() {
  if (!saw_brands_) {
    const size_t root = text_.find_first_not_of(" \t\r\n");
    check_.warning(root, text_[root] == '{'
                             ? "no \"Brands\" list: the catalogue is empty"
                             : "the file holds a single value, not an object: the catalogue is empty");
  }
  bool hidden = false;
  for (size_t j = 0; j < stored_.size() && !hidden; j++) {
    const _Stored& model = stored_[j];
    if (model.name.empty()) {
      check_.warning(model.at, "a model without a name: it matches every lookup, so the library never "
                               "finds the entries after it");
      hidden = true;
      continue;
    }
    for (size_t i = 0; i < j; i++)
      if (stored_[i].at != model.at && model.name.find(stored_[i].name) != std::string::npos) {
        check_.warning(model.at, quoted(model.name) + " is never found: " + quoted(stored_[i].name) +
                                     " comes first in the file and occurs in its name");
        break;
      }
  }
}

void _read(Check& check) {
  // The library's reader ends at the first NUL byte.
  const size_t nul = strlen(check.text.c_str());
  if (check.text.find_first_not_of(std::string(" \t\r\n\0", 5), nul) != std::string::npos)
    check.warning(nul, "a NUL byte: the library reads no further");
  _Stream stream(check.text.c_str());
  _Reader reader(check, stream);
  rapidjson::Reader parser;
  parser.Parse<rapidjson::kParseDefaultFlags>(stream, reader);
  if (!parser.HasParseError())
    reader.finish();
  else if (parser.GetParseErrorCode() != rapidjson::kParseErrorTermination)  // not the handler's refusal
    check.error(parser.GetErrorOffset(), rapidjson::GetParseError_En(parser.GetParseErrorCode()));
}

void _summary(Out& out, const CHwBrands& brands) {
  long long models = 0, nics = 0;
  for (const CHwBrand& brand : brands.Brands)
    for (const CHwModel& model : brand.Models) {
      models++;
      nics += static_cast<long long>(model.NICs.Nics.size());
    }
  out.number("brands", static_cast<long long>(brands.Brands.size()));
  out.number("models", models);
  out.number("nics", nics);
  out.open_array("brand_names");
  for (const CHwBrand& brand : brands.Brands) out.text(nullptr, brand.name);
  out.close();
}

std::string _count(size_t count, const char* noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string _summary_text(const CHwBrands& brands) {
  size_t models = 0, nics = 0;
  std::string names;
  for (const CHwBrand& brand : brands.Brands) {
    names += (names.empty() ? "" : ", ") + quoted(brand.name);
    models += brand.Models.size();
    for (const CHwModel& model : brand.Models) nics += model.NICs.Nics.size();
  }
  if (!names.empty()) names = " (" + names + ")";
  return _count(brands.Brands.size(), "brand") + names + ", " + _count(models, "model") + ", " +
         _count(nics, "NIC");
}

}  // namespace

int cmd_check_catalogue(const Options& o) {
  Check check;
  check.path = o.check_path;
  const CHwBrands* brands = GetHwBrands(check.path.c_str());
  check.loads = brands != nullptr;
  if (read_checked_file(check)) _read(check);
  Verdict verdict;
  if (brands != nullptr) {
    verdict.summary = [brands](Out& out) { _summary(out, *brands); };
    verdict.summary_text = _summary_text(*brands);
  }
  verdict.refusal_text = "the catalogue is unavailable, and every lookup answers as for an unknown model";
  return report(o, check, verdict);
}

}  // namespace tool
