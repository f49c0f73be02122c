#include "Clients.h"

#include <cstdlib>
#include <fstream>
#include <unistd.h>

namespace telvane::bench {

std::string Clients::resultPath() const
{
    return workDir_ + "/result-" + std::to_string(++sequence_);
}

std::map<std::string, std::string> Clients::cipherEnvironment(const Cipher &cipher) const
{
    return {{"TELVANE_BENCH_CIPHER", cipher.cipher}, {"TELVANE_BENCH_MAC", cipher.mac}};
}

Outcome Clients::finish(ChildResult child, const std::string &resultPath) const
{
    Outcome outcome;
    outcome.child = std::move(child);
    std::ifstream in(resultPath);
    for (std::string line; std::getline(in, line);)
        if (const auto eq = line.find('='); eq != std::string::npos)
            outcome.result[line.substr(0, eq)] = line.substr(eq + 1);
    ::unlink(resultPath.c_str());
    outcome.ok = outcome.child.exitStatus == 0 && !outcome.child.timedOut;
    return outcome;
}

Outcome Clients::telvane(const std::string &script, const Cipher &cipher, Path path, bool toStdout,
                         double limit, const std::map<std::string, std::string> &environment) const
{
    const std::string result = resultPath();
    auto env = cipherEnvironment(cipher);
    env.insert(environment.begin(), environment.end());
    Outcome outcome = finish(runChild({binDir_ + "/telvane-bench-host", "stream", "--port",
                                       std::to_string(port_), "--password-file", passwordFile_, "--script",
                                       script, "--path", path == Path::Sink ? "sink" : "pipe", "--to",
                                       toStdout ? "stdout" : "discard", "--result", result},
                                      env, limit),
                             result);
    outcome.bytes = toStdout ? outcome.child.outputBytes : std::atoll(outcome.result["bytes"].c_str());
    return outcome;
}

Outcome Clients::bare(const std::string &script, const Cipher &cipher, double limit,
                      const std::map<std::string, std::string> &environment) const
{
    const std::string result = resultPath();
    auto env = cipherEnvironment(cipher);
    env.insert(environment.begin(), environment.end());
    Outcome outcome =
        finish(runChild({binDir_ + "/telvane-bench-bare", "--port", std::to_string(port_), "--password-file",
                         passwordFile_, "--script", script, "--result", result},
                        env, limit),
               result);
    outcome.bytes = std::atoll(outcome.result["bytes"].c_str());
    return outcome;
}

Outcome Clients::ssh(const std::string &script, const Cipher &cipher, double limit) const
{
    // No configuration, keys, agent or known-hosts file of the machine's: only what is given here.
    std::vector<std::string> argv{"/usr/bin/sshpass",
                                  "-f",
                                  passwordFile_,
                                  "/usr/bin/ssh",
                                  "-F",
                                  "/dev/null",
                                  "-T",
                                  "-a",
                                  "-x",
                                  "-o",
                                  "StrictHostKeyChecking=no",
                                  "-o",
                                  "UserKnownHostsFile=/dev/null",
                                  "-o",
                                  "GlobalKnownHostsFile=/dev/null",
                                  "-o",
                                  "PubkeyAuthentication=no",
                                  "-o",
                                  "PreferredAuthentications=password",
                                  "-o",
                                  "NumberOfPasswordPrompts=1",
                                  "-o",
                                  "Compression=no",
                                  "-o",
                                  "LogLevel=ERROR",
                                  "-p",
                                  std::to_string(port_)};
    if (!cipher.cipher.empty())
        argv.insert(argv.end(), {"-c", cipher.cipher});
    if (!cipher.mac.empty())
        argv.insert(argv.end(), {"-m", cipher.mac});
    argv.insert(argv.end(), {"telvane-test@127.0.0.1", script});
    Outcome outcome = finish(runChild(argv, {}, limit), "/nonexistent");
    outcome.bytes = outcome.child.outputBytes;
    return outcome;
}

Outcome Clients::host(const std::string &mode, const std::map<std::string, std::string> &options,
                      double limit) const
{
    const std::string result = resultPath();
    std::vector<std::string> argv{binDir_ + "/telvane-bench-host",
                                  mode,
                                  "--port",
                                  std::to_string(port_),
                                  "--password-file",
                                  passwordFile_,
                                  "--result",
                                  result};
    for (const auto &[key, value] : options)
        argv.insert(argv.end(), {"--" + key, value});
    return finish(runChild(argv, {}, limit), result);
}

} // namespace telvane::bench
