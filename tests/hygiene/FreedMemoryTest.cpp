// Memory that held a password is cleared before it is given back: while armed, a free() of our own (where
// operator delete and libssh both end) looks into every freed block. Sanitizers own free(): plain build only.
#include "Platform/SshLibrary_p.h"
#include "support/SshdFixture.h"

#include <atomic>
#include <cstring>
#include <malloc.h>

namespace {
// The secret looked for, read by every free() on any thread; never destroyed, as a detached thread of an
// earlier run may still free a block at exit.
std::atomic<const std::string *> watched{nullptr};
std::atomic<int> blocksHoldingIt{0};

// Arms the watch on @p secret for the scope.
struct Watch
{
    explicit Watch(const std::string *secret) { blocksHoldingIt = 0, watched.store(secret); }
    ~Watch() { watched.store(nullptr); }
};
using FreedMemory = telvane::test::SensorRunTest;
} // namespace

extern "C" void __libc_free(void *block);
extern "C" void free(void *block) noexcept
{
    const std::string *secret = watched.load();
    if (block && secret && memmem(block, malloc_usable_size(block), secret->data(), secret->size()))
        ++blocksHoldingIt;
    __libc_free(block);
}

TEST_F(FreedMemory, AWholeRunFreesNoBlockThatStillHoldsThePassword)
{
    const auto *password = new std::string(sshd().password());
    {
        Watch watch(password);
        {
            const std::string copy = *password + std::string(32, '.'); // long enough for the heap
        }
        ASSERT_LT(0, blocksHoldingIt.load()) << "the watch misses a plain copy: the run would prove nothing";
    }
    // Delegate credentials kept in the keyring, then a login from the keyring; the script takes the password
    // twice, so the normalised text grows while it is put in.
    const int threads = telvane::test::threadCount();
    auto sensor = makeSensor();
    delegate->answerPersist = true;
    {
        Watch watch(password);
        ASSERT_TRUE(runToEnd(*sensor, ": __PASSWORD__ __PASSWORD__\necho one"));
        ASSERT_EQ(0, delegate->terminationStatus()) << log.joined();
        freshDelegate();
        delegate->answer.reset();
        sensor->setDelegate(delegate);
        ASSERT_TRUE(runToEnd(*sensor, "echo two: __PASSWORD__ | wc -c"));
        ASSERT_EQ(0, delegate->terminationStatus()) << log.joined();
        // The pump threads free their connections, and with them the sessions' memory, on the way out.
        ASSERT_TRUE(telvane::test::waitUntil([&] { return telvane::test::threadCount() == threads; }));
        EXPECT_EQ(0, telvane::sshLibraryReferences());
        EXPECT_EQ(0, blocksHoldingIt.load()) << "freed blocks held the password";
    }
    // The keyring's own copy goes with the keyring, cleared too.
    Watch watch(password);
    TelvaneKeychain::setBackend(nullptr);
    EXPECT_EQ(0, blocksHoldingIt.load());
}
