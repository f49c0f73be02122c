// `telvane run` on several hosts at once: the real binary against the real loopback sshd, reached as
// 127.0.0.1, ::1 and localhost, beside a closed port and an account that sshd refuses.
#include "integration/Loopback.h"
#include "support/Process.h"
#include "support/SshdFixture.h"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>

namespace fs = std::filesystem;
using telvane::test::ProcessOptions;
using telvane::test::ProcessResult;
using telvane::test::runProcess;

namespace {

std::size_t occurrences(const std::string &text, const std::string &word)
{
    std::size_t n = 0;
    for (auto at = text.find(word); at != std::string::npos; at = text.find(word, at + 1))
        ++n;
    return n;
}

class Fleet : public telvane::test::SshdTest
{
protected:
    void SetUp() override
    {
        SshdTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        std::string pattern = (fs::temp_directory_path() / "telvane-fleet-XXXXXX").string();
        home = mkdtemp(pattern.data());
        passwordFile = write("password", sshd().password() + "\n");
        const std::string port = std::to_string(sshd().port());
        good = {"127.0.0.1:" + port, "[::1]:" + port, std::string(sshd().username()) + "@localhost:" + port};
        closed = "127.0.0.1:" + std::to_string(closedPort.port());
        refused = "nobody@127.0.0.1:" + port; // not in AllowUsers: the password is refused
    }
    void TearDown() override
    {
        SshdTest::TearDown();
        if (!home.empty())
            fs::remove_all(home);
    }

    std::string write(const std::string &name, const std::string &text) const
    {
        const std::string path = (home / name).string();
        std::ofstream(path) << text;
        fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
        return path;
    }

    ProcessOptions plain() const
    {
        ProcessOptions options;
        options.environment = environment();
        return options;
    }

    std::map<std::string, std::string> environment() const
    {
        return {{"TELVANE_KEYRING", "file"}, {"XDG_DATA_HOME", (home / "data").string()}, {"NO_COLOR", "1"}};
    }

    // telvane run on @p hosts (each after -H) with the harness's account, then @p extra.
    ProcessResult run(const std::vector<std::string> &hosts, const std::string &script,
                      std::vector<std::string> extra = {}, ProcessOptions options = {},
                      const std::string &command = "run") const
    {
        std::vector<std::string> args = {TELVANE_CLI_PATH,  command,           "-l",
                                         sshd().username(), "--password-file", passwordFile};
        for (const auto &host : hosts)
            args.insert(args.end(), {"-H", host});
        args.insert(args.end(), extra.begin(), extra.end());
        args.push_back(write("script", script));
        options.environment = environment();
        return runProcess(args, options);
    }

    fs::path home;
    std::string passwordFile;
    std::vector<std::string> good;
    telvane::test::LoopbackSocket closedPort; // bound, never listening: connections are refused
    std::string closed;
    std::string refused;
};

} // namespace

TEST_F(Fleet, PrefixedLinesSummaryAndTheExitStatusSayWhatHappened)
{
    struct Case
    {
        std::vector<std::string> hosts;
        std::string script;
        int status;
        std::vector<std::string> out; // lines expected on standard output
        std::vector<std::string> err; // pieces expected on standard error
    };
    const std::vector<Case> cases = {
        {good,
         "echo one; printf two",
         0,
         {good[0] + ": one", good[1] + ": two", good[2] + ": one"},
         {"telvane: " + good[1] + ": exited 0 (", "3 hosts: 3 succeeded, 0 script(s) failed"}},
        {{good[0], good[1]},
         "echo x; exit 5",
         1,
         {good[0] + ": x"},
         {good[1] + ": exited 5", "2 script(s) failed"}},
        {{good[0], closed, refused},
         "echo y",
         3,
         {good[0] + ": y"},
         {closed + ": connection failed: connect to 127.0.0.1 port " + std::to_string(closedPort.port()) +
              ": Connection refused",
          refused + ": authentication failed: the server refused", "2 not reached or refused"}},
    };
    for (const auto &c : cases) {
        const auto result = run(c.hosts, c.script);
        EXPECT_EQ(c.status, result.status) << result.err;
        for (const auto &line : c.out)
            EXPECT_EQ(1u, occurrences(result.out, line + "\n")) << line << " in\n" << result.out;
        for (const auto &piece : c.err)
            EXPECT_NE(std::string::npos, result.err.find(piece)) << piece << " in\n" << result.err;
        EXPECT_EQ(std::string::npos, result.err.find(sshd().password()));
    }

    // diagnose: each host's transcript, line by line, its marks taken out.
    const auto diagnosed = run({good[0], closed}, "echo '*hot*'\n", {}, {}, "diagnose");
    EXPECT_EQ(3, diagnosed.status) << diagnosed.err;
    for (const auto &line :
         {good[0] + ": Connecting over SSH to 127.0.0.1 on port " + std::to_string(sshd().port()) + ": OK",
          good[0] + ": hot", good[0] + ": Diagnostics completed.",
          closed + ": Connecting over SSH to 127.0.0.1 on port " + std::to_string(closedPort.port()) +
              ": failed"})
        EXPECT_NE(std::string::npos, diagnosed.out.find(line + "\n")) << line << " in\n" << diagnosed.out;
}

TEST_F(Fleet, HostsFileOutputDirectoryAndJsonRecords)
{
    const std::string hostsFile =
        write("hosts", "# the rack\n\n  " + good[0] + "\n" + good[1] + "  \n" + closed + "\n");

    const fs::path dir = home / "out";
    const auto files =
        run({}, "echo $SSH_CONNECTION | cut -d' ' -f3", {"--hosts", hostsFile, "--output-dir", dir});
    EXPECT_EQ(3, files.status) << files.err;
    EXPECT_EQ("", files.out);
    std::stringstream v4, v6;
    v4 << std::ifstream(dir / good[0]).rdbuf();
    v6 << std::ifstream(dir / good[1]).rdbuf();
    EXPECT_EQ("127.0.0.1\n", v4.str());
    EXPECT_EQ("::1\n", v6.str());

    // Valid UTF-8 stays text; anything else is base64.
    const auto json = run({good[0], good[2]}, "printf 'gr\\303\\274n\\n'", {"--hosts", hostsFile, "--json"});
    EXPECT_EQ(3, json.status) << json.err;
    std::map<std::string, nlohmann::json> records;
    std::istringstream lines(json.out);
    for (std::string line; std::getline(lines, line);)
        ASSERT_NO_THROW({
            auto record = nlohmann::json::parse(line);
            records[record["label"].get<std::string>()] = record;
        }) << line;
    ASSERT_EQ(5u, records.size()) << json.out; // the repeated host is there twice, its label marked
    const auto &ok = records.at(good[0]);
    EXPECT_EQ("127.0.0.1", ok["host"]);
    EXPECT_EQ(sshd().port(), ok["port"]);
    EXPECT_EQ(0, ok["status"]);
    EXPECT_TRUE(ok["error"].is_null());
    EXPECT_EQ("gr\xc3\xbcn\n", ok["output"]);
    EXPECT_EQ("utf-8", ok["encoding"]);
    EXPECT_EQ('Z', ok["start"].get<std::string>().back());
    EXPECT_GT(ok["duration"].get<double>(), 0);
    EXPECT_TRUE(records.count(good[0] + "#2"));
    const auto &down = records.at(closed);
    EXPECT_TRUE(down["status"].is_null());
    EXPECT_EQ(1, down["error"]["code"]);
    EXPECT_EQ("connection", down["error"]["name"]);

    const auto binary = run({good[0]}, "printf 'a\\377b'", {"--json"});
    const auto record = nlohmann::json::parse(binary.out);
    EXPECT_EQ("base64", record["encoding"]);
    EXPECT_EQ("Yf9i", record["output"]);
}

TEST_F(Fleet, BadHostsAreRefusedWithStatusTwo)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"-H", "[::1"}, "[IPV6]"},
        {{"-H", "host:0"}, "bad port \"0\""},
        {{"-H", "@host"}, "empty username"},
        {{"--hosts", "/nonexistent/hosts"}, "cannot read the hosts file /nonexistent/hosts"},
        {{"--hosts", "/dev/null"}, "no hosts"},
        {{"-H", "a", "--json", "--output-dir", "/tmp"}, "excludes"},
        {{"-H", "a", "--parallel", "0"}, "--parallel"},
    };
    for (const auto &[args, message] : cases) {
        std::vector<std::string> argv = {TELVANE_CLI_PATH, "run"};
        argv.insert(argv.end(), args.begin(), args.end());
        argv.push_back(write("script", "echo never\n"));
        const auto result = runProcess(argv, plain());
        EXPECT_EQ(2, result.status) << result.err;
        EXPECT_NE(std::string::npos, result.err.find(message)) << result.err;
    }
}

TEST_F(Fleet, OneQuestionOnTheTerminalServesEveryHostAndRememberKeepsEach)
{
    std::vector<std::string> argv = {TELVANE_CLI_PATH, "run", "--remember"};
    for (const auto &host : good)
        argv.insert(argv.end(), {"-H", host});
    argv.push_back(write("script", "echo asked-once\n"));

    int terminal = -1;
    const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        for (const auto &[name, value] : environment())
            setenv(name.c_str(), value.c_str(), 1);
        std::vector<char *> args;
        for (auto &a : argv)
            args.push_back(a.data());
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    // The host given as USER@HOST may be the first to ask, for the password alone: answer in any order.
    std::map<std::string, std::string> answers = {{"Username", sshd().username() + "\n"},
                                                  {"Password", sshd().password() + "\n"}};
    std::string screen;
    for (char buffer[4096];;) {
        pollfd fd{terminal, POLLIN, 0};
        if (poll(&fd, 1, 8000) <= 0)
            break;
        const ssize_t n = read(terminal, buffer, sizeof buffer);
        if (n <= 0)
            break;
        screen.append(buffer, static_cast<std::size_t>(n));
        for (auto it = answers.begin(); it != answers.end();)
            if (screen.find(it->first) != std::string::npos) {
                ASSERT_GT(::write(terminal, it->second.data(), it->second.size()), 0);
                it = answers.erase(it);
            } else {
                ++it;
            }
    }
    kill(pid, SIGKILL); // harmless once it has ended; ends it if it waits for an answer that never came
    int status = 0;
    waitpid(pid, &status, 0);
    close(terminal);
    EXPECT_EQ(0, WEXITSTATUS(status)) << screen;
    EXPECT_EQ(1u, occurrences(screen, "Username")) << screen;
    EXPECT_EQ(1u, occurrences(screen, "Password")) << screen;
    EXPECT_EQ(3u, occurrences(screen, ": asked-once")) << screen;
    EXPECT_EQ(std::string::npos, screen.find(sshd().password()));

    // Each host's pair was kept under its own name: no user, no password, no terminal, and all succeed.
    argv.erase(argv.begin() + 2);
    const auto stored = runProcess(argv, plain());
    EXPECT_EQ(0, stored.status) << stored.err;
}

TEST_F(Fleet, InterruptStopsEveryRunAtOnceAndSummarisesWhatFinished)
{
    for (const int signal : {SIGINT, SIGTERM}) {
        ProcessOptions options;
        options.interruptAfter = std::chrono::milliseconds(1500);
        options.interruptSignal = signal;
        const auto result =
            run({good[0], good[1], closed}, "echo started; exec sleep 30\n", {"--parallel", "2"}, options);
        EXPECT_EQ(128 + signal, result.status) << result.err;
        EXPECT_LT(result.seconds, 2.5) << "the stop took too long";
        EXPECT_EQ(2u, occurrences(result.out, ": started\n")) << result.out;
        EXPECT_EQ(2u, occurrences(result.err, ": stopped (")) << result.err;
        EXPECT_NE(std::string::npos, result.err.find("3 stopped or not started")) << result.err;
        EXPECT_NE(std::string::npos, result.err.find("telvane: interrupted")) << result.err;
    }
}

TEST_F(Fleet, AReaderThatGoesAwayEndsEveryRun)
{
    const std::string command = "set -o pipefail; " + std::string(TELVANE_CLI_PATH) + " run -l " +
                                sshd().username() + " --password-file " + passwordFile + " -H " + good[0] +
                                " -H " + good[1] + " " + write("script", "yes\n") +
                                " | head -n 3; echo \"status ${PIPESTATUS[0]}\"";
    ProcessOptions options = plain();
    options.timeout = std::chrono::seconds(20);
    const auto result = runProcess({"/bin/bash", "-c", command}, options);
    EXPECT_NE(std::string::npos, result.out.find("status 141")) << result.out << result.err;
    EXPECT_LT(result.seconds, 5);
}
