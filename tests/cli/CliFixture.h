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
        return runProcess({"/bin/sh", "-fc", "exec " + command(args, text)}, options);
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
    telvane::test::LoopbackSocket closedPort; // bound, never listening: connections are refused
    // Written into command lines and expected text: $V4, $V6 and $NAMED are the loopback sshd as 127.0.0.1,
    // ::1 and USER@localhost; $CLOSED a port that refuses; $LOGIN the account with its password file $PW.
    std::map<std::string, std::string> vars;
    int scripts = 0;
};
