#include "Libssh2Library.h"

#include <algorithm>
#include <cstring>
#include <libssh2.h>
#include <mutex>
#include <new>

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

namespace {
// Each block is prefixed by its size, so that free and realloc know how much to clear.
constexpr std::size_t kHeader = alignof(std::max_align_t);

std::size_t &sizeOf(void *block)
{
    return *reinterpret_cast<std::size_t *>(static_cast<unsigned char *>(block) - kHeader);
}

Libssh2SessionMemory *memoryOf(void **abstract)
{
    return abstract ? static_cast<Libssh2SessionMemory *>(*abstract) : nullptr;
}

void release(void *block)
{
    explicit_bzero(block, sizeOf(block));
    ::operator delete(static_cast<unsigned char *>(block) - kHeader);
}
} // namespace

void *libssh2WipingAlloc(std::size_t size, void **abstract)
{
    auto *base = static_cast<unsigned char *>(::operator new(kHeader + size, std::nothrow));
    if (!base)
        return nullptr;
    *reinterpret_cast<std::size_t *>(base) = size;
    void *block = base + kHeader;
    if (auto *memory = memoryOf(abstract)) {
        try {
            memory->blocks_.insert(block);
        } catch (const std::bad_alloc &) {
            release(block);
            return nullptr;
        }
    }
    return block;
}

void libssh2WipingFree(void *block, void **abstract)
{
    if (!block)
        return;
    // Read before the block is cleared: the last block freed is the session itself, which holds abstract.
    if (auto *memory = memoryOf(abstract))
        memory->blocks_.erase(block);
    release(block);
}

void *libssh2WipingRealloc(void *block, std::size_t size, void **abstract)
{
    // Never in place: a block that the allocator moved would leave its old contents behind uncleared.
    void *fresh = libssh2WipingAlloc(size, abstract);
    if (fresh && block) {
        std::memcpy(fresh, block, std::min(size, sizeOf(block)));
        libssh2WipingFree(block, abstract);
    }
    return fresh;
}

Libssh2SessionMemory::~Libssh2SessionMemory()
{
    for (void *block : blocks_)
        release(block);
}
} // namespace telvane
