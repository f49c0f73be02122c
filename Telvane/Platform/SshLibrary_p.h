// libssh's global state, set up and torn down under one process-wide lock. Internal.
#pragma once

namespace telvane {
/// ssh_init() under the lock; 0 on success, which the caller must later give back with sshLibraryRelease().
int sshLibraryAcquire();
/// ssh_finalize() under the lock, but only when @p held says that the caller holds a reference from
/// sshLibraryAcquire: an unmatched finalize must never tear the library down under other live sessions.
void sshLibraryRelease(bool held);
/// For tests: how many references are held in this process.
int sshLibraryReferences();
} // namespace telvane
