#include "Console.h"

#include "Terminal.h"

#include <unistd.h>

Console::Console() : terminal_(::isatty(STDERR_FILENO)), out_(STDOUT_FILENO) {}

bool Console::out(std::string_view text)
{
    std::lock_guard lock(mutex_);
    clearLocked();
    return out_.write(text);
}

void Console::err(std::string_view text)
{
    std::lock_guard lock(mutex_);
    clearLocked();
    writeAll(STDERR_FILENO, text.data(), text.size());
}

void Console::progress(const std::string &text)
{
    if (!terminal_)
        return;
    std::lock_guard lock(mutex_);
    if (holds_ > 0 || text.empty()) {
        clearLocked();
        return;
    }
    writeAll(STDERR_FILENO, "\r\033[K" + text);
    shown_ = true;
}

void Console::holdProgress(bool held)
{
    std::lock_guard lock(mutex_);
    clearLocked();
    holds_ += held ? 1 : -1;
}

void Console::clearLocked()
{
    if (shown_)
        writeAll(STDERR_FILENO, "\r\033[K");
    shown_ = false;
}
