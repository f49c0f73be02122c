// `telvane run` on several hosts at once: the loopback sshd reached as 127.0.0.1, ::1 and localhost, beside a
// closed port and an account that sshd refuses.
#include "cli/CliFixture.h"
#include "support/Files.h"

#include <nlohmann/json.hpp>

namespace {
class Fleet : public CliTest
{
protected:
    void SetUp() override
    {
        CliTest::SetUp();
        good = {"127.0.0.1:" + port, "[::1]:" + port, std::string(sshd().username()) + "@localhost:" + port};
    }

    // telvane @p command on @p hosts (each after -H) with the harness's account, then @p extra.
    ProcessResult run(const std::vector<std::string> &hosts, const std::string &text,
                      std::vector<std::string> extra = {}, ProcessOptions options = {},
                      const std::string &command = "run") const
    {
        std::vector<std::string> args = {command, "-l", sshd().username(), "--password-file", passwordFile};
        for (const auto &host : hosts)
            args.insert(args.end(), {"-H", host});
        args.insert(args.end(), extra.begin(), extra.end());
        args.push_back(script(text));
        return telvane(args, options);
    }

    std::vector<std::string> good;
    telvane::test::LoopbackSocket closedPort; // bound, never listening: connections are refused
    const std::string closed = "127.0.0.1:" + std::to_string(closedPort.port());
};
} // namespace

TEST_F(Fleet, PrefixedLinesSummaryAndTheExitStatusSayWhatHappened)
{
    const std::string refused = "nobody@127.0.0.1:" + port; // not in AllowUsers: the password is refused
    fs::create_directories(home / ".ssh");
    write(".ssh/config", "Host cellar\n  HostName 127.0.0.1\n  Port " + port + "\n");
    const struct
    {
        std::vector<std::string> hosts;
        std::string script, command;
        int status;
        std::vector<std::string> out; // lines expected once on standard output
        std::vector<std::string> err; // pieces expected on standard error
    } rows[] = {
        {good,
         "echo one; printf two",
         "run",
         0,
         {good[0] + ": one", good[1] + ": two", good[2] + ": one"},
         {"telvane: " + good[1] + ": exited 0 (", "3 hosts: 3 succeeded, 0 script(s) failed"}},
        {{good[0], good[1]},
         "echo x; exit 5",
         "run",
         1,
         {good[0] + ": x"},
         {good[1] + ": exited 5", "2 script(s) failed"}},
        {{good[0], closed, refused},
         "echo y",
         "run",
         3,
         {good[0] + ": y"},
         {closed + ": connection failed: connect to 127.0.0.1 port " + std::to_string(closedPort.port()) +
              ": Connection refused",
          refused + ": authentication failed: the server refused", "2 not reached or refused"}},
        {{"cellar", good[0]}, "echo in", "run", 0, {"cellar: in"}, {"telvane: cellar: exited 0"}},
        // diagnose: each host's transcript, line by line, its marks kept without colour.
        {{good[0], closed},
         "echo '*hot*'\n",
         "diagnose",
         3,
         {good[0] + ": Connecting over SSH to 127.0.0.1 on port " + port + ": OK", good[0] + ": *hot*",
          good[0] + ": Diagnostics completed.",
          closed + ": Connecting over SSH to 127.0.0.1 on port " + std::to_string(closedPort.port()) +
              ": *failed*"},
         {}},
    };
    for (const auto &row : rows) {
        const auto result = run(row.hosts, row.script, {}, {}, row.command);
        EXPECT_EQ(row.status, result.status) << result.err;
        for (const auto &line : row.out)
            EXPECT_EQ(1u, occurrences(result.out, line + "\n")) << line << " in\n" << result.out;
        for (const auto &piece : row.err)
            EXPECT_NE(std::string::npos, result.err.find(piece)) << piece << " in\n" << result.err;
        EXPECT_EQ(std::string::npos, result.err.find(sshd().password()));
    }
}

TEST_F(Fleet, HostsFileOutputDirectoryAndJsonRecords)
{
    const std::string hosts =
        write("hosts", "# the rack\n\n  " + good[0] + "\n" + good[1] + "  \n" + closed + "\n");
    const fs::path dir = home / "out";
    fs::create_directories(dir);
    fs::create_symlink("/dev/full", dir / good[2]); // a full disk for one host
    const auto files =
        run({good[2]}, "echo $SSH_CONNECTION | cut -d' ' -f3", {"--hosts", hosts, "--output-dir", dir});
    EXPECT_EQ(3, files.status) << files.err;
    EXPECT_NE(std::string::npos, files.err.find(good[2] + ": cannot write " + (dir / good[2]).string() +
                                                ": No space left on device"))
        << files.err;
    EXPECT_EQ("", files.out);
    EXPECT_EQ("127.0.0.1\n", telvane::test::readFile(dir / good[0]));
    EXPECT_EQ("::1\n", telvane::test::readFile(dir / good[1]));

    // Valid UTF-8 stays text; anything else is base64.
    const auto json = run({good[0], good[2]}, "printf 'gr\\303\\274n\\n'", {"--hosts", hosts, "--json"});
    EXPECT_EQ(3, json.status) << json.err;
    std::map<std::string, nlohmann::json> records;
    std::istringstream lines(json.out);
    for (std::string line; std::getline(lines, line);) {
        const auto record = nlohmann::json::parse(line, nullptr, false);
        ASSERT_FALSE(record.is_discarded()) << line;
        records[record["label"].get<std::string>()] = record;
    }
    ASSERT_EQ(5u, records.size()) << json.out; // the repeated host is there twice, its label marked
    const auto &ok = records.at(good[0]);
    const auto expected = nlohmann::json::parse(
        R"({"host": "127.0.0.1", "port": )" + port +
        R"(, "status": 0, "error": null, "output": "gr\u00fcn\n", "encoding": "utf-8"})");
    for (const auto &[key, value] : expected.items())
        EXPECT_EQ(value, ok[key]) << key;
    EXPECT_EQ('Z', ok["start"].get<std::string>().back());
    EXPECT_GT(ok["duration"].get<double>(), 0);
    EXPECT_TRUE(records.count(good[0] + "#2"));
    const auto &down = records.at(closed);
    EXPECT_TRUE(down["status"].is_null());
    EXPECT_EQ(1, down["error"]["code"]);
    EXPECT_EQ("connection", down["error"]["name"]);

    const auto binary = nlohmann::json::parse(run({good[0]}, "printf 'a\\377b'", {"--json"}).out);
    EXPECT_EQ("base64", binary["encoding"]);
    EXPECT_EQ("Yf9i", binary["output"]);
}

TEST_F(Fleet, OneQuestionOnTheTerminalServesEveryHostAndRememberKeepsEach)
{
    std::vector<std::string> args = {"run", "--remember"};
    for (const auto &host : good)
        args.insert(args.end(), {"-H", host});
    args.push_back(script("echo asked-once\n"));
    // The host given as USER@HOST may be the first to ask, for the password alone: answers go in any order.
    const auto asked = onTerminal(args, {{"Username", sshd().username()}, {"Password", sshd().password()}});
    EXPECT_EQ(0, asked.status) << asked.out;
    EXPECT_EQ(1u, occurrences(asked.out, "Username")) << asked.out;
    EXPECT_EQ(1u, occurrences(asked.out, "Password")) << asked.out;
    EXPECT_EQ(3u, occurrences(asked.out, ": asked-once")) << asked.out;
    EXPECT_EQ(std::string::npos, asked.out.find(sshd().password()));

    // Each host's pair was kept under its own name: no user, no password, no terminal, and all succeed.
    args.erase(args.begin() + 1);
    const auto stored = telvane(args);
    EXPECT_EQ(0, stored.status) << stored.err;
}

TEST_F(Fleet, InterruptStopsEveryRunAtOnceAndSummarisesWhatFinished)
{
    const std::pair<int, std::chrono::seconds> rows[] = {
        {SIGINT, {}}, {SIGTERM, {}}, {SIGTERM, std::chrono::seconds(30)}};
    for (const auto &[signal, readDelay] : rows) {
        const auto result =
            run({good[0], good[1], closed},
                readDelay.count() ? "exec yes flood\n" : "echo started; exec sleep 30\n", {"--parallel", "2"},
                {.interruptAfter = std::chrono::milliseconds(1500),
                 .interruptSignal = signal,
                 .readDelay = readDelay});
        EXPECT_EQ(128 + signal, result.status) << result.err;
        EXPECT_LT(result.seconds, 2.5) << "the stop took too long";
        EXPECT_EQ(readDelay.count() ? 0u : 2u, occurrences(result.out, ": started\n")) << result.out;
        EXPECT_EQ(2u, occurrences(result.err, ": stopped (")) << result.err;
        EXPECT_NE(std::string::npos, result.err.find("3 stopped or not started")) << result.err;
        EXPECT_NE(std::string::npos, result.err.find("telvane: interrupted")) << result.err;
    }
}
