// Script files as the programs send them: checked before anything is sent.
#pragma once

#include <optional>
#include <string>
#include <vector>

/// A script as it will be sent, and what the user should know about it first.
struct ScriptText
{
    std::string text;
    std::vector<std::string> warnings; ///< one line each, without the program's "warning: " prefix
};

/// Reads the script at @p path ("-": standard input) and checks that something of it would run: plain
/// UTF-8 without NUL bytes, not empty, with at least one line that is neither blank nor holds "#". CRLF line
/// ends become LF. Warns about each line that holds a command and a "#", since the whole line is removed
/// before sending. On failure, nothing and @p error set.
std::optional<ScriptText> loadScript(const std::string &path, std::string &error);
