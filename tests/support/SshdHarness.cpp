#include "support/SshdHarness.h"
#include "support/Files.h"
#include "support/Loopback.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <pwd.h>
#include <random>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace telvane::test {
namespace {

constexpr const char *kSshd = "/usr/sbin/sshd";
// The account's password lives here so that every harness on the machine (ctest runs tests in parallel
// processes) logs in with the same one; a fresh one per process would lock the others out.
constexpr const char *kStateDir = "/var/lib/telvane-test";

// Runs @p command with @p input on its standard input, never on its command line: it may be a password.
bool runTool(const std::string &command, const std::string &input = {})
{
    FILE *tool = ::popen((command + " >/dev/null 2>&1").c_str(), "w");
    if (!tool)
        return false;
    std::fwrite(input.data(), 1, input.size(), tool);
    const int status = ::pclose(tool);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

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
    if (::access(kSshd, X_OK) != 0)
        return fail(std::string(kSshd) + " is missing (install openssh-server)");
    ::mkdir("/run/sshd", 0755); // sshd refuses to start without its privilege-separation directory
    if (!prepareAccount())
        return false;
    if ((directory_ = scratch_.emplace("telvane-sshd").path().string()).empty())
        return fail(std::string("mkdtemp: ") + std::strerror(errno));
    ::chmod(directory_.c_str(), 0755); // the test account reads the scripts that tests leave here
    for (const std::string type : {"ed25519", "ecdsa"})
        if (!runTool("/usr/bin/ssh-keygen -q -t " + type + " -N '' -f " + directory_ + "/ssh_host_" + type +
                     "_key"))
            return fail("ssh-keygen -t " + type + " failed");
    for (int attempt = 0; attempt < 5; ++attempt) {
        if (!spawn())
            return false;
        if (waitUntilReady())
            return true;
        killDaemon();
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
    if (!::getpwnam(kAccount) && !runTool(std::string("/usr/sbin/useradd -m -s /bin/bash ") + kAccount))
        return fail(std::string("useradd ") + kAccount + " failed");
    if (std::string(::getpwnam(kAccount)->pw_shell) != "/bin/bash" &&
        !runTool(std::string("/usr/sbin/usermod -s /bin/bash ") + kAccount))
        return fail(std::string("usermod ") + kAccount + " failed");
    // Reset every time: the stored password is the one everybody uses.
    if (!runTool("/usr/sbin/chpasswd", std::string(kAccount) + ":" + password_ + "\n"))
        return fail("chpasswd failed");
    return true;
}

bool SshdHarness::spawn()
{
    // A port free on 127.0.0.1 now; one taken meanwhile (or busy on ::1) makes start() try another.
    if ((port_ = LoopbackSocket().port()) == 0)
        return fail("no free port on loopback");
    std::string extra = extraConfig_;
    for (auto at = extra.find("%PORT%"); at != std::string::npos; at = extra.find("%PORT%", at))
        extra.replace(at, 6, std::to_string(port_));
    const std::string config = writeFile("sshd_config", extra); // first: sshd keeps the first value it reads
    std::ofstream(config, std::ios::app)
        << "ListenAddress 127.0.0.1:" << port_ << "\nListenAddress [::1]:" << port_ << "\n"
        << "HostKey " << directory_ << "/ssh_host_ed25519_key\nHostKey " << directory_
        << "/ssh_host_ecdsa_key\n"
        << "PidFile none\nLogLevel VERBOSE\nUsePAM no\nPasswordAuthentication yes\n"
        << "KbdInteractiveAuthentication no\nPubkeyAuthentication no\nAuthorizedKeysFile none\n"
        << "PermitRootLogin no\nAllowUsers " << kAccount << "\nStrictModes no\nUseDNS no\nPrintMotd no\n"
        << "PrintLastLog no\nX11Forwarding no\nAllowTcpForwarding no\n"
        // Stress tests abandon many connections mid-handshake; the default limit would drop them.
        << "MaxStartups 500\nLoginGraceTime 60\n";
    const std::string logPath = writeFile("sshd.log", "");
    // Everything the child needs is made before fork: after it only async-signal-safe calls are allowed.
    const char *argv[] = {kSshd, "-D", "-f", config.c_str(), "-E", logPath.c_str(), nullptr};
    const int logFd = ::open(logPath.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL); // dies with us, however we end
        if (::getppid() != parent)
            ::_exit(1);
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::dup2(logFd, 1);
        ::dup2(logFd, 2);
        ::execv(kSshd, const_cast<char **>(argv)); // sshd re-executes itself: it needs its absolute path
        ::_exit(127);
    }
    ::close(logFd);
    return pid_ > 0 || fail(std::string("fork: ") + std::strerror(errno));
}

// Ready once it listens on both addresses; a bind that failed on one leaves it running on the other.
bool SshdHarness::waitUntilReady()
{
    const std::string listening = " port " + std::to_string(port_) + ".";
    for (int i = 0; i < 1500; ++i) {
        const std::string text = log();
        if (text.find("already in use") != std::string::npos)
            return fail("sshd could not bind its port (address already in use)");
        if (text.find("listening on 127.0.0.1" + listening) != std::string::npos &&
            text.find("listening on ::1" + listening) != std::string::npos)
            return true;
        if (int status; ::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return fail("sshd exited before it was ready:\n" + text);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return fail("sshd did not listen within 15 seconds:\n" + log());
}

void SshdHarness::killDaemon()
{
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    pid_ = -1;
}

void SshdHarness::stop()
{
    killDaemon();
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
