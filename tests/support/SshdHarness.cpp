// The throwaway servers: the account they share, the programs, host keys, configuration, PAM stack and
// client keys that differ between them, and an ssh-agent.
#include "support/SshdHarness.h"
#include "support/Files.h"
#include "support/Loopback.h"
#include "support/Process.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
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

// A PAM service of a harness is named "telvane-otp-PID-N" after the process that made it (PAM takes the names
// in lower case only).
constexpr const char *kPamServicePrefix = "telvane-otp-";
constexpr const char *kOathTool = "/usr/bin/oathtool";

// A harness that was killed leaves its PAM stack behind; its name tells whose it was.
void removeStalePamServices(const std::string &pamDirectory)
{
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator(pamDirectory, error)) {
        const std::string name = entry.path().filename().string();
        if (name.rfind(kPamServicePrefix, 0) != 0)
            continue;
        const long owner = std::atol(name.c_str() + std::strlen(kPamServicePrefix));
        if (owner > 0 && ::kill(static_cast<pid_t>(owner), 0) != 0 && errno == ESRCH)
            std::filesystem::remove(entry.path(), error);
    }
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
    std::filesystem::remove(socket); // a socket left by an earlier agent would pass for this one's
    agentPid_ = startDaemon({"/usr/bin/ssh-agent", "-D", "-a", socket}, directory_ + "/agent.log");
    if (!awaitDaemon(agentPid_, [&] { return std::filesystem::is_socket(socket); }))
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

std::string SshdHarness::writeFile(const std::string &name, const std::string &text, mode_t mode) const
{
    const std::string path = directory_ + "/" + name;
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    ::chmod(path.c_str(), mode);
    return path;
}

std::string SshdHarness::log(std::size_t from) const
{
    return readFile(directory_ + "/sshd.log", from);
}

bool SshdHarness::prepareServer()
{
    if (server_ == Server::Dropbear) {
        if (::access(kDropbear, X_OK) != 0 || ::access("/usr/bin/dropbearkey", X_OK) != 0)
            return fail("dropbear is missing (install dropbear-bin)");
        return runTool("/usr/bin/dropbearkey -t ed25519 -f " + directory_ + "/dropbear_ed25519_host_key") ||
               fail("dropbearkey failed");
    }
    if (::access(kSshd, X_OK) != 0)
        return fail(std::string(kSshd) + " is missing (install openssh-server)");
    ::mkdir("/run/sshd", 0755); // sshd refuses to start without its privilege-separation directory
    for (const std::string type : {"ed25519", "ecdsa"})
        if (!runTool("/usr/bin/ssh-keygen -q -t " + type + " -N '' -f " + directory_ + "/ssh_host_" + type +
                     "_key"))
            return fail("ssh-keygen -t " + type + " failed");
    return server_ != Server::OneTimeCode || prepareOneTimeCode();
}

// The password through pam_unix, then an HOTP code through pam_oath. pam_unix is requisite, as Debian's
// common-auth makes it in effect: a wrong password ends the login before the code is asked for.
bool SshdHarness::prepareOneTimeCode()
{
    if (::access(kOathTool, X_OK) != 0 ||
        !runTool("ls /usr/lib/*/security/pam_oath.so /lib/*/security/pam_oath.so 2>/dev/null | grep -q ."))
        return fail("pam_oath is missing (install libpam-oath and oathtool)");
    removeStalePamServices(kPamDirectory);
    // sshd names its PAM service after the name it was started under: a link of our own reads a stack of our
    // own, and the system's /etc/pam.d/sshd stays as it is.
    static std::atomic<int> made{0};
    pamService_ = kPamServicePrefix + std::to_string(::getpid()) + "-" + std::to_string(++made);
    if (::symlink(kSshd, sshdProgram().c_str()) != 0)
        return fail("cannot link " + sshdProgram());
    const std::string key = toolOutput("od -An -N20 -tx1 /dev/urandom | tr -d ' \\n'");
    writeFile("oath.key", key + "\n", 0600);
    const std::string users =
        writeFile("users.oath", std::string("HOTP ") + kAccount + " - " + key + "\n", 0600);
    std::ofstream(std::string(kPamDirectory) + "/" + pamService_)
        << "auth requisite pam_unix.so\n"
        << "auth required pam_oath.so usersfile=" << users << " window=20\n"
        << "account required pam_unix.so\n"
        << "session required pam_permit.so\n";
    nextCounter_ = 0;
    return true;
}

std::string SshdHarness::sshdProgram() const
{
    return pamService_.empty() ? kSshd : directory_ + "/" + pamService_;
}

std::string SshdHarness::openSshConfig() const
{
    std::string config = extraConfig_; // first: sshd keeps the first value it reads
    for (auto at = config.find("%PORT%"); at != std::string::npos; at = config.find("%PORT%", at))
        config.replace(at, 6, std::to_string(port_));
    if (server_ == Server::OneTimeCode)
        config += "UsePAM yes\nPasswordAuthentication no\nKbdInteractiveAuthentication yes\n";
    if (server_ == Server::PublicKey)
        config += "PasswordAuthentication no\nPubkeyAuthentication yes\nAuthorizedKeysFile " + directory_ +
                  "/authorized_keys\n";
    const std::string port = std::to_string(port_);
    config += "ListenAddress 127.0.0.1:" + port + "\nListenAddress [::1]:" + port + "\n";
    for (const char *type : {"ed25519", "ecdsa"})
        config += "HostKey " + directory_ + "/ssh_host_" + type + "_key\n";
    return config +
           "PidFile none\nLogLevel VERBOSE\nUsePAM no\nPasswordAuthentication yes\n"
           "KbdInteractiveAuthentication no\nPubkeyAuthentication no\nAuthorizedKeysFile none\n"
           "PermitRootLogin no\nAllowUsers " +
           kAccount +
           "\nStrictModes no\nUseDNS no\nPrintMotd no\n"
           "PrintLastLog no\nX11Forwarding no\nAllowTcpForwarding no\n"
           // Stress tests abandon many connections mid-handshake; the default limit would drop them.
           "MaxStartups 500\nLoginGraceTime 60\n";
}

std::string SshdHarness::oneTimeCode()
{
    return toolOutput(std::string(kOathTool) + " --hotp -c " + std::to_string(nextCounter_++) + " @" +
                      directory_ + "/oath.key");
}

std::string SshdHarness::makeClientKey(const std::string &name, const std::string &passphrase)
{
    const std::string path = directory_ + "/" + name;
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
    // ssh-keygen takes a passphrase on its command line or a terminal only; this one guards a throwaway key.
    if (!runTool("/usr/bin/ssh-keygen -q -t ed25519 -C " + name + " -N '" + passphrase + "' -f " + path))
        return {};
    std::ofstream(directory_ + "/authorized_keys", std::ios::app) << readFile(path + ".pub");
    return path;
}

} // namespace telvane::test
