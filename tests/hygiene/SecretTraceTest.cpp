// The password leaves no trace where others can read it: not in a log line, whatever the outcome of the run,
// and in no file unless the user chose the file keyring. (The command line's verbose output: tests/cli.)
#include "support/Files.h"
#include "support/Loopback.h"
#include "support/SshdFixture.h"

#include <filesystem>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// A password the server never accepts: it is sent, refused, and must vanish like the real one.
const std::string kWrongPassword = "wrong#Pw-7d1f0c";

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

using SecretTrace = telvane::test::SensorRunTest;

} // namespace

TEST_F(SecretTrace, NoLogLineOrFileHoldsAPasswordWhateverTheRunsOutcome)
{
    const telvane::test::TemporaryDirectory scratch("telvane-hygiene");
    const fs::path home = scratch.path();
    ASSERT_FALSE(home.empty());
    // Each case is a process of its own, so the environment is not put back.
    for (const char *name : {"HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME",
                             "XDG_RUNTIME_DIR"}) {
        fs::create_directories(home / name);
        ::setenv(name, (home / name).c_str(), 1);
    }
    const auto since = fs::file_time_type::clock::now() - 1s;
    const std::string user = sshd().username(), right = sshd().password();
    using Pair = std::optional<TelvaneCredentialsDictionary>;
    const telvane::test::LoopbackSocket closed;
    // The delegate's pair, kept; then the keyring's; a stored pair the server refuses, which goes; the wrong
    // password from the delegate; a user the server does not allow; a port nobody listens on.
    for (const auto &[answer, stored, port, code] : {std::tuple{Pair({user, right}), "", sshd().port(), 0L},
                                                     {Pair(), "", sshd().port(), 0L},
                                                     {Pair(), kWrongPassword.c_str(), sshd().port(), 3L},
                                                     {Pair({user, kWrongPassword}), "", sshd().port(), 3L},
                                                     {Pair({"nobody-" + user, right}), "", sshd().port(), 3L},
                                                     {Pair({user, right}), "", closed.port(), 1L}}) {
        freshDelegate();
        delegate->answer = answer;
        delegate->answerPersist = true;
        auto sensor = makeSensor(sshd().host(), port);
        if (*stored)
            TelvaneKeychain::setPassword(stored, sensor->serviceNameForSensor(), user);
        ASSERT_TRUE(runToEnd(*sensor, "echo run")) << log.joined();
        EXPECT_EQ(code ? std::optional(code) : std::nullopt, delegate->failureCode()) << log.joined();
    }

    ASSERT_FALSE(log.lines().empty()) << "the failed runs logged nothing: the check would prove nothing";
    for (const std::string &secret : {right, kWrongPassword}) {
        EXPECT_FALSE(log.contains(secret)) << log.joined();
        for (const auto &hit : filesHolding(home, secret))
            ADD_FAILURE() << hit << " holds a password";
        for (const auto &hit : filesHolding(fs::temp_directory_path(), secret, since))
            ADD_FAILURE() << hit << " holds a password";
    }

    // The one exception, and a proof that the scan finds what is there: the keyring file the user chose.
    TelvaneKeychain::setBackend(TelvaneKeychain::makeBackend("file"));
    freshDelegate();
    delegate->answerPersist = true;
    ASSERT_TRUE(runToEnd(*makeSensor(), "echo kept"));
    EXPECT_EQ("kept\n", delegate->output());
    const fs::path keyring = home / "XDG_DATA_HOME" / "telvane" / "keyring";
    EXPECT_EQ(std::vector<std::string>{keyring.string()}, filesHolding(home, right));
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::status(keyring).permissions());
}
