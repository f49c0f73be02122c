// A file that only its owner may read, read whole and replaced whole. Internal: the file keyring keeps its
// passwords in one.
#pragma once

#include <functional>
#include <string>

namespace telvane {

/// One file at a fixed path, private to the user (mode 0600, in a directory of mode 0700 that is created when
/// missing). Readers and writers in any process are kept apart by flock on a lock file beside it. A
/// replacement is written to a temporary file beside it and renamed over it, so a crash at any moment leaves
/// either the old or the new content whole.
///
/// Every failure is logged once, as "OWNER: what PATH: reason", and answered with false.
class PrivateFile
{
public:
    /// @p owner names the file's user in log lines ("file keyring").
    PrivateFile(std::string path, std::string owner);

    const std::string &path() const { return path_; }

    /// Runs @p body while holding the lock, shared (LOCK_SH) or exclusive (LOCK_EX), so that two processes
    /// never interleave a read-modify-write. False without running it when the lock cannot be had.
    bool locked(int operation, const std::function<bool()> &body) const;

    /// The whole file into @p text; a missing file reads as empty. A file that others may read, or that is
    /// not a regular file of ours, is refused (logged) and left exactly as it is. No copy of what was read
    /// is left behind but @p text.
    bool read(std::string &text) const;

    /// Puts @p text in place of the file's content, atomically. Under the exclusive lock only.
    bool replace(const std::string &text) const;

    /// Logs that @p what failed, with errno's reason; false.
    bool fail(const char *what) const;

private:
    std::string directory() const;
    bool makeDirectory() const;
    void removeStaleTemporaries() const;

    const std::string path_;
    const std::string owner_;
};

} // namespace telvane
