// The hardware catalogue: the records read from hw-models.conf and the
// questions the application asks about a machine's model.
//
// The records cross the library's boundary by value, so they stay plain:
// no base class, no virtual function, memberwise deep copies. Their layout
// and the argument types below are part of the interface.
#pragma once

#include <string>
#include <vector>

#include "WinTypes.h"

class CHwNic {
 public:
  std::string name;  // never empty in the catalogue
  std::string description;
};

class CHwNics {
 public:
  std::vector<CHwNic> Nics;
};

class CHwModel {
 public:
  std::string Model;  // what a lookup looks for in the machine's model text
  bool PoE = false;
  std::string PoE_driver;
  std::string PoE_NIC_name;
  bool BuzzerAlarm = false;  // alarms on the buzzer instead of a sound file
  CHwNics NICs;
};

class CHwBrand {
 public:
  std::string name;
  std::vector<CHwModel> Models;
};

class CHwBrands {
 public:
  std::vector<CHwBrand> Brands;
};

// Every function takes the path of hw-models.conf; the first call in the
// process loads that file, once, and later paths are not looked at.

// The catalogue, owned by the library and valid as long as it is loaded;
// null if the file could not be read.
COMMONL_API CHwBrands* GetHwBrands(char const* path);

// A copy of the first entry, in file order, whose Model occurs in `model`;
// a default record if none does. A null `model` throws std::logic_error.
COMMONL_API CHwModel GetModelInfo(char const* model, char const* path);

COMMONL_API std::string GetPoEDriverName(char const* model, char const* path);
COMMONL_API std::string GetPoENicName(char const* model, char const* path);
COMMONL_API bool isPoESupported(char const* model, char const* path);
COMMONL_API bool useBuzzerForAlarms(char const* model, char const* path);

// Replaces `nics` with the model's NICs (empty for an unknown model); always true.
COMMONL_API bool getNicDescriptions(char const* model, char const* path, std::vector<CHwNic>& nics);
