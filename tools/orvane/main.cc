// SPDX-License-Identifier: Apache-2.0
// orvane: the command-line tool of liborvane.  Exit status 0 when the
// subcommand did what it was asked, 1 when it failed (said on standard
// error), 2 for a usage error.
#include <stdio.h>

#include "cli.h"
#include "orvane.h"

int main(int Argc, char **ppArgv)
{
    CLI::App App{"orvane: look at and talk to the LINX endpoints of this host (or linxd instance)", "orvane"};
    App.set_version_flag("--version", std::string(ORVANE_VERSION));
    App.require_subcommand(1);
    App.fallthrough(); // the options below are taken after the subcommand too
    App.add_flag_callback("--debug", [] { MSG_DebugSetFlag(MSG_DebugGetFlag() | MSG_DEBUG_STDERR); },
                          "Copy liborvane's diagnostic lines to standard error");
    App.add_option_function<std::string>(
           "--config",
           [](const std::string &Path) {
               if (MSG_SetConfigFile(Path.c_str()) != MSG_OK)
                   throw CLI::ValidationError("--config", "cannot load the endpoint configuration " + Path +
                                                              " (--debug says why)");
           },
           "Find peers through this endpoint configuration instead of /system/etc/orvane.pb")
        ->type_name("FILE")
        ->check(CLI::ExistingFile);
    App.footer("Exit status: 0 done, 1 failed, 2 usage error.  Durations take units (500ms, 2s, 1m; a bare\n"
               "number is milliseconds); --json prints one JSON document (JSON Lines for watch and subscribe)\n"
               "with SPIDs and types in hex.  The environment variable LINXD_INSTANCE names the linxd\n"
               "stand-in instance on a host without the LINX kernel module.  Each subcommand has its own --help.");
    cli::AddPeerCommands(App);
    cli::AddMessageCommands(App);
    cli::AddCaptureCommand(App);
    cli::AddUserLogCommand(App);
    cli::AddConfigCommands(App);
    try {
        App.parse(Argc, ppArgv);
    } catch (const CLI::ParseError &Error) {
        return App.exit(Error) == 0 ? 0 : 2;
    } catch (const cli::Failure &Error) {
        fflush(stdout);
        fprintf(stderr, "orvane: %s\n", Error.what());
        return 1;
    }
    return 0;
}
