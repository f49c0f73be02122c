// Password files: the password on the first line of a file that only its owner should read.
#pragma once

#include <optional>
#include <string>
#include <vector>

/// The first line of the password file at @p path, without its line end (LF or CRLF); an empty file is an
/// empty password, which the server may accept. Nothing when the file cannot be read, with @p error (when
/// given) saying why. Every copy of the file's text made on the way is wiped.
std::optional<std::string> readPasswordFile(const std::string &path, std::string *error = nullptr);

/// Checks that @p path is a readable regular file; a file others may read adds a warning.
bool checkPasswordFile(const std::string &path, std::string &error, std::vector<std::string> &warnings);
