// `telvane` on one host, as a user runs it: the real binary against the real loopback sshd.
#include "cli/CliFixture.h"

#include <sys/stat.h>
#include <thread>

constexpr auto npos = std::string::npos;
// Refused by the server, and so logged about: it must vanish like the real one.
const std::string kWrongPassword = "wrong#Pw-7d1f0c";

TEST_F(CliTest, RunSubstitutesArgumentsInOrderNamesRemovedLinesOnceAndPassesTheStatus)
{
    const auto ok = telvane(login({"run", "-v", "-a", "WHO=__X__", "-a", "X=world", sshd().host(),
                                   script("#!/bin/sh\r\necho hello __WHO__\r\necho gone # why\r\n"
                                          "# a comment\r\n  # another\r\nx=${#y}\r\n\r# cr\r\ntrue\r\n")}));
    EXPECT_EQ(0, ok.status) << ok.err;
    EXPECT_EQ("hello world\n", ok.out);
    EXPECT_EQ(1u, occurrences(ok.err, "CRLF line ends")) << ok.err;
    EXPECT_EQ(2u, occurrences(ok.err, "holds \"#\", so the whole line is removed")) << ok.err;
    EXPECT_EQ(1u, occurrences(ok.err, " line 3 holds")) << ok.err;
    EXPECT_EQ(1u, occurrences(ok.err, " line 6 holds")) << ok.err;
    EXPECT_EQ(npos, ok.err.find(sshd().password())) << "verbose, yet never the password";

    const auto three =
        telvane(login({"run", sshd().host(), "-"}), {.input = "echo out; echo err >&2; exit 3\n"});
    EXPECT_EQ(3, three.status) << three.err;
    EXPECT_EQ("out\n", three.out); // standard error of the script is not ours
    EXPECT_EQ("", three.err);
}

TEST_F(CliTest, EachFailureHasItsStatusAndOneLineNamingHostPortAndCause)
{
    const std::string echo = script("echo hi\n"), empty = write("empty", "");
    telvane::test::LoopbackSocket closed;
    const std::string closedPort = std::to_string(closed.port());
    const auto as = [&](const std::string &port, const std::string &file) {
        return std::vector<std::string>{"run", "-p", port, "-l", sshd().username(), "--password-file", file};
    };
    auto refused = as(port, write("wrong", kWrongPassword + "\n"));
    refused.push_back("--remember");
    const struct
    {
        std::vector<std::string> args;
        int status;
        std::vector<std::string> said;
    } rows[] = {
        {refused, 253, {"127.0.0.1 port " + port + ": authentication failed"}},
        // After the refused --remember: nothing was kept, and there is no terminal to ask on.
        {{"run", "-p", port}, 254, {"no credentials"}},
        {as(closedPort, passwordFile),
         255,
         {"port " + closedPort + ": connection failed: ", "Connection refused"}},
        {as(port, empty), 253, {"the password file " + empty + " was empty"}},
    };
    for (auto row : rows) {
        row.args.insert(row.args.end(), {sshd().host(), echo});
        const auto result = telvane(row.args);
        EXPECT_EQ(row.status, result.status) << result.err;
        for (const auto &piece : row.said)
            EXPECT_NE(npos, result.err.find(piece)) << result.err;
        EXPECT_EQ(1u, occurrences(result.err, "\n")) << result.err;
        EXPECT_EQ(npos, result.err.find(sshd().password()));
        EXPECT_EQ(npos, result.err.find(kWrongPassword));
    }
}

TEST_F(CliTest, BadInputIsRefusedWithStatusTwoInOneLineAndNothingSent)
{
    const std::string marker = drop("ran"), touch = script("touch " + marker + "\n");
    chmod(touch.c_str(), 0644);
    const std::string latin1 = script("echo Gr\xfc\xdf"
                                      "e\n"),
                      home = this->home.string();
    const std::string comments = script("#!/bin/sh\n# only comments\n\n  # and blanks\n");
    const std::string host = sshd().host();
    const struct
    {
        std::vector<std::string> args;
        std::string message;
        std::map<std::string, std::string> environment = {};
    } rows[] = {
        {{"run", "--bogus", host, touch}, "--bogus"},
        {{"run"}, "HOST"},
        {{"frobnicate", host}, "unknown command frobnicate"},
        {{"run", "-p", port, host, "/nonexistent/script"}, "cannot read the script /nonexistent/script"},
        {{"run", "-p", port, host, latin1}, "not UTF-8 text or holds a NUL byte (line 1); nothing was sent"},
        {{"run", "-o", "Compression=yes", host, touch}, "-o Compression=yes: unsupported option"},
        {{"run", "-o", "StrictHostKeyChecking=maybe", host, touch}, "expected accept-new, yes, no or ask"},
        {{"run", "@" + host, touch}, "has an empty username"},
        {{"run", "-p", port, "-a", "NOEQUALS", host, touch}, "--arg NOEQUALS: expected KEY=VALUE"},
        {{"run", "-p", "70000", host, touch}, "70000"},
        {{"run", "-p", "ssh", host, touch}, "ssh"},
        {{"run", "-t", "-1", "-p", port, host, touch}, "-1"},
        {{"run", "-t", "abc", "-p", port, host, touch},
         "--timeout: expected a positive number of seconds, got 'abc'"},
        {{"run", "-t", "nan", "-p", port, host, touch}, "got 'nan'"},
        {{"run", "-p", port, "--password-file", "/nonexistent/pw", host, touch}, "/nonexistent/pw"},
        {{"run", "-p", port, "--password-file", home, host, touch},
         "the password file " + home + " is a directory"},
        {{"run", "-p", port, host, home}, "the script " + home + " is a directory"},
        {{"run", "-p", port, "", touch}, "the host is empty"},
        {{"run", "-p", port, host, comments}, "has nothing to run: every line is blank or holds \"#\""},
        {{"run", "-p", port, "-a", "C=#ff0000", host, touch}, "--arg C: the value holds \"#\""},
        {{"run", "-p", port, host, touch},
         "TELVANE_KEYRING: unknown keyring 'fiel' (use secret-service, file or memory)",
         {{"TELVANE_KEYRING", "fiel"}}},
        {{"diagnose", "--color=sometimes", host, touch}, "sometimes"},
        {{"run", "-H", "[::1", touch}, "[IPV6]"},
        {{"run", "-H", "host:0", touch}, "bad port \"0\""},
        {{"run", "-H", "@host", touch}, "empty username"},
        {{"run", "--hosts", "/nonexistent/hosts", touch}, "cannot read the hosts file /nonexistent/hosts"},
        {{"run", "--hosts", "/dev/null", touch}, "no hosts"},
        {{"run", "-H", "a", "--json", "--output-dir", "/tmp", touch}, "excludes"},
        {{"run", "-H", "a", "--parallel", "0", touch}, "--parallel"},
    };
    for (const auto &row : rows) {
        const auto result = telvane(row.args, {.environment = row.environment});
        EXPECT_EQ(2, result.status) << row.message << ": " << result.err;
        EXPECT_NE(npos, result.err.find(row.message)) << result.err;
        EXPECT_EQ(1u, occurrences(result.err, "\n")) << "one line: " << result.err;
    }
    // (Status 2 is the proof that nothing was sent: these rows have no credentials, so a run would end 254.)
    // The same script, given properly, does leave its mark; a password file that others can read still
    // works, with a warning.
    fs::permissions(passwordFile, fs::perms::others_read, fs::perm_options::add);
    const auto warned = telvane(login({"run", host, touch}));
    EXPECT_EQ(0, warned.status) << warned.err;
    EXPECT_TRUE(fs::exists(marker));
    EXPECT_NE(npos, warned.err.find("readable by others")) << warned.err;
}

TEST_F(CliTest, RememberKeepsThePairInTheFileKeyringAndForgetRemovesIt)
{
    const std::string echo = script("echo remembered\n");
    ASSERT_EQ(0, telvane(login({"run", "--remember", sshd().host(), echo})).status);
    const fs::path keyring = home / "data" / "telvane" / "keyring";
    ASSERT_TRUE(fs::exists(keyring));
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::status(keyring).permissions());

    const auto stored = telvane({"run", "-p", port, sshd().host(), echo});
    EXPECT_EQ(0, stored.status) << stored.err;
    EXPECT_EQ("remembered\n", stored.out);
    EXPECT_EQ(0, telvane({"forget", sshd().host()}).status);
    const auto again = telvane({"forget", sshd().host()});
    EXPECT_EQ(1, again.status);
    EXPECT_NE(npos, again.err.find("no stored credentials for 127.0.0.1"));
    EXPECT_EQ(254, telvane({"run", "-p", port, sshd().host(), echo}).status);

    // A keyring that cannot be written: the run keeps its status, and the user learns that nothing was kept.
    const auto unkept = telvane(login({"run", "--remember", sshd().host(), echo}),
                                {.environment = {{"XDG_DATA_HOME", passwordFile + "/data"}}});
    EXPECT_EQ(0, unkept.status) << unkept.err;
    EXPECT_NE(npos, unkept.err.find("--remember: the credentials for 127.0.0.1 could not be kept in the file "
                                    "keyring: file keyring: cannot create"))
        << unkept.err;

    // Without --remember nothing is kept.
    ASSERT_EQ(0, telvane(login({"run", sshd().host(), echo})).status);
    EXPECT_EQ(1, telvane({"forget", sshd().host()}).status);
}

TEST_F(CliTest, DiagnoseShowsTheTranscriptAndExitsZeroOnlyForStatusZero)
{
    const auto ok = telvane(login({"diagnose", sshd().host(), script("echo hello\n")}));
    EXPECT_EQ(0, ok.status) << ok.err;
    EXPECT_EQ("Connecting over SSH to 127.0.0.1 on port " + port + ": OK\nhello\nDiagnostics completed.\n",
              ok.out);

    // Without colour a finding keeps its asterisks; the closing line starts a line of its own.
    const std::string finding = script("echo '*disk full*'\nprintf tail\nexit 2\n");
    for (const auto &[colour, shown] :
         std::map<std::string, std::string>{{"--color=auto", "*disk full*\ntail\n"},
                                            {"--color=never", "*disk full*\ntail\n"},
                                            {"--color=always", "\033[31mdisk full\n\033[0mtail\n"}}) {
        const auto marked = telvane(login({"diagnose", colour, sshd().host(), finding}));
        EXPECT_EQ(2, marked.status);
        EXPECT_NE(npos, marked.out.find(shown + "Diagnostics terminated with error: 2\n"))
            << colour << marked.out;
    }

    const auto refused =
        telvane({"diagnose", "-v", "-p", port, "-l", sshd().username(), "--password-file",
                 write("wrong", kWrongPassword + "\n"), sshd().host(), script("echo hello\n")});
    EXPECT_EQ(253, refused.status);
    EXPECT_NE(npos, refused.out.find(": *invalid credentials*\nDiagnostics completed.\n")) << refused.out;
    EXPECT_EQ(npos, (refused.out + refused.err).find(kWrongPassword)) << refused.err;
}

TEST_F(CliTest, StandardOutputErrorsAreRetriedOrReportedNeverLost)
{
    std::vector<std::string> direct = login({"run", sshd().host(), "-"});
    std::string run = TELVANE_CLI_PATH;
    for (const auto &arg : direct)
        run += " '" + arg + "'";
    // Its summary on standard error is not what this row is about.
    const std::string fleet = std::string(TELVANE_CLI_PATH) + " run -l " + sshd().username() +
                              " --password-file " + passwordFile + " -H 127.0.0.1:" + port +
                              " -H [::1]:" + port + " - 2>/dev/null";
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
        {"a reader that closes the pipe on several hosts",
         {"/bin/bash", "-c", fleet + " | head -3 >/dev/null; exit ${PIPESTATUS[0]}"},
         {.input = "yes\n", .timeout = std::chrono::seconds(10)},
         141,
         "",
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

TEST_F(CliTest, InterruptEndsTheRunInEveryStateAndStopsTheRemoteScript)
{
    telvane::test::LoopbackSocket silent(4); // accepts and never says a word: the handshake waits
    const std::string pidFile = drop("pid");
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
        const auto result = telvane({"run", "-p", std::to_string(row.port), "-l", sshd().username(),
                                     "--password-file", passwordFile, sshd().host(), row.script},
                                    {.timeout = std::chrono::seconds(40),
                                     .interruptAfter = std::chrono::milliseconds(1000),
                                     .interruptSignal = row.signal,
                                     .readDelay = row.readDelay});
        EXPECT_EQ(128 + row.signal, result.status) << row.state << ": " << result.err;
        EXPECT_LT(result.seconds, 2.0) << row.state << ": the stop took too long";
        EXPECT_NE(npos, result.err.find("interrupted")) << row.state << ": " << result.err;
        if (row.port != sshd().port())
            continue;
        // The remote script ends too, within a moment.
        std::ifstream in(pidFile);
        pid_t pid = 0;
        ASSERT_TRUE(in >> pid) << row.state << ": the script did not start";
        EXPECT_TRUE(telvane::test::waitUntil([&] { return kill(pid, 0) != 0; }, std::chrono::seconds(3)))
            << row.state << ": the remote script is still running";
    }
}

TEST_F(CliTest, TakesSshsSpellingsOfHostsAndHostKeyChecking)
{
    fs::create_directories(home / ".ssh");
    write(".ssh/config", "Host cellar\n  HostName " + sshd().host() + "\n  Port " + port + "\n  User " +
                             sshd().username() + "\n");
    const std::string changed =
        write("changed_hosts", "[" + sshd().host() + "]:" + port +
                                   " ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIL98rV3YlPQ7pBBYFv"
                                   "r4PWI8gs5M7zXeSgbjOPz+RB3d\n");
    const std::string fresh = (home / "fresh_hosts").string(), echo = script("echo in\n");
    const struct
    {
        std::vector<std::string> args;
        int status;
        std::string said; // on standard error
    } rows[] = {
        {{"run", "-p", port, "--password-file", passwordFile, sshd().username() + "@" + sshd().host(), echo},
         0,
         ""},
        {{"run", "--password-file", passwordFile, "cellar", echo}, 0, ""},
        {{"run", "-l", sshd().username(), "--password-file", passwordFile, sshd().host() + ":" + port, echo},
         0,
         ""},
        {login({"run", "-o", "UserKnownHostsFile=" + fresh, "-o", "StrictHostKeyChecking=yes", sshd().host(),
                echo}),
         255, "Host key verification failed"},
        {login({"run", "-o", "UserKnownHostsFile=" + changed, sshd().host(), echo}), 255, "has changed"},
        {login({"run", "-o", "UserKnownHostsFile=" + changed, "-o", "StrictHostKeyChecking=no", sshd().host(),
                echo}),
         0, ""},
    };
    for (const auto &row : rows) {
        const auto result = telvane(row.args);
        EXPECT_EQ(row.status, result.status) << row.args[row.args.size() - 2] << ": " << result.err;
        EXPECT_EQ(row.status == 0 ? "in\n" : "", result.out);
        EXPECT_NE(npos, result.err.find(row.said)) << result.err;
    }
}

TEST_F(CliTest, OnATerminalAsksAboutANewHostKeyAndAgainForARefusedPasswordAsSshDoes)
{
    const std::string echo = script("echo in\n");
    const std::string keyQuestion = "Are you sure you want to continue connecting (yes/no/[fingerprint])? ";
    const std::string passwordQuestion = sshd().username() + "@" + sshd().host() + "'s password: ";
    const struct
    {
        std::string name;
        bool askKey; // else the password is typed
        std::vector<Exchange> exchanges;
        int status;
    } rows[] = {
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
    for (const auto &row : rows) {
        const std::string knownHosts = (home / ("known_hosts_" + row.name)).string();
        const auto result =
            onTerminal(row.askKey ? login({"run", "-o", "StrictHostKeyChecking=ask", "-o",
                                           "UserKnownHostsFile=" + knownHosts, sshd().host(), echo})
                                  : std::vector<std::string>{"run", "-p", port, "-l", sshd().username(), "-o",
                                                             "StrictHostKeyChecking=no", sshd().host(), echo},
                       row.exchanges);
        EXPECT_EQ(std::to_string(row.exchanges.size()), result.err) << row.name << ": answers given\n"
                                                                    << result.out;
        EXPECT_EQ(row.status, result.status) << row.name << ":\n" << result.out;
        EXPECT_EQ(row.status == 0, result.out.find("in\r\n") != npos) << row.name << result.out;
        // As ssh: a key accepted on the terminal is remembered, one refused is not.
        if (row.askKey)
            EXPECT_EQ(row.status == 0, fs::exists(knownHosts) && fs::file_size(knownHosts) > 0) << row.name;
        else
            EXPECT_EQ(row.exchanges.size() > 1,
                      result.out.find("Permission denied, please try again.") != npos)
                << row.name << result.out;
        EXPECT_EQ(npos, result.out.find(sshd().password())) << row.name << ": the password echoed";
    }
}
