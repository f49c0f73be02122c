#include "OutputWriter.h"

#include "Options.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {
// No more than this is written after the descriptor was found writable, so that a write to a pipe or a
// terminal never blocks: a pipe that polls writable has room for one page at least. A blocked write could
// not be cancelled.
constexpr std::size_t kSliceSize = 4096;
} // namespace

OutputWriter::OutputWriter(int fd) : fd_(fd), cancel_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

OutputWriter::~OutputWriter()
{
    if (cancel_ >= 0)
        ::close(cancel_);
}

void OutputWriter::cancel()
{
    State open = State::Open;
    state_.compare_exchange_strong(open, State::Cancelled);
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = ::write(cancel_, &one, sizeof one);
}

bool OutputWriter::end(State state, int error)
{
    State open = State::Open;
    if (state_.compare_exchange_strong(open, state) && error != 0)
        error_ = std::strerror(error);
    return false;
}

bool OutputWriter::waitWritable()
{
    for (;;) {
        pollfd fds[2] = {{fd_, POLLOUT, 0}, {cancel_, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            return end(State::Failed, errno);
        }
        if (fds[1].revents || state_.load() != State::Open)
            return end(State::Cancelled);
        if (fds[0].revents & POLLNVAL)
            return end(State::Failed, EBADF);
        // POLLERR and POLLHUP are left to the write, which says which error it is.
        return true;
    }
}

bool OutputWriter::write(std::string_view data)
{
    while (!data.empty()) {
        if (state_.load() != State::Open || !waitWritable())
            return false;
        const ssize_t n = ::write(fd_, data.data(), std::min(data.size(), kSliceSize));
        if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK))
            continue; // only "try again": the next poll waits for room
        if (n < 0)
            return end(errno == EPIPE ? State::ReaderGone : State::Failed, errno);
        if (n == 0)
            return end(State::Failed, EIO);
        atLineStart_ = data[static_cast<std::size_t>(n) - 1] == '\n';
        data.remove_prefix(static_cast<std::size_t>(n));
    }
    return state_.load() == State::Open;
}

std::optional<int> outputFailure(const OutputWriter &out)
{
    switch (out.state()) {
    case OutputWriter::State::ReaderGone:
        return ExitReaderGone; // quietly, as `| head` expects
    case OutputWriter::State::Failed:
        std::fprintf(stderr, "telvane: cannot write to standard output: %s\n", out.error().c_str());
        return ExitOutputFailed;
    default:
        return std::nullopt;
    }
}
