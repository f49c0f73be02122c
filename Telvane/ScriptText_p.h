// The text rules of a run: placeholder substitution and script normalisation. Pure functions, internal.
#pragma once

#include <Telvane/Telvane.h>

#include <string>
#include <string_view>

namespace telvane {
/// Replaces every occurrence of @p from in @p text with @p to, left to right, without rescanning the
/// inserted text. An empty @p from changes nothing.
std::string replaceAll(std::string_view text, std::string_view from, std::string_view to);
/// For each argument in order, replaces every "__KEY__" with its value; each step works on the previous
/// step's result, so a value holding a later key's placeholder is replaced too.
std::string substitutePlaceholders(std::string_view script, const TelvaneArguments &arguments);
/// Empties every line that holds a number sign (a line ends at a line feed or a carriage return), then folds
/// each run of line feeds into one, then puts @p password in for "__PASSWORD__".
std::string normaliseScript(std::string_view script, std::string_view password);
/// True when @p text is valid UTF-8 (no overlong forms, surrogates or code points past U+10FFFF) without
/// NUL bytes, and can be sent as a C string.
bool isSendableText(std::string_view text);
} // namespace telvane
