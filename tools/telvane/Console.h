// Standard output and error, shared by every host of a run.
#pragma once

#include "OutputWriter.h"

#include <mutex>
#include <string>
#include <string_view>

/// Whole writes to standard output and error, and a progress line on a terminal that is erased before any.
class Console
{
public:
    Console();
    /// Writes all of @p text to standard output; false once it cannot be written any more (see output()).
    bool out(std::string_view text);
    void err(std::string_view text);
    /// Shows @p text as the progress line (empty: none); only when standard error is a terminal and no
    /// question is on it.
    void progress(const std::string &text);
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

    const bool terminal_;
    std::mutex mutex_;
    bool shown_ = false; // guarded by mutex_
    int holds_ = 0;      // guarded by mutex_
    OutputWriter out_;   // written under mutex_, so that lines stay whole
};
