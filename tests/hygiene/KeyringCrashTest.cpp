// The file keyring under a writer that is killed at any moment: the file always parses and holds either the
// pair from before the save or the one from after it, keeps mode 0600, and no temporary copy of a password is
// left beside it once the next save has run.
#include "Platform/KeychainBackends_p.h"
#include "support/Files.h"
#include "support/TestEnvironment.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <random>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {
const std::string kService = "com.quillmere.sensor.credentials (crash.example)";
const std::string kAccount = "operator";
const std::string kOld = "old#password-1111";
const std::string kNew =
    "new#password-22222222"; // a different length, so a torn write cannot pass for either

} // namespace

TEST(FileKeyring, AWriterKilledMidSaveLosesNeitherTheOldNorTheNewPair)
{
    const telvane::test::TemporaryDirectory scratch("telvane-keyring-crash");
    const fs::path &dir = scratch.path();
    ASSERT_FALSE(dir.empty());
    const std::string path = (dir / "keyring").string();
    ASSERT_TRUE(makeFileKeychain(path)->setPassword(kOld, kService, kAccount));

    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> lifetime(200, 20000); // microseconds: a save takes about that long
    telvane::test::LogCapture log;
    for (int round = 0; round < 60 && !HasFailure(); ++round) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            // Only the keyring code runs here, single-threaded, and the child never returns into gtest.
            auto keyring = makeFileKeychain(path);
            for (int i = 0; i < 100000; ++i)
                keyring->setPassword(i % 2 ? kOld : kNew, kService, kAccount);
            ::_exit(0);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(lifetime(random)));
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(child, ::waitpid(child, &status, 0));

        const auto keyring = makeFileKeychain(path);
        const auto accounts = keyring->accountsForService(kService);
        ASSERT_TRUE(accounts) << "round " << round << ": the keyring no longer parses\n" << log.joined();
        ASSERT_EQ(1u, accounts->size()) << "round " << round;
        EXPECT_EQ(kAccount, accounts->front().at(kTelvaneKeychainAccountKey));
        const auto password = keyring->passwordForService(kService, kAccount);
        ASSERT_TRUE(password == kOld || password == kNew)
            << "round " << round << ": the stored password is \"" << password.value_or("(none)") << "\"";
        EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::status(path).permissions()) << round;
    }

    // The next save sweeps up what killed writers left, so no stray copy of a password outlives it.
    ASSERT_TRUE(makeFileKeychain(path)->setPassword(kOld, kService, kAccount));
    EXPECT_EQ(2, std::distance(fs::directory_iterator(dir), {})) << "beside the keyring and its lock file";
}
