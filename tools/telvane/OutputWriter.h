// Standard output, the product of a run: every byte reaches it, or the reason why not is known.
#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <string_view>

class OutputWriter
{
public:
    enum class State { Open, ReaderGone, Failed, Cancelled };

    explicit OutputWriter(int fd);
    ~OutputWriter();
    OutputWriter(const OutputWriter &) = delete;
    OutputWriter &operator=(const OutputWriter &) = delete;

    /// Writes all of @p data, waiting while the descriptor is full, also when it was left non-blocking.
    /// False once the writing has ended for good (see state()); later calls then do nothing.
    bool write(std::string_view data);
    /// Ends a write that waits, and every later one. Any thread.
    void cancel();

    State state() const { return state_.load(); }
    /// The system's reason when state() is Failed.
    const std::string &error() const { return error_; }
    /// True when nothing was written yet or the last byte written was a line feed.
    bool atLineStart() const { return atLineStart_; }

private:
    bool waitWritable();
    bool end(State state, int error = 0);

    int fd_;
    int cancel_; // eventfd, readable once cancelled
    std::atomic<State> state_{State::Open};
    std::string error_;
    bool atLineStart_ = true;
};

/// The exit status of a run whose standard output @p out could not be written, said on standard error when
/// the reason is not plain (a full disk); nothing when it was written or cancelled.
std::optional<int> outputFailure(const OutputWriter &out);
