#include "CommandLine.h"

#include "Hosts.h"
#include "Terminal.h"
#include "Validation.h"

#include <Telvane/Telvane_vers.h>

#include <CLI/CLI.hpp>

#include <cstdio>
#include <iostream>
#include <unistd.h>

namespace {

// What CLI11 fills in, as given; turned into Options once parsing is done.
struct RawOptions
{
    std::string host, scriptPath = "-"; // "-": standard input
    long port = 22;
    std::optional<std::string> user, passwordFile, name, hostsFile, outputDirectory;
    std::vector<std::string> sshOptions, arguments, hosts, identityFiles;
    std::string timeout, colour = "auto";
    bool remember = false, verbose = false, prefix = false, json = false;
    int parallel = 32;
};

ParsedCommandLine usageError(const std::string &message)
{
    std::cerr << "telvane: " << message << "\n";
    return {{}, {}, ExitUsage};
}

// "telvane 5.0": the library's own version, so that the tool never claims another.
std::string versionText()
{
    char text[32];
    std::snprintf(text, sizeof text, "telvane %.1f", TelvaneVersionNumber);
    return text;
}

void addLoginOptions(CLI::App &command, RawOptions &raw)
{
    command.add_option(
        "HOST", raw.host,
        "the sensor host: [USER@]NAME[:PORT], an IPv4/IPv6 address or an alias of ~/.ssh/config");
    command.add_option("-p,--port", raw.port, "port, 1 to 65535 (default 22), for hosts written without one")
        ->check(CLI::Range(1, 65535));
    command.add_option("-l,--user", raw.user, "username, for hosts written without USER@");
    command
        .add_option("-o", raw.sshOptions,
                    "ssh's StrictHostKeyChecking=accept-new|yes|no|ask (default accept-new), "
                    "UserKnownHostsFile=FILE (default ~/.ssh/known_hosts) or PubkeyAuthentication=yes|no "
                    "(default yes: keys before the password); repeatable")
        ->type_name("OPTION")
        ->allow_extra_args(false);
    command.add_option("-i", raw.identityFiles, "a private key to log in with (repeatable; default: ssh's)")
        ->type_name("FILE")
        ->check(CLI::ExistingFile)
        ->allow_extra_args(false);
    command
        .add_option("--password-file", raw.passwordFile,
                    "read the password from the first line of F (an empty file: an empty password)")
        ->type_name("F");
    command.add_flag("--remember", raw.remember,
                     "keep the credentials in the keyring after a successful login (a failure is reported)");
    command.add_option("-t,--timeout", raw.timeout, "time allowed to each wait on the socket (default 10)")
        ->type_name("SECONDS");
}

void addScriptOptions(CLI::App &command, RawOptions &raw)
{
    command
        .add_option("-a,--arg", raw.arguments,
                    "put VALUE in for \"__KEY__\" (repeatable, kept in the order given; VALUE without \"#\")")
        ->type_name("KEY=VALUE")
        ->allow_extra_args(false); // one KEY=VALUE per -a, so HOST and SCRIPT are never taken for one
    command.add_option("-n,--name", raw.name, "the sensor's display name (default: HOST)");
    command.add_flag("-v,--verbose", raw.verbose, "show the library's log lines on standard error");
}

void addHostOptions(CLI::App &command, RawOptions &raw)
{
    command
        .add_option("-H,--host", raw.hosts,
                    "run on HOST too (repeatable): HOST, USER@HOST, HOST:PORT or [IPV6]:PORT")
        ->type_name("HOST")
        ->allow_extra_args(false);
    command
        .add_option("--hosts", raw.hostsFile,
                    "run on every host listed in F, one a line (blank lines and # comments skipped)")
        ->type_name("F");
    command.add_option("--parallel", raw.parallel, "run on at most N hosts at once (default 32)")
        ->type_name("N")
        ->check(CLI::Range(1, 1024));
    auto *json = command.add_flag("--json", raw.json,
                                  "one JSON object per host and line on standard output, at each host's end");
    auto *directory =
        command.add_option("--output-dir", raw.outputDirectory, "write each host's output whole to DIR/HOST")
            ->type_name("DIR");
    command
        .add_flag("--prefix", raw.prefix, "put \"HOST: \" before each line (the default for several hosts)")
        ->excludes(json)
        ->excludes(directory);
    json->excludes(directory);
}

CLI::App *addRunCommand(CLI::App &app, const char *name, const char *description, const char *scriptHelp,
                        RawOptions &raw)
{
    CLI::App *command = app.add_subcommand(name, description);
    addLoginOptions(*command, raw);
    command->add_option("SCRIPT", raw.scriptPath, scriptHelp);
    addScriptOptions(*command, raw);
    addHostOptions(*command, raw);
    return command;
}

// With -H or --hosts a lone positional is the script, and a HOST before the script joins the hosts.
std::optional<std::string> settlePositionals(RawOptions &raw, const CLI::App &command, bool diagnose)
{
    const bool several = !raw.hosts.empty() || raw.hostsFile;
    bool scriptGiven = command.count("SCRIPT") > 0;
    if (several && command.count("HOST") > 0) {
        if (scriptGiven)
            raw.hosts.insert(raw.hosts.begin(), raw.host);
        else
            raw.scriptPath = raw.host;
        scriptGiven = true;
    } else if (!several) {
        if (command.count("HOST") == 0)
            return "HOST is required (or give hosts with -H or --hosts; see --help)";
        raw.hosts = {raw.host};
    }
    if (diagnose && !scriptGiven)
        return "SCRIPT is required";
    return std::nullopt;
}

OutputMode outputMode(const RawOptions &raw, std::size_t hosts)
{
    if (raw.json)
        return OutputMode::Json;
    if (raw.outputDirectory)
        return OutputMode::Directory;
    return raw.prefix || hosts > 1 ? OutputMode::Prefix : OutputMode::Plain;
}

// Everything that can be checked before connecting, in the order a user would fix it; the first failure
// is the message.
bool settleOptions(const RawOptions &raw, const CLI::App &command, Options &options, std::string &error,
                   std::vector<std::string> &warnings)
{
    HostRequest request{raw.hosts, raw.hostsFile, std::nullopt, raw.user, raw.sshOptions, raw.identityFiles};
    if (command.count("--port") > 0)
        request.port = raw.port;
    auto hosts = settleHosts(request, error);
    if (!hosts || !checkKeyringChoice(error))
        return false;
    TelvaneArguments arguments;
    if (!parseArguments(raw.arguments, arguments, error))
        return false;
    if (!raw.timeout.empty()) {
        const auto seconds = parseTimeout(raw.timeout, error);
        if (!seconds)
            return false;
        options.timeout = *seconds;
    }
    if (raw.passwordFile && !checkPasswordFile(*raw.passwordFile, error, warnings))
        return false;
    auto script = loadScript(raw.scriptPath, error);
    if (!script)
        return false;
    warnings.insert(warnings.end(), script->warnings.begin(), script->warnings.end());
    options.script = std::move(script->text);
    options.several = command.count("--host") > 0 || raw.hostsFile;
    options.mode = outputMode(raw, hosts->size());
    options.hosts = std::move(*hosts);
    if (!arguments.empty())
        options.arguments = std::move(arguments);
    return true;
}

ParsedCommandLine runCommand(RawOptions &raw, const CLI::App &command, bool diagnose)
{
    if (const auto wrong = settlePositionals(raw, command, diagnose))
        return usageError(*wrong);
    Options options;
    std::string error;
    std::vector<std::string> warnings;
    if (!settleOptions(raw, command, options, error, warnings))
        return usageError(error);
    for (const auto &warning : warnings)
        std::cerr << "telvane: warning: " << warning << "\n";
    options.diagnose = diagnose;
    options.passwordFile = raw.passwordFile;
    options.remember = raw.remember;
    options.name = raw.name;
    options.verbose = raw.verbose;
    options.parallel = raw.parallel;
    options.outputDirectory = raw.outputDirectory.value_or("");
    options.colour = diagnose && (options.mode == OutputMode::Plain || options.mode == OutputMode::Prefix) &&
                     colourChosen(raw.colour, STDOUT_FILENO);
    return {std::move(options), {}, 0};
}

} // namespace

namespace {

// The three commands, as CLI11 knows them.
struct Commands
{
    CLI::App *run, *diagnose, *forget;
    std::string forgetHost;
};

void addCommands(CLI::App &app, RawOptions &raw, Commands &commands)
{
    commands.run =
        addRunCommand(app, "run",
                      "run SCRIPT (a file; \"-\" or none: standard input) on HOST and copy its standard "
                      "output to ours, byte for byte, as it arrives",
                      "the script file, or - for standard input", raw);
    commands.run->footer(
        "Lines holding \"#\" are removed before sending (a warning names those holding a command).\n"
        "Exit status with one HOST: the script's own; 255 connection failed, 254 no credentials, 253 "
        "authentication failed, 252 the output could not be written, 141 the reader of standard output went "
        "away, 2 bad usage (nothing sent), 130 interrupted (SIGINT), 143 terminated (SIGTERM).\n"
        "With -H or --hosts: 0 every script ended with 0; 1 every host was reached and some script ended "
        "otherwise; 3 some host could not be reached, had no credentials, refused them or its output could "
        "not "
        "be kept; 2, 130, 143, 141 and 252 as with one HOST.");
    commands.diagnose =
        addRunCommand(app, "diagnose",
                      "show the diagnostics transcript of SCRIPT on HOST: the connection, the "
                      "output with *marked* spans in red, the end",
                      "the diagnostics script file", raw);
    commands.diagnose
        ->add_option(
            "--color", raw.colour,
            "colour the marked spans: auto (on a terminal, unless NO_COLOR is set), always or never; "
            "without colour they keep their asterisks")
        ->type_name("WHEN")
        ->check(CLI::IsMember({"auto", "always", "never"}));
    commands.diagnose->footer(
        "Exit status: with one HOST 0 only when the script ended with 0; otherwise as for run.");
    commands.forget = app.add_subcommand("forget", "forget the stored credentials of HOST");
    commands.forget
        ->add_option("HOST", commands.forgetHost,
                     "the sensor host, written as it was when the credentials were kept")
        ->required();
    commands.forget->footer("Exit status: 0 when a pair was deleted, 1 when none was stored.");
}

} // namespace

ParsedCommandLine parseCommandLine(int argc, char **argv)
{
    CLI::App app{"Run a shell script on other machines over SSH and stream its standard output.\n"
                 "Credentials come from the keyring (TELVANE_KEYRING: secret-service, file or memory),\n"
                 "then from --user/--password-file, then from questions on the terminal."};
    app.name("telvane");
    app.set_version_flag("--version", versionText());
    app.require_subcommand(1);
    RawOptions raw;
    Commands commands;
    addCommands(app, raw, commands);

    const std::string first = argc > 1 ? argv[1] : "";
    if (!first.empty() && first[0] != '-' && first != "run" && first != "diagnose" && first != "forget")
        return usageError("unknown command " + first + " (use run, diagnose or forget; see --help)");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        if (e.get_exit_code() == 0)
            return {{}, {}, app.exit(e)}; // --help, --version
        return usageError(std::string(e.what()) + " (see --help)");
    }
    if (commands.forget->parsed()) {
        std::string error;
        if (!checkKeyringChoice(error))
            return usageError(error);
        return {{}, commands.forgetHost, 0};
    }
    return commands.diagnose->parsed() ? runCommand(raw, *commands.diagnose, true)
                                       : runCommand(raw, *commands.run, false);
}
