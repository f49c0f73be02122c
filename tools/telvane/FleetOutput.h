// Where a fleet run's output goes: lines prefixed with their host, a file per host, or one JSON object per
// host; and the summary on standard error.
#pragma once

#include "HostList.h"
#include "OutputWriter.h"

#include <chrono>
#include <memory>
#include <mutex>
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

/// Standard output and error shared by every host: whole writes, and the progress line erased before any.
class Console
{
public:
    Console();
    void out(std::string_view text);
    void err(std::string_view text);
    /// Redraws the progress line; only when standard error is a terminal and no question is on it.
    void progress(const std::string &text);
    void clearProgress();
    /// While held, the progress line is erased and not drawn, so that a question on the terminal stays.
    /// Holds from several threads nest: the line returns once each is released.
    void holdProgress(bool held);
    /// Ends a write to standard output that waits for a reader that does not read, and every later one.
    /// Any thread, and without the lock that such a write holds.
    void cancel() { out_.cancel(); }
    /// Standard output, to tell why it could not be written, if it could not.
    const OutputWriter &output() const { return out_; }

private:
    void clearLocked();
    std::mutex mutex_;
    const bool terminal_;
    bool shown_ = false; // guarded by mutex_
    int holds_ = 0;      // guarded by mutex_
    OutputWriter out_;   // written under mutex_, so that lines stay whole
};

/// One host's output on its way out.
class HostOutput
{
public:
    virtual ~HostOutput() = default;
    virtual void write(std::string_view data) = 0;
    /// The end of the host's output; JSON writes its whole record here.
    virtual void finish(const FleetHost &host, const HostResult &result) = 0;
    /// Why the output could not be kept, when it could not (a file on a full disk).
    virtual std::optional<std::string> failure() const { return std::nullopt; }
};

enum class OutputMode { Plain, Prefix, Directory, Json };

/// Opens @p host's output; nothing, with @p error, when its file cannot be made. With @p marked each line
/// goes through the transcript marking, its marked span in red when @p colour.
std::unique_ptr<HostOutput> openHostOutput(OutputMode mode, const FleetHost &host, Console &console,
                                           const std::string &directory, bool marked, bool colour,
                                           std::string &error);

/// "exited 0", "connection failed: ...": the summary's words for @p result.
std::string describe(const HostResult &result);
/// The summary line of one host, without the line end.
std::string summaryLine(const FleetHost &host, const HostResult &result);
