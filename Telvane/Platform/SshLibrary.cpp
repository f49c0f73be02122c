#include "SshLibrary_p.h"

#include <libssh/libssh.h>
#include <mutex>

namespace telvane {
namespace {
std::mutex libraryMutex;
int references = 0; // guarded by libraryMutex
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

int sshLibraryReferences()
{
    std::lock_guard lock(libraryMutex);
    return references;
}
} // namespace telvane
