#include "support/SshdHarness.h"
#include "support/Daemon.h"
#include "support/Files.h"
#include "support/Loopback.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <random>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace telvane::test {
namespace {

// The account's password lives here so that every harness on the machine (ctest runs tests in parallel
// processes) logs in with the same one; a fresh one per process would lock the others out.
constexpr const char *kStateDir = "/var/lib/telvane-test";

} // namespace

bool SshdHarness::fail(std::string why)
{
    reason_ = std::move(why);
    return false;
}

bool SshdHarness::start()
{
    if (running())
        return true;
    stop();
    if (::geteuid() != 0)
        return fail("sshd tests need root, to create the test account and to run sshd");
    if (!prepareAccount())
        return false;
    if ((directory_ = scratch_.emplace("telvane-sshd").path().string()).empty())
        return fail(std::string("mkdtemp: ") + std::strerror(errno));
    ::chmod(directory_.c_str(), 0755); // the test account reads the scripts that tests leave here
    if (!prepareServer())
        return false;
    for (int attempt = 0; attempt < 5; ++attempt) {
        if (!spawn())
            return false;
        if (waitUntilReady())
            return true;
        killDaemon(pid_);
        if (reason_.find("already in use") == std::string::npos)
            return false;
    }
    return false;
}

bool SshdHarness::prepareAccount()
{
    ::mkdir(kStateDir, 0700);
    Descriptor lock(::open((std::string(kStateDir) + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (::flock(lock.get(), LOCK_EX) != 0)
        return fail(std::string("cannot lock the test account's state: ") + std::strerror(errno));
    const std::string passwordPath = std::string(kStateDir) + "/password";
    password_.clear();
    std::getline(std::ifstream(passwordPath), password_);
    if (password_.find('#') == std::string::npos) {
        std::random_device random;
        password_ = "tv" + std::to_string(random()) + "#" + std::to_string(random());
        std::ofstream(passwordPath + ".new") << password_ << '\n';
        ::chmod((passwordPath + ".new").c_str(), 0600);
        if (::rename((passwordPath + ".new").c_str(), passwordPath.c_str()) != 0)
            return fail("cannot write " + passwordPath);
    }
    // A bash login shell, as most accounts have: scripts may use its syntax however they are sent.
    const std::string account = kAccount;
    if (!runTool("id " + account + " || /usr/sbin/useradd -m " + account +
                 "; /usr/sbin/usermod -s /bin/bash " + account))
        return fail("cannot make the account " + account + " with a bash shell");
    // Reset every time: the stored password is the one everybody uses.
    if (!runTool("/usr/sbin/chpasswd", account + ":" + password_ + "\n"))
        return fail("chpasswd failed");
    return true;
}

bool SshdHarness::spawn()
{
    // A port free on 127.0.0.1 now; one taken meanwhile (or busy on ::1) makes start() try another.
    if ((port_ = LoopbackSocket().port()) == 0)
        return fail("no free port on loopback");
    const std::string logPath = writeFile("sshd.log", "");
    if (server_ == Server::Dropbear)
        pid_ = startDaemon({kDropbear, "-F", "-E", "-w", "-p", "127.0.0.1:" + std::to_string(port_), "-r",
                            directory_ + "/dropbear_ed25519_host_key", "-P", directory_ + "/dropbear.pid"},
                           logPath);
    else // sshd re-executes itself: it needs its absolute path
        pid_ = startDaemon(
            {sshdProgram(), "-D", "-f", writeFile("sshd_config", openSshConfig()), "-E", logPath}, logPath);
    return pid_ > 0 || fail(std::string("fork: ") + std::strerror(errno));
}

// sshd is ready once it listens on both addresses (a bind that failed on one leaves it running on the other),
// dropbear once it says that it stays in the foreground, which it says after its bind.
bool SshdHarness::waitUntilReady()
{
    const std::string listening = " port " + std::to_string(port_) + ".";
    const auto ready = [&] {
        const std::string text = log();
        if (server_ == Server::Dropbear)
            return text.find("Not backgrounding") != std::string::npos;
        return text.find("listening on 127.0.0.1" + listening) != std::string::npos &&
               text.find("listening on ::1" + listening) != std::string::npos;
    };
    const auto busy = [&] {
        return log().find("already in use") != std::string::npos;
    };
    if (awaitDaemon(pid_, [&] { return busy() || ready(); }) && !busy())
        return true;
    return fail(busy() ? "the server could not bind its port (address already in use)"
                       : "the server did not get ready:\n" + log());
}

// The agent listens before it tells where: its socket is the sign that it serves.
std::string SshdHarness::startAgent(const std::string &key)
{
    killDaemon(agentPid_);
    const std::string socket = directory_ + "/agent.sock";
    ::unlink(socket.c_str()); // a socket left by an earlier agent would pass for this one's
    agentPid_ = startDaemon({"/usr/bin/ssh-agent", "-D", "-a", socket}, directory_ + "/agent.log");
    struct stat status
    {
    };
    if (!awaitDaemon(agentPid_,
                     [&] { return ::stat(socket.c_str(), &status) == 0 && S_ISSOCK(status.st_mode); }))
        return {};
    return runTool("SSH_AUTH_SOCK=" + socket + " /usr/bin/ssh-add " + key) ? socket : std::string();
}

void SshdHarness::stop()
{
    killDaemon(pid_);
    killDaemon(agentPid_);
    std::error_code ignored;
    if (!pamService_.empty())
        std::filesystem::remove(std::string(kPamDirectory) + "/" + pamService_, ignored);
    pamService_.clear();
    scratch_.reset();
    directory_.clear();
}

std::string SshdHarness::writeFile(const std::string &name, const std::string &text) const
{
    const std::string path = directory_ + "/" + name;
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    ::chmod(path.c_str(), 0644);
    return path;
}

std::string SshdHarness::log(std::size_t from) const
{
    return readFile(directory_ + "/sshd.log", from);
}

} // namespace telvane::test
