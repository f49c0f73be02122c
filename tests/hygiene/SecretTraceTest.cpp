// The password leaves no trace where others can read it: not in a log line, whatever the outcome of the run,
// and in no file unless the user chose the file keyring. (The command line's verbose output: tests/cli.)
#include "support/Files.h"
#include "support/Loopback.h"
#include "support/SshdFixture.h"

#include <Telvane/TelvaneKeychain.h>

#include <filesystem>

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using telvane::test::RecordingDelegate;

namespace {

// A password the server never accepts: it is sent, refused, and must vanish like the real one.
const std::string kWrongPassword = "wrong#Pw-7d1f0c";
const char *const kUserDirectories[] = {"HOME",           "XDG_DATA_HOME",  "XDG_CONFIG_HOME",
                                        "XDG_CACHE_HOME", "XDG_STATE_HOME", "XDG_RUNTIME_DIR"};

// Regular files under @p root changed since @p since that hold @p needle (at most 20000 entries, files of at
// most 4 MiB; nothing is followed through links).
std::vector<std::string> filesHolding(const fs::path &root, const std::string &needle,
                                      fs::file_time_type since = fs::file_time_type::min())
{
    std::vector<std::string> hits;
    std::error_code ec, e;
    fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec), end;
    for (int seen = 0; !ec && it != end && seen < 20000; it.increment(ec), ++seen)
        if (it->is_regular_file(e) && !it->is_symlink(e) && it->file_size(e) <= (4u << 20) &&
            it->last_write_time(e) >= since &&
            telvane::test::readFile(it->path()).find(needle) != std::string::npos)
            hits.push_back(it->path().string());
    return hits;
}

class SecretTrace : public telvane::test::SensorRunTest
{
protected:
    void SetUp() override
    {
        SensorRunTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        ASSERT_FALSE(home.empty());
        // Each case is a process of its own, so the environment is not put back.
        for (const char *name : kUserDirectories) {
            fs::create_directories(home / name);
            ::setenv(name, (home / name).c_str(), 1);
        }
    }

    std::shared_ptr<RecordingDelegate> attempt(Telvane &sensor,
                                               std::optional<TelvaneCredentialsDictionary> answer,
                                               const std::string &script, bool persist = false)
    {
        delegate = std::make_shared<RecordingDelegate>();
        delegate->answer = std::move(answer);
        delegate->answerPersist = persist;
        sensor.setDelegate(delegate);
        EXPECT_TRUE(runToEnd(sensor, script)) << log.joined();
        return delegate;
    }

    telvane::test::TemporaryDirectory scratch{"telvane-hygiene"};
    const fs::path home = scratch.path();
};

} // namespace

TEST_F(SecretTrace, NoLogLineOrFileHoldsAPasswordWhateverTheRunsOutcome)
{
    const auto since = fs::file_time_type::clock::now() - 1s;
    const TelvaneCredentialsDictionary right{sshd().username(), sshd().password()};
    auto sensor = makeSensor();
    EXPECT_EQ(0, attempt(*sensor, right, "echo fine", true)->terminationStatus()) << log.joined();
    // From the keyring now; then a stored pair that the server refuses, which is deleted.
    const auto stored = attempt(*sensor, std::nullopt, "echo again; exit 4");
    EXPECT_EQ(4, stored->terminationStatus());
    EXPECT_EQ(0, stored->count(RecordingDelegate::Event::AskedCredentials));
    TelvaneKeychain::setPassword(kWrongPassword, sensor->serviceNameForSensor(), sshd().username());
    EXPECT_EQ(3, attempt(*sensor, std::nullopt, "echo never")->failureCode());
    // The wrong password from the delegate; a user the server does not allow; a port nobody listens on.
    EXPECT_EQ(3,
              attempt(*sensor, TelvaneCredentialsDictionary{sshd().username(), kWrongPassword}, "echo never")
                  ->failureCode());
    EXPECT_EQ(3,
              attempt(*sensor, TelvaneCredentialsDictionary{"nobody-" + sshd().username(), sshd().password()},
                      "echo never")
                  ->failureCode());
    telvane::test::LoopbackSocket closed;
    EXPECT_EQ(1, attempt(*makeSensor("127.0.0.1", closed.port()), right, "echo never")->failureCode());

    ASSERT_FALSE(log.lines().empty()) << "the failed runs logged nothing: the check would prove nothing";
    for (const std::string &secret : {sshd().password(), kWrongPassword}) {
        EXPECT_FALSE(log.contains(secret)) << log.joined();
        for (const auto &hit : filesHolding(home, secret))
            ADD_FAILURE() << hit << " holds a password";
        for (const auto &hit : filesHolding(fs::temp_directory_path(), secret, since))
            ADD_FAILURE() << hit << " holds a password";
    }

    // The one exception, and a proof that the scan finds what is there: the keyring file the user chose.
    TelvaneKeychain::setBackend(TelvaneKeychain::makeBackend("file"));
    EXPECT_EQ(0, attempt(*sensor, right, "echo kept", true)->terminationStatus());
    const fs::path keyring = home / "XDG_DATA_HOME" / "telvane" / "keyring";
    EXPECT_EQ(std::vector<std::string>{keyring.string()}, filesHolding(home, sshd().password()));
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::status(keyring).permissions());
}
