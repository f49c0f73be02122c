// telvane: run a shell script on another machine over SSH and stream its output.
#include "Commands.h"
#include "Fleet.h"
#include "Options.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <sys/stat.h>

namespace {

int usageError(const std::string &message)
{
    std::cerr << "telvane: " << message << "\n";
    return ExitUsage;
}

// The script's text, from a file or standard input. Nothing is sent unless all of it is plain ASCII.
std::optional<std::string> readScript(const std::string &path, std::string &error)
{
    std::string text;
    if (path == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), {});
    } else {
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            error = "cannot read the script " + path + ": " + std::strerror(errno);
            return std::nullopt;
        }
        text.assign(std::istreambuf_iterator<char>(in), {});
    }
    const std::string name = path == "-" ? "on standard input" : path;
    std::size_t line = 1;
    for (const char c : text) {
        if (c == '\n')
            ++line;
        if (c == '\0' || static_cast<unsigned char>(c) > 0x7f) {
            error = "the script " + name + " is not plain ASCII text (line " + std::to_string(line) +
                    "); nothing was sent";
            return std::nullopt;
        }
    }
    if (text.empty()) {
        error = "the script " + name + " is empty; nothing to run";
        return std::nullopt;
    }
    return text;
}

void addRunOptions(CLI::App &command, Options &options, std::vector<std::string> &arguments)
{
    command.add_option("HOST", options.host, "the sensor host: a name or an IPv4/IPv6 address");
    command.add_option("-p,--port", options.port, "port (default 22)")->check(CLI::Range(1, 65535));
    command.add_option("-l,--user", options.user, "username, when no stored credentials serve");
    command.add_option("--password-file", options.passwordFile, "read the password from the first line of F")
        ->type_name("F");
    command
        .add_option("-a,--arg", arguments,
                    "put VALUE in for \"__KEY__\" (repeatable, kept in the order given)")
        ->type_name("KEY=VALUE")
        ->allow_extra_args(false); // one KEY=VALUE per -a, so HOST and SCRIPT are never taken for one
    command
        .add_option("-t,--timeout", options.timeout, "time allowed to each wait on the socket (default 10)")
        ->type_name("SECONDS")
        ->check(CLI::PositiveNumber);
    command.add_flag("--remember", options.remember,
                     "keep the credentials in the keyring after a successful login");
    command.add_option("-n,--name", options.name, "the sensor's display name (default: HOST)");
    command.add_flag("-v,--verbose", options.verbose, "show the library's log lines on standard error");
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app{"Run a shell script on another machine over SSH and stream its standard output.\n"
                 "Credentials come from the keyring (TELVANE_KEYRING: secret-service, file or memory),\n"
                 "then from --user/--password-file, then from questions on the terminal."};
    app.name("telvane");
    app.set_version_flag("--version", "telvane 5.0");
    app.require_subcommand(1);

    Options options;
    std::vector<std::string> arguments;
    CLI::App *run =
        app.add_subcommand("run", "run SCRIPT (a file; \"-\" or none: standard input) on HOST and copy "
                                  "its standard output to ours, byte for byte, as it arrives");
    addRunOptions(*run, options, arguments);
    run->add_option("SCRIPT", options.scriptPath, "the script file, or - for standard input");
    addFleetOptions(*run, options);
    run->footer(
        "Exit status: the script's own; 255 connection failed, 254 no credentials, 253 authentication "
        "failed, 2 bad usage, 130 interrupted.\n"
        "With -H or --hosts: 0 every script ended with 0; 1 every host was reached and some script ended "
        "otherwise; 3 some host could not be reached, had no credentials or refused them; 2 bad usage; "
        "130 or 143 interrupted; 141 the reader of standard output went away.");

    CLI::App *diagnose =
        app.add_subcommand("diagnose", "show the diagnostics transcript of SCRIPT on HOST: the "
                                       "connection, the output with *marked* spans in red, the end");
    addRunOptions(*diagnose, options, arguments);
    diagnose->add_option("SCRIPT", options.scriptPath, "the diagnostics script file");
    addFleetOptions(*diagnose, options);
    diagnose->footer("Exit status: 0 only when the script ended with 0; otherwise as for run.");

    std::string forgetHost;
    CLI::App *forget = app.add_subcommand("forget", "forget the stored credentials of HOST");
    forget
        ->add_option("HOST", forgetHost, "the sensor host, written as it was when the credentials were kept")
        ->required();
    forget->footer("Exit status: 0 when a pair was deleted, 1 when none was stored.");

    if (argc > 1 && argv[1][0] != '-' && std::string(argv[1]) != "run" &&
        std::string(argv[1]) != "diagnose" && std::string(argv[1]) != "forget")
        return usageError(std::string("unknown command ") + argv[1] +
                          " (use run, diagnose or forget; see --help)");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        const int code = app.exit(e);
        return code == 0 ? 0 : ExitUsage;
    }

    if (forget->parsed())
        return forgetCommand(forgetHost);

    for (const auto &argument : arguments) {
        const auto equals = argument.find('=');
        if (equals == std::string::npos)
            return usageError("--arg " + argument + ": expected KEY=VALUE");
        options.arguments.emplace_back(argument.substr(0, equals), argument.substr(equals + 1));
    }
    if (options.passwordFile) {
        struct stat st
        {
        };
        if (::stat(options.passwordFile->c_str(), &st) != 0 || !std::ifstream(*options.passwordFile))
            return usageError("cannot read the password file " + *options.passwordFile + ": " +
                              std::strerror(errno));
        if (st.st_mode & S_IROTH)
            std::cerr << "telvane: warning: the password file " << *options.passwordFile
                      << " is readable by others (chmod 600 it)\n";
    }
    const CLI::App *command = diagnose->parsed() ? diagnose : run;
    if (const auto wrong = settlePositionals(options, command->count("SCRIPT") > 0, diagnose->parsed()))
        return usageError(*wrong);
    std::string error;
    const auto script = readScript(options.scriptPath, error);
    if (!script)
        return usageError(error);
    if (fleetRequested(options))
        return runFleet(options, *script, diagnose->parsed());
    return runCommand(options, *script, diagnose->parsed());
}
