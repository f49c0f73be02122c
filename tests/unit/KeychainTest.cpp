// The file keyring's own promises and the choice of backend; what every backend keeps is in tests/keyring.
#include "Platform/KeychainBackends_p.h"
#include "support/Files.h"
#include "support/TestEnvironment.h"

#include <filesystem>
#include <fstream>
#include <pwd.h>
#include <random>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

namespace fs = std::filesystem;

namespace {
class FileKeychainTest : public ::testing::Test
{
protected:
    telvane::test::TemporaryDirectory scratch{"telvane-keyring"};
    fs::path file = scratch.path() / "nested" / "telvane" / "keyring";
    std::shared_ptr<TelvaneKeychainBackend> backend = makeFileKeychain(file.string());
};
} // namespace

TEST_F(FileKeychainTest, RefusesACorruptOrExposedFileAndNeverOverwritesIt)
{
    ASSERT_TRUE(backend->setPassword("pw", "svc", "user"));
    std::ofstream(file, std::ios::trunc) << "not a keyring\n";
    telvane::test::LogCapture log;
    EXPECT_FALSE(backend->accountsForService("svc").has_value());
    EXPECT_FALSE(backend->setPassword("pw2", "svc", "user"));
    EXPECT_EQ("not a keyring\n", telvane::test::readFile(file));
    EXPECT_TRUE(log.contains("file keyring: refusing")) << log.joined();

    fs::remove(file);
    ASSERT_TRUE(backend->setPassword("pw", "svc", "user"));
    chmod(file.c_str(), 0640);
    EXPECT_FALSE(backend->passwordForService("svc", "user").has_value());
    EXPECT_FALSE(backend->deletePasswordForService("svc", "user"));
    EXPECT_TRUE(log.contains("mode 0640")) << log.joined();
    chmod(file.c_str(), 0600);
    EXPECT_EQ("pw", backend->passwordForService("svc", "user"));
}

// A writer killed at any moment leaves a private file that parses and holds, verbatim, either the pair from
// before the save or the one from after it; no save beside it is undone (a fleet saves many pairs at once,
// and programs share the file); the next save sweeps up the temporary copy of a password it left.
TEST_F(FileKeychainTest, AWriterKilledMidSaveLosesNeitherTheOldNorTheNewPair)
{
    const std::string before = "old\tpass\nword\\-1", after = "new#password-22222222"; // torn, neither
    ASSERT_TRUE(backend->setPassword(before, "svc", "op\terator"));
    EXPECT_EQ(fs::perms::owner_all, fs::status(file.parent_path()).permissions());
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> lifetime(200, 20000); // microseconds: a save takes about that long
    for (int round = 0; round < 60 && !HasFailure(); ++round) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) { // only the keyring's code runs here, and the child never returns into gtest
            for (int i = 0; i < 100000; ++i)
                backend->setPassword(i % 2 ? before : after, "svc", "op\terator");
            ::_exit(0);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(lifetime(random)));
        ASSERT_TRUE(backend->setPassword("pw", "svc", std::to_string(round))); // amid the child's saves
        ::kill(child, SIGKILL);
        ASSERT_EQ(child, ::waitpid(child, nullptr, 0));
        const auto password = makeFileKeychain(file.string())->passwordForService("svc", "op\terator");
        ASSERT_TRUE(password == before || password == after) << round << ": " << password.value_or("(none)");
        const auto accounts =
            backend->accountsForService("svc").value_or(std::vector<TelvaneKeychainAccount>{});
        ASSERT_EQ(round + 2u, accounts.size());
        EXPECT_EQ("op\terator", accounts[0].at(kTelvaneKeychainAccountKey));
        EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::status(file).permissions()) << round;
    }
    ASSERT_TRUE(backend->setPassword(before, "svc", "op\terator"));
    EXPECT_EQ(2, std::distance(fs::directory_iterator(file.parent_path()), {}))
        << "beside the keyring and its lock";
}

TEST(KeychainSelection, EnvironmentPicksTheBackendAndUnknownNamesStoreNothingOnDisk)
{
    for (const std::string name : {"memory", "file", "secret-service"})
        EXPECT_EQ(name, TelvaneKeychain::makeBackend(name)->name());
    telvane::test::LogCapture log;
    EXPECT_EQ(nullptr, TelvaneKeychain::makeBackend("plaintext"));
    EXPECT_TRUE(log.contains("unknown backend \"plaintext\""));
}

TEST(FileKeychainPath, WithoutXdgDataHomeAndHomeItIsInThePasswordDatabasesHomeNeverTmp)
{
    unsetenv("XDG_DATA_HOME"); // each case is a process of its own: nothing is put back
    unsetenv("HOME");
    EXPECT_EQ(std::string(getpwuid(geteuid())->pw_dir) + "/.local/share/telvane/keyring",
              defaultFileKeychainPath());
}
