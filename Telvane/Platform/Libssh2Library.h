// libssh2's global state, set up and torn down under one process-wide lock. Internal.
#pragma once

namespace telvane {
/// libssh2_init(0) under the lock; 0 on success, which the caller must later give back with release().
int libssh2Acquire();
/// libssh2_exit() under the lock, but only when @p held says that the caller holds a reference from
/// libssh2Acquire: an unmatched exit must never tear the library down under other live sessions.
void libssh2Release(bool held);
/// For tests: how many references are held in this process.
int libssh2References();
} // namespace telvane
