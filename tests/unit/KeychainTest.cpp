// The credential store over each backend that needs no daemon; the Secret Service runs the same
// behaviour in its own suite against a real keyring daemon.
#include "Platform/KeychainBackends_p.h"
#include "support/KeychainBehaviour.h"
#include "support/TestEnvironment.h"

#include <filesystem>
#include <fstream>
#include <optional>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {
fs::path makeTemporaryDirectory()
{
    std::string pattern = (fs::temp_directory_path() / "telvane-keyring-XXXXXX").string();
    return mkdtemp(pattern.data());
}

class MemoryKeychainTest : public telvane::test::KeychainBehaviour
{
protected:
    std::shared_ptr<TelvaneKeychainBackend> makeBackend() override { return makeMemoryKeychain(); }
};

class FileKeychainTest : public telvane::test::KeychainBehaviour
{
protected:
    fs::path dir = makeTemporaryDirectory();
    fs::path file = dir / "nested" / "telvane" / "keyring";
    std::shared_ptr<TelvaneKeychainBackend> makeBackend() override { return makeFileKeychain(file.string()); }
    void TearDown() override
    {
        KeychainBehaviour::TearDown();
        fs::remove_all(dir);
    }
    std::string contents() const
    {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
};
} // namespace

TELVANE_KEYCHAIN_BEHAVIOUR_TESTS(MemoryKeychainTest)
TELVANE_KEYCHAIN_BEHAVIOUR_TESTS(FileKeychainTest)

TEST_F(FileKeychainTest, FileIsPrivateAndHoldsEverythingVerbatim)
{
    ASSERT_TRUE(backend->setPassword("p\tw\nd\\", "svc (h)", "tab\tuser"));
    struct stat st
    {
    };
    ASSERT_EQ(0, stat(file.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);
    ASSERT_EQ(0, stat(file.parent_path().c_str(), &st));
    EXPECT_EQ(0700u, st.st_mode & 0777);
    // A fresh backend on the same file reads back exactly what was stored.
    auto again = makeFileKeychain(file.string());
    EXPECT_EQ("p\tw\nd\\", again->passwordForService("svc (h)", "tab\tuser"));
    // No temporary file is left beside it.
    int entries = 0;
    for ([[maybe_unused]] const auto &entry : fs::directory_iterator(file.parent_path()))
        ++entries;
    EXPECT_EQ(2, entries); // the keyring and its lock file
}

TEST_F(FileKeychainTest, RefusesACorruptOrExposedFileAndNeverOverwritesIt)
{
    ASSERT_TRUE(backend->setPassword("pw", "svc", "user"));
    {
        std::ofstream out(file, std::ios::trunc);
        out << "not a keyring\n";
    }
    telvane::test::LogCapture log;
    EXPECT_FALSE(backend->accountsForService("svc").has_value());
    EXPECT_FALSE(backend->setPassword("pw2", "svc", "user"));
    EXPECT_EQ("not a keyring\n", contents());
    EXPECT_TRUE(log.contains("file keyring: refusing")) << log.joined();

    fs::remove(file);
    ASSERT_TRUE(backend->setPassword("pw", "svc", "user"));
    chmod(file.c_str(), 0644);
    EXPECT_FALSE(backend->passwordForService("svc", "user").has_value());
    EXPECT_FALSE(backend->deletePasswordForService("svc", "user"));
    EXPECT_TRUE(log.contains("mode 0644")) << log.joined();
    chmod(file.c_str(), 0600);
    EXPECT_EQ("pw", backend->passwordForService("svc", "user"));
}

TEST(KeychainSelection, EnvironmentPicksTheBackendAndUnknownNamesStoreNothingOnDisk)
{
    EXPECT_EQ("memory", TelvaneKeychain::makeBackend("memory")->name());
    EXPECT_EQ("file", TelvaneKeychain::makeBackend("file")->name());
    EXPECT_EQ("secret-service", TelvaneKeychain::makeBackend("secret-service")->name());
    telvane::test::LogCapture log;
    EXPECT_EQ(nullptr, TelvaneKeychain::makeBackend("plaintext"));
    EXPECT_TRUE(log.contains("unknown backend \"plaintext\""));
}

TEST(FileKeychainPath, WithoutXdgDataHomeAndHomeItIsInThePasswordDatabasesHomeNeverTmp)
{
    const auto saved = [](const char *name) {
        const char *value = std::getenv(name);
        return value ? std::optional<std::string>(value) : std::nullopt;
    };
    const auto xdg = saved("XDG_DATA_HOME"), home = saved("HOME");
    unsetenv("XDG_DATA_HOME");
    unsetenv("HOME");
    const std::string path = defaultFileKeychainPath();
    for (const auto &[name, value] : {std::pair{"XDG_DATA_HOME", xdg}, std::pair{"HOME", home}})
        if (value)
            setenv(name, value->c_str(), 1);
    const passwd *entry = getpwuid(geteuid());
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(std::string(entry->pw_dir) + "/.local/share/telvane/keyring", path);
}
