// Checks of the command line's input, made before anything is sent: each failure is one line of text for
// the user, each doubt a warning.
#pragma once

#include "PasswordFile.h"
#include "ScriptFile.h"

#include <Telvane/Telvane.h>

#include <optional>
#include <string>
#include <vector>

/// Splits each "KEY=VALUE" into @p arguments; a value holding "#" is refused, its line would be removed.
bool parseArguments(const std::vector<std::string> &given, TelvaneArguments &arguments, std::string &error);

/// The seconds of a --timeout value: a positive, finite decimal number.
std::optional<double> parseTimeout(const std::string &text, std::string &error);

/// An empty host, or one with blanks or control characters in it, names no machine.
bool checkHost(const std::string &host, std::string &error);

/// TELVANE_KEYRING, when set, must name a keyring that exists; a misspelt one would keep nothing.
bool checkKeyringChoice(std::string &error);
