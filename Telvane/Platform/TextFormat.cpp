#include "TextFormat_p.h"

#include <cstdio>

namespace telvane {

std::string formatTextV(const char *format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int size = std::vsnprintf(nullptr, 0, format, arguments);
    std::string text(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
    if (size > 0)
        std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

std::string formatText(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::string text = formatTextV(format, arguments);
    va_end(arguments);
    return text;
}

} // namespace telvane
