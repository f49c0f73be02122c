// The credential store over each backend that needs no daemon; the Secret Service runs the same
// behaviour in its own suite against a real keyring daemon.
#include "Platform/KeychainBackends_p.h"
#include "support/Files.h"
#include "support/KeychainBehaviour.h"

#include <filesystem>
#include <fstream>
#include <pwd.h>
#include <sys/stat.h>
#include <thread>

namespace fs = std::filesystem;

namespace {
class MemoryKeychainTest : public telvane::test::KeychainBehaviour
{
protected:
    std::shared_ptr<TelvaneKeychainBackend> makeBackend() override { return makeMemoryKeychain(); }
};

class FileKeychainTest : public telvane::test::KeychainBehaviour
{
protected:
    telvane::test::TemporaryDirectory scratch{"telvane-keyring"};
    fs::path file = scratch.path() / "nested" / "telvane" / "keyring";
    std::shared_ptr<TelvaneKeychainBackend> makeBackend() override { return makeFileKeychain(file.string()); }
};
} // namespace

TELVANE_KEYCHAIN_BEHAVIOUR_TESTS(MemoryKeychainTest)
TELVANE_KEYCHAIN_BEHAVIOUR_TESTS(FileKeychainTest)

TEST_F(FileKeychainTest, FileIsPrivateAndHoldsEverythingVerbatim)
{
    ASSERT_TRUE(backend->setPassword("p\tw\nd\\", "svc (h)", "tab\tuser"));
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::status(file).permissions());
    EXPECT_EQ(fs::perms::owner_all, fs::status(file.parent_path()).permissions());
    EXPECT_EQ("p\tw\nd\\", makeFileKeychain(file.string())->passwordForService("svc (h)", "tab\tuser"));
    // The keyring and its lock file, and no temporary file beside them.
    const auto entries = fs::directory_iterator(file.parent_path());
    EXPECT_EQ(2, std::distance(begin(entries), end(entries)));
}

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

TEST_F(FileKeychainTest, WritersAtOnceLoseNoPair)
{
    // A fleet saves the pairs of many hosts at once, and two programs may share the file: no save may undo
    // another's.
    std::vector<std::thread> writers;
    for (int writer = 0; writer < 4; ++writer)
        writers.emplace_back([this, writer] {
            for (int i = 0; i < 25; ++i)
                backend->setPassword("pw", "svc", std::to_string(writer * 25 + i));
        });
    for (auto &writer : writers)
        writer.join();
    const auto accounts = backend->accountsForService("svc");
    ASSERT_TRUE(accounts);
    EXPECT_EQ(100u, accounts->size());
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
