// telvane-exporter against the loopback sshd: probes, refusals and the cap on probes in flight; bad
// configurations, reloads, TLS and basic auth; the real Prometheus scraping it as the README configures it.
#include "support/Loopback.h"
#include "support/Process.h"
#include "support/SshdFixture.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <future>
#include <regex>
#include <sys/wait.h>

using namespace telvane::test;

namespace {

/// A program beside the test (the exporter, Prometheus) on a free loopback port, its output in a fresh log;
/// `port` is 0 when @p ready never showed there. It is stopped as the service manager does, and must end
/// cleanly, which is also when the sanitizers report.
class Daemon
{
public:
    Daemon(std::vector<std::string> argv, std::string logPath, const std::string &ready)
        : logPath_(std::move(logPath))
    {
        argv.push_back("--web.listen-address=127.0.0.1:" + std::to_string(port));
        std::ofstream(logPath_, std::ios::trunc); // an earlier run's lines must not be found
        pid_ = startDaemon(argv, logPath_);
        port = waitForLog(ready) ? port : 0;
    }
    ~Daemon()
    {
        int status = -1;
        if (port != 0 && ::kill(pid_, SIGTERM) == 0 && ::waitpid(pid_, &status, 0) == pid_)
            pid_ = -1;
        EXPECT_EQ(0, port != 0 ? status : 0) << log(); // a wait status: 0 is exit(0)
        killDaemon(pid_);
    }
    std::string log() const { return readFile(logPath_); }
    /// Waits (a minute at most) for @p text in the output; false when the program ended first.
    bool waitForLog(const std::string &text)
    {
        return awaitDaemon(pid_, [&] { return log().find(text) != std::string::npos; });
    }
    void signal(int number) const { pid_ > 0 && ::kill(pid_, number); }
    /// GET (or POST) @p path; the status and the body (status 0 when there was no answer).
    std::pair<int, std::string> get(const std::string &path, const httplib::Headers &headers = {},
                                    bool post = false) const
    {
        httplib::Client client("127.0.0.1", port);
        client.set_read_timeout(std::chrono::seconds(120));
        const auto result = post ? client.Post(path) : client.Get(path, headers);
        return result ? std::pair{result->status, result->body} : std::pair{0, std::string()};
    }
    int port = LoopbackSocket().port();

private:
    std::string logPath_;
    pid_t pid_ = -1;
};

/// The loopback sshd, a directory for the test's files, and a known-hosts file that holds the daemon's keys.
class ExporterTest : public SshdTest
{
protected:
    void SetUp() override
    {
        SshdTest::SetUp();
        if (HasFatalFailure() || IsSkipped())
            return;
        ::setenv("TELVANE_KEYRING", "memory", 1); // inherited: nothing of the machine's keyring
        const std::string password = write("password", sshd().password() + "\n");
        dir = password.substr(0, password.rfind('/'));
        write("known_hosts",
              toolOutput("ssh-keyscan -p " + std::to_string(sshd().port()) + " 127.0.0.1 ::1 2>/dev/null") +
                  "\n");
    }
    std::string write(const std::string &name, const std::string &text) const
    {
        return sshd().writeFile(name, text);
    }
    /// A module for the loopback sshd's account with the script @p script and more YAML lines @p extra.
    std::string module(const std::string &name, const std::string &script,
                       const std::string &extra = "") const
    {
        return "  " + name + ":\n    script: " + write(name + ".sh", script) +
               "\n    user: " + sshd().username() + "\n    password_file: " + dir + "/password" +
               "\n    known_hosts: " + dir + "/known_hosts\n    port: " + std::to_string(sshd().port()) +
               "\n" + extra;
    }
    /// A configuration file with @p modules, which allows the loopback addresses.
    std::string config(const std::string &modules) const
    {
        return write("exporter.yml", "modules:\n" + modules + "targets: [\"127.0.0.1\", \"::1\"]\n");
    }
    /// telvane-exporter with the configuration file @p config and @p flag.
    Daemon exporter(const std::string &config, const std::string &flag = "--log.level=info") const
    {
        return Daemon({TELVANE_EXPORTER_PATH, "--config.file=" + config, flag}, dir + "/exporter.log",
                      "listening on ");
    }
    std::string dir;
};

// Prometheus text among other lines: what the answer keeps (5 lines) and drops (7 lines). Lines holding "#"
// are removed before sending, so the script makes its own.
const std::string kScript = R"(h=$(printf '\043')
echo "$h HELP sensor_answer The answer."
echo "$h TYPE sensor_answer gauge"
printf '%s\n' 'sensor_answer{unit="__UNIT__",note="a \"quoted\" \\ word"} 42 1700000000000'
printf '%s\n' 'sensor_extremes{kind="nan",} NaN' 'sensor_extremes{kind="inf"} +Inf'
printf '%s\n' 'dup{a="1",a="2"} 1' 'bad_escape{a="\q"} 1' 'no_value' 'telvane_probe_success 7'
echo "$h TYPE sensor_answer nonsense"
echo "$h just a comment"
echo "plain words"
)";

/// The README's YAML example that starts with @p start; empty when there is none.
std::string readmeYaml(const std::string &start)
{
    const std::string readme = readFile(TELVANE_SOURCE_DIR "/README.md");
    const auto at = readme.find("```yaml\n" + start);
    return at == std::string::npos ? "" : readme.substr(at + 8, readme.find("```", at + 8) - at - 8);
}

// The value of the one series that @p query gives, as Prometheus' HTTP API writes it; empty when none.
std::string queryValue(const Daemon &server, const std::string &query)
{
    const auto [status, body] =
        server.get("/api/v1/query?query=" + httplib::detail::encode_query_param(query));
    const auto result = status == 200 ? nlohmann::json::parse(body)["data"]["result"] : nlohmann::json();
    return result.size() == 1 ? result[0]["value"][1].get<std::string>() : std::string();
}

} // namespace

// Each request against one exporter: what it answers, which lines of the script's output it passes on, and
// that a request for a target off the list, another module or anything else never reaches a host; reloads.
TEST_F(ExporterTest, ProbesAnswerWithTheOutcomeAndRefuseWhatARequestMayNotAsk)
{
    SshdHarness keyServer(SshdHarness::Server::PublicKey); // logs in by key alone, as the module's user
    TELVANE_REQUIRE_COMPONENT(keyServer.start(), "no sshd for keys: " + keyServer.reason());
    LoopbackSocket deaf(1);
    deaf.deafen(); // a connect to it neither succeeds nor fails
    const std::string modules = module("ok", kScript, "    arguments: {UNIT: volts}\n") +
                                module("slow", "printf 'sensor_half 12'\nsleep 30\n", "    timeout: 60s\n") +
                                module("exit3", "exit 3\n") +
                                module("big", "yes 'sensor_fill 1' | head -c 3000000\n") +
                                "  keys:\n    script: " + write("keys.sh", "echo keyed 1\n") +
                                "\n    user: " + keyServer.username() + "\n    identity_files: [" +
                                keyServer.makeClientKey("probe-key") + "]\n    host_key_policy: accept-any\n";
    const std::string gate = dir + "/open";
    auto exporter = this->exporter(
        config(modules + module("gate", "while [ ! -e " + gate + " ]; do sleep 0.1; done\necho gate 1\n",
                                "    timeout: 60s\n")),
        "--probe.max-in-flight=1");
    ASSERT_NE(0, exporter.port) << exporter.log();
    const std::string port = std::to_string(sshd().port()), target = "&target=127.0.0.1:" + port;
    const struct
    {
        std::string query;
        int status;
        std::vector<std::string> expected;
        bool leftBehind = false; // the run was still going at the deadline: its session must end all the same
    } rows[] = {
        // Its unfinished line may be half a number: counted, never passed on.
        {"module=slow" + target,
         200,
         {"telvane_probe_success 0\n", "reason=\"deadline exceeded\"", "telvane_probe_output_bytes 14\n",
          "telvane_probe_output_lines_dropped 1\n"},
         true},
        {"module=ok" + target,
         200,
         {"telvane_probe_success 1\n", "telvane_probe_exit_status 0\n",
          "telvane_probe_phase_duration_seconds{phase=\"login\"}", "telvane_probe_output_lines_dropped 7\n",
          "# HELP sensor_answer The answer.\n", "# TYPE sensor_answer gauge\n",
          "\nsensor_answer{unit=\"volts\",note=\"a \\\"quoted\\\" \\\\ word\"} 42 1700000000000\n",
          "\nsensor_extremes{kind=\"nan\",} NaN\n", "\nsensor_extremes{kind=\"inf\"} +Inf\n"}},
        // Over IPv6, a login that fails (that sshd takes no keys, and the module has no password): its code.
        {"module=keys&target=[::1]:" + port, 200, {"telvane_probe_failure{code=\"2\""}},
        {"module=exit3" + target, 200, {"telvane_probe_success 0\n", "telvane_probe_exit_status 3\n"}},
        {"module=slow&target=127.0.0.1:" + std::to_string(deaf.port()),
         200,
         {"telvane_probe_success 0\n", "reason=\"deadline exceeded\""}},
        {"module=big" + target,
         200,
         {"telvane_probe_output_truncated 1\n", "telvane_probe_output_bytes 1048576\n", "\nsensor_fill 1\n"}},
        {"module=keys&target=127.0.0.1:" + std::to_string(keyServer.port()),
         200,
         {"telvane_probe_success 1\n", "\nkeyed 1\n"}},
        {"module=ok&target=localhost:" + port, 403, {"not in the allowed targets"}},
        {"module=ok&target=127.0.0.2:" + port, 403, {"not in the allowed targets"}},
        {"target=127.0.0.1", 400, {"\"module\" must be given once"}},
        {"module=nope&target=127.0.0.1", 400, {"unknown module \"nope\""}},
        {"module=ok&target=127.0.0.1&script=/bin/sh", 400, {"unknown parameter \"script\""}},
        {"module=ok&target=root@127.0.0.1", 400, {"bad target"}},
        {"module=ok&target=127.0.0.1:70000", 400, {"bad target"}},
        {"module=ok&target=127.0.0.1&target=127.0.0.2", 400, {"\"target\" must be given once"}},
    };
    for (const auto &row : rows) {
        const std::size_t logStart = sshd().log().size();
        const auto [status, body] =
            exporter.get("/probe?" + row.query, {{"X-Prometheus-Scrape-Timeout-Seconds", "5"}});
        EXPECT_EQ(row.status, status) << row.query << ": " << body;
        for (const auto &line : row.expected)
            EXPECT_NE(std::string::npos, body.find(line)) << row.query << ": no \"" << line << "\" in\n"
                                                          << body << exporter.log();
        EXPECT_EQ(std::string::npos, body.find("telvane_probe_success 7")) << "the script set the exporter's";
        EXPECT_TRUE(row.status == 200 || sshd().log(logStart).find("Connection from") == std::string::npos)
            << row.query << " reached the host";
        EXPECT_TRUE(!row.leftBehind || waitUntil([&] {
            return sshd().log(logStart).find("Received disconnect") != std::string::npos;
        })) << sshd().log(logStart);
    }
    // One probe in flight at most: another is answered 503 at once while the first waits, which ends well.
    auto first = std::async(std::launch::async, [&] { return exporter.get("/probe?module=gate" + target); });
    EXPECT_TRUE(waitUntil(
        [&] { return exporter.get("/metrics").second.find("in_flight 1\n") != std::string::npos; }));
    EXPECT_EQ(503, exporter.get("/probe?module=ok" + target).first);
    write("open", "");
    EXPECT_NE(std::string::npos, first.get().second.find("telvane_probe_success 1\n"));
    // The front page links to each probe to run it again; every probe has left its slot, also the one whose
    // host still hangs; refusals are counted.
    EXPECT_NE(std::string::npos, exporter.get("/").second.find("&amp;module=exit3"));
    const std::string metrics = exporter.get("/metrics").second;
    EXPECT_NE(std::string::npos, metrics.find("telvane_exporter_probes_in_flight 0")) << metrics;
    EXPECT_NE(std::string::npos,
              metrics.find("telvane_exporter_probes_total{module=\"ok\",result=\"forbidden\"} 2"))
        << metrics;

    // A reload takes a good configuration and keeps the old one instead of a bad one, saying why.
    const auto known = [&](const std::string &name) {
        return exporter.get("/probe?target=10.1.1.1&module=" + name).first == 403; // 400 when unknown
    };
    const std::string path = config(module("second", "echo hi\n"));
    EXPECT_EQ(200, exporter.get("/-/reload", {}, true).first);
    EXPECT_TRUE(known("second"));
    EXPECT_FALSE(known("ok"));
    write("exporter.yml", "modules:\n  third: {script: /nonexistent}\n");
    exporter.signal(SIGHUP);
    EXPECT_TRUE(exporter.waitForLog("the old one stays: " + path + ":2: modules.third"));
    EXPECT_EQ(500, exporter.get("/-/reload", {}, true).first);
    EXPECT_TRUE(known("second"));
    EXPECT_NE(std::string::npos,
              exporter.get("/metrics").second.find("telvane_exporter_config_last_reload_successful 0\n"));
}

// A bad configuration is refused at start-up, naming the file, the line and the field.
TEST_F(ExporterTest, RefusesABadConfigurationAtStart)
{
    const std::string good =
        "modules:\n  m:\n    script: " + write("s.sh", "echo hi\n") + "\n    keyring: true\n";
    for (const auto &[yaml, message] : std::vector<std::pair<std::string, std::string>>{
             {good + "    passwrd_file: /x\n", "bad.yml:5: modules.m.passwrd_file: unknown field"},
             {good + "    timeout: 10x\n", "bad.yml:5: modules.m.timeout: \"10x\" is not"},
             {good + "    arguments: {A: \"x#y\"}\n", "bad.yml:5: modules.m.arguments.A:"},
             {good + "targets: [10.0.0.0/33]\n", "bad.yml:5: targets: \"10.0.0.0/33\""},
             {"modules:\n  m:\n    script: /nonexistent.sh\n    keyring: true\n",
              "bad.yml:3: modules.m.script: cannot"},
             {"modules:\n  m:\n    script: /etc/passwd\n    user: u\n",
              "bad.yml:3: modules.m: no credentials"},
             {"modules: [\n", "bad.yml:2: not valid YAML"},
             {"targets: []\n", "modules: expected at least one"}}) {
        const auto run = runProcess({TELVANE_EXPORTER_PATH, "--config.file=" + write("bad.yml", yaml)});
        EXPECT_EQ(1, run.status) << yaml;
        EXPECT_NE(std::string::npos, run.err.find(message)) << yaml << " gave " << run.err;
    }
}

// TLS and basic auth from a web configuration, checked with curl: only the right user and password get in.
TEST_F(ExporterTest, ServesTlsWithBasicAuth)
{
    ASSERT_TRUE(
        runTool("cd " + dir +
                " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
                "-days 2 -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -keyout key.pem -out "
                "cert.pem 2>/dev/null"));
    const std::string web =
        write("web.yml", "tls_server_config:\n  cert_file: cert.pem\n  key_file: key.pem\n"
                         "basic_auth_users:\n  alice: " // bcrypt of s3cret
                         "$2b$05$ek474rQLmCTaMV5NZOphpeD15JO2i6S2vpCREPVqJWisD4ulDFBRO\n");
    auto exporter = this->exporter(config(module("ok", "echo hi\n")), "--web.config.file=" + web);
    ASSERT_NE(0, exporter.port) << exporter.log();
    const std::string curl = "curl -s -o /dev/null -w %{http_code} --cacert " + dir + "/cert.pem ",
                      url = "://127.0.0.1:" + std::to_string(exporter.port) + "/metrics";
    for (const auto &[args, code] :
         std::vector<std::pair<std::string, std::string>>{{"-u alice:s3cret https", "200"},
                                                          {"-u alice:wrong https", "401"},
                                                          {"-u bob:s3cret https", "401"},
                                                          {"https", "401"},
                                                          {"-u alice:s3cret http", ""}})
        EXPECT_EQ(code, toolOutput(curl + args + url)) << args;
}

// The real Prometheus server scrapes the probe with the README's configuration; promtool checks its other
// examples.
TEST_F(ExporterTest, PrometheusScrapesTheProbeWithTheReadmesConfiguration)
{
    TELVANE_REQUIRE_COMPONENT(::access("/usr/bin/prometheus", X_OK) == 0,
                              "no prometheus (Debian's prometheus)");
    const std::string scrape = readmeYaml("scrape_configs:\n  - job_name: telvane\n"),
                      sharded = readmeYaml("scrape_configs:\n  - job_name: telvane_shard_0"),
                      rules = readmeYaml("groups:");
    ASSERT_FALSE(scrape.empty() || sharded.empty() || rules.empty()) << "the README lost an example";
    for (const auto &[what, file] :
         {std::pair{"rules", write("rules.yml", rules)}, {"config", write("sharded.yml", sharded)}}) {
        const auto check = runProcess({"/usr/bin/promtool", "check", what, file});
        EXPECT_EQ(0, check.status) << file << ":\n" << check.out << check.err;
    }

    auto exporter = this->exporter(config(module("uptime", readFile(TELVANE_SOURCE_DIR "/examples/uptime.sh"),
                                                 "    arguments: {THRESHOLD: \"4\"}\n")));
    ASSERT_NE(0, exporter.port) << exporter.log();
    std::string prometheus = "global:\n  scrape_interval: 2s\n  scrape_timeout: 2s\n" + scrape;
    prometheus = std::regex_replace(prometheus, std::regex("127\\.0\\.0\\.1:9815"),
                                    "127.0.0.1:" + std::to_string(exporter.port));
    prometheus =
        std::regex_replace(prometheus, std::regex(R"(\["sensor-1\.example\.org", "sensor-2[^\]]*\])"),
                           "[\"127.0.0.1:" + std::to_string(sshd().port()) + "\"]");
    Daemon server({"/usr/bin/prometheus", "--config.file=" + write("prometheus.yml", prometheus),
                   "--storage.tsdb.path=" + dir + "/tsdb"},
                  dir + "/prometheus.log", "Server is ready to receive web requests");
    ASSERT_NE(0, server.port) << server.log();

    const std::string instance =
        "{instance=\"127.0.0.1:" + std::to_string(sshd().port()) + "\",job=\"telvane\"}";
    EXPECT_TRUE(waitUntil([&] { return queryValue(server, "telvane_probe_success" + instance) == "1"; },
                          std::chrono::seconds(60)))
        << exporter.log() << server.log();
    EXPECT_EQ("4", queryValue(server, "sensor_load_threshold" + instance));
    // The exporter's own metrics, from the second job.
    EXPECT_TRUE(waitUntil([&] { return queryValue(server, "telvane_exporter_build_info") == "1"; },
                          std::chrono::seconds(30)));
}
