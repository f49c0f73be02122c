// libssh2's global state, set up and torn down under one process-wide lock. Internal.
#pragma once

#include <cstddef>
#include <unordered_set>

namespace telvane {
/// libssh2_init(0) under the lock; 0 on success, which the caller must later give back with release().
int libssh2Acquire();
/// libssh2_exit() under the lock, but only when @p held says that the caller holds a reference from
/// libssh2Acquire: an unmatched exit must never tear the library down under other live sessions.
void libssh2Release(bool held);
/// For tests: how many references are held in this process.
int libssh2References();

/// Memory functions for libssh2_session_init_ex that clear each block before giving it back. A session's
/// buffers hold the login request with the password and the exec request with a script that may carry it;
/// libssh2 frees them as they are. Blocks come from operator new, like the rest of the library's memory.
/// When the session's abstract pointer is a Libssh2SessionMemory, the blocks are also counted there.
void *libssh2WipingAlloc(std::size_t size, void **abstract);
void *libssh2WipingRealloc(void *block, std::size_t size, void **abstract);
void libssh2WipingFree(void *block, void **abstract);

/// The blocks one session holds. libssh2 1.10 drops its key-exchange buffers (a private key among them) when
/// a session is freed in the middle of a handshake, as a stop does; this object clears and frees whatever
/// is left when it goes, after the session. Only the thread that is inside libssh2 for the session (under
/// the sensor's monitor) touches it.
class Libssh2SessionMemory
{
public:
    Libssh2SessionMemory() = default;
    ~Libssh2SessionMemory();
    Libssh2SessionMemory(const Libssh2SessionMemory &) = delete;
    Libssh2SessionMemory &operator=(const Libssh2SessionMemory &) = delete;
    /// The abstract pointer to hand to libssh2_session_init_ex.
    void *abstract() { return this; }

private:
    friend void *libssh2WipingAlloc(std::size_t, void **);
    friend void libssh2WipingFree(void *, void **);
    std::unordered_set<void *> blocks_;
};
} // namespace telvane
