#include "HostOutput.h"

#include "Terminal.h"

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

std::string marked(std::string_view text, bool colour)
{
    if (!colour) // the asterisks stay, so that a finding is still seen in a file or a pipe
        return std::string(text);
    const TelvaneTranscriptPiece piece = telvaneMarkTranscriptPiece(text);
    return paintedRed(piece.text, piece.redStart, piece.redLength);
}

// Each piece as it comes; a transcript's pieces marked one by one.
class PlainOutput : public HostOutput
{
public:
    PlainOutput(Console &console, bool colour) : console_(console), colour_(colour) {}

private:
    bool put(std::string_view data) override { return console_.out(marked(data, colour_)); }
    Console &console_;
    const bool colour_;
};

// "label: line" for each whole line; the last line is completed at the end.
class PrefixOutput : public HostOutput
{
public:
    PrefixOutput(Console &console, std::string prefix, bool colour)
        : console_(console), prefix_(std::move(prefix)), colour_(colour)
    {}
    void finish(const HostSettings &, const HostResult &) override
    {
        if (!pending_.empty())
            emit(pending_ + "\n");
        pending_.clear();
    }

private:
    bool put(std::string_view data) override
    {
        pending_.append(data);
        std::size_t from = 0;
        bool written = true;
        for (std::size_t end; written && (end = pending_.find('\n', from)) != std::string::npos;
             from = end + 1)
            written = emit(std::string_view(pending_).substr(from, end + 1 - from));
        pending_.erase(0, from);
        if (written && pending_.size() >= kLongestLine) {
            written = emit(pending_ + "\n");
            pending_.clear();
        }
        return written;
    }
    bool emit(std::string_view line) { return console_.out(prefix_ + marked(line, colour_)); }

    Console &console_;
    const std::string prefix_;
    const bool colour_;
    std::string pending_; // the start of a line not yet ended
};

class FileOutput : public HostOutput
{
public:
    FileOutput(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
    ~FileOutput() override { ::close(fd_); }
    std::optional<std::string> failure() const override { return failure_; }

private:
    bool put(std::string_view data) override
    {
        errno = 0;
        if (!failure_ && !writeAll(fd_, data.data(), data.size()))
            failure_ = "cannot write " + path_ + ": " + std::strerror(errno ? errno : EIO);
        return !failure_;
    }

    const int fd_;
    const std::string path_;
    std::optional<std::string> failure_; // the first write that failed
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

nlohmann::json errorRecord(const HostResult &result)
{
    static const char *const names[] = {"local", "connection", "no-credentials", "authentication"};
    if (result.end == HostResult::End::Stopped)
        return {{"code", 0}, {"name", "interrupted"}, {"reason", "stopped before its end"}};
    if (result.end != HostResult::End::Failed)
        return nullptr;
    const char *name = result.code >= 0 && result.code <= 3 ? names[result.code] : "local";
    return {{"code", result.code}, {"name", name}, {"reason", result.words}};
}

// The whole output is held until the end, since a record is one line.
class JsonOutput : public HostOutput
{
public:
    explicit JsonOutput(Console &console) : console_(console) {}
    void finish(const HostSettings &host, const HostResult &result) override
    {
        nlohmann::json record = {{"host", host.host},          {"port", host.port},
                                 {"label", host.label},        {"start", iso8601(result.start)},
                                 {"duration", result.seconds}, {"error", errorRecord(result)},
                                 {"output", output_},          {"encoding", "utf-8"}};
        record["status"] = result.end == HostResult::End::Exited ? nlohmann::json(result.status) : nullptr;
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
    bool put(std::string_view data) override
    {
        output_.append(data);
        return true;
    }
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

std::unique_ptr<HostOutput> openHostOutput(const Options &options, const HostSettings &host, Console &console,
                                           std::string &error)
{
    switch (options.mode) {
    case OutputMode::Plain:
        return std::make_unique<PlainOutput>(console, options.colour);
    case OutputMode::Prefix:
        return std::make_unique<PrefixOutput>(console, host.label + ": ", options.colour);
    case OutputMode::Json:
        return std::make_unique<JsonOutput>(console);
    case OutputMode::Directory:
        break;
    }
    const std::string path = options.outputDirectory + "/" + fileName(host.label);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        error = "cannot write " + path + ": " + std::strerror(errno);
        return nullptr;
    }
    return std::make_unique<FileOutput>(fd, path);
}
