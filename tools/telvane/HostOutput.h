// Where one host's output goes: standard output as it comes, whole lines after the host's label, a file of
// its own, or one JSON record at its end.
#pragma once

#include "Console.h"
#include "Options.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

/// How one host's run ended.
struct HostResult
{
    enum class End { NotStarted, Exited, Failed, Stopped };
    End end = End::NotStarted;
    long status = 0;   ///< the script's exit status, when End::Exited
    long code = 0;     ///< the TelvaneError code, when End::Failed (0: a local failure, such as a file)
    std::string words; ///< the failure in words, when End::Failed
    std::chrono::system_clock::time_point start;
    double seconds = 0;
};

/// One host's output on its way out. Its pieces arrive in order, from one thread at a time.
class HostOutput
{
public:
    virtual ~HostOutput() = default;
    /// Takes a piece of output; false once it cannot be kept, and the run should end.
    bool write(std::string_view data)
    {
        if (!data.empty())
            atLineStart_ = data.back() == '\n';
        return put(data);
    }
    /// True when nothing was written yet, or the last piece ended a line.
    bool atLineStart() const { return atLineStart_; }
    /// The end of the host's output: --prefix completes its last line, --json writes the whole record.
    virtual void finish(const HostSettings &, const HostResult &) {}
    /// Why the output could not be kept here, when that was not standard output's fault (a full disk).
    virtual std::optional<std::string> failure() const { return std::nullopt; }

protected:
    virtual bool put(std::string_view data) = 0;

private:
    bool atLineStart_ = true;
};

/// Opens @p host's output as @p options say; nothing, with @p error, when its file cannot be made. A
/// transcript (diagnose) is marked as it goes: each marked span in red with colour, as written without.
std::unique_ptr<HostOutput> openHostOutput(const Options &options, const HostSettings &host, Console &console,
                                           std::string &error);
