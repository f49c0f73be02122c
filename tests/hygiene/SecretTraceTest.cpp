// The password leaves no trace where others can read it: not in a log line, whatever the outcome of the run
// and at any verbosity of the command-line host; not in any process's arguments while a run goes on; and in
// no file, unless the user chose the file keyring.
#include "integration/Loopback.h"
#include "integration/SensorRun.h"
#include "support/Process.h"

#include <Telvane/Platform/TelvaneKeychain.h>

#include <algorithm>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <thread>

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using telvane::test::LoopbackSocket;
using telvane::test::RecordingDelegate;
using Event = RecordingDelegate::Event;

namespace {

// A password the server never accepts: it is sent, refused, and must vanish like the real one.
const std::string kWrongPassword = "wrong#Pw-7d1f0c";

bool fileHolds(const fs::path &path, const std::string &needle)
{
    std::ifstream in(path, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return text.find(needle) != std::string::npos;
}

// Regular files under @p root changed since @p since that hold @p needle (bounded: at most 20000 entries,
// files of at most 4 MiB; nothing is followed through links).
std::vector<std::string> filesHolding(const fs::path &root, const std::string &needle,
                                      fs::file_time_type since = fs::file_time_type::min())
{
    std::vector<std::string> hits;
    std::error_code ec;
    fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec), end;
    for (int seen = 0; !ec && it != end && seen < 20000; it.increment(ec), ++seen) {
        const auto &entry = *it;
        std::error_code e;
        if (!entry.is_regular_file(e) || entry.is_symlink(e) || entry.file_size(e) > (4u << 20))
            continue;
        if (entry.last_write_time(e) < since)
            continue;
        if (fileHolds(entry.path(), needle))
            hits.push_back(entry.path().string());
    }
    return hits;
}

// Every process's argument vector, as one string each (NULs turned into blanks).
std::vector<std::string> allCommandLines()
{
    std::vector<std::string> lines;
    DIR *proc = opendir("/proc");
    if (!proc)
        return lines;
    while (dirent *entry = readdir(proc)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9')
            continue;
        std::ifstream in(std::string("/proc/") + entry->d_name + "/cmdline", std::ios::binary);
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::replace(text.begin(), text.end(), '\0', ' ');
        if (!text.empty())
            lines.push_back(std::move(text));
    }
    closedir(proc);
    return lines;
}

class SecretTrace : public telvane::test::SensorRunTest
{
protected:
    void SetUp() override
    {
        SensorRunTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        std::string pattern = (fs::temp_directory_path() / "telvane-hygiene-XXXXXX").string();
        ASSERT_TRUE(mkdtemp(pattern.data()));
        home = pattern;
        // The library's idea of the user's directories points into the test's own.
        for (const char *name : {"HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME",
                                 "XDG_STATE_HOME", "XDG_RUNTIME_DIR"}) {
            if (const char *old = std::getenv(name))
                saved.emplace_back(name, old);
            const fs::path dir = home / (std::string(name) == "HOME" ? "home" : name);
            fs::create_directories(dir);
            ::setenv(name, dir.c_str(), 1);
        }
    }
    void TearDown() override
    {
        for (const char *name : {"HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME",
                                 "XDG_STATE_HOME", "XDG_RUNTIME_DIR"})
            ::unsetenv(name);
        for (const auto &[name, value] : saved)
            ::setenv(name.c_str(), value.c_str(), 1);
        if (!home.empty())
            fs::remove_all(home);
        SensorRunTest::TearDown();
    }

    // Runs @p script on @p sensor with a fresh delegate that answers @p answer; returns that delegate.
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

    // Every way a run can end, with the right and the wrong password, from the delegate and the keyring.
    void runEveryOutcome()
    {
        const TelvaneCredentialsDictionary right{sshd().username(), sshd().password()};
        auto sensor = makeSensor();
        EXPECT_EQ(0, attempt(*sensor, right, "echo fine", true)->terminationStatus()) << log.joined();
        // From the keyring now; then a stored pair that the server refuses, which is deleted.
        const auto stored = attempt(*sensor, std::nullopt, "echo again; exit 4");
        EXPECT_EQ(4, stored->terminationStatus());
        EXPECT_EQ(0, stored->count(Event::AskedCredentials));
        TelvaneKeychain::setPassword(kWrongPassword, sensor->serviceNameForSensor(), sshd().username());
        EXPECT_EQ(3, attempt(*sensor, std::nullopt, "echo never")->failureCode());
        // The wrong password from the delegate; a user the server does not allow; a port nobody listens on.
        EXPECT_EQ(
            3, attempt(*sensor, TelvaneCredentialsDictionary{sshd().username(), kWrongPassword}, "echo never")
                   ->failureCode());
        EXPECT_EQ(3, attempt(*sensor,
                             TelvaneCredentialsDictionary{"nobody-" + sshd().username(), sshd().password()},
                             "echo never")
                         ->failureCode());
        LoopbackSocket closed;
        auto refusedPort = makeSensor("127.0.0.1", closed.port());
        EXPECT_EQ(1, attempt(*refusedPort, right, "echo never")->failureCode());
    }

    fs::path home;
    std::vector<std::pair<std::string, std::string>> saved;
};

} // namespace

TEST_F(SecretTrace, NoLogLineHoldsAPasswordWhateverTheRunsOutcome)
{
    runEveryOutcome();
    ASSERT_FALSE(log.lines().empty()) << "the failed runs logged nothing: the check would prove nothing";
    for (const auto &line : log.lines()) {
        EXPECT_EQ(std::string::npos, line.find(sshd().password())) << line;
        EXPECT_EQ(std::string::npos, line.find(kWrongPassword)) << line;
    }
}

TEST_F(SecretTrace, NoFileHoldsThePasswordUnlessTheFileKeyringWasChosen)
{
    const auto since = fs::file_time_type::clock::now() - 1s;
    runEveryOutcome();
    for (const std::string &secret : {sshd().password(), kWrongPassword}) {
        for (const auto &hit : filesHolding(home, secret))
            ADD_FAILURE() << hit << " holds a password";
        for (const auto &hit : filesHolding(fs::temp_directory_path(), secret, since))
            ADD_FAILURE() << hit << " holds a password";
    }

    // The one exception, and a proof that the scan finds what is there: the keyring file the user chose.
    TelvaneKeychain::setBackend(TelvaneKeychain::makeBackend("file"));
    auto sensor = makeSensor();
    EXPECT_EQ(0, attempt(*sensor, TelvaneCredentialsDictionary{sshd().username(), sshd().password()},
                         "echo kept", true)
                     ->terminationStatus());
    const fs::path keyring = fs::path(std::getenv("XDG_DATA_HOME")) / "telvane" / "keyring";
    EXPECT_EQ(std::vector<std::string>{keyring.string()}, filesHolding(home, sshd().password()));
    struct stat st
    {
    };
    ASSERT_EQ(0, ::stat(keyring.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);
}

TEST_F(SecretTrace, NoProcessArgumentHoldsThePasswordWhileARunGoesOn)
{
    auto sensor = makeSensor();
    std::thread run([&] { sensor->runScript("sleep 2", std::nullopt); });
    // Scan while the login and the script are under way, sshd's side included.
    bool sawSshdSession = false;
    const auto deadline = std::chrono::steady_clock::now() + 2500ms;
    while (std::chrono::steady_clock::now() < deadline) {
        for (const auto &line : allCommandLines()) {
            EXPECT_EQ(std::string::npos, line.find(sshd().password())) << line;
            sawSshdSession |= line.find("sshd: " + sshd().username()) != std::string::npos;
        }
        std::this_thread::sleep_for(50ms);
    }
    run.join();
    ASSERT_TRUE(delegate->waitForEnd(10s));
    EXPECT_TRUE(sawSshdSession) << "the scan never saw the run's sshd session: it proves nothing";
}

#ifdef TELVANE_CLI_PATH
TEST_F(SecretTrace, TheCommandLineHostKeepsThePasswordFromArgumentsAndOutput)
{
    const fs::path passwordFile = home / "password";
    {
        std::ofstream(passwordFile) << sshd().password() << "\n";
        fs::permissions(passwordFile, fs::perms::owner_read | fs::perms::owner_write);
    }
    const fs::path wrongFile = home / "wrong";
    {
        std::ofstream(wrongFile) << kWrongPassword << "\n";
        fs::permissions(wrongFile, fs::perms::owner_read | fs::perms::owner_write);
    }
    const fs::path script = home / "script";
    std::ofstream(script) << "sleep 2\necho done\n";

    const auto cli = [&](const fs::path &password, bool verbose) {
        std::vector<std::string> args{TELVANE_CLI_PATH,
                                      "run",
                                      "-p",
                                      std::to_string(sshd().port()),
                                      "-l",
                                      sshd().username(),
                                      "--password-file",
                                      password.string()};
        if (verbose)
            args.push_back("-v");
        args.push_back(sshd().host());
        args.push_back(script.string());
        telvane::test::ProcessOptions options;
        options.environment = {{"TELVANE_KEYRING", "memory"}, {"NO_COLOR", ""}};
        return telvane::test::runProcess(args, options);
    };

    // The argument scan runs beside the host, which takes two seconds for its script.
    telvane::test::ProcessResult result;
    std::thread host([&] { result = cli(passwordFile, true); });
    bool sawHost = false;
    const auto deadline = std::chrono::steady_clock::now() + 2500ms;
    while (std::chrono::steady_clock::now() < deadline) {
        for (const auto &line : allCommandLines()) {
            EXPECT_EQ(std::string::npos, line.find(sshd().password())) << line;
            sawHost |= line.find("--password-file") != std::string::npos;
        }
        std::this_thread::sleep_for(50ms);
    }
    host.join();
    EXPECT_TRUE(sawHost) << "the scan never saw the host's arguments: it proves nothing";
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("done\n", result.out);

    for (const bool verbose : {false, true}) {
        const auto refused = cli(wrongFile, verbose);
        EXPECT_EQ(253, refused.status) << refused.err;
        for (const auto *stream : {&refused.out, &refused.err}) {
            EXPECT_EQ(std::string::npos, stream->find(kWrongPassword)) << *stream;
            EXPECT_EQ(std::string::npos, stream->find(sshd().password())) << *stream;
        }
    }
    EXPECT_EQ(std::string::npos, result.err.find(sshd().password())) << result.err;
}
#endif
