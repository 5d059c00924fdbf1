// The application's time zones: the list of tz database names behind the
// time zone keys, and selecting the machine's zone by key.
#define COMMONL_UNIT "../CommonL/KORVALinuxTime"

#include "KORVALinuxTime.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "internal.h"

using commonl::paths;
using commonl::sys;

// Indexed by the time zone key; ascending byte order.
static const char* const linux_timezones[] = {
    // 0 to 19
    "Africa/Abidjan", "Africa/Accra", "Africa/Algiers", "Africa/Bissau", "Africa/Cairo",
    "Africa/Casablanca", "Africa/Ceuta", "Africa/El_Aaiun", "Africa/Johannesburg", "Africa/Juba",
    "Africa/Khartoum", "Africa/Lagos", "Africa/Maputo", "Africa/Monrovia", "Africa/Nairobi",
    "Africa/Ndjamena", "Africa/Sao_Tome", "Africa/Tripoli", "Africa/Tunis", "Africa/Windhoek",
    // 20 to 149
    "America/Adak", "America/Anchorage", "America/Araguaina", "America/Argentina/Buenos_Aires",
    "America/Argentina/Catamarca", "America/Argentina/Cordoba", "America/Argentina/Jujuy",
    "America/Argentina/La_Rioja", "America/Argentina/Mendoza", "America/Argentina/Rio_Gallegos",
    "America/Argentina/Salta", "America/Argentina/San_Juan", "America/Argentina/San_Luis",
    "America/Argentina/Tucuman", "America/Argentina/Ushuaia", "America/Asuncion",
    "America/Atikokan", "America/Bahia", "America/Bahia_Banderas", "America/Barbados",
    "America/Belem", "America/Belize", "America/Blanc-Sablon", "America/Boa_Vista",
    "America/Bogota", "America/Boise", "America/Cambridge_Bay", "America/Campo_Grande",
    "America/Cancun", "America/Caracas", "America/Cayenne", "America/Chicago", "America/Chihuahua",
    "America/Costa_Rica", "America/Creston", "America/Cuiaba", "America/Curacao",
    "America/Danmarkshavn", "America/Dawson", "America/Dawson_Creek", "America/Denver",
    "America/Detroit", "America/Edmonton", "America/Eirunepe", "America/El_Salvador",
    "America/Fort_Nelson", "America/Fortaleza", "America/Glace_Bay", "America/Goose_Bay",
    "America/Grand_Turk", "America/Guatemala", "America/Guayaquil", "America/Guyana",
    "America/Halifax", "America/Havana", "America/Hermosillo", "America/Indiana/Indianapolis",
    "America/Indiana/Knox", "America/Indiana/Marengo", "America/Indiana/Petersburg",
    "America/Indiana/Tell_City", "America/Indiana/Vevay", "America/Indiana/Vincennes",
    "America/Indiana/Winamac", "America/Inuvik", "America/Iqaluit", "America/Jamaica",
    "America/Juneau", "America/Kentucky/Louisville", "America/Kentucky/Monticello",
    "America/La_Paz", "America/Lima", "America/Los_Angeles", "America/Maceio", "America/Managua",
    "America/Manaus", "America/Martinique", "America/Matamoros", "America/Mazatlan",
    "America/Menominee", "America/Merida", "America/Metlakatla", "America/Mexico_City",
    "America/Miquelon", "America/Moncton", "America/Monterrey", "America/Montevideo",
    "America/Nassau", "America/New_York", "America/Nipigon", "America/Nome", "America/Noronha",
    "America/North_Dakota/Beulah", "America/North_Dakota/Center", "America/North_Dakota/New_Salem",
    "America/Nuuk", "America/Ojinaga", "America/Panama", "America/Pangnirtung",
    "America/Paramaribo", "America/Phoenix", "America/Port-au-Prince", "America/Port_of_Spain",
    "America/Porto_Velho", "America/Puerto_Rico", "America/Punta_Arenas", "America/Rainy_River",
    "America/Rankin_Inlet", "America/Recife", "America/Regina", "America/Resolute",
    "America/Rio_Branco", "America/Santarem", "America/Santiago", "America/Santo_Domingo",
    "America/Sao_Paulo", "America/Scoresbysund", "America/Sitka", "America/St_Johns",
    "America/Swift_Current", "America/Tegucigalpa", "America/Thule", "America/Thunder_Bay",
    "America/Tijuana", "America/Toronto", "America/Vancouver", "America/Whitehorse",
    "America/Winnipeg", "America/Yakutat", "America/Yellowknife",
    // 150 to 159
    "Antarctica/Casey", "Antarctica/Davis", "Antarctica/DumontDUrville", "Antarctica/Macquarie",
    "Antarctica/Mawson", "Antarctica/Palmer", "Antarctica/Rothera", "Antarctica/Syowa",
    "Antarctica/Troll", "Antarctica/Vostok",
    // 160 to 236
    "Asia/Almaty", "Asia/Amman", "Asia/Anadyr", "Asia/Aqtau", "Asia/Aqtobe", "Asia/Ashgabat",
    "Asia/Atyrau", "Asia/Baghdad", "Asia/Baku", "Asia/Bangkok", "Asia/Barnaul", "Asia/Beirut",
    "Asia/Bishkek", "Asia/Brunei", "Asia/Chita", "Asia/Choibalsan", "Asia/Colombo", "Asia/Damascus",
    "Asia/Dhaka", "Asia/Dili", "Asia/Dubai", "Asia/Dushanbe", "Asia/Famagusta", "Asia/Gaza",
    "Asia/Hebron", "Asia/Ho_Chi_Minh", "Asia/Hong_Kong", "Asia/Hovd", "Asia/Irkutsk",
    "Asia/Jakarta", "Asia/Jayapura", "Asia/Jerusalem", "Asia/Kabul", "Asia/Kamchatka",
    "Asia/Karachi", "Asia/Kathmandu", "Asia/Khandyga", "Asia/Kolkata", "Asia/Krasnoyarsk",
    "Asia/Kuala_Lumpur", "Asia/Kuching", "Asia/Macau", "Asia/Magadan", "Asia/Makassar",
    "Asia/Manila", "Asia/Nicosia", "Asia/Novokuznetsk", "Asia/Novosibirsk", "Asia/Omsk",
    "Asia/Oral", "Asia/Pontianak", "Asia/Pyongyang", "Asia/Qatar", "Asia/Qostanay",
    "Asia/Qyzylorda", "Asia/Riyadh", "Asia/Sakhalin", "Asia/Samarkand", "Asia/Seoul",
    "Asia/Shanghai", "Asia/Singapore", "Asia/Srednekolymsk", "Asia/Taipei", "Asia/Tashkent",
    "Asia/Tbilisi", "Asia/Tehran", "Asia/Thimphu", "Asia/Tokyo", "Asia/Tomsk", "Asia/Ulaanbaatar",
    "Asia/Urumqi", "Asia/Ust-Nera", "Asia/Vladivostok", "Asia/Yakutsk", "Asia/Yangon",
    "Asia/Yekaterinburg", "Asia/Yerevan",
    // 237 to 245
    "Atlantic/Azores", "Atlantic/Bermuda", "Atlantic/Canary", "Atlantic/Cape_Verde",
    "Atlantic/Faroe", "Atlantic/Madeira", "Atlantic/Reykjavik", "Atlantic/South_Georgia",
    "Atlantic/Stanley",
    // 246 to 256
    "Australia/Adelaide", "Australia/Brisbane", "Australia/Broken_Hill", "Australia/Darwin",
    "Australia/Eucla", "Australia/Hobart", "Australia/Lindeman", "Australia/Lord_Howe",
    "Australia/Melbourne", "Australia/Perth", "Australia/Sydney",
    // 257 to 302
    "Europe/Amsterdam", "Europe/Andorra", "Europe/Astrakhan", "Europe/Athens", "Europe/Belgrade",
    "Europe/Berlin", "Europe/Brussels", "Europe/Bucharest", "Europe/Budapest", "Europe/Chisinau",
    "Europe/Copenhagen", "Europe/Dublin", "Europe/Gibraltar", "Europe/Helsinki", "Europe/Istanbul",
    "Europe/Kaliningrad", "Europe/Kiev", "Europe/Kirov", "Europe/Lisbon", "Europe/London",
    "Europe/Luxembourg", "Europe/Madrid", "Europe/Malta", "Europe/Minsk", "Europe/Monaco",
    "Europe/Moscow", "Europe/Oslo", "Europe/Paris", "Europe/Prague", "Europe/Riga", "Europe/Rome",
    "Europe/Samara", "Europe/Saratov", "Europe/Simferopol", "Europe/Sofia", "Europe/Stockholm",
    "Europe/Tallinn", "Europe/Tirane", "Europe/Ulyanovsk", "Europe/Uzhgorod", "Europe/Vienna",
    "Europe/Vilnius", "Europe/Volgograd", "Europe/Warsaw", "Europe/Zaporozhye", "Europe/Zurich",
    // 303 to 310
    "Indian/Chagos", "Indian/Christmas", "Indian/Cocos", "Indian/Kerguelen", "Indian/Mahe",
    "Indian/Maldives", "Indian/Mauritius", "Indian/Reunion",
    // 311 to 346
    "Pacific/Apia", "Pacific/Auckland", "Pacific/Bougainville", "Pacific/Chatham", "Pacific/Chuuk",
    "Pacific/Easter", "Pacific/Efate", "Pacific/Enderbury", "Pacific/Fakaofo", "Pacific/Fiji",
    "Pacific/Funafuti", "Pacific/Galapagos", "Pacific/Gambier", "Pacific/Guadalcanal",
    "Pacific/Guam", "Pacific/Honolulu", "Pacific/Kiritimati", "Pacific/Kosrae", "Pacific/Kwajalein",
    "Pacific/Majuro", "Pacific/Marquesas", "Pacific/Nauru", "Pacific/Niue", "Pacific/Norfolk",
    "Pacific/Noumea", "Pacific/Pago_Pago", "Pacific/Palau", "Pacific/Pitcairn", "Pacific/Pohnpei",
    "Pacific/Port_Moresby", "Pacific/Rarotonga", "Pacific/Tahiti", "Pacific/Tarawa",
    "Pacific/Tongatapu", "Pacific/Wake", "Pacific/Wallis",
    // 347
    "UTC",
};

static const int _NUM_TIMEZONES = 348;
static_assert(sizeof linux_timezones / sizeof linux_timezones[0] == _NUM_TIMEZONES,
              "one name for each time zone key");

static bool _is_key(int key) { return key >= 0 && key < _NUM_TIMEZONES; }

int TZ__get_num_timezones(void) { return _NUM_TIMEZONES; }

char* TZ__get_name(int key) { return sys.strdup(_is_key(key) ? linux_timezones[key] : ""); }

int TZ__get_id(int key) { return _is_key(key) ? key : -1; }

int TZ__get_dts(int) { return 0; }

int TZ__get_selected_id(void) {
  // One byte beyond the 256 that are read stays NUL, so that a first line
  // that fills them still ends within the buffer; it is longer than every
  // name of the list and matches none.
  char name[256 + 1];
  memset(name, 0, sizeof name);
  FILE* file = sys.fopen(paths.timezone, "r");
  if (file == nullptr) {
    KLOG(3, "Could not open %s", paths.timezone);
    return -1;
  }
  // A short read is the normal case: what arrived is what counts.
  size_t got = fread(name, 1, sizeof name - 1, file);
  (void)got;
  for (char* p = name; *p != '\0'; p++)
    if (*p == '\r' || *p == '\n') *p = '\0';
  fclose(file);
  for (int key = 0; key < _NUM_TIMEZONES; key++)
    if (strcmp(name, linux_timezones[key]) == 0) return key;
  KLOG(3, "Could not find match for timezone %s", name);
  return -1;
}

int SetLinuxTimeZone(const char* TimeZoneKey) {
  if (TimeZoneKey == nullptr) {
    KLOG(2, "KORVA Assert");
    return 0;
  }
  // Narrowed to 32 bits and read unsigned: negative keys are out of range too.
  unsigned int key = static_cast<unsigned int>(strtol(TimeZoneKey, nullptr, 10));
  if (key >= static_cast<unsigned int>(_NUM_TIMEZONES)) {
    KLOG(3, "Bad TimeZoneKey: %s", TimeZoneKey);
    return 0;
  }
  char command[256];
  snprintf(command, sizeof command, "/usr/bin/timedatectl set-timezone %s", linux_timezones[key]);
  if (sys.system(command) != 0) {
    KLOG(3, "fail to run cmd: %s", command);
    return 0;
  }
  return 1;
}
