#include "Libssh2Library.h"

#include <libssh2.h>
#include <mutex>

namespace telvane {
namespace {
std::mutex libraryMutex;
int references = 0; // guarded by libraryMutex
} // namespace

int libssh2Acquire()
{
    std::lock_guard lock(libraryMutex);
    const int rc = libssh2_init(0);
    if (rc == 0)
        ++references;
    return rc;
}

void libssh2Release(bool held)
{
    std::lock_guard lock(libraryMutex);
    if (!held || references == 0)
        return;
    --references;
    libssh2_exit();
}

int libssh2References()
{
    std::lock_guard lock(libraryMutex);
    return references;
}
} // namespace telvane
