#include "Terminal.h"

#include <Telvane/TelvaneCredentials.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

TtyPrompt::TtyPrompt()
    : tty_(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY)),
      cancel_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{}

TtyPrompt::~TtyPrompt()
{
    if (tty_ >= 0)
        ::close(tty_);
    if (cancel_ >= 0)
        ::close(cancel_);
}

void TtyPrompt::cancel()
{
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(cancel_, &one, sizeof one);
}

// Reads one line from the terminal into @p line; false at end of input, on an error or when cancelled.
bool TtyPrompt::readLine(std::string &line)
{
    for (;;) {
        pollfd fds[2] = {{tty_, POLLIN, 0}, {cancel_, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        if (fds[1].revents)
            return false;
        char c;
        const ssize_t n = ::read(tty_, &c, 1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        if (c == '\n' || c == '\r')
            return true;
        line.push_back(c);
    }
}

std::optional<std::string> TtyPrompt::ask(const std::string &prompt, bool hidden)
{
    if (tty_ < 0)
        return std::nullopt;
    // One question at a time: hosts of a run may ask at once, and their prompts and answers (and the
    // terminal's echo setting) must not interleave.
    std::lock_guard lock(mutex_);
    termios saved{};
    const bool restore = hidden && ::tcgetattr(tty_, &saved) == 0;
    if (restore) {
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        quiet.c_lflag |= ECHONL;
        ::tcsetattr(tty_, TCSAFLUSH, &quiet);
    }
    writeAll(tty_, prompt);
    std::string line;
    const bool complete = readLine(line);
    if (restore)
        ::tcsetattr(tty_, TCSAFLUSH, &saved);
    if (!complete) {
        if (hidden)
            writeAll(tty_, "\n");
        telvaneWipe(line);
        return std::nullopt;
    }
    return line;
}

bool colourWanted(int fd)
{
    const char *noColour = std::getenv("NO_COLOR");
    return ::isatty(fd) && !(noColour && *noColour);
}

bool colourChosen(const std::string &when, int fd)
{
    return when == "always" || (when == "auto" && colourWanted(fd));
}

std::string paintedRed(std::string_view text, std::size_t start, std::size_t length)
{
    if (length == 0)
        return std::string(text);
    std::string out(text.substr(0, start));
    out.append("\033[31m").append(text.substr(start, length)).append("\033[0m");
    return out.append(text.substr(start + length));
}

bool writeAll(int fd, const char *data, std::size_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}
