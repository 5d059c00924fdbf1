// What the library sees on this machine: the system information, the
// catalogue entry of its model, the zones, the alarm sound and commands,
// each asked through the library's exported calls.
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <CommonL/CommonL.h>
#include "commonl.h"

namespace tool {

const SysinfoField kSysinfoFields[5] = {
    {"ProductName", offsetof(LinuxInfo_t, ProductName), sizeof(LinuxInfo_t::ProductName)},
    {"Ram", offsetof(LinuxInfo_t, Ram), 0},
    {"Cpu", offsetof(LinuxInfo_t, Cpu), sizeof(LinuxInfo_t::Cpu)},
    {"Model", offsetof(LinuxInfo_t, Model), sizeof(LinuxInfo_t::Model)},
    {"SerialNumber", offsetof(LinuxInfo_t, SerialNumber), sizeof(LinuxInfo_t::SerialNumber)},
};

std::string sysinfo_text(const LinuxInfo_t& info, const SysinfoField& field) {
  const char* start = reinterpret_cast<const char*>(&info) + field.offset;
  std::string text(start, strnlen(start, field.size));
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

void write_sysinfo_fields(Out& out, const LinuxInfo_t* info) {
  for (const SysinfoField& field : kSysinfoFields) {
    if (info == nullptr)
      out.null(field.key);
    else if (field.size == 0)
      out.number(field.key, info->Ram);
    else
      out.text(field.key, sysinfo_text(*info, field));
  }
}

namespace {

const char* const _SOUND_FILE = "/usr/share/sounds/sound-icons/cembalo-2.wav";
const unsigned int _MESSAGE_BEEP_MS = 400;

using _Info = std::unique_ptr<LinuxInfo_t, void (*)(void*)>;

_Info _read_sysinfo(const std::string& path) { return _Info(GetLinuxInfoEx(path.c_str()), free); }

// The brand of the entry that GetModelInfo takes for `text`: the first, in
// file order, whose Model occurs in the text. Null when there is none.
const CHwBrand* _brand_of(const CHwBrands* brands, const std::string& text) {
  if (brands == nullptr) return nullptr;
  for (const CHwBrand& brand : brands->Brands)
    for (const CHwModel& model : brand.Models)
      if (text.find(model.Model) != std::string::npos) return &brand;
  return nullptr;
}

void _model_fields(Out& out, const CHwModel& model) {
  out.text("Model", model.Model);
  out.flag("PoE", model.PoE);
  out.text("PoE_driver", model.PoE_driver);
  out.text("PoE_NIC_name", model.PoE_NIC_name);
  out.flag("BuzzerAlarm", model.BuzzerAlarm);
  out.open_array("NICs");
  for (const CHwNic& nic : model.NICs.Nics) {
    out.open_object(nullptr);
    out.text("name", nic.name);
    out.text("description", nic.description);
    out.close();
  }
  out.close();
}

// The catalogue's answer for `text`: whether it loaded, whether an entry
// matches and its brand, and the record GetModelInfo returns (the default
// record when none matches). Without a text nothing is looked up. True when
// an entry matches.
bool _entry_fields(Out& out, const std::string& path, const char* text) {
  const CHwBrands* brands = GetHwBrands(path.c_str());  // the process's one load
  const CHwBrand* brand = text != nullptr ? _brand_of(brands, text) : nullptr;
  out.text("path", path);
  out.flag("loaded", brands != nullptr);
  out.flag("found", brand != nullptr);
  if (brand != nullptr)
    out.text("brand", brand->name);
  else
    out.null("brand");
  _model_fields(out, text != nullptr ? GetModelInfo(text, path.c_str()) : CHwModel());
  return brand != nullptr;
}

int _not_found(const std::string& path, const std::string& text) {
  if (GetHwBrands(path.c_str()) == nullptr)
    return failure("%s: the library could not load the catalogue; 'commonl check catalogue %s' tells why",
                   path.c_str(), path.c_str());
  return failure("%s: no entry matches the model \"%s\"", path.c_str(), text.c_str());
}

struct _Zone {
  int id = -1;
  std::string name;
  bool has_offset = false;
  long offset = 0;  // seconds east of UTC, now
  bool dst = false;
};

// The offset and daylight saving now come from libc for the zone named;
// glibc takes a name it has no file for as UTC, so such a name has none.
void _offset_now(_Zone& zone) {
  std::string file = "/usr/share/zoneinfo/" + zone.name;
  if (access(file.c_str(), R_OK) != 0) return;
  setenv("TZ", zone.name.c_str(), 1);
  tzset();
  time_t now = time(nullptr);
  struct tm parts;
  if (localtime_r(&now, &parts) == nullptr) return;
  zone.has_offset = true;
  zone.offset = parts.tm_gmtoff;
  zone.dst = parts.tm_isdst > 0;
}

_Zone _selected_zone() {
  _Zone zone;
  zone.id = TZ__get_selected_id();
  if (zone.id < 0) return zone;
  char* name = TZ__get_name(zone.id);
  zone.name = name != nullptr ? name : "";
  free(name);
  _offset_now(zone);
  return zone;
}

std::string _offset_text(long seconds) {
  char text[32];
  long magnitude = seconds < 0 ? -seconds : seconds;
  snprintf(text, sizeof text, "%c%02ld:%02ld", seconds < 0 ? '-' : '+', magnitude / 3600,
           magnitude / 60 % 60);
  return text;
}

void _zone_fields(Out& out, const _Zone& zone) {
  out.number("id", zone.id);
  if (zone.id < 0)
    out.null("name");
  else
    out.text("name", zone.name);
  if (zone.has_offset) {
    out.text("offset", _offset_text(zone.offset));
    out.number("offset_seconds", zone.offset);
    out.flag("dst", zone.dst);
  } else {
    out.null("offset");
    out.null("offset_seconds");
    out.null("dst");
  }
}

// The frequency of MessageBeep's tone for a type.
unsigned int _frequency(unsigned int type) {
  switch (type) {
    case 0x10: return 600;
    case 0x30: return 523;
    case 0x40: return 440;
    case 0xFFFFFFFFu: return 500;
    default: return 755;
  }
}

const struct {
  const char* name;
  unsigned int type;
} _BEEP_TYPES[] = {
    {"simple", 0xFFFFFFFFu}, {"ok", 0x00},          {"hand", 0x10},
    {"question", 0x20},      {"exclamation", 0x30}, {"asterisk", 0x40},
};

}  // namespace

bool parse_beep_type(const std::string& text, unsigned int& type) {
  for (const auto& known : _BEEP_TYPES)
    if (text == known.name) {
      type = known.type;
      return true;
    }
  char* end = nullptr;
  errno = 0;
  long long number = strtoll(text.c_str(), &end, 0);
  if (text.empty() || *end != '\0' || errno != 0 || number < INT32_MIN || number > UINT32_MAX)
    return false;
  type = static_cast<unsigned int>(number);
  return true;
}

int cmd_info(const Options& o) {
  auto out = Out::make(o.json);
  out->text("version", library_version());
  _Info info = _read_sysinfo(o.sysinfo);
  out->open_object("sysinfo");
  out->text("path", o.sysinfo);
  out->flag("read", info != nullptr);
  write_sysinfo_fields(*out, info.get());
  out->close();
  out->open_object("catalogue");
  // The model text keeps its line feed: the library looks it up so.
  bool found = _entry_fields(*out, o.catalogue, info ? info->Model : nullptr);
  out->close();
  bool buzzer = info && useBuzzerForAlarms(info->Model, o.catalogue.c_str());
  out->text("alarm", buzzer ? "buzzer" : "sound file");
  out->open_object("zone");
  _zone_fields(*out, _selected_zone());
  out->close();
  out->finish();
  if (!info) return failure("%s: the library could not read the system information", o.sysinfo.c_str());
  if (!found) return _not_found(o.catalogue, std::string(info->Model, strcspn(info->Model, "\n")));
  return 0;
}

int cmd_model(const Options& o) {
  auto out = Out::make(o.json);
  bool found = _entry_fields(*out, o.catalogue, o.model.c_str());
  out->finish();
  return found ? 0 : _not_found(o.catalogue, o.model);
}

int cmd_brands(const Options& o) {
  const CHwBrands* brands = GetHwBrands(o.catalogue.c_str());
  if (brands == nullptr) return _not_found(o.catalogue, "");
  auto out = Out::make(o.json);
  out->text("path", o.catalogue);
  out->open_array("brands");
  for (const CHwBrand& brand : brands->Brands) {
    out->open_object(nullptr);
    out->text("name", brand.name);
    out->open_array("models");
    for (const CHwModel& model : brand.Models) {
      out->open_object(nullptr);
      _model_fields(*out, model);
      out->close();
    }
    out->close();
    out->close();
  }
  out->close();
  out->finish();
  return 0;
}

int cmd_zones(const Options& o) {
  const int count = TZ__get_num_timezones();
  std::unique_ptr<Out> out;
  if (o.json) {
    out = Out::make(true);
    out->number("count", count);
    out->open_array("zones");
  }
  for (int key = 0; key < count; key++) {
    char* name = TZ__get_name(key);
    const int id = TZ__get_id(key);
    if (o.json) {
      out->open_object(nullptr);
      out->number("id", id);
      out->text("name", name != nullptr ? name : "");
      out->close();
    } else {
      printf("%3d %s\n", id, name != nullptr ? name : "");
    }
    free(name);
  }
  if (o.json) {
    out->close();
    out->finish();
  }
  return 0;
}

int cmd_zone(const Options& o) {
  const _Zone zone = _selected_zone();
  if (zone.id < 0 && !o.json) return failure("/etc/timezone names none of the library's zones");
  auto out = Out::make(o.json);
  _zone_fields(*out, zone);
  out->finish();
  return zone.id < 0 ? failure("/etc/timezone names none of the library's zones") : 0;
}

int cmd_beep(const Options& o) {
  if (!o.dry_run) {
    if (MessageBeep(o.beep_type) == 1) return 0;
    return failure("MessageBeep(0x%X) failed: the sound command did not succeed", o.beep_type);
  }
  // MessageBeep's own decision: a machine whose system information can't be
  // read counts as an unknown model, which plays the sound file.
  _Info info = _read_sysinfo(o.sysinfo);
  if (info && useBuzzerForAlarms(info->Model, o.catalogue.c_str()))
    printf("beep -f %u -l %u\n", _frequency(o.beep_type), _MESSAGE_BEEP_MS);
  else
    printf("paplay %s &\n", _SOUND_FILE);
  return 0;
}

int cmd_run(const Options& o) {
  std::string command;
  for (const std::string& word : o.command) command += (command.empty() ? "" : " ") + word;
  const char* marker = o.has_end_marker ? o.end_marker.c_str() : nullptr;
  int capacity = o.buffer_size;
  // The protocol: a buffer that was filled asks for the size required, and
  // the caller runs the command again with it. Once is enough unless the
  // output grew in between.
  for (int attempt = 0; attempt < 2; attempt++) {
    std::vector<char> buffer(static_cast<size_t>(capacity));
    int size = capacity;
    if (RunProcess(command.c_str(), buffer.data(), &size, marker) == 1) {
      fwrite(buffer.data(), 1, static_cast<size_t>(size - 1), stdout);
      if (size > 1 && buffer[static_cast<size_t>(size) - 2] != '\n') putchar('\n');
      printf("RunProcess: 1, %d of %d bytes used\n", size, capacity);
      return 0;
    }
    if (size == 0) return failure("RunProcess could not start the command");
    printf("RunProcess: 0, %d bytes are too small, %d required\n", capacity, size);
    capacity = size;
  }
  return failure("the output grew between the two runs");
}

}  // namespace tool
