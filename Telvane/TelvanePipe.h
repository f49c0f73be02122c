#pragma once

#include <Telvane/TelvaneExport.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

/// One end of a TelvanePipe. availableData and writeData may run on one thread while closeFile runs on
/// another: the descriptor is released only once no call is using it, so it can never be reused under a
/// call that is still blocked on it.
class TELVANE_EXPORT TelvaneFileHandle
{
public:
    /// Which end of the pipe a handle is.
    enum class Mode { Reading, Writing };
    /// Takes ownership of @p fd, a connected stream socket.
    TelvaneFileHandle(int fd, Mode mode);
    ~TelvaneFileHandle();
    TelvaneFileHandle(const TelvaneFileHandle &) = delete;
    TelvaneFileHandle &operator=(const TelvaneFileHandle &) = delete;

    /// Waits until some bytes can be read and returns them (at most 64 KiB); an empty result means end of
    /// file, a closed handle or a read error.
    std::string availableData();
    /// Writes all @p size bytes, waiting while the pipe is full. False when the reader has gone away, the
    /// handle is closed or the write failed; never raises SIGPIPE.
    bool writeData(const void *data, std::size_t size);
    /// Writes all of @p data; as above.
    bool writeData(const std::string &data) { return writeData(data.data(), data.size()); }
    /// Closes the handle, safe to call again. Closing the writing end gives the reader end of file after
    /// what was written. Closing the reading end makes further writes fail; bytes already written can still
    /// be read, then end of file, so a reader that shares this handle loses nothing.
    void closeFile();
    /// The descriptor, or -1 once closed. Meant for poll(); reading it directly bypasses closeFile's guard.
    int fileDescriptor() const;
    /// True while a call is at work on the descriptor: a reader waiting in availableData, say.
    bool inUse() const;

private:
    int acquire();
    void relinquish();

    const Mode mode_;
    mutable std::mutex mutex_;
    int fd_;              // guarded by mutex_; -1 once released
    bool closed_ = false; // guarded by mutex_
    int users_ = 0;       // guarded by mutex_: calls in progress on fd_
};

/// A one-way byte channel between two threads: a connected pair of local stream sockets, so that writing
/// after the reader has closed fails with EPIPE instead of killing the process with SIGPIPE.
class TELVANE_EXPORT TelvanePipe
{
public:
    /// Throws std::system_error when the system has no descriptors left.
    TelvanePipe();
    /// The reading end; the same object on every call.
    std::shared_ptr<TelvaneFileHandle> fileHandleForReading() const { return reading_; }
    /// The writing end; the same object on every call.
    std::shared_ptr<TelvaneFileHandle> fileHandleForWriting() const { return writing_; }

private:
    std::shared_ptr<TelvaneFileHandle> reading_;
    std::shared_ptr<TelvaneFileHandle> writing_;
};
