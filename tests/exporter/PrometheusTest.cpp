// The real Prometheus server scrapes the exporter with the README's configuration; promtool checks the
// README's other examples.
#include "exporter/ExporterFixture.h"
#include "support/Loopback.h"
#include "support/Process.h"

#include <nlohmann/json.hpp>
#include <regex>

using namespace telvane::test;

namespace {

/// The README's @p skip + 1st YAML example that starts with @p start; empty when there is none.
std::string readmeYaml(const std::string &start, int skip = 0)
{
    const std::string readme = readFile(TELVANE_SOURCE_DIR "/README.md");
    for (auto at = readme.find("```yaml\n" + start); at != std::string::npos;
         at = readme.find("```yaml\n" + start, at + 1))
        if (skip-- == 0)
            return readme.substr(at + 8, readme.find("```", at + 8) - at - 8);
    return {};
}

// The value of the one series that @p query gives, as Prometheus' HTTP API writes it; empty when none.
std::string queryValue(int port, const std::string &query)
{
    const auto answer = httplib::Client("127.0.0.1", port)
                            .Get("/api/v1/query?query=" + httplib::detail::encode_query_param(query));
    if (!answer || answer->status != 200)
        return {};
    const auto result = nlohmann::json::parse(answer->body)["data"]["result"];
    return result.size() == 1 ? result[0]["value"][1].get<std::string>() : std::string();
}

} // namespace

TEST_F(ExporterTest, PrometheusScrapesTheProbeWithTheReadmesConfiguration)
{
    TELVANE_REQUIRE_COMPONENT(::access("/usr/bin/prometheus", X_OK) == 0,
                              "no prometheus (Debian's prometheus)");
    const std::string scrape = readmeYaml("scrape_configs:"), sharded = readmeYaml("scrape_configs:", 1),
                      rules = readmeYaml("groups:");
    ASSERT_FALSE(scrape.empty() || sharded.empty() || rules.empty()) << "the README lost an example";
    for (const auto &[what, file] :
         {std::pair{"rules", write("rules.yml", rules)}, {"config", write("sharded.yml", sharded)}}) {
        const auto check = runProcess({"/usr/bin/promtool", "check", what, file});
        EXPECT_EQ(0, check.status) << file << ":\n" << check.out << check.err;
    }

    Exporter exporter(dir, config(module("uptime", readFile(TELVANE_SOURCE_DIR "/examples/uptime.sh"),
                                         "    arguments: {THRESHOLD: \"4\"}\n")));
    ASSERT_NE(0, exporter.port) << exporter.log();
    std::string prometheus = "global:\n  scrape_interval: 2s\n  scrape_timeout: 2s\n" + scrape;
    prometheus = std::regex_replace(prometheus, std::regex("127\\.0\\.0\\.1:9815"),
                                    "127.0.0.1:" + std::to_string(exporter.port));
    prometheus =
        std::regex_replace(prometheus, std::regex(R"(\["sensor-1\.example\.org", "sensor-2[^\]]*\])"),
                           "[\"127.0.0.1:" + std::to_string(sshd().port()) + "\"]");
    const int port = LoopbackSocket().port();
    Daemon server({"/usr/bin/prometheus", "--config.file=" + write("prometheus.yml", prometheus),
                   "--storage.tsdb.path=" + dir + "/tsdb",
                   "--web.listen-address=127.0.0.1:" + std::to_string(port)},
                  dir + "/prometheus.log");
    ASSERT_TRUE(server.waitForLog("Server is ready to receive web requests")) << server.log();

    const std::string instance =
        "{instance=\"127.0.0.1:" + std::to_string(sshd().port()) + "\",job=\"telvane\"}";
    EXPECT_TRUE(waitUntil([&] { return queryValue(port, "telvane_probe_success" + instance) == "1"; },
                          std::chrono::seconds(60)))
        << exporter.log() << server.log();
    EXPECT_EQ("4", queryValue(port, "sensor_load_threshold" + instance));
    // The exporter's own metrics, from the second job.
    EXPECT_TRUE(waitUntil([&] { return queryValue(port, "telvane_exporter_build_info") == "1"; },
                          std::chrono::seconds(30)));
}
