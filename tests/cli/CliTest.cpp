// `telvane`, one host or several, as a user runs it: the real binary against the real loopback sshd, reached
// as 127.0.0.1, ::1 and localhost, beside a closed port and an account that sshd refuses.
#include "cli/CliFixture.h"
#include "support/Daemon.h"

#include <nlohmann/json.hpp>
#include <sstream>

// Refused by the server, and so logged about: it must vanish like the real one.
const std::string kWrongPassword = "wrong#Pw-7d1f0c";

// One host: its own status, or one line naming host, port and cause. Several (-H): 0, 1 or 3, each host's
// lines whole after its label, and a summary. diagnose: the transcript; ssh's spellings of hosts and keys,
// and keys tried first as ssh does (-i, an alias's IdentityFile, none with PubkeyAuthentication=no); given
// and stored credentials.
TEST_F(Cli, EveryWayARunEndsHasItsStatusAndItsWords)
{
    telvane::test::SshdHarness keys(telvane::test::SshdHarness::Server::PublicKey);
    TELVANE_REQUIRE_COMPONENT(keys.start(), keys.reason());
    const std::string user = sshd().username(), refused = "nobody@127.0.0.1:" + port; // not in AllowUsers
    const std::string empty = write("empty", ""), wrong = write("wrong", kWrongPassword + "\n");
    const std::string readable = write("readable", sshd().password() + "\n");
    fs::permissions(readable, fs::perms::others_read, fs::perm_options::add);
    const std::string key = keys.makeClientKey("id"), keysAt = "127.0.0.1:" + std::to_string(keys.port());
    fs::create_directories(home / ".ssh");
    write(".ssh/config", "Host cellar\n  HostName 127.0.0.1\n  Port " + port + "\n  User " + user +
                             "\nHost vault\n  HostName 127.0.0.1\n  Port " + std::to_string(keys.port()) +
                             "\n  IdentityFile " + key + "\n");
    const std::string changed =
        "UserKnownHostsFile=" + write("changed", "[127.0.0.1]:" + port +
                                                     " ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIL98rV3YlPQ7"
                                                     "pBBYFvr4PWI8gs5M7zXeSgbjOPz+RB3d\n");
    const std::string diagnose = "Connecting over SSH to 127.0.0.1 on port " + port + ": ";
    const struct
    {
        std::vector<std::string> args;
        int status;
        std::vector<std::string> out, err; // each once: lines of standard output, pieces of standard error
        std::string script = "echo in";
    } rows[] = {
        // Arguments in order; removed lines named once; verbose, yet never the password.
        {login(passwordFile, {good[0]}, {"run", "-v", "-a", "WHO=__X__", "-a", "X=world"}),
         0,
         {"hello world"},
         {"CRLF line ends", " line 3 holds \"#\"", " line 6 holds \"#\""},
         "#!/bin/sh\r\necho hello __WHO__\r\necho gone # why\r\n# a comment\r\n  # more\r\nx=${#y}\r\n\r# "
         "cr\r\ntrue\r\n"},
        {login(passwordFile, {good[0]}),
         3,
         {"out"},
         {},
         "echo out; echo err >&2; exit 3"}, // its stderr is not ours
        // A refused pair is not kept, --remember or not.
        {login(wrong, {good[0]}, {"run", "--remember"}),
         253,
         {},
         {"127.0.0.1 port " + port + ": authentication failed"}},
        {{"run", good[0]}, 254, {}, {"port " + port + ": no credentials"}},
        {login(passwordFile, {closed}), 255, {}, {"connection failed: ", "Connection refused"}},
        {login(empty, {good[0]}), 253, {}, {"the password file " + empty + " was empty"}},
        {login(passwordFile, good),
         0,
         {good[0] + ": one", good[1] + ": two", good[2] + ": one"},
         {"telvane: " + good[1] + ": exited 0 (", "3 hosts: 3 succeeded, 0 script(s) failed"},
         "echo one; printf two"},
        {login(passwordFile, {good[0], good[1]}),
         1,
         {good[0] + ": x"},
         {good[1] + ": exited 5", "2 script(s) failed"},
         "echo x; exit 5"},
        {login(passwordFile, {good[0], closed, refused}),
         3,
         {good[0] + ": in"},
         {closed + ": connection failed: connect to 127.0.0.1 port " + std::to_string(closedPort.port()),
          refused + ": authentication failed: the server refused", "2 not reached or refused"}},
        // Without colour a finding keeps its asterisks; the closing line starts a line of its own.
        {login(passwordFile, {good[0]}, {"diagnose"}),
         2,
         {diagnose + "OK", "*hot*", "tail", "Diagnostics terminated with error: 2"},
         {},
         "echo '*hot*'; printf tail; exit 2"},
        {login(passwordFile, {good[0]}, {"diagnose", "--color=always"}),
         0,
         {diagnose + "OK", "\033[31mhot\n\033[0mDiagnostics completed."},
         {},
         "echo '*hot*'"},
        {login(wrong, {good[0]}, {"diagnose"}),
         253,
         {diagnose + "*invalid credentials*", "Diagnostics completed."},
         {"authentication failed"}},
        {login(passwordFile, {good[0], closed}, {"diagnose"}),
         3,
         {good[0] + ": " + diagnose + "OK", good[0] + ": *hot*", good[0] + ": Diagnostics completed.",
          closed + ": Connecting over SSH to 127.0.0.1 on port " + std::to_string(closedPort.port()) +
              ": *failed*"},
         {"1 not reached or refused"},
         "echo '*hot*'"},
        // ssh's spellings: what is written with the host wins over -l and -p; aliases; host-key checking.
        {{"run", "-l", "nobody", "-p", "1", "--password-file", passwordFile, user + "@127.0.0.1:" + port},
         0,
         {"in"},
         {}},
        {{"run", "--password-file", passwordFile, "cellar"}, 0, {"in"}, {}},
        {login(passwordFile, {good[0]},
               {"run", "-o", "StrictHostKeyChecking=yes", "-o", "UserKnownHostsFile=/dev/null"}),
         255,
         {},
         {"Host key verification failed"}},
        {login(passwordFile, {good[0]}, {"run", "-o", changed}), 255, {}, {"has changed"}},
        {login(passwordFile, {good[0]}, {"run", "-o", changed, "-o", "StrictHostKeyChecking=no"}),
         0,
         {"in"},
         {}},
        {{"run", "-l", user, "-i", key, keysAt}, 0, {"in"}, {}},
        {{"run", "-l", user, "vault"}, 0, {"in"}, {}},
        {{"run", "-l", user, "-i", key, "-o", "PubkeyAuthentication=no", keysAt},
         253,
         {},
         {"authentication failed"}},
        // A pair given whole comes before the stored one and never deletes it; --remember keeps it once the
        // server took it; without it nothing is kept.
        {login(passwordFile, {good[0]}, {"run", "--remember"}), 0, {"in"}, {}},
        {login(wrong, {good[0]}), 253, {}, {"authentication failed"}},
        {{"run", good[0]}, 0, {"in"}, {}},
        {{"forget", "127.0.0.1"}, 0, {}, {}, ""},
        {{"forget", "127.0.0.1"}, 1, {}, {"no stored credentials for 127.0.0.1"}, ""},
        {login(passwordFile, {good[0]}), 0, {"in"}, {}},
        {{"forget", "127.0.0.1"}, 1, {}, {"no stored credentials"}, ""},
        // A password file that others can read still works, with a warning.
        {login(readable, {good[0]}), 0, {"in"}, {"readable by others"}},
    };
    for (auto row : rows) {
        if (!row.script.empty())
            row.args.push_back(script(row.script));
        const auto result = telvane(row.args);
        EXPECT_EQ(row.status, result.status) << testing::PrintToString(row.args) << ": " << result.err;
        for (const auto &line : row.out)
            EXPECT_EQ(1u, occurrences(result.out, line + "\n")) << line << " in\n" << result.out;
        for (const auto &piece : row.err)
            EXPECT_EQ(1u, occurrences(result.err, piece)) << piece << " in\n" << result.err;
        EXPECT_EQ(row.err.empty() ? "" : result.err, result.err);
        EXPECT_EQ(row.status > 250 ? 1u : occurrences(result.err, "\n"), occurrences(result.err, "\n"))
            << "one line";
        EXPECT_EQ(npos, (result.out + result.err).find(sshd().password()));
        EXPECT_EQ(npos, (result.out + result.err).find(kWrongPassword));
    }
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write,
              fs::status(home / "data" / "telvane" / "keyring").permissions());

    // A keyring that cannot be written: the run keeps its status, and the user learns that nothing was kept.
    const auto unkept = telvane(login(passwordFile, {good[0]}, {"run", "--remember"}, "echo in"),
                                {.environment = {{"XDG_DATA_HOME", passwordFile + "/data"}}});
    EXPECT_EQ(0, unkept.status) << unkept.err;
    EXPECT_NE(npos, unkept.err.find("--remember: the credentials for " + good[0] +
                                    " could not be kept in the file keyring: file keyring: cannot create"))
        << unkept.err;
}

TEST_F(Cli, BadInputIsRefusedWithStatusTwoInOneLineAndNothingSent)
{
    const std::string touch = script("echo in\n"), home = this->home.string();
    const std::string latin1 = script("echo Gr\xfc\xdf"
                                      "e\n");
    const std::string comments = script("#!/bin/sh\n# only comments\n\n  # and blanks\n");
    const std::string host = sshd().host();
    const struct
    {
        std::vector<std::string> args;
        std::string message;
        std::map<std::string, std::string> environment = {};
    } rows[] = {
        {{"run", "--bogus", host, touch}, "--bogus"},
        {{"run"}, "HOST is required"},
        {{"run", host, latin1}, "not UTF-8 text or holds a NUL byte (line 1); nothing was sent"},
        {{"run", "-o", "Compression=yes", host, touch}, "-o Compression=yes: unsupported option"},
        {{"run", "-o", "StrictHostKeyChecking=maybe", host, touch}, "expected accept-new, yes, no or ask"},
        {{"run", "-a", "NOEQUALS", host, touch}, "--arg NOEQUALS: expected KEY=VALUE"},
        {{"run", "--password-file", "/nonexistent/pw", host, touch}, "/nonexistent/pw"},
        {{"run", host, home}, "the script " + home + " is a directory"},
        {{"run", host, comments}, "has nothing to run: every line is blank or holds \"#\""},
        {{"run", "-a", "C=#ff0000", host, touch}, "--arg C: the value holds \"#\""},
        {{"run", host, touch},
         "TELVANE_KEYRING: unknown keyring 'fiel' (use secret-service, file or memory)",
         {{"TELVANE_KEYRING", "fiel"}}},
        {{"run", "-H", "host:0", touch}, "bad port \"0\""},
        {{"run", "--hosts", "/nonexistent/hosts", touch}, "cannot read the hosts file /nonexistent/hosts"},
        {{"run", "-H", "a", "--json", "--output-dir", "/tmp", touch}, "excludes"},
    };
    for (const auto &row : rows) {
        const auto result = telvane(row.args, {.environment = row.environment});
        EXPECT_EQ(2, result.status) << row.message << ": " << result.err;
        EXPECT_NE(npos, result.err.find(row.message)) << result.err;
        EXPECT_EQ(1u, occurrences(result.err, "\n")) << "one line: " << result.err;
    }
    // (Status 2 is the proof that nothing was sent: these rows have no credentials, so a run would end 254.)
}

TEST_F(Cli, HostsFileOutputDirectoryAndJsonRecords)
{
    const std::string hosts =
        write("hosts", "# the rack\n\n  " + good[0] + "\n" + good[1] + "  \n" + closed + "\n");
    const fs::path dir = home / "out";
    fs::create_directories(dir);
    fs::create_symlink("/dev/full", dir / good[2]); // a full disk for one host
    const auto files =
        telvane(login(passwordFile, {}, {"run", "--hosts", hosts, "--output-dir", dir, "-H", good[2]},
                      "echo $SSH_CONNECTION | cut -d' ' -f3"));
    EXPECT_EQ(3, files.status) << files.err;
    EXPECT_NE(npos, files.err.find(good[2] + ": cannot write " + (dir / good[2]).string() +
                                   ": No space left on device"))
        << files.err;
    EXPECT_EQ("", files.out);
    EXPECT_EQ("127.0.0.1\n", telvane::test::readFile(dir / good[0]));
    EXPECT_EQ("::1\n", telvane::test::readFile(dir / good[1]));

    // Valid UTF-8 stays text; anything else is base64.
    const auto json =
        telvane(login(passwordFile, {}, {"run", "--hosts", hosts, "--json", "-H", good[0], "-H", good[2]},
                      "printf 'gr\\303\\274n\\n'"));
    EXPECT_EQ(3, json.status) << json.err;
    std::map<std::string, nlohmann::json> records;
    std::istringstream lines(json.out);
    for (std::string line; std::getline(lines, line);) {
        const auto record = nlohmann::json::parse(line, nullptr, false);
        ASSERT_FALSE(record.is_discarded()) << line;
        records[record["label"].get<std::string>()] = record;
    }
    ASSERT_EQ(5u, records.size()) << json.out; // the repeated host is there twice, its label marked
    const auto expected = nlohmann::json::parse(
        R"({"host": "127.0.0.1", "port": )" + port +
        R"(, "status": 0, "error": null, "output": "gr\u00fcn\n", "encoding": "utf-8"})");
    for (const auto &[key, value] : expected.items())
        EXPECT_EQ(value, records.at(good[0])[key]) << key;
    EXPECT_EQ('Z', records.at(good[0])["start"].get<std::string>().back());
    EXPECT_TRUE(records.count(good[0] + "#2"));
    EXPECT_TRUE(records.at(closed)["status"].is_null());
    EXPECT_EQ(R"({"code":1,"name":"connection")", records.at(closed)["error"].dump().substr(0, 29));

    // One host, too: its record, and its own status.
    const auto binary =
        telvane(login(passwordFile, {good[0]}, {"run", "--json"}, "printf 'a\\377b'; exit 4"));
    EXPECT_EQ(4, binary.status);
    const auto record = nlohmann::json::parse(binary.out);
    EXPECT_EQ("base64", record["encoding"]);
    EXPECT_EQ("Yf9i", record["output"]);
}

TEST_F(Cli, StandardOutputErrorsAreRetriedOrReportedNeverLost)
{
    const auto command = [&](const std::vector<std::string> &hosts) {
        std::string line = TELVANE_CLI_PATH;
        for (const auto &arg : login(passwordFile, hosts))
            line += " '" + arg + "'";
        return line + " -";
    };
    const std::string one = command({good[0]}), several = command({good[0], good[1]});
    const std::string numbers = telvane::test::toolOutput("seq 1 200000") + "\n";
    const struct
    {
        std::string command; // for bash
        ProcessOptions options;
        int status;
        std::string out, err;
    } rows[] = {
        {one + " >/dev/full",
         {.input = "echo hi\n"},
         252,
         "",
         "telvane: cannot write to standard output: No space left on device\n"},
        // As a program killed by SIGPIPE: status 141, and nothing said.
        {one + " | head -1; exit ${PIPESTATUS[0]}", {.input = "seq 1 5000000\n"}, 141, "1\n", ""},
        // Every run ends, also that of a host that writes nothing more.
        {several + " 2>/dev/null | head -3 >/dev/null; exit ${PIPESTATUS[0]}",
         {.input = "echo $SSH_CONNECTION | grep -q '^::1' && exec sleep 30; exec yes\n",
          .timeout = std::chrono::seconds(20)},
         141,
         "",
         ""},
        // A non-blocking pipe read late.
        {one,
         {.input = "seq 1 200000\n", .nonBlockingOutput = true, .readDelay = std::chrono::milliseconds(700)},
         0,
         numbers,
         ""},
    };
    for (auto row : rows) {
        row.options.environment.emplace("TELVANE_KEYRING", "memory");
        const auto result = runProcess({"/bin/bash", "-c", row.command}, row.options);
        EXPECT_EQ(row.status, result.status) << row.command << ": " << result.err;
        EXPECT_TRUE(row.out == result.out) << row.command << ": " << result.out.size() << " bytes";
        EXPECT_EQ(row.err, result.err) << row.command;
    }
}

// Ctrl-C or SIGTERM ends every run in whatever state it is, the remote scripts too; with several hosts the
// summary counts what was cut. (The guard on the process is longer than a stop may take, shorter than the
// connection's time-out.)
TEST_F(Cli, InterruptEndsEveryRunInEveryStateAndTheRemoteScripts)
{
    telvane::test::LoopbackSocket silent(4); // accepts and never says a word: the handshake waits
    fs::create_directories(home / "drop");   // where the test account's scripts leave their process ids
    fs::permissions(home, fs::perms::others_exec, fs::perm_options::add);
    fs::permissions(home / "drop", fs::perms::all);
    const std::string silentHost = "127.0.0.1:" + std::to_string(silent.port()),
                      pids = home / "drop" / "pids";
    const std::string streaming = "echo $$ >> " + pids + "; while :; do echo x; sleep 0.05; done\n";
    const std::string flooding = "echo $$ >> " + pids + "; exec yes flood\n";
    const struct
    {
        std::vector<std::string> hosts;
        std::string script;
        int signal;
        std::chrono::seconds readDelay;
        std::string said; // on standard error
    } rows[] = {
        {{silentHost}, streaming, SIGINT, {}, "telvane: interrupted\n"},
        {{good[0]}, flooding, SIGTERM, std::chrono::seconds(30), "telvane: interrupted\n"},
        {{good[0], good[1], silentHost}, streaming, SIGINT, {}, good[1] + ": stopped ("},
        // At most two at once: the third never starts.
        {{good[0], good[1], closed}, flooding, SIGTERM, std::chrono::seconds(30), "3 stopped or not started"},
    };
    for (const auto &row : rows) {
        fs::remove(pids);
        const auto result =
            telvane(login(passwordFile, row.hosts, {"run", "-t", "30", "--parallel", "2"}, row.script),
                    {.timeout = std::chrono::seconds(15),
                     .interruptAfter = std::chrono::milliseconds(1500),
                     .interruptSignal = row.signal,
                     .readDelay = row.readDelay});
        EXPECT_EQ(128 + row.signal, result.status) << row.script << result.err;
        EXPECT_NE(npos, result.err.find(row.said)) << result.err;
        std::ifstream in(pids);
        for (pid_t pid; in >> pid;)
            EXPECT_TRUE(telvane::test::waitUntil([&] { return kill(pid, 0) != 0; }, std::chrono::seconds(3)))
                << "the remote script is still running";
    }
}

// As ssh: the host key, the password again when refused, once for all hosts, and a server's other questions
// (a one-time code), never echoed; a Ctrl-C at a question ends the run.
TEST_F(Cli, OnATerminalAsksAsSshDoesAndOnceForEveryHost)
{
    telvane::test::SshdHarness codes(telvane::test::SshdHarness::Server::OneTimeCode);
    TELVANE_REQUIRE_COMPONENT(codes.start(), codes.reason());
    const std::string echo = script("echo in\n"), code = codes.oneTimeCode();
    const std::string keyQuestion = "Are you sure you want to continue connecting (yes/no/[fingerprint])? ";
    const std::string passwordQuestion = sshd().username() + "@" + sshd().host() + "'s password: ";
    const auto typed = std::vector<std::string>{
        "run", "-p", port, "-l", sshd().username(), "-o", "StrictHostKeyChecking=no", sshd().host(), echo};
    std::vector<std::string> several = {"run",   "--remember", "-H",    good[0], "-H",
                                        good[1], "-H",         good[2], echo};
    const struct
    {
        std::string name;
        std::vector<std::string> args; // empty: the host-key question
        std::vector<Exchange> exchanges;
        int status;
        std::size_t ran;
    } rows[] = {
        {"yes", {}, {{keyQuestion, "yes"}}, 0, 1},
        {"no", {}, {{keyQuestion, "no"}}, 255, 0},
        {"another word, then the fingerprint",
         {},
         {{keyQuestion, "sure"}, {"Please type 'yes', 'no' or the fingerprint: ", "FINGERPRINT"}},
         0,
         1},
        {"wrong, then right password",
         typed,
         {{passwordQuestion, "wrong"}, {passwordQuestion, sshd().password()}},
         0,
         1},
        {"Ctrl-C at a question", typed, {{passwordQuestion, "\x03"}}, 130, 0},
        {"three wrong passwords",
         typed,
         {{passwordQuestion, "wrong1"}, {passwordQuestion, "wrong2"}, {passwordQuestion, "wrong3"}},
         253,
         0},
        // The host written USER@HOST may be the first to ask, for the password alone: answers in any order.
        {"one question for every host",
         several,
         {{"Username (for every host", sshd().username()}, {"Password of", sshd().password()}},
         0,
         3},
        {"a one-time code",
         login(passwordFile, {"127.0.0.1:" + std::to_string(codes.port())}, {"run"}, "echo in"),
         {{"One-time password", code}},
         0,
         1},
    };
    for (const auto &row : rows) {
        const std::string knownHosts = (home / ("known_hosts_" + row.name)).string();
        const auto result = onTerminal(!row.args.empty() ? row.args
                                                         : login(passwordFile, {good[0]},
                                                                 {"run", "-o", "StrictHostKeyChecking=ask",
                                                                  "-o", "UserKnownHostsFile=" + knownHosts},
                                                                 "echo in"),
                                       row.exchanges);
        EXPECT_EQ("0", result.err) << row.name << ": questions never asked\n" << result.out;
        EXPECT_EQ(row.status, result.status) << row.name << ":\n" << result.out;
        EXPECT_EQ(row.ran, occurrences(result.out, "in\r\n")) << row.name << result.out;
        EXPECT_EQ(npos, result.out.find(sshd().password())) << row.name << ": the password echoed";
        EXPECT_EQ(npos, result.out.find(code)) << row.name << ": the code echoed";
        // As ssh: a key accepted on the terminal is remembered, one refused is not.
        EXPECT_EQ(row.args.empty() && row.status == 0,
                  fs::exists(knownHosts) && fs::file_size(knownHosts) > 0)
            << row.name;
    }
    // Each host's pair was kept under its own name: no user, no password, no terminal, and all succeed.
    several.erase(several.begin() + 1);
    EXPECT_EQ(0, telvane(several).status);
}
