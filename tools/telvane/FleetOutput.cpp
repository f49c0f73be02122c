#include "FleetOutput.h"

#include "Terminal.h"

#include <Telvane/Telvane.h>
#include <Telvane/TelvaneTranscript.h>

#include <nlohmann/json.hpp>
#include <openssl/evp.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

namespace {

// A line longer than this is written in pieces rather than held whole.
constexpr std::size_t kLongestLine = 64 * 1024;

class PlainOutput : public HostOutput
{
public:
    explicit PlainOutput(Console &console) : console_(console) {}
    void write(std::string_view data) override { console_.out(data); }
    void finish(const FleetHost &, const HostResult &) override {}

private:
    Console &console_;
};

// "host: line" for each complete line; the last line is completed at the end.
class PrefixOutput : public HostOutput
{
public:
    PrefixOutput(Console &console, std::string prefix, bool marked, bool colour)
        : console_(console), prefix_(std::move(prefix)), marked_(marked), colour_(colour)
    {}
    void write(std::string_view data) override
    {
        pending_.append(data);
        std::size_t from = 0;
        for (std::size_t end; (end = pending_.find('\n', from)) != std::string::npos; from = end + 1)
            emit(std::string_view(pending_).substr(from, end + 1 - from));
        pending_.erase(0, from);
        if (pending_.size() >= kLongestLine) {
            emit(pending_ + "\n");
            pending_.clear();
        }
    }
    void finish(const FleetHost &, const HostResult &) override
    {
        if (!pending_.empty())
            emit(pending_ + "\n");
        pending_.clear();
    }

private:
    void emit(std::string_view line)
    {
        std::string out = prefix_;
        if (!marked_) {
            out.append(line);
        } else {
            const TelvaneTranscriptPiece piece = telvaneMarkTranscriptPiece(line);
            out += colour_ ? paintedRed(piece.text, piece.redStart, piece.redLength) : piece.text;
        }
        console_.out(out);
    }
    Console &console_;
    const std::string prefix_;
    const bool marked_;
    const bool colour_;
    std::string pending_;
};

class FileOutput : public HostOutput
{
public:
    FileOutput(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
    ~FileOutput() override { ::close(fd_); }
    void write(std::string_view data) override
    {
        errno = 0;
        if (!failure_ && !writeAll(fd_, data.data(), data.size()))
            failure_ = "cannot write " + path_ + ": " + std::strerror(errno ? errno : EIO);
    }
    void finish(const FleetHost &, const HostResult &) override {}
    std::optional<std::string> failure() const override { return failure_; }

private:
    const int fd_;
    const std::string path_;
    std::optional<std::string> failure_; // the first write that failed; the rest of the output is dropped
};

std::string iso8601(std::chrono::system_clock::time_point when)
{
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count();
    const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                  static_cast<int>(ms % 1000));
    return text;
}

std::string base64(const std::string &data)
{
    std::string out(4 * ((data.size() + 2) / 3) + 1, '\0');
    const int n =
        EVP_EncodeBlock(reinterpret_cast<unsigned char *>(out.data()),
                        reinterpret_cast<const unsigned char *>(data.data()), static_cast<int>(data.size()));
    out.resize(static_cast<std::size_t>(n));
    return out;
}

const char *failureName(long code)
{
    switch (code) {
    case TelvaneErrorConnection:
        return "connection";
    case TelvaneErrorNoCredentials:
        return "no-credentials";
    case TelvaneErrorAuthentication:
        return "authentication";
    default:
        return "local";
    }
}

// The whole output is held until the end, since a record is one line.
class JsonOutput : public HostOutput
{
public:
    explicit JsonOutput(Console &console) : console_(console) {}
    void write(std::string_view data) override { output_.append(data); }
    void finish(const FleetHost &host, const HostResult &result) override
    {
        nlohmann::json record = {{"host", host.host},
                                 {"port", host.port},
                                 {"label", host.label},
                                 {"start", iso8601(result.start)},
                                 {"duration", result.seconds}};
        record["status"] = result.end == HostResult::End::Exited ? nlohmann::json(result.status) : nullptr;
        if (result.end == HostResult::End::Failed)
            record["error"] = {
                {"code", result.code}, {"name", failureName(result.code)}, {"reason", result.words}};
        else if (result.end == HostResult::End::Stopped)
            record["error"] = {{"code", 0}, {"name", "interrupted"}, {"reason", "stopped by a signal"}};
        else
            record["error"] = nullptr;
        record["output"] = output_;
        record["encoding"] = "utf-8";
        std::string line;
        try {
            line = record.dump();
        } catch (const nlohmann::json::type_error &) { // not valid UTF-8
            record["output"] = base64(output_);
            record["encoding"] = "base64";
            // A host or label given in another encoding is shown with U+FFFD rather than ending the run.
            line = record.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
        }
        console_.out(line + "\n");
        output_.clear();
    }

private:
    Console &console_;
    std::string output_;
};

// A file name for the label: the label itself, with what a path cannot hold replaced.
std::string fileName(std::string label)
{
    for (char &c : label)
        if (c == '/')
            c = '_';
    return label;
}

} // namespace

Console::Console() : terminal_(::isatty(STDERR_FILENO)), out_(STDOUT_FILENO) {}

void Console::out(std::string_view text)
{
    std::lock_guard lock(mutex_);
    clearLocked();
    out_.write(text);
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
    if (holds_ > 0)
        return;
    writeAll(STDERR_FILENO, "\r\033[K" + text);
    shown_ = true;
}

void Console::holdProgress(bool held)
{
    std::lock_guard lock(mutex_);
    clearLocked();
    holds_ += held ? 1 : -1;
}

void Console::clearProgress()
{
    std::lock_guard lock(mutex_);
    clearLocked();
}

void Console::clearLocked()
{
    if (shown_)
        writeAll(STDERR_FILENO, "\r\033[K");
    shown_ = false;
}

std::unique_ptr<HostOutput> openHostOutput(OutputMode mode, const FleetHost &host, Console &console,
                                           const std::string &directory, bool marked, bool colour,
                                           std::string &error)
{
    switch (mode) {
    case OutputMode::Plain:
        if (marked) // a transcript is marked line by line
            return std::make_unique<PrefixOutput>(console, "", marked, colour);
        return std::make_unique<PlainOutput>(console);
    case OutputMode::Prefix:
        return std::make_unique<PrefixOutput>(console, host.label + ": ", marked, colour);
    case OutputMode::Json:
        return std::make_unique<JsonOutput>(console);
    case OutputMode::Directory:
        break;
    }
    const std::string path = directory + "/" + fileName(host.label);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        error = "cannot write " + path + ": " + std::strerror(errno);
        return nullptr;
    }
    return std::make_unique<FileOutput>(fd, path);
}

std::string describe(const HostResult &result)
{
    switch (result.end) {
    case HostResult::End::NotStarted:
        return "not started";
    case HostResult::End::Stopped:
        return "stopped";
    case HostResult::End::Exited:
        return "exited " + std::to_string(result.status);
    case HostResult::End::Failed:
        break;
    }
    return result.words;
}

std::string summaryLine(const FleetHost &host, const HostResult &result)
{
    char time[32];
    std::snprintf(time, sizeof time, " (%.2f s)", result.seconds);
    return "telvane: " + host.label + ": " + describe(result) +
           (result.end == HostResult::End::NotStarted ? "" : time);
}
