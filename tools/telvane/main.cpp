// telvane: run a shell script on another machine over SSH and stream its output.
#include "Commands.h"
#include "Fleet.h"
#include "Options.h"
#include "SshStyle.h"
#include "Validation.h"

#include <Telvane/Telvane_vers.h>

#include <CLI/CLI.hpp>

#include <cstdio>
#include <iostream>

namespace {

int usageError(const std::string &message)
{
    std::cerr << "telvane: " << message << "\n";
    return ExitUsage;
}

void warn(const std::vector<std::string> &warnings)
{
    for (const auto &warning : warnings)
        std::cerr << "telvane: warning: " << warning << "\n";
}

// "telvane 5.0": the library's own version, so that the tool never claims another.
std::string versionText()
{
    char text[32];
    std::snprintf(text, sizeof text, "telvane %.1f", TelvaneVersionNumber);
    return text;
}

// What the command line gave as text, checked and converted once parsing is done.
struct RawOptions
{
    std::vector<std::string> arguments;
    std::string timeout;
};

void addRunOptions(CLI::App &command, Options &options, RawOptions &raw)
{
    command.add_option(
        "HOST", options.host,
        "the sensor host: [USER@]NAME, an IPv4/IPv6 address or an alias of ~/.ssh/config"); // or -H/--hosts
    command.add_option("-p,--port", options.port, "port, 1 to 65535 (default 22)")
        ->check(CLI::Range(1, 65535));
    command.add_option("-l,--user", options.user,
                       "username, when no stored credentials serve (as USER@HOST)");
    command
        .add_option("-o", options.sshOptions,
                    "ssh's StrictHostKeyChecking=accept-new|yes|no|ask (default accept-new) or "
                    "UserKnownHostsFile=FILE (default ~/.ssh/known_hosts); repeatable")
        ->type_name("OPTION")
        ->allow_extra_args(false);
    command
        .add_option("--password-file", options.passwordFile,
                    "read the password from the first line of F (an empty file: an empty password)")
        ->type_name("F");
    command
        .add_option("-a,--arg", raw.arguments,
                    "put VALUE in for \"__KEY__\" (repeatable, kept in the order given; VALUE without \"#\")")
        ->type_name("KEY=VALUE")
        ->allow_extra_args(false); // one KEY=VALUE per -a, so HOST and SCRIPT are never taken for one
    command.add_option("-t,--timeout", raw.timeout, "time allowed to each wait on the socket (default 10)")
        ->type_name("SECONDS");
    command.add_flag("--remember", options.remember,
                     "keep the credentials in the keyring after a successful login (a failure is reported)");
    command.add_option("-n,--name", options.name, "the sensor's display name (default: HOST)");
    command.add_flag("-v,--verbose", options.verbose, "show the library's log lines on standard error");
}

// Checks what the parser could not; the first failure is the message, and nothing is sent.
bool checkRunOptions(Options &options, const RawOptions &raw, bool portGiven, std::string &error,
                     std::vector<std::string> &warnings)
{
    const bool hostChecked = fleetRequested(options) || // -H: checked per host
                             (checkHost(options.host, error) && settleHostSpec(options, portGiven, error));
    if (!hostChecked || !applySshOptions(options.sshOptions, options, error))
        return false;
    if (!fleetRequested(options))
        applySshConfig(options, portGiven);
    if (!checkKeyringChoice(error) || !parseArguments(raw.arguments, options.arguments, error))
        return false;
    if (!raw.timeout.empty()) {
        const auto seconds = parseTimeout(raw.timeout, error);
        if (!seconds)
            return false;
        options.timeout = *seconds;
    }
    return !options.passwordFile || checkPasswordFile(*options.passwordFile, error, warnings);
}

int runChecked(Options &options, const RawOptions &raw, const CLI::App &command, bool diagnose)
{
    if (const auto wrong =
            settlePositionals(options, command.count("HOST") > 0, command.count("SCRIPT") > 0, diagnose))
        return usageError(*wrong);
    std::string error;
    std::vector<std::string> warnings;
    if (!checkRunOptions(options, raw, command.count("--port") > 0, error, warnings))
        return usageError(error);
    const auto script = loadScript(options.scriptPath, error);
    if (!script)
        return usageError(error);
    warn(warnings);
    warn(script->warnings);
    if (fleetRequested(options))
        return runFleet(options, script->text, diagnose, command.count("--port") > 0);
    return runCommand(options, script->text, diagnose);
}

bool isCommand(const std::string &word)
{
    return word == "run" || word == "diagnose" || word == "forget";
}

// A command that runs a script: run and diagnose take the same options and a SCRIPT.
CLI::App *addRunCommand(CLI::App &app, const char *name, const char *description, const char *scriptHelp,
                        Options &options, RawOptions &raw)
{
    CLI::App *command = app.add_subcommand(name, description);
    addRunOptions(*command, options, raw);
    command->add_option("SCRIPT", options.scriptPath, scriptHelp);
    addFleetOptions(*command, options);
    return command;
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app{"Run a shell script on another machine over SSH and stream its standard output.\n"
                 "Credentials come from the keyring (TELVANE_KEYRING: secret-service, file or memory),\n"
                 "then from --user/--password-file, then from questions on the terminal."};
    app.name("telvane");
    app.set_version_flag("--version", versionText());
    app.require_subcommand(1);

    Options options;
    RawOptions raw;
    CLI::App *run =
        addRunCommand(app, "run",
                      "run SCRIPT (a file; \"-\" or none: standard input) on HOST and copy its standard "
                      "output to ours, byte for byte, as it arrives",
                      "the script file, or - for standard input", options, raw);
    run->footer(
        "Lines holding \"#\" are removed before sending (a warning names those holding a command).\n"
        "Exit status: the script's own; 255 connection failed, 254 no credentials, 253 authentication "
        "failed, 252 standard output could not be written, 141 the reader of standard output went "
        "away, 2 bad usage (nothing sent), 130 interrupted (SIGINT), 143 terminated (SIGTERM).\n"
        "With -H or --hosts: 0 every script ended with 0; 1 every host was reached and some script ended "
        "otherwise; 3 some host could not be reached, had no credentials or refused them; 2 bad usage; "
        "130 or 143 interrupted; 141 the reader of standard output went away; 252 standard output could not "
        "be written.");

    CLI::App *diagnose =
        addRunCommand(app, "diagnose",
                      "show the diagnostics transcript of SCRIPT on HOST: the connection, the "
                      "output with *marked* spans in red, the end",
                      "the diagnostics script file", options, raw);
    diagnose
        ->add_option(
            "--color", options.colour,
            "colour the marked spans: auto (on a terminal, unless NO_COLOR is set), always or never; "
            "without colour they keep their asterisks")
        ->type_name("WHEN")
        ->check(CLI::IsMember({"auto", "always", "never"}));
    diagnose->footer("Exit status: 0 only when the script ended with 0; otherwise as for run.");

    std::string forgetHost;
    CLI::App *forget = app.add_subcommand("forget", "forget the stored credentials of HOST");
    forget
        ->add_option("HOST", forgetHost, "the sensor host, written as it was when the credentials were kept")
        ->required();
    forget->footer("Exit status: 0 when a pair was deleted, 1 when none was stored.");

    if (argc > 1 && argv[1][0] != '-' && !isCommand(argv[1]))
        return usageError(std::string("unknown command ") + argv[1] +
                          " (use run, diagnose or forget; see --help)");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        if (e.get_exit_code() == 0)
            return app.exit(e); // --help, --version
        return usageError(std::string(e.what()) + " (see --help)");
    }

    if (forget->parsed()) {
        std::string error;
        if (!checkKeyringChoice(error))
            return usageError(error);
        return forgetCommand(forgetHost);
    }
    return runChecked(options, raw, diagnose->parsed() ? *diagnose : *run, diagnose->parsed());
}
