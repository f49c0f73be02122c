#pragma once

#include <Telvane/TelvaneExport.h>

#include <functional>
#include <string_view>

/// Receives each log line of the library, without timestamp or line end.
using TelvaneLogSink = std::function<void(std::string_view line)>;

/// Logs one line with a printf format. Lines go to the sink, by default standard error with a timestamp.
/// The library never logs a password or a script text.
TELVANE_EXPORT void telvaneLog(const char *format, ...) __attribute__((format(printf, 1, 2)));
/// Replaces the sink; an empty function restores the default. Any thread.
TELVANE_EXPORT void telvaneSetLogSink(TelvaneLogSink sink);
/// Writes "word: system error text" through the sink, as perror does, for the current errno.
TELVANE_EXPORT void telvanePerror(const char *word);
