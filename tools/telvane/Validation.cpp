#include "Validation.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

bool parseArguments(const std::vector<std::string> &given, TelvaneArguments &arguments, std::string &error)
{
    for (const auto &argument : given) {
        const auto equals = argument.find('=');
        if (equals == std::string::npos || equals == 0) {
            error = "--arg " + argument + ": expected KEY=VALUE";
            return false;
        }
        if (argument.find('#', equals) != std::string::npos) {
            error = "--arg " + argument.substr(0, equals) +
                    ": the value holds \"#\", and a line holding \"#\" is removed before sending";
            return false;
        }
        arguments.emplace_back(argument.substr(0, equals), argument.substr(equals + 1));
    }
    return true;
}

std::optional<double> parseTimeout(const std::string &text, std::string &error)
{
    errno = 0;
    char *end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    const bool decimal = text.find_first_not_of("0123456789.eE+-") == std::string::npos;
    if (text.empty() || !decimal || *end != '\0' || errno != 0 || !std::isfinite(seconds) || seconds <= 0) {
        error = "--timeout: expected a positive number of seconds, got '" + text + "'";
        return std::nullopt;
    }
    return seconds;
}

bool checkHost(const std::string &host, std::string &error)
{
    if (host.empty()) {
        error = "the host is empty";
        return false;
    }
    for (const char c : host) {
        if (static_cast<unsigned char>(c) <= ' ' || c == 0x7f) {
            error = "the host holds a blank or a control character";
            return false;
        }
    }
    return true;
}

bool checkKeyringChoice(std::string &error)
{
    const char *choice = std::getenv("TELVANE_KEYRING");
    if (!choice || !*choice)
        return true;
    for (const char *known : {"secret-service", "file", "memory"})
        if (std::strcmp(choice, known) == 0)
            return true;
    error =
        std::string("TELVANE_KEYRING: unknown keyring '") + choice + "' (use secret-service, file or memory)";
    return false;
}
