// libssh's global state, set up and torn down under one process-wide lock. Internal.
#pragma once

namespace telvane {
/// ssh_init() under the lock; 0 on success, which the caller must later give back with sshLibraryRelease().
int sshLibraryAcquire();
/// ssh_finalize() under the lock, but only when @p held says that the caller holds a reference from
/// sshLibraryAcquire: an unmatched finalize must never tear the library down under other live sessions.
void sshLibraryRelease(bool held);
/// The calling pump's end has begun (its output is over). Until the same thread calls pumpThreadDone(), the
/// process's exit waits for it, a few seconds at most, so that OpenSSL's exit-time clean-up never tears down
/// what the ending pump still uses. A pump still reading is not waited for: stop it before exit.
void pumpEndBegun();
/// The pump's last act on its thread: it lets go of OpenSSL's state for the thread and no longer holds the
/// exit back. Does nothing on a thread that never called pumpEndBegun().
void pumpThreadDone();
/// For tests: how many references are held in this process.
int sshLibraryReferences();
} // namespace telvane
