#include "SshLibrary_p.h"

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <libssh/libssh.h>
#include <mutex>
#include <openssl/crypto.h>

namespace telvane {
namespace {
std::mutex libraryMutex;
std::condition_variable pumpsEnded;
int references = 0;                   // guarded by libraryMutex
int endingPumps = 0;                  // guarded by libraryMutex
thread_local bool pumpEnding = false; // this thread counts in endingPumps

// Runs at exit before OpenSSL's own clean-up (see pumpEndBegun). A host that returns from main the moment its
// run's output has ended would otherwise race the pump's last steps (the session's teardown, the thread's
// OpenSSL state) against that clean-up.
void awaitEndingPumps()
{
    if (pumpEnding)
        return; // exit() on an ending pump's own thread: it would wait for itself
    std::unique_lock lock(libraryMutex);
    pumpsEnded.wait_for(lock, std::chrono::seconds(5), [] { return endingPumps == 0; });
}
} // namespace

int sshLibraryAcquire()
{
    std::lock_guard lock(libraryMutex);
    const int rc = ssh_init();
    if (rc == SSH_OK)
        ++references;
    return rc;
}

void sshLibraryRelease(bool held)
{
    std::lock_guard lock(libraryMutex);
    if (!held || references == 0)
        return;
    --references;
    ssh_finalize();
}

void pumpEndBegun()
{
    std::lock_guard lock(libraryMutex);
    // Registered once a session has run, when OpenSSL has surely registered its own: the later runs first.
    [[maybe_unused]] static const bool registered = std::atexit(awaitEndingPumps) == 0;
    if (!pumpEnding) {
        pumpEnding = true;
        ++endingPumps;
    }
}

void pumpThreadDone()
{
    if (!pumpEnding)
        return;
    OPENSSL_thread_stop();
    std::lock_guard lock(libraryMutex);
    pumpEnding = false;
    --endingPumps;
    pumpsEnded.notify_all();
}

int sshLibraryReferences()
{
    std::lock_guard lock(libraryMutex);
    return references;
}
} // namespace telvane
