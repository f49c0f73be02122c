// The controlling terminal: questions asked on /dev/tty, colours.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <string_view>

/// Asks questions on the controlling terminal, so that answers never mix with the script's output.
/// cancel() from any thread ends a question that is waiting, and every later one. Questions from several
/// threads are asked one after another.
class TtyPrompt
{
public:
    TtyPrompt();
    ~TtyPrompt();
    TtyPrompt(const TtyPrompt &) = delete;
    TtyPrompt &operator=(const TtyPrompt &) = delete;

    bool available() const { return tty_ >= 0; }
    /// Shows @p prompt and reads one line; with @p hidden the typed characters are not echoed. Nothing when
    /// there is no terminal, at end of input, or when cancelled.
    std::optional<std::string> ask(const std::string &prompt, bool hidden);
    void cancel();

private:
    bool readLine(std::string &line);

    int tty_ = -1;
    int cancel_ = -1;  // eventfd, readable once cancelled
    std::mutex mutex_; // held for the whole of a question
};

/// True when @p fd is a terminal and NO_COLOR is not set.
bool colourWanted(int fd);
/// What --color=@p when (auto, always or never) means for @p fd.
bool colourChosen(const std::string &when, int fd);
/// @p text with its @p length bytes from @p start in red (as it is when @p length is 0).
std::string paintedRed(std::string_view text, std::size_t start, std::size_t length);
/// Writes all of @p data to @p fd; false when the reader went away.
bool writeAll(int fd, const char *data, std::size_t size);
inline bool writeAll(int fd, const std::string &s)
{
    return writeAll(fd, s.data(), s.size());
}
