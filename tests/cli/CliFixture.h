// The command-line tool as a user runs it: the real binary against the real loopback sshd, with a home,
// keyring and password file of the test's own.
#pragma once
#include "support/Files.h"
#include "support/Loopback.h"
#include "support/Process.h"
#include "support/SshdFixture.h"

#include <filesystem>
#include <fstream>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>

namespace fs = std::filesystem;
using telvane::test::ProcessOptions;
using telvane::test::ProcessResult;
using telvane::test::runProcess;
constexpr auto npos = std::string::npos;

inline std::size_t occurrences(const std::string &text, const std::string &word)
{
    std::size_t n = 0;
    for (auto at = text.find(word); at != npos; at = text.find(word, at + 1))
        ++n;
    return n;
}

class Cli : public telvane::test::SshdTest
{
protected:
    void SetUp() override
    {
        SshdTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        passwordFile = write("password", sshd().password() + "\n");
        port = std::to_string(sshd().port());
        good = {"127.0.0.1:" + port, "[::1]:" + port, sshd().username() + "@localhost:" + port};
    }

    // A file only its owner may read, in the test's directory.
    std::string write(const std::string &name, const std::string &text) const
    {
        const std::string path = (home / name).string();
        std::ofstream(path) << text;
        fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
        return path;
    }
    std::string script(const std::string &text) const
    {
        return write("script" + std::to_string(scripts++), text);
    }
    std::map<std::string, std::string> environment() const
    {
        return {{"TELVANE_KEYRING", "file"},
                {"XDG_DATA_HOME", (home / "data").string()},
                {"NO_COLOR", ""},
                {"HOME", home.string()}};
    }

    // telvane with @p args in the test's environment (what @p options sets wins).
    ProcessResult telvane(std::vector<std::string> args, ProcessOptions options = {}) const
    {
        args.insert(args.begin(), TELVANE_CLI_PATH);
        options.environment.merge(environment());
        return runProcess(args, options);
    }
    // @p args (the command first) with the account and @p file as its password file, then the hosts (one as
    // an argument, several each after -H), then a script of @p text when there is one.
    std::vector<std::string> login(const std::string &file, const std::vector<std::string> &hosts,
                                   std::vector<std::string> args = {"run"},
                                   const std::string &text = "") const
    {
        args.insert(args.end(), {"-l", sshd().username(), "--password-file", file});
        for (const auto &host : hosts)
            hosts.size() > 1 ? args.insert(args.end(), {"-H", host}) : args.insert(args.end(), host);
        if (!text.empty())
            args.push_back(script(text));
        return args;
    }

    // A question and its answer; "FINGERPRINT": the host key's fingerprint as the question showed it; "\x03":
    // a Ctrl-C.
    using Exchange = std::pair<std::string, std::string>;
    // telvane on a terminal of its own, answering each question once it shows, in whatever order they come.
    // The terminal's text goes to `out`; `err` counts the questions never asked.
    ProcessResult onTerminal(std::vector<std::string> args, std::vector<Exchange> exchanges) const
    {
        args.insert(args.begin(), TELVANE_CLI_PATH);
        int terminal = -1;
        const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
        if (pid == 0) {
            for (const auto &[name, value] : environment())
                setenv(name.c_str(), value.c_str(), 1);
            std::vector<char *> argv;
            for (auto &arg : args)
                argv.push_back(arg.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        ProcessResult result;
        std::size_t seen = 0;
        for (char buffer[4096];;) {
            pollfd fd{terminal, POLLIN, 0};
            const ssize_t n = poll(&fd, 1, 10000) > 0 ? read(terminal, buffer, sizeof buffer) : 0;
            if (n <= 0)
                break; // the end (EIO once telvane has gone), or a question nobody expected
            result.out.append(buffer, static_cast<std::size_t>(n));
            for (auto it = exchanges.begin(); it != exchanges.end(); ++it) {
                const auto at = result.out.find(it->first, seen);
                if (at == npos)
                    continue;
                seen = at + it->first.size();
                const auto from = result.out.find("SHA256:");
                std::string answer = it->second == "FINGERPRINT"
                                         ? result.out.substr(from, result.out.find('.', from) - from)
                                         : it->second;
                answer += answer == "\x03" ? "" : "\n"; // a Ctrl-C is typed alone
                exchanges.erase(it);
                [[maybe_unused]] const auto written = ::write(terminal, answer.data(), answer.size());
                break;
            }
        }
        kill(pid, SIGKILL); // harmless once it has ended; ends it if it waits for an answer that never came
        int status = 0;
        waitpid(pid, &status, 0);
        close(terminal);
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        result.err = std::to_string(exchanges.size());
        return result;
    }

    telvane::test::TemporaryDirectory scratch{"telvane-cli"};
    const fs::path home = scratch.path();
    std::string passwordFile, port;
    std::vector<std::string> good;            // the loopback sshd as 127.0.0.1, ::1 and USER@localhost
    telvane::test::LoopbackSocket closedPort; // bound, never listening: connections are refused
    const std::string closed = "127.0.0.1:" + std::to_string(closedPort.port());
    mutable int scripts = 0;
};
