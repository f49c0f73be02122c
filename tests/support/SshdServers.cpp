// What differs between the harness's servers: programs, host keys, configuration, PAM stack and client keys.
#include "support/Daemon.h"
#include "support/SshdHarness.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace telvane::test {
namespace {

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
    ::chmod(writeFile("oath.key", key + "\n").c_str(), 0600);
    const std::string users = writeFile("users.oath", std::string("HOTP ") + kAccount + " - " + key + "\n");
    ::chmod(users.c_str(), 0600);
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
