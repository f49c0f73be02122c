// `telvane`, one host or several, as a user runs it: the real binary against the real loopback sshd, reached
// as 127.0.0.1, ::1 and localhost, beside a closed port and an account that sshd refuses; a home, keyring and
// password file of the test's own.
#include "support/Files.h"
#include "support/Loopback.h"
#include "support/Process.h"
#include "support/SshdFixture.h"

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <pty.h>
#include <sstream>
#include <sys/wait.h>

namespace fs = std::filesystem;
using namespace telvane::test;
constexpr auto npos = std::string::npos;

inline std::size_t occurrences(const std::string &text, const std::string &word)
{
    std::size_t n = 0;
    for (auto at = text.find(word); at != npos; at = text.find(word, at + 1))
        ++n;
    return n;
}

class Cli : public SshdTest
{
protected:
    void SetUp() override
    {
        SshdTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        // Inherited by every telvane the test starts, on a terminal or not.
        setenv("HOME", home.c_str(), 1);
        setenv("XDG_DATA_HOME", (home / "data").c_str(), 1);
        setenv("TELVANE_KEYRING", "file", 1);
        setenv("NO_COLOR", "", 1);
        const std::string port = std::to_string(sshd().port()), user = sshd().username();
        vars = {{"$PORT", port},
                {"$USER", user},
                {"$PW", write("password", sshd().password() + "\n")},
                {"$V4", "127.0.0.1:" + port},
                {"$V6", "[::1]:" + port},
                {"$NAMED", user + "@localhost:" + port},
                {"$CLOSED", std::to_string(closedPort.port())}};
        vars["$LOGIN"] = "-l " + user + " --password-file " + vars["$PW"];
    }

    // @p text with each of `vars` replaced by its value (backwards, so that $AB goes before $A).
    std::string expand(std::string text) const
    {
        for (auto var = vars.rbegin(); var != vars.rend(); ++var)
            for (auto at = text.find(var->first); at != npos; at = text.find(var->first, at + 1))
                text.replace(at, var->first.size(), var->second);
        return text;
    }
    // A file only its owner may read, in the test's directory.
    std::string write(const std::string &name, const std::string &text) const
    {
        const std::string path = (home / name).string();
        std::ofstream(path) << text;
        fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
        return path;
    }
    // The shell's command line for telvane @p args, expanded, then a script of @p text when there is one.
    std::string command(const std::string &args, const std::string &text = "")
    {
        return TELVANE_CLI_PATH " " + expand(args) +
               (text.empty() ? "" : " " + write("script" + std::to_string(scripts++), text));
    }
    ProcessResult telvane(const std::string &args, const std::string &text = "", ProcessOptions options = {})
    {
        return runProcess({"/bin/bash", "-fc", "exec " + command(args, text)}, options);
    }

    // A question and its answer; "FINGERPRINT": the host key's fingerprint as the question showed it; "\x03":
    // a Ctrl-C.
    using Exchange = std::pair<std::string, std::string>;
    // telvane on a terminal of its own, answering each question once it shows, in whatever order they come.
    // The terminal's text goes to `out`; `err` counts the questions never asked.
    ProcessResult onTerminal(const std::string &args, std::vector<Exchange> exchanges)
    {
        int terminal = -1;
        const std::string line = "exec " + command(args, "echo in\n");
        const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
        if (pid == 0)
            _exit(execl("/bin/sh", "sh", "-fc", line.c_str(), nullptr));
        ProcessResult result;
        std::size_t seen = 0;
        pollfd fd{terminal, POLLIN, 0};
        // Until the end (EIO once telvane has gone), or a question nobody expected.
        for (char buffer[4096]; poll(&fd, 1, 10000) > 0;) {
            const ssize_t n = read(terminal, buffer, sizeof buffer);
            if (n <= 0)
                break;
            result.out.append(buffer, static_cast<std::size_t>(n));
            const auto it = std::find_if(exchanges.begin(), exchanges.end(), [&](const Exchange &e) {
                return result.out.find(e.first, seen) != npos;
            });
            if (it == exchanges.end())
                continue;
            seen = result.out.find(it->first, seen) + it->first.size();
            const auto from = result.out.find("SHA256:");
            std::string answer = it->second == "FINGERPRINT"
                                     ? result.out.substr(from, result.out.find('.', from) - from)
                                     : it->second;
            answer += answer == "\x03" ? "" : "\n"; // a Ctrl-C is typed alone
            exchanges.erase(it);
            [[maybe_unused]] const auto written = ::write(terminal, answer.data(), answer.size());
        }
        kill(pid, SIGKILL); // harmless once it has ended; ends it if it waits for an answer that never came
        int status = 0;
        waitpid(pid, &status, 0);
        close(terminal);
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        result.err = std::to_string(exchanges.size());
        return result;
    }

    TemporaryDirectory scratch{"telvane-cli"};
    const fs::path home = scratch.path();
    LoopbackSocket closedPort; // bound, never listening: connections are refused
    // Written into command lines and expected text: $V4, $V6 and $NAMED are the loopback sshd as 127.0.0.1,
    // ::1 and USER@localhost; $CLOSED a port that refuses; $LOGIN the account with its password file $PW.
    std::map<std::string, std::string> vars;
    int scripts = 0;
};

// Refused by the server, and so logged about: it must vanish like the real one.
const std::string kWrongPassword = "wrong#Pw-7d1f0c";

// One host: its own status, or one line naming host, port and cause. Several (-H): 0, 1 or 3, each host's
// lines whole after its label, and a summary. diagnose: the transcript; ssh's spellings of hosts and keys,
// and keys tried first as ssh does (-i, an alias's IdentityFile, none with PubkeyAuthentication=no); given
// and stored credentials; bad input refused with status 2 in one line; standard output that fails; a stop.
TEST_F(Cli, EveryWayARunEndsHasItsStatusAndItsWords)
{
    SshdHarness keys(SshdHarness::Server::PublicKey);
    TELVANE_REQUIRE_COMPONENT(keys.start(), keys.reason());
    vars["$EMPTY"] = write("empty", "");
    vars["$REFUSED"] =
        "-l " + sshd().username() + " --password-file " + write("wrong", kWrongPassword + "\n");
    vars["$READABLE"] = write("readable", sshd().password() + "\n");
    fs::permissions(vars["$READABLE"], fs::perms::others_read, fs::perm_options::add);
    vars["$KEY"] = keys.makeClientKey("id");
    vars["$KEYS"] = "127.0.0.1:" + std::to_string(keys.port());
    fs::create_directories(home / ".ssh");
    write(".ssh/config", expand("Host cellar\n  HostName 127.0.0.1\n  Port $PORT\n  User $USER\nHost vault\n"
                                "  HostName 127.0.0.1\n  Port " +
                                std::to_string(keys.port()) + "\n  IdentityFile $KEY\n"));
    vars["$CHANGED"] =
        write("changed", expand("[127.0.0.1]:$PORT ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIL98rV3YlPQ7"
                                "pBBYFvr4PWI8gs5M7zXeSgbjOPz+RB3d\n"));
    const std::string diagnose = expand("Connecting over SSH to 127.0.0.1 on port $PORT: ");
    LoopbackSocket silent(4); // accepts and never says a word: the handshake waits
    vars["$SILENT"] = "127.0.0.1:" + std::to_string(silent.port());
    vars["$STOP"] = expand("-t 30 --parallel 2 $LOGIN");
    fs::create_directories(home / "drop"); // where the test account's scripts leave their process ids
    fs::permissions(home, fs::perms::others_exec, fs::perm_options::add);
    fs::permissions(home / "drop", fs::perms::all);
    const std::string pids = home / "drop" / "pids";
    const std::string streaming = "echo $$ >> " + pids + "; while :; do echo x; sleep 0.05; done\n";
    const std::string flooding = "echo $$ >> " + pids + "; exec yes flood\n";
    // Interrupted after 1.5 s, its output not read (a flood stalls it); the guard is longer than a stop may
    // take, shorter than the connection's time-out.
    const auto interrupt = [](int signal) {
        return ProcessOptions{.timeout = std::chrono::seconds(15),
                              .interruptAfter = std::chrono::milliseconds(1500),
                              .interruptSignal = signal,
                              .readDelay = std::chrono::seconds(30)};
    };
    const struct
    {
        std::string args;
        int status;
        std::vector<std::string> out, err; // each once: lines of standard output, pieces of standard error
        std::string script = "echo in";
        ProcessOptions options = {};
    } rows[] = {
        // Arguments in order; removed lines named once; verbose, yet never the password.
        {"run -v -a WHO=__X__ -a X=world $LOGIN $V4",
         0,
         {"hello world"},
         {"CRLF line ends", " line 3 holds \"#\"", " line 6 holds \"#\""},
         "#!/bin/sh\r\necho hello __WHO__\r\necho gone # why\r\n# a comment\r\n  # more\r\nx=${#y}\r\n\r# "
         "cr\r\ntrue\r\n"},
        {"run $V4", 254, {}, {"port $PORT: no credentials"}},
        {"run $LOGIN 127.0.0.1:$CLOSED", 255, {}, {"connection failed: ", "Connection refused"}},
        {"run -l $USER --password-file $EMPTY $V4", 253, {}, {"the password file $EMPTY was empty"}},
        {"run $LOGIN -H $V4 -H $V6 -H $NAMED",
         0,
         {"$V4: one", "$V6: two", "$NAMED: one"},
         {"telvane: $V6: exited 0 (", "3 hosts: 3 succeeded, 0 script(s) failed"},
         "echo one; printf two"},
        {"run $LOGIN -H $V4 -H $V6", 1, {}, {"$V6: exited 5", "2 script(s) failed"}, "exit 5"},
        {"run $LOGIN -H $V4 -H 127.0.0.1:$CLOSED -H nobody@$V4", // nobody: not in AllowUsers
         3,
         {"$V4: in"},
         {"127.0.0.1:$CLOSED: connection failed: connect to 127.0.0.1 port $CLOSED",
          "nobody@$V4: authentication failed: the server refused", "2 not reached or refused"}},
        // Without colour a finding keeps its asterisks; the closing line starts a line of its own.
        {"diagnose $LOGIN $V4",
         2,
         {diagnose + "OK", "*hot*", "tail", "Diagnostics terminated with error: 2"},
         {},
         "echo '*hot*'; printf tail; exit 2"},
        {"diagnose --color=always $LOGIN $V4",
         0,
         {diagnose + "OK", "\033[31mhot\n\033[0mDiagnostics completed."},
         {},
         "echo '*hot*'"},
        {"diagnose $REFUSED $V4",
         253,
         {diagnose + "*invalid credentials*", "Diagnostics completed."},
         {"authentication failed"}},
        {"diagnose $LOGIN -H $V4 -H 127.0.0.1:$CLOSED",
         3,
         {"$V4: " + diagnose + "OK", "$V4: *hot*", "$V4: Diagnostics completed.",
          "127.0.0.1:$CLOSED: Connecting over SSH to 127.0.0.1 on port $CLOSED: *failed*"},
         {"1 not reached or refused"},
         "echo '*hot*'"},
        // ssh's spellings: what is written with the host wins over -l and -p (a password file that others can
        // read still works, with a warning); aliases; host-key checking. The script's own status, and its
        // standard error is not ours.
        {"run -l nobody -p 1 --password-file $READABLE $USER@$V4", 0, {"in"}, {"readable by others"}},
        {"run --password-file $PW cellar", 3, {"out"}, {}, "echo out; echo err >&2; exit 3"},
        {"run -o StrictHostKeyChecking=yes -o UserKnownHostsFile=/dev/null $LOGIN $V4",
         255,
         {},
         {"Host key verification failed"}},
        {"run -o UserKnownHostsFile=$CHANGED $LOGIN $V4", 255, {}, {"has changed"}},
        {"run -o UserKnownHostsFile=$CHANGED -o StrictHostKeyChecking=no $LOGIN $V4", 0, {"in"}, {}},
        {"run -l $USER -i $KEY $KEYS", 0, {"in"}, {}},
        {"run -l $USER vault", 0, {"in"}, {}},
        {"run -l $USER -i $KEY -o PubkeyAuthentication=no $KEYS", 253, {}, {"authentication failed"}},
        // A pair given whole comes before the stored one; --remember keeps it once the server took it, and
        // neither keeps nor deletes anything when refused; without it nothing is kept.
        {"run --remember $LOGIN $V4", 0, {"in"}, {}},
        {"run --remember $REFUSED $V4", 253, {}, {"127.0.0.1 port $PORT: authentication failed"}},
        {"run $V4", 0, {"in"}, {}},
        {"forget 127.0.0.1", 0, {}, {}, ""},
        {"run $LOGIN $V4", 0, {"in"}, {}},
        {"forget 127.0.0.1", 1, {}, {"no stored credentials for 127.0.0.1"}, ""},
        // A keyring that cannot be written: the run keeps its status, and the user learns nothing was kept.
        {"run --remember $LOGIN $V4",
         0,
         {"in"},
         {"--remember: the credentials for $V4 could not be kept in the file keyring: file keyring: cannot "
          "create"},
         "echo in",
         {.environment = {{"XDG_DATA_HOME", "$PW/data"}}}},
        // Bad input: nothing is sent (without credentials a run would end 254).
        {"run --bogus $V4", 2, {}, {"--bogus"}},
        {"run", 2, {}, {"HOST is required"}, ""},
        {"run $V4",
         2,
         {},
         {"not UTF-8 text or holds a NUL byte (line 1); nothing was sent"},
         "echo Gr\xfc\xdf"
         "e\n"},
        {"run -o Compression=yes $V4", 2, {}, {"-o Compression=yes: unsupported option"}},
        {"run -o StrictHostKeyChecking=maybe $V4", 2, {}, {"expected accept-new, yes, no or ask"}},
        {"run -a NOEQUALS $V4", 2, {}, {"--arg NOEQUALS: expected KEY=VALUE"}},
        {"run --password-file /nonexistent/pw $V4", 2, {}, {"/nonexistent/pw"}},
        {"run $V4 /", 2, {}, {"the script / is a directory"}, ""},
        {"run $V4",
         2,
         {},
         {"has nothing to run: every line is blank or holds \"#\""},
         "#!/bin/sh\n# only comments\n\n  # and blanks\n"},
        {"run -a C=#ff0000 $V4", 2, {}, {"--arg C: the value holds \"#\""}},
        {"run $V4",
         2,
         {},
         {"TELVANE_KEYRING: unknown keyring 'fiel' (use secret-service, file or memory)"},
         "echo in",
         {.environment = {{"TELVANE_KEYRING", "fiel"}}}},
        {"run -H host:0", 2, {}, {"bad port \"0\""}},
        {"run --hosts /nonexistent/hosts", 2, {}, {"cannot read the hosts file /nonexistent/hosts"}},
        {"run -H a --json --output-dir /tmp", 2, {}, {"excludes"}},
        // Standard output that fails: a full disk is named; a reader gone is SIGPIPE's status, silently, for
        // every host, also one that writes nothing more; a non-blocking pipe read late loses nothing.
        {"run $LOGIN $V4 - >/dev/full",
         252,
         {},
         {"telvane: cannot write to standard output: No space left on device\n"},
         "",
         {.input = "echo hi\n"}},
        {"run $LOGIN $V4 - | head -1; exit ${PIPESTATUS[0]}",
         141,
         {"1"},
         {},
         "",
         {.input = "seq 1 5000000\n"}},
        {"run $LOGIN -H $V4 -H $V6 - 2>/dev/null | head -3 >/dev/null; exit ${PIPESTATUS[0]}",
         141,
         {},
         {},
         "",
         {.input = "echo $SSH_CONNECTION | grep -q '^::1' && exec sleep 30; exec yes\n",
          .timeout = std::chrono::seconds(20)}},
        {"run $LOGIN $V4 -",
         0,
         {toolOutput("seq 1 200000")},
         {},
         "",
         {.input = "seq 1 200000\n", .nonBlockingOutput = true, .readDelay = std::chrono::milliseconds(700)}},
        // Ctrl-C or SIGTERM ends every run in whatever state, the remote scripts too; with several hosts the
        // summary counts what was cut, and at most two run at once: the third never starts.
        {"run $STOP $SILENT", 130, {}, {"telvane: interrupted\n"}, streaming, interrupt(SIGINT)},
        {"run $STOP $V4", 143, {}, {"telvane: interrupted\n"}, flooding, interrupt(SIGTERM)},
        {"run $STOP -H $V4 -H $V6 -H $SILENT", 130, {}, {"$V6: stopped ("}, streaming, interrupt(SIGINT)},
        {"run $STOP -H $V4 -H $V6 -H 127.0.0.1:$CLOSED",
         143,
         {},
         {"3 stopped or not started"},
         flooding,
         interrupt(SIGTERM)},
    };
    for (auto row : rows) {
        for (auto &[name, value] : row.options.environment)
            value = expand(value);
        const auto result = telvane(row.args, row.script, row.options);
        EXPECT_EQ(row.status, result.status) << row.args << ": " << result.err;
        for (const auto &line : row.out)
            EXPECT_EQ(1u, occurrences(result.out, expand(line) + "\n")) << line << " in\n" << result.out;
        for (const auto &piece : row.err)
            EXPECT_EQ(1u, occurrences(result.err, expand(piece))) << piece << " in\n" << result.err;
        EXPECT_EQ(row.err.empty() ? "" : result.err, result.err);
        EXPECT_EQ(!row.err.empty() && (row.status == 2 || row.status > 250) ? 1u
                                                                            : occurrences(result.err, "\n"),
                  occurrences(result.err, "\n"))
            << row.args << ": one line";
        EXPECT_EQ(npos, (result.out + result.err).find(sshd().password()));
        EXPECT_EQ(npos, (result.out + result.err).find(kWrongPassword));
        std::ifstream in(pids);
        for (pid_t pid; in >> pid;)
            EXPECT_TRUE(waitUntil([&] { return kill(pid, 0) != 0; }, std::chrono::seconds(3)))
                << row.args << ": the remote script is still running";
        fs::remove(pids);
    }
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write,
              fs::status(home / "data" / "telvane" / "keyring").permissions());
}

TEST_F(Cli, HostsFileOutputDirectoryAndJsonRecords)
{
    const std::string hosts = write("hosts", expand("# the rack\n\n  $V4\n$V6  \n127.0.0.1:$CLOSED\n"));
    const std::string v4 = expand("$V4"), named = expand("$NAMED"), closed = expand("127.0.0.1:$CLOSED");
    const fs::path dir = home / "out";
    fs::create_directories(dir);
    fs::create_symlink("/dev/full", dir / named); // a full disk for one host
    const auto files = telvane("run $LOGIN --hosts " + hosts + " --output-dir " + dir.string() + " -H $NAMED",
                               "echo $SSH_CONNECTION | cut -d' ' -f3");
    EXPECT_EQ(3, files.status) << files.err;
    EXPECT_NE(npos, files.err.find(named + ": cannot write " + (dir / named).string() +
                                   ": No space left on device"))
        << files.err;
    EXPECT_EQ("", files.out);
    EXPECT_EQ("127.0.0.1\n", readFile(dir / v4));
    EXPECT_EQ("::1\n", readFile(dir / expand("$V6")));

    // Valid UTF-8 stays text; anything else is base64.
    const auto json =
        telvane("run $LOGIN --hosts " + hosts + " --json -H $V4 -H $NAMED",
                "echo $SSH_CONNECTION | grep -q '^::1' && printf 'a\\377b' || printf 'gr\\303\\274n\\n'");
    EXPECT_EQ(3, json.status) << json.err;
    std::map<std::string, nlohmann::json> records;
    std::istringstream lines(json.out);
    for (std::string line; std::getline(lines, line);) {
        const auto record = nlohmann::json::parse(line); // throws, and so fails, on anything but JSON
        records[record["label"].get<std::string>()] = record;
    }
    ASSERT_EQ(5u, records.size()) << json.out; // the repeated host is there twice, its label marked
    const auto expected = nlohmann::json::parse(expand(R"({"host": "127.0.0.1", "port": $PORT, "status": 0,
        "error": null, "output": "gr\u00fcn\n", "encoding": "utf-8"})"));
    for (const auto &[key, value] : expected.items())
        EXPECT_EQ(value, records.at(v4)[key]) << key;
    EXPECT_EQ('Z', records.at(v4)["start"].get<std::string>().back());
    EXPECT_TRUE(records.count(v4 + "#2"));
    EXPECT_TRUE(records.at(closed)["status"].is_null());
    EXPECT_EQ(R"({"code":1,"name":"connection")", records.at(closed)["error"].dump().substr(0, 29));

    EXPECT_EQ("base64", records.at(expand("$V6"))["encoding"]);
    EXPECT_EQ("Yf9i", records.at(expand("$V6"))["output"]);
}

// As ssh: the host key, the password again when refused, once for all hosts, and a server's other questions
// (a one-time code), never echoed; a Ctrl-C at a question ends the run.
TEST_F(Cli, OnATerminalAsksAsSshDoesAndOnceForEveryHost)
{
    SshdHarness codes(SshdHarness::Server::OneTimeCode);
    TELVANE_REQUIRE_COMPONENT(codes.start(), codes.reason());
    vars["$CODES"] = "127.0.0.1:" + std::to_string(codes.port());
    const std::string code = codes.oneTimeCode(), password = sshd().password();
    const std::string keyQuestion = "Are you sure you want to continue connecting (yes/no/[fingerprint])? ";
    const std::string passwordQuestion = expand("$USER@127.0.0.1's password: ");
    const std::string ask = "run -o StrictHostKeyChecking=ask -o UserKnownHostsFile=$KNOWN $LOGIN $V4";
    const std::string typed = "run -p $PORT -l $USER -o StrictHostKeyChecking=no 127.0.0.1";
    const std::string retype = "Please type 'yes', 'no' or the fingerprint: ";
    const struct
    {
        std::string args;
        int status;
        std::size_t ran; // hosts whose script ran
        std::vector<Exchange> exchanges;
    } rows[] = {
        {ask, 0, 1, {{keyQuestion, "yes"}}},
        {ask, 255, 0, {{keyQuestion, "no"}}},
        {ask, 0, 1, {{keyQuestion, "sure"}, {retype, "FINGERPRINT"}}},
        {typed, 0, 1, {{passwordQuestion, "wrong"}, {passwordQuestion, password}}},
        {typed, 130, 0, {{passwordQuestion, "\x03"}}},
        {typed, 253, 0, {{passwordQuestion, "x1"}, {passwordQuestion, "x2"}, {passwordQuestion, "x3"}}},
        // The host written USER@HOST may be the first to ask, for the password alone: answers in any order.
        {"run --remember -H $V4 -H $V6 -H $NAMED",
         0,
         3,
         {{"Username (for every host", sshd().username()}, {"Password of", password}}},
        {"run $LOGIN $CODES", 0, 1, {{"One-time password", code}}},
        // Each host's pair was kept under its own name: no user, no password, no question, and all succeed.
        {"run -H $V4 -H $V6 -H $NAMED", 0, 3, {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        vars["$KNOWN"] = (home / ("known_hosts_" + std::to_string(&row - rows))).string();
        const auto result = onTerminal(row.args, row.exchanges);
        EXPECT_EQ("0", result.err) << "questions never asked\n" << result.out;
        EXPECT_EQ(row.status, result.status) << result.out;
        EXPECT_EQ(row.ran, occurrences(result.out, "in\r\n")) << result.out;
        EXPECT_EQ(npos, result.out.find(password)) << "the password echoed";
        EXPECT_EQ(npos, result.out.find(code)) << "the code echoed";
        // As ssh: a key accepted on the terminal is remembered, one refused is not.
        EXPECT_EQ(row.args == ask && row.status == 0,
                  fs::exists(vars["$KNOWN"]) && fs::file_size(vars["$KNOWN"]) > 0);
    }
}
