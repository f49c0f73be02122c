// The command-line host as a user runs it: the real binary against the real loopback sshd.
#include "integration/Loopback.h"
#include "support/Process.h"
#include "support/SshdFixture.h"

#include <filesystem>
#include <fstream>
#include <poll.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

namespace fs = std::filesystem;
using telvane::test::ProcessOptions;
using telvane::test::ProcessResult;
using telvane::test::runProcess;

namespace {

class Cli : public telvane::test::SshdTest
{
protected:
    void SetUp() override
    {
        SshdTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        std::string pattern = (fs::temp_directory_path() / "telvane-cli-XXXXXX").string();
        home = mkdtemp(pattern.data());
        passwordFile = (home / "password").string();
        writePrivate(passwordFile, sshd().password() + "\n");
    }
    void TearDown() override
    {
        SshdTest::TearDown();
        if (!home.empty())
            fs::remove_all(home);
    }

    static void writePrivate(const std::string &path, const std::string &text)
    {
        FILE *f = fopen(path.c_str(), "w");
        fputs(text.c_str(), f);
        fclose(f);
        chmod(path.c_str(), 0600);
    }

    std::string script(const std::string &text) const
    {
        const std::string path = (home / ("script" + std::to_string(scripts++))).string();
        writePrivate(path, text);
        return path;
    }

    // telvane with the given arguments, the keyring kept in this test's own directory.
    ProcessResult telvane(std::vector<std::string> args, ProcessOptions options = {}) const
    {
        args.insert(args.begin(), TELVANE_CLI_PATH);
        options.environment.emplace("TELVANE_KEYRING", "file");
        options.environment.emplace("XDG_DATA_HOME", (home / "data").string());
        options.environment.emplace("NO_COLOR", "");
        return runProcess(args, options);
    }

    // A shell command line that runs telvane with @p args, for the standard outputs a shell sets up.
    std::string commandLine(const std::vector<std::string> &args) const
    {
        std::string line = TELVANE_CLI_PATH;
        for (const auto &arg : args)
            line += " '" + arg + "'";
        return line;
    }

    // A path in a directory the test account can write to, so that a remote script can leave a mark.
    std::string shared(const std::string &name) const
    {
        const fs::path drop = home / "drop";
        fs::create_directories(drop);
        chmod(home.c_str(), 0711);
        chmod(drop.c_str(), 0777);
        return (drop / name).string();
    }

    // The usual login options for the harness's account.
    std::vector<std::string> login(std::vector<std::string> args) const
    {
        std::vector<std::string> all = {
            args[0],           "-p",        std::to_string(sshd().port()), "-l", sshd().username(),
            "--password-file", passwordFile};
        all.insert(all.end(), args.begin() + 1, args.end());
        return all;
    }

    struct Exchange
    {
        std::string question;
        std::string answer; // "FINGERPRINT": the host key's fingerprint as the question showed it
    };

    // telvane on a terminal of its own, answering each question in turn once it shows. The terminal's
    // text goes to `out`; `err` counts the questions answered.
    ProcessResult onTerminal(std::vector<std::string> args, const std::vector<Exchange> &exchanges) const
    {
        args.insert(args.begin(), TELVANE_CLI_PATH);
        int terminal = -1;
        const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
        if (pid < 0)
            return {};
        if (pid == 0) {
            setenv("TELVANE_KEYRING", "file", 1);
            setenv("XDG_DATA_HOME", (home / "data").c_str(), 1);
            setenv("NO_COLOR", "", 1);
            setenv("HOME", home.c_str(), 1);
            std::vector<char *> argv;
            for (auto &arg : args)
                argv.push_back(arg.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        ProcessResult result;
        std::size_t answered = 0, seen = 0;
        for (char buffer[4096];;) {
            pollfd fd{terminal, POLLIN, 0};
            const ssize_t n = poll(&fd, 1, 10000) > 0 ? read(terminal, buffer, sizeof buffer) : 0;
            if (n <= 0)
                break; // the end (EIO once telvane has gone), or a question nobody expected
            result.out.append(buffer, static_cast<std::size_t>(n));
            if (answered == exchanges.size())
                continue;
            const auto at = result.out.find(exchanges[answered].question, seen);
            if (at == std::string::npos)
                continue;
            seen = at + exchanges[answered].question.size();
            std::string answer = exchanges[answered++].answer;
            if (answer == "FINGERPRINT") {
                const auto from = result.out.find("SHA256:");
                answer = result.out.substr(from, result.out.find('.', from) - from);
            }
            answer += "\n";
            if (::write(terminal, answer.data(), answer.size()) < 0)
                break;
        }
        kill(pid, SIGKILL); // harmless once it has ended; ends it if it waits for an answer that never came
        int status = 0;
        waitpid(pid, &status, 0);
        close(terminal);
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        result.err = std::to_string(answered);
        return result;
    }

    fs::path home;
    std::string passwordFile;
    mutable int scripts = 0;
};

} // namespace

TEST_F(Cli, RunPassesTheScriptsStatusAndSubstitutesArgumentsInOrder)
{
    const auto ok = telvane(login({"run", "-a", "WHO=__X__", "-a", "X=world", sshd().host(),
                                   script("#!/bin/sh\necho hello __WHO__\nexit 0\n")}));
    EXPECT_EQ(0, ok.status) << ok.err;
    EXPECT_EQ("hello world\n", ok.out);

    const auto three =
        telvane(login({"run", sshd().host(), "-"}), {.input = "echo out; echo err >&2; exit 3\n"});
    EXPECT_EQ(3, three.status) << three.err;
    EXPECT_EQ("out\n", three.out); // standard error of the script is not ours
    EXPECT_EQ("", three.err);
}

TEST_F(Cli, LargeOutputArrivesByteForByteThroughAPipe)
{
    // 40 MB of numbered lines, hashed on both sides.
    const std::string generate = "seq 1 5000000";
    const auto local = runProcess({"/bin/sh", "-c", generate + " | sha256sum"});
    const auto remote = runProcess(
        {"/bin/sh", "-c",
         std::string(TELVANE_CLI_PATH) + " run -p " + std::to_string(sshd().port()) + " -l " +
             sshd().username() + " --password-file " + passwordFile + " " + sshd().host() + " - | sha256sum"},
        {.input = generate + "\n", .environment = {{"TELVANE_KEYRING", "memory"}}});
    ASSERT_EQ(0, remote.status) << remote.err;
    EXPECT_EQ(local.out, remote.out);
}

TEST_F(Cli, EachFailureHasItsStatusAndOneLineNamingHostPortAndCause)
{
    const std::string port = std::to_string(sshd().port());
    const std::string echo = script("echo hi\n");

    // Wrong password: 253, and nothing is kept.
    const std::string wrong = (home / "wrong").string();
    writePrivate(wrong, "not-the-password\n");
    const auto refused = telvane({"run", "-p", port, "-l", sshd().username(), "--password-file", wrong,
                                  "--remember", sshd().host(), echo});
    EXPECT_EQ(253, refused.status);
    EXPECT_NE(std::string::npos, refused.err.find("127.0.0.1 port " + port + ": authentication failed"))
        << refused.err;

    // No credentials and no terminal to ask on: 254.
    const auto none = telvane({"run", "-p", port, sshd().host(), echo});
    EXPECT_EQ(254, none.status);
    EXPECT_NE(std::string::npos, none.err.find("no credentials")) << none.err;

    // Nobody listening: 255, with the system's reason.
    telvane::test::LoopbackSocket closedPort;
    const std::string freePort = std::to_string(closedPort.port());
    const auto refusedConnection =
        telvane({"run", "-p", freePort, "-l", "x", "--password-file", passwordFile, sshd().host(), echo});
    EXPECT_EQ(255, refusedConnection.status);
    EXPECT_NE(std::string::npos, refusedConnection.err.find("port " + freePort + ": connection failed: "))
        << refusedConnection.err;
    EXPECT_NE(std::string::npos, refusedConnection.err.find("Connection refused")) << refusedConnection.err;

    // An empty password file is an empty password, and the refusal says so.
    const std::string empty = (home / "empty");
    writePrivate(empty, "");
    const auto emptyRefused =
        telvane({"run", "-p", port, "-l", sshd().username(), "--password-file", empty, sshd().host(), echo});
    EXPECT_EQ(253, emptyRefused.status);
    EXPECT_NE(std::string::npos, emptyRefused.err.find("the password file " + empty + " was empty"))
        << emptyRefused.err;

    // The password is in no message.
    for (const auto *result : {&refused, &none, &refusedConnection})
        EXPECT_EQ(std::string::npos, result->err.find(sshd().password()));
}

TEST_F(Cli, BadInputIsRefusedWithStatusTwoAndNothingSent)
{
    // The test account must be able to leave a mark, so that "nothing sent" is a real check.
    const std::string marker = shared("ran");
    const std::string touch = script("touch " + marker + "\n");
    chmod(touch.c_str(), 0644);
    const std::string latin1 = script("echo Gr\xfc\xdf"
                                      "e\n");
    const std::string world = (home / "world");
    writePrivate(world, sshd().password() + "\n");
    chmod(world.c_str(), 0644);

    const std::string comments = script("#!/bin/sh\n# only comments\n\n  # and blanks\n");

    struct Case
    {
        std::vector<std::string> args;
        std::string message;
        std::map<std::string, std::string> environment = {};
    };
    const std::string port = std::to_string(sshd().port());
    const std::vector<Case> cases = {
        {{"run", "--bogus", sshd().host(), touch}, "--bogus"},
        {{"run"}, "HOST"},
        {{"frobnicate", sshd().host()}, "unknown command frobnicate"},
        {{"run", "-p", port, sshd().host(), "/nonexistent/script"},
         "cannot read the script /nonexistent/script"},
        {{"run", "-p", port, sshd().host(), latin1},
         "not UTF-8 text or holds a NUL byte (line 1); nothing was sent"},
        {{"run", "-o", "Compression=yes", sshd().host(), touch}, "-o Compression=yes: unsupported option"},
        {{"run", "-o", "StrictHostKeyChecking=maybe", sshd().host(), touch},
         "expected accept-new, yes, no or ask"},
        {{"run", "@" + sshd().host(), touch}, "has an empty username"},
        {{"run", "-p", port, "-a", "NOEQUALS", sshd().host(), touch}, "--arg NOEQUALS: expected KEY=VALUE"},
        {{"run", "-p", "70000", sshd().host(), touch}, "70000"},
        {{"run", "-p", "ssh", sshd().host(), touch}, "ssh"},
        {{"run", "-t", "-1", "-p", port, sshd().host(), touch}, "-1"},
        {{"run", "-t", "abc", "-p", port, sshd().host(), touch},
         "--timeout: expected a positive number of seconds, got 'abc'"},
        {{"run", "-t", "nan", "-p", port, sshd().host(), touch}, "got 'nan'"},
        {{"run", "-p", port, "--password-file", "/nonexistent/pw", sshd().host(), touch}, "/nonexistent/pw"},
        {{"run", "-p", port, "--password-file", home.string(), sshd().host(), touch},
         "the password file " + home.string() + " is a directory"},
        {{"run", "-p", port, sshd().host(), home.string()},
         "the script " + home.string() + " is a directory"},
        {{"run", "-p", port, "", touch}, "the host is empty"},
        {{"run", "-p", port, sshd().host(), comments},
         "has nothing to run: every line is blank or holds \"#\""},
        {{"run", "-p", port, "-a", "C=#ff0000", sshd().host(), touch}, "--arg C: the value holds \"#\""},
        {{"run", "-p", port, sshd().host(), touch},
         "TELVANE_KEYRING: unknown keyring 'fiel' (use secret-service, file or memory)",
         {{"TELVANE_KEYRING", "fiel"}}},
        {{"diagnose", "--color=sometimes", sshd().host(), touch}, "sometimes"},
    };
    for (const auto &c : cases) {
        const auto result = telvane(c.args, {.environment = c.environment});
        EXPECT_EQ(2, result.status) << c.args[0] << " " << result.err;
        EXPECT_NE(std::string::npos, result.err.find(c.message)) << result.err;
        EXPECT_EQ(std::string::npos, result.err.find("\n", result.err.find("\n") + 1))
            << "one line: " << result.err;
    }
    EXPECT_FALSE(fs::exists(marker));
    // The same script, given properly, does leave its mark.
    ASSERT_EQ(0, telvane(login({"run", sshd().host(), touch})).status);
    EXPECT_TRUE(fs::exists(marker));

    // A password file that others can read still works, with a warning.
    const auto warned = telvane({"run", "-p", port, "-l", sshd().username(), "--password-file", world,
                                 sshd().host(), script("echo fine\n")});
    EXPECT_EQ(0, warned.status) << warned.err;
    EXPECT_NE(std::string::npos, warned.err.find("readable by others")) << warned.err;

    EXPECT_EQ(0, telvane({"--help"}).status);
    const auto version = telvane({"--version"});
    EXPECT_EQ(0, version.status);
    EXPECT_NE(std::string::npos, version.out.find("telvane 5.0"));
}

TEST_F(Cli, RememberKeepsThePairInTheFileKeyringAndForgetRemovesIt)
{
    const std::string echo = script("echo remembered\n");
    const std::string port = std::to_string(sshd().port());
    ASSERT_EQ(0, telvane(login({"run", "--remember", sshd().host(), echo})).status);
    const fs::path keyring = home / "data" / "telvane" / "keyring";
    ASSERT_TRUE(fs::exists(keyring));
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::status(keyring).permissions());

    // Now no user and no password are given: the stored pair serves.
    const auto stored = telvane({"run", "-p", port, sshd().host(), echo});
    EXPECT_EQ(0, stored.status) << stored.err;
    EXPECT_EQ("remembered\n", stored.out);

    const auto forgot = telvane({"forget", sshd().host()});
    EXPECT_EQ(0, forgot.status) << forgot.err;
    const auto again = telvane({"forget", sshd().host()});
    EXPECT_EQ(1, again.status);
    EXPECT_NE(std::string::npos, again.err.find("no stored credentials for 127.0.0.1"));
    EXPECT_EQ(254, telvane({"run", "-p", port, sshd().host(), echo}).status);

    // A keyring that cannot be written: the run keeps its status, and the user learns that nothing was kept.
    const auto unkept = telvane(login({"run", "--remember", sshd().host(), echo}),
                                {.environment = {{"XDG_DATA_HOME", passwordFile + "/data"}}});
    EXPECT_EQ(0, unkept.status) << unkept.err;
    EXPECT_NE(std::string::npos, unkept.err.find("--remember: the credentials could not be kept in the file "
                                                 "keyring: file keyring: cannot create"))
        << unkept.err;

    // Without --remember nothing is kept.
    ASSERT_EQ(0, telvane(login({"run", sshd().host(), echo})).status);
    EXPECT_EQ(1, telvane({"forget", sshd().host()}).status);
}

TEST_F(Cli, DiagnoseShowsTheTranscriptAndExitsZeroOnlyForStatusZero)
{
    const auto ok = telvane(login({"diagnose", sshd().host(), script("echo hello\n")}));
    EXPECT_EQ(0, ok.status) << ok.err;
    EXPECT_EQ("Connecting over SSH to 127.0.0.1 on port " + std::to_string(sshd().port()) +
                  ": OK\nhello\nDiagnostics completed.\n",
              ok.out);

    // Without colour a finding keeps its asterisks; the closing line starts a line of its own.
    const std::string finding = script("echo '*disk full*'\nprintf tail\nexit 2\n");
    const struct
    {
        std::string colour, shown;
    } colours[] = {{"--color=auto", "*disk full*\ntail\n"},
                   {"--color=never", "*disk full*\ntail\n"},
                   {"--color=always", "\033[31mdisk full\n\033[0mtail\n"}};
    for (const auto &c : colours) {
        const auto marked = telvane(login({"diagnose", c.colour, sshd().host(), finding}));
        EXPECT_EQ(2, marked.status);
        EXPECT_NE(std::string::npos, marked.out.find(c.shown + "Diagnostics terminated with error: 2\n"))
            << c.colour << ": " << marked.out;
    }

    const std::string wrong = (home / "wrong");
    writePrivate(wrong, "nope\n");
    const auto refused = telvane({"diagnose", "-p", std::to_string(sshd().port()), "-l", sshd().username(),
                                  "--password-file", wrong, sshd().host(), script("echo hello\n")});
    EXPECT_EQ(253, refused.status);
    EXPECT_NE(std::string::npos, refused.out.find(": *invalid credentials*\nDiagnostics completed.\n"))
        << refused.out;
}

TEST_F(Cli, LinesTheSendingRemovesAreNamedOnceEachAndCrlfBecomesLf)
{
    const auto result = telvane(login({"run", sshd().host(),
                                       script("#!/bin/sh\r\necho kept\r\necho gone # why\r\n"
                                              "# a comment\r\n  # another\r\nx=${#y}\r\n")}));
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("kept\n", result.out);
    const auto warnings = [&](const std::string &text) {
        std::size_t count = 0;
        for (auto at = result.err.find(text); at != std::string::npos; at = result.err.find(text, at + 1))
            ++count;
        return count;
    };
    EXPECT_EQ(1u, warnings("CRLF line ends")) << result.err;
    EXPECT_EQ(2u, warnings("holds \"#\", so the whole line is removed")) << result.err;
    EXPECT_EQ(1u, warnings(" line 3 holds")) << result.err;
    EXPECT_EQ(1u, warnings(" line 6 holds")) << result.err;
}

TEST_F(Cli, StandardOutputErrorsAreRetriedOrReportedNeverLost)
{
    std::vector<std::string> direct = login({"run", sshd().host(), "-"});
    const std::string run = commandLine(direct);
    direct.insert(direct.begin(), TELVANE_CLI_PATH);
    std::string numbers;
    for (int i = 1; i <= 200000; ++i)
        numbers += std::to_string(i) + "\n";
    const struct
    {
        const char *name;
        std::vector<std::string> command;
        ProcessOptions options;
        int status;
        std::string out, err;
    } rows[] = {
        {"a full disk",
         {"/bin/sh", "-c", "exec " + run + " >/dev/full"},
         {.input = "echo hi\n"},
         252,
         "",
         "telvane: cannot write to standard output: No space left on device\n"},
        // As a program killed by SIGPIPE: status 141, and nothing said.
        {"a reader that closes the pipe",
         {"/bin/bash", "-c", run + " | head -1; exit ${PIPESTATUS[0]}"},
         {.input = "seq 1 5000000\n"},
         141,
         "1\n",
         ""},
        {"a non-blocking pipe read late",
         direct,
         {.input = "seq 1 200000\n", .nonBlockingOutput = true, .readDelay = std::chrono::milliseconds(700)},
         0,
         numbers,
         ""},
    };
    for (auto row : rows) {
        row.options.environment.emplace("TELVANE_KEYRING", "memory");
        const auto result = runProcess(row.command, row.options);
        EXPECT_EQ(row.status, result.status) << row.name << ": " << result.err;
        EXPECT_TRUE(row.out == result.out) << row.name << ": " << result.out.size() << " bytes";
        EXPECT_EQ(row.err, result.err) << row.name;
    }
}

TEST_F(Cli, InterruptEndsTheRunInEveryStateAndStopsTheRemoteScript)
{
    telvane::test::LoopbackSocket silent(4); // accepts and never says a word: the handshake waits
    const std::string pidFile = shared("pid");
    const std::string streaming = script("echo $$ > " + pidFile + "\nwhile :; do echo x; sleep 0.05; done\n");
    const std::string flooding = script("echo $$ > " + pidFile + "\nexec yes flood\n");
    const struct
    {
        const char *state;
        int port;
        std::string script;
        std::chrono::milliseconds readDelay;
        int signal;
    } rows[] = {
        {"connecting", silent.port(), streaming, {}, SIGINT},
        {"connecting", silent.port(), streaming, {}, SIGTERM},
        {"streaming", sshd().port(), streaming, {}, SIGINT},
        {"blocked on standard output", sshd().port(), flooding, std::chrono::seconds(30), SIGTERM},
    };
    for (const auto &row : rows) {
        fs::remove(pidFile);
        const auto interruptAfter = std::chrono::milliseconds(1000);
        const auto result = telvane({"run", "-p", std::to_string(row.port), "-l", sshd().username(),
                                     "--password-file", passwordFile, sshd().host(), row.script},
                                    {.timeout = std::chrono::seconds(40),
                                     .interruptAfter = interruptAfter,
                                     .interruptSignal = row.signal,
                                     .readDelay = row.readDelay});
        EXPECT_EQ(128 + row.signal, result.status) << row.state << ": " << result.err;
        EXPECT_LT(result.seconds, 2.0) << row.state << ": the stop took too long";
        EXPECT_NE(std::string::npos, result.err.find("interrupted")) << row.state << ": " << result.err;
        if (row.port != sshd().port())
            continue;
        // The remote script ends too, within a moment.
        std::ifstream in(pidFile);
        pid_t pid = 0;
        ASSERT_TRUE(in >> pid) << row.state << ": the script did not start";
        for (int i = 0; i < 300 && kill(pid, 0) == 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_NE(0, kill(pid, 0)) << row.state << ": the remote script is still running";
    }
}

TEST_F(Cli, TakesSshsSpellingsOfHostsAndHostKeyChecking)
{
    const std::string port = std::to_string(sshd().port());
    fs::create_directories(home / ".ssh");
    writePrivate((home / ".ssh" / "config").string(), "Host cellar\n  HostName " + sshd().host() +
                                                          "\n  Port " + port + "\n  User " +
                                                          sshd().username() + "\n");
    const std::string changed = (home / "changed_hosts").string();
    writePrivate(changed,
                 "[" + sshd().host() + "]:" + port +
                     " ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIL98rV3YlPQ7pBBYFvr4PWI8gs5M7zXeSgbjOPz+RB3d\n");
    const std::string fresh = (home / "fresh_hosts").string();
    const std::string echo = script("echo in\n");
    struct Case
    {
        std::vector<std::string> args;
        int status;
        std::string said; // on standard error
    };
    const std::vector<Case> cases = {
        {{"run", "-p", port, "--password-file", passwordFile, sshd().username() + "@" + sshd().host(), echo},
         0,
         ""},
        {{"run", "--password-file", passwordFile, "cellar", echo}, 0, ""},
        {login({"run", "-o", "UserKnownHostsFile=" + fresh, "-o", "StrictHostKeyChecking=yes", sshd().host(),
                echo}),
         255, "Host key verification failed"},
        {login({"run", "-o", "UserKnownHostsFile=" + changed, sshd().host(), echo}), 255, "has changed"},
        {login({"run", "-o", "UserKnownHostsFile=" + changed, "-o", "StrictHostKeyChecking=no", sshd().host(),
                echo}),
         0, ""},
    };
    for (const auto &c : cases) {
        const auto result = telvane(c.args, {.environment = {{"HOME", home.string()}}});
        EXPECT_EQ(c.status, result.status) << c.args[c.args.size() - 2] << ": " << result.err;
        EXPECT_EQ(c.status == 0 ? "in\n" : "", result.out);
        EXPECT_NE(std::string::npos, result.err.find(c.said)) << result.err;
    }
}

TEST_F(Cli, OnATerminalAsksAboutANewHostKeyAndAgainForARefusedPasswordAsSshDoes)
{
    const std::string port = std::to_string(sshd().port());
    const std::string echo = script("echo in\n");
    const std::string keyQuestion = "Are you sure you want to continue connecting (yes/no/[fingerprint])? ";
    const std::string passwordQuestion = sshd().username() + "@" + sshd().host() + "'s password: ";
    struct Case
    {
        std::string name;
        bool askKey; // else the password is typed
        std::vector<Exchange> exchanges;
        int status;
    };
    const std::vector<Case> cases = {
        {"yes", true, {{keyQuestion, "yes"}}, 0},
        {"no", true, {{keyQuestion, "no"}}, 255},
        {"fingerprint", true, {{keyQuestion, "FINGERPRINT"}}, 0},
        {"another word, then yes",
         true,
         {{keyQuestion, "sure"}, {"Please type 'yes', 'no' or the fingerprint: ", "yes"}},
         0},
        {"wrong, then right password",
         false,
         {{passwordQuestion, "wrong"}, {passwordQuestion, sshd().password()}},
         0},
        {"three wrong passwords",
         false,
         {{passwordQuestion, "wrong1"}, {passwordQuestion, "wrong2"}, {passwordQuestion, "wrong3"}},
         253},
    };
    for (const auto &c : cases) {
        const std::string knownHosts = (home / ("known_hosts_" + std::to_string(&c - cases.data()))).string();
        const auto result = c.askKey
                                ? onTerminal(login({"run", "-o", "StrictHostKeyChecking=ask", "-o",
                                                    "UserKnownHostsFile=" + knownHosts, sshd().host(), echo}),
                                             c.exchanges)
                                : onTerminal({"run", "-p", port, "-l", sshd().username(), "-o",
                                              "StrictHostKeyChecking=no", sshd().host(), echo},
                                             c.exchanges);
        EXPECT_EQ(std::to_string(c.exchanges.size()), result.err) << c.name << ": answers given\n"
                                                                  << result.out;
        EXPECT_EQ(c.status, result.status) << c.name << ":\n" << result.out;
        EXPECT_EQ(c.status == 0, result.out.find("in\r\n") != std::string::npos) << c.name << result.out;
        // As ssh: a key accepted on the terminal is remembered, one refused is not.
        if (c.askKey)
            EXPECT_EQ(c.status == 0, fs::exists(knownHosts) && fs::file_size(knownHosts) > 0) << c.name;
        else
            EXPECT_EQ(c.exchanges.size() > 1,
                      result.out.find("Permission denied, please try again.") != std::string::npos)
                << c.name << result.out;
        EXPECT_EQ(std::string::npos, result.out.find(sshd().password())) << c.name << ": the password echoed";
    }
}
