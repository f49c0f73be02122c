// Checks of the command line's input, made before anything is sent: each failure is one line of text for
// the user, each doubt a warning.
#pragma once

#include <Telvane/Telvane.h>

#include <optional>
#include <string>
#include <vector>

/// A script as it will be sent, and what the user should know about it first.
struct ScriptText
{
    std::string text;
    std::vector<std::string> warnings; ///< one line each, without the "telvane: warning: " prefix
};

/// Reads the script at @p path ("-": standard input) and checks that something of it would run: plain
/// UTF-8 without NUL bytes, not empty, with at least one line that is neither blank nor holds "#". CRLF line
/// ends become LF. Warns about each line that holds a command and a "#", since the whole line is removed
/// before sending. On failure, nothing and @p error set.
std::optional<ScriptText> loadScript(const std::string &path, std::string &error);

/// Checks that @p path is a readable regular file; a file others may read adds a warning.
bool checkPasswordFile(const std::string &path, std::string &error, std::vector<std::string> &warnings);

/// Splits each "KEY=VALUE" into @p arguments; a value holding "#" is refused, its line would be removed.
bool parseArguments(const std::vector<std::string> &given, TelvaneArguments &arguments, std::string &error);

/// The seconds of a --timeout value: a positive, finite decimal number.
std::optional<double> parseTimeout(const std::string &text, std::string &error);

/// An empty host, or one with blanks or control characters in it, names no machine.
bool checkHost(const std::string &host, std::string &error);

/// TELVANE_KEYRING, when set, must name a keyring that exists; a misspelt one would keep nothing.
bool checkKeyringChoice(std::string &error);
