// commonl: the command line. Each command is a subcommand of its own with
// the options that apply to it.
#include <stdio.h>

#include <CLI/CLI.hpp>
#include <CommonL/Version.h>

#include "commonl.h"

namespace tool {

const char* const kSysinfoPath = "/opt/Tessend/KORVA/resources/sysinfo.json";
const char* const kCataloguePath = "/opt/Tessend/KORVA/resources/hw-models.conf";

const char* library_version() { return COMMONL_VERSION; }

}  // namespace tool

using tool::Options;

namespace {

void _sysinfo_option(CLI::App* command, Options& o) {
  command->add_option("--sysinfo", o.sysinfo, "the system information file to read")
      ->option_text("PATH")
      ->default_str(tool::kSysinfoPath);
}

void _catalogue_option(CLI::App* command, Options& o) {
  command->add_option("--catalogue", o.catalogue, "the hardware catalogue to read")
      ->option_text("PATH")
      ->default_str(tool::kCataloguePath);
}

void _json_option(CLI::App* command, Options& o) {
  command->add_flag("--json", o.json, "write JSON instead of text");
}

// A command and what runs it, once the command line has been read.
struct _Command {
  CLI::App* app;
  int (*run)(const Options&);
};

std::vector<_Command> _commands(CLI::App& app, Options& o) {
  std::vector<_Command> commands;
  // `about` is the line in the list of commands, `details` the end of the
  // command's own help.
  auto add = [&](CLI::App* parent, const char* name, const char* about, const char* details,
                 int (*run)(const Options&)) {
    CLI::App* command = parent->add_subcommand(name, about);
    command->footer(details);
    commands.push_back({command, run});
    return command;
  };

  CLI::App* info = add(&app, "info", "what the library sees on this machine",
                       "The fields of sysinfo.json, the catalogue entry of its model, whether the "
                       "alarm sounds on the buzzer or plays the sound file, the zone selected in "
                       "/etc/timezone and the library's version. Fails when sysinfo.json can't be "
                       "read or the catalogue has no entry for its model.",
                       tool::cmd_info);
  _sysinfo_option(info, o);
  _catalogue_option(info, o);
  _json_option(info, o);

  CLI::App* model = add(&app, "model", "the catalogue entry GetModelInfo finds for TEXT",
                        "The first entry, in file order, whose Model occurs in TEXT. Fails when "
                        "none does.",
                        tool::cmd_model);
  model->add_option("TEXT", o.model, "a model text, as sysinfo.json gives it")->required();
  _catalogue_option(model, o);
  _json_option(model, o);

  CLI::App* brands = add(&app, "brands", "the whole catalogue, as GetHwBrands gives it",
                         "Fails when the library can't load the catalogue.", tool::cmd_brands);
  _catalogue_option(brands, o);
  _json_option(brands, o);

  CLI::App* zones = add(&app, "zones", "the library's time zones with their keys",
                        "The keys are what TZ__get_name and SetLinuxTimeZone take.", tool::cmd_zones);
  _json_option(zones, o);
  CLI::App* zone = add(&app, "zone", "the selected time zone",
                       "The zone TZ__get_selected_id finds in /etc/timezone, with its offset from "
                       "UTC and daylight saving now. Fails when the name there is none of the "
                       "library's zones.",
                       tool::cmd_zone);
  _json_option(zone, o);

  CLI::App* check = app.add_subcommand("check", "check a file as the library reads it");
  check->require_subcommand(1);
  const char* checked =
      "A syntax error shows as PATH:LINE:COLUMN: message; what the library would refuse, drop, cut "
      "or ignore shows at its place. Succeeds only when the library loads the file as it is "
      "written.";
  CLI::App* catalogue = add(check, "catalogue", "check hw-models.conf", checked, tool::cmd_check_catalogue);
  catalogue->add_option("PATH", o.check_path, "the file")->default_str(tool::kCataloguePath);
  _json_option(catalogue, o);
  CLI::App* sysinfo = add(check, "sysinfo", "check sysinfo.json", checked, tool::cmd_check_sysinfo);
  sysinfo->add_option("PATH", o.check_path, "the file")->default_str(tool::kSysinfoPath);
  _json_option(sysinfo, o);

  CLI::App* beep = add(&app, "beep", "sound the alarm as MessageBeep(TYPE) does",
                       "On the buzzer or through the sound file, as the catalogue says for the "
                       "machine's model. MessageBeep reads the installed files only; --sysinfo and "
                       "--catalogue apply to --dry-run, for which the tool works the command out "
                       "from the same facts as the library (the model in sysinfo.json, the "
                       "catalogue's BuzzerAlarm, MessageBeep's frequencies).",
                       tool::cmd_beep);
  beep->add_option("TYPE", "hand, question, exclamation, asterisk, simple or ok, or a number "
                           "such as 0x30; default simple")
      ->check(CLI::Validator(
          [&o](std::string& text) {
            return tool::parse_beep_type(text, o.beep_type) ? std::string()
                                                            : "not a MessageBeep type: " + text;
          },
          ""));
  CLI::Option* dry_run =
      beep->add_flag("--dry-run", o.dry_run, "print the command MessageBeep would run instead");
  _sysinfo_option(beep, o);
  _catalogue_option(beep, o);
  beep->get_option("--sysinfo")->needs(dry_run);
  beep->get_option("--catalogue")->needs(dry_run);

  CLI::App* run = add(&app, "run", "run a command through RunProcess",
                      "Shows the command's output and what the size protocol answered. A buffer "
                      "that was too small is tried once more with the size RunProcess asked for.",
                      tool::cmd_run);
  run->add_option("COMMAND", o.command,
                  "the command, quoted as one word, or its words behind \"--\" (joined with blanks)")
      ->required();
  run->add_option("--buffer-size", o.buffer_size, "the buffer's first capacity in bytes")
      ->check(CLI::Range(1, 1 << 30))
      ->capture_default_str();
  run->add_option("--end-marker", o.end_marker, "cut the output behind this text")
      ->each([&o](const std::string&) { o.has_end_marker = true; });

  CLI::App* port = add(&app, "port-check", "find Win32 uses that behave differently under CommonL",
                       "Reads C and C++ sources, and the sources under directories. One line a "
                       "finding: FILE:LINE: what differs; what to do [rule]. Fails on any finding.",
                       tool::cmd_port_check);
  port->add_option("PATH", o.paths, "source files, or directories to search for them")
      ->required()
      ->check(CLI::ExistingPath);
  return commands;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("commonl: what the CommonL library sees on this machine, checks of its files, "
               "and a porting check for Win32 sources",
               "commonl");
  app.set_version_flag("--version", std::string("commonl ") + tool::library_version());
  app.require_subcommand(1);
  Options o;
  std::vector<_Command> commands = _commands(app, o);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    fprintf(stderr, "commonl: %s\nRun 'commonl --help' for the commands.\n", e.what());
    return tool::kUsage;
  }
  int status = tool::kUsage;
  for (const _Command& command : commands)
    if (command.app->parsed()) status = command.run(o);
  tool::print_library_log();
  return status;
}
