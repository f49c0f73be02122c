// Memory that held a password is cleared before it is given back. While armed, this program looks into every
// block as it is freed: no freed block may still hold the password, be it the library's own strings or
// libssh's buffers. Without a sanitizer it replaces free() itself, which libssh calls too; a sanitizer owns
// free(), and there the replaced operator delete sees the library's own blocks.
#include "Platform/SshLibrary_p.h"
#include "integration/SensorRun.h"

#include <Telvane/Platform/TelvaneKeychain.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <new>
#include <thread>

namespace {
// The secret looked for, read by every delete on any thread. It must live until the process ends: a thread
// of an earlier run may still be looking at it after the watch was lifted.
std::atomic<const std::string *> watched{nullptr};
std::atomic<int> blocksHoldingIt{0};
std::atomic<std::size_t> firstHitSize{0};

void inspect(void *block) noexcept
{
    const std::string *secret = watched.load(std::memory_order_acquire);
    if (!block || !secret || secret->empty())
        return;
    const std::size_t size = malloc_usable_size(block);
    if (memmem(block, size, secret->data(), secret->size())) {
        if (blocksHoldingIt.fetch_add(1) == 0)
            firstHitSize = size;
    }
}

void *allocate(std::size_t size)
{
    if (void *block = std::malloc(size ? size : 1))
        return block;
    throw std::bad_alloc();
}

// A secret that is never destroyed: a detached thread of an earlier run may have looked at it, and a
// destructor at exit would race with that look as far as ThreadSanitizer can tell.
const std::string &kept(std::string secret)
{
    return *new std::string(std::move(secret)); // reachable from the caller's static reference: no leak
}

// Arms the watch for the scope; the secret comes from kept().
struct Watch
{
    explicit Watch(const std::string &secret)
    {
        blocksHoldingIt = 0;
        watched.store(&secret, std::memory_order_release);
    }
    ~Watch() { watched.store(nullptr, std::memory_order_release); }
};
} // namespace

void *operator new(std::size_t size)
{
    return allocate(size);
}
void *operator new[](std::size_t size)
{
    return allocate(size);
}
void *operator new(std::size_t size, const std::nothrow_t &) noexcept
{
    return std::malloc(size ? size : 1);
}
void *operator new[](std::size_t size, const std::nothrow_t &) noexcept
{
    return std::malloc(size ? size : 1);
}
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
namespace {
void release(void *block) noexcept
{
    inspect(block);
    std::free(block);
}
} // namespace
#else
extern "C" void __libc_free(void *block);
extern "C" void free(void *block) noexcept
{
    inspect(block);
    __libc_free(block);
}
namespace {
void release(void *block) noexcept
{
    std::free(block);
}
} // namespace
#endif

void operator delete(void *block) noexcept
{
    release(block);
}
void operator delete[](void *block) noexcept
{
    release(block);
}
void operator delete(void *block, std::size_t) noexcept
{
    release(block);
}
void operator delete[](void *block, std::size_t) noexcept
{
    release(block);
}
void operator delete(void *block, const std::nothrow_t &) noexcept
{
    release(block);
}

namespace {
class FreedMemory : public telvane::test::SensorRunTest
{
};
} // namespace

TEST(FreedMemoryWatch, SeesASecretInAFreedStringAndNotInAWipedOne)
{
    static const std::string &secret = kept("s3cret#that-is-long-enough-for-the-heap");
    {
        Watch watch(secret);
        {
            std::string copy = secret;
        }
        EXPECT_EQ(1, blocksHoldingIt.load())
            << "the watch misses a plain copy: the other cases prove nothing";
    }
    {
        Watch watch(secret);
        {
            TelvaneCredentialsDictionary credentials{"user", secret};
            TelvaneCredentialsDictionary moved = std::move(credentials);
            TelvaneCredentialsDictionary assigned;
            assigned = moved;
        }
        std::string wiped = secret;
        telvaneWipe(wiped);
        wiped.shrink_to_fit();
        EXPECT_EQ(0, blocksHoldingIt.load())
            << "credentials or telvaneWipe left the password in freed memory";
    }
}

TEST_F(FreedMemory, AWholeRunFreesNoBlockThatStillHoldsThePassword)
{
    // Delegate credentials kept in the keyring, then a login from the keyring, then a refused stored pair;
    // the script takes the password twice, so the normalised text grows while it is put in.
    static const std::string &password = kept(sshd().password());
    // ThreadSanitizer starts a thread of its own with the first thread: have it started before counting.
    std::thread([] {}).join();
    const int threads = telvane::test::threadCount();
    auto sensor = makeSensor();
    delegate->answerPersist = true;
    {
        Watch watch(password);
        ASSERT_TRUE(runToEnd(*sensor, ": __PASSWORD__ __PASSWORD__\necho one"));
        ASSERT_EQ(0, delegate->terminationStatus()) << log.joined();
        delegate = std::make_shared<telvane::test::RecordingDelegate>();
        sensor->setDelegate(delegate);
        ASSERT_TRUE(runToEnd(*sensor, "echo two: __PASSWORD__ | wc -c"));
        ASSERT_EQ(0, delegate->terminationStatus()) << log.joined();
        EXPECT_EQ(0, delegate->count(telvane::test::RecordingDelegate::Event::AskedCredentials));
        // The pump threads free their connections, and with them the sessions' memory, on the way out.
        ASSERT_TRUE(telvane::test::waitUntil([&] { return telvane::test::threadCount() == threads; }));
        EXPECT_EQ(0, telvane::sshLibraryReferences());
        EXPECT_EQ(0, blocksHoldingIt.load())
            << blocksHoldingIt.load() << " freed blocks held the password; the first was "
            << firstHitSize.load() << " bytes";
    }
    // The keyring's own copy goes with the keyring, cleared too.
    {
        Watch watch(password);
        TelvaneKeychain::setBackend(nullptr);
        EXPECT_EQ(0, blocksHoldingIt.load());
    }
}
