// printf into a string. Internal.
#pragma once

#include <cstdarg>
#include <string>

namespace telvane {
std::string formatText(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string formatTextV(const char *format, va_list arguments);
} // namespace telvane
