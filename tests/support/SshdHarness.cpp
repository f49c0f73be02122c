#include "support/SshdHarness.h"
#include "support/Files.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace telvane::test {
namespace {

constexpr const char *kSshd = "/usr/sbin/sshd";
constexpr const char *kKeygen = "/usr/bin/ssh-keygen";
constexpr const char *kUseradd = "/usr/sbin/useradd";
constexpr const char *kChpasswd = "/usr/sbin/chpasswd";
// The account's password lives here so that every harness on the machine (ctest runs tests in parallel
// processes) logs in with the same one; a fresh random one per process would lock the others out.
constexpr const char *kStateDir = "/var/lib/telvane-test";

// Runs @p argv to its end with @p input on its standard input (never on its command line: it may be a
// password); its output goes to @p output. Answers the exit status, or -1 when it could not run.
int runTool(const std::vector<std::string> &argv, const std::string &input, std::string *output = nullptr)
{
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0)
        return -1;
    if (::pipe2(out, O_CLOEXEC) != 0) {
        ::close(in[0]);
        ::close(in[1]);
        return -1;
    }
    std::vector<char *> args;
    for (const auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        ::dup2(out[1], 2);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    Descriptor readEnd(out[0]);
    if (pid < 0) {
        ::close(in[1]);
        return -1;
    }
    {
        // A tool that leaves without reading must not kill us with SIGPIPE, and the process-wide disposition
        // is not ours to change (tests check that the library never raises it): block it on this thread and
        // swallow a pending one.
        sigset_t pipeSignal, previous;
        sigemptyset(&pipeSignal);
        sigaddset(&pipeSignal, SIGPIPE);
        ::pthread_sigmask(SIG_BLOCK, &pipeSignal, &previous);
        [[maybe_unused]] ssize_t written = ::write(in[1], input.data(), input.size());
        const timespec now{0, 0};
        ::sigtimedwait(&pipeSignal, nullptr, &now);
        ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        ::close(in[1]);
    }
    char buffer[4096];
    for (ssize_t n; (n = ::read(readEnd.get(), buffer, sizeof buffer)) != 0;) {
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            break;
        if (output)
            output->append(buffer, static_cast<std::size_t>(n));
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string randomPassword()
{
    static const char alphabet[] = "ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz23456789";
    unsigned char bytes[20] = {};
    std::ifstream("/dev/urandom", std::ios::binary).read(reinterpret_cast<char *>(bytes), sizeof bytes);
    std::string text = "tv";
    for (unsigned char b : bytes)
        text += alphabet[b % (sizeof alphabet - 1)];
    text.insert(8, "#"); // a number sign, as the header promises
    return text;
}

// A port that is free on both loopback addresses right now. Another process may take it before sshd
// binds it; start() then tries again with a new one.
int freePort()
{
    for (int attempt = 0; attempt < 20; ++attempt) {
        Descriptor v4(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in a4{};
        a4.sin_family = AF_INET;
        a4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof a4;
        if (::bind(v4.get(), reinterpret_cast<sockaddr *>(&a4), sizeof a4) != 0 ||
            ::getsockname(v4.get(), reinterpret_cast<sockaddr *>(&a4), &length) != 0)
            continue;
        Descriptor v6(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in6 a6{};
        a6.sin6_family = AF_INET6;
        a6.sin6_addr = in6addr_loopback;
        a6.sin6_port = a4.sin_port;
        if (::bind(v6.get(), reinterpret_cast<sockaddr *>(&a6), sizeof a6) == 0)
            return ntohs(a4.sin_port);
    }
    return 0;
}

// Connects to @p host at @p port and reads until the server's identification line has begun.
bool answersWithBanner(const char *host, int port, std::chrono::steady_clock::time_point deadline)
{
    sockaddr_storage storage{};
    socklen_t length;
    int family;
    if (auto *a4 = reinterpret_cast<sockaddr_in *>(&storage);
        ::inet_pton(AF_INET, host, &a4->sin_addr) == 1) {
        family = a4->sin_family = AF_INET;
        a4->sin_port = htons(static_cast<uint16_t>(port));
        length = sizeof *a4;
    } else {
        auto *a6 = reinterpret_cast<sockaddr_in6 *>(&storage);
        ::inet_pton(AF_INET6, host, &a6->sin6_addr);
        family = a6->sin6_family = AF_INET6;
        a6->sin6_port = htons(static_cast<uint16_t>(port));
        length = sizeof *a6;
    }
    Descriptor fd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(fd.get(), reinterpret_cast<sockaddr *>(&storage), length) != 0)
        return false;
    std::string seen;
    while (seen.size() < 7) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd p{fd.get(), POLLIN, 0};
        if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0)
            return false;
        char buffer[64];
        const ssize_t n = ::recv(fd.get(), buffer, sizeof buffer, 0);
        if (n <= 0)
            return false;
        seen.append(buffer, static_cast<std::size_t>(n));
    }
    return seen.compare(0, 7, "SSH-2.0") == 0;
}

} // namespace

SshdHarness::~SshdHarness()
{
    stop();
}

bool SshdHarness::fail(std::string why)
{
    reason_ = std::move(why);
    return false;
}

bool SshdHarness::start()
{
    if (running())
        return true;
    stop(); // what a failed start left behind
    if (::geteuid() != 0)
        return fail("sshd tests need root, to create the test account and to run sshd");
    for (const char *tool : {kSshd, kKeygen, kUseradd, kChpasswd})
        if (::access(tool, X_OK) != 0)
            return fail(std::string(tool) + " is missing (install openssh-server and passwd)");
    // sshd refuses to start without its privilege-separation directory.
    if (::mkdir("/run/sshd", 0755) != 0 && errno != EEXIST)
        return fail(std::string("cannot create /run/sshd: ") + std::strerror(errno));
    if (!prepareAccount())
        return false;

    char pattern[] = "/tmp/telvane-sshd-XXXXXX";
    if (!::mkdtemp(pattern))
        return fail(std::string("mkdtemp: ") + std::strerror(errno));
    directory_ = pattern;
    // The test account reads the scripts that tests leave here.
    ::chmod(directory_.c_str(), 0755);
    for (const char *type : {"ed25519", "ecdsa"}) {
        std::string out;
        const std::string key = directory_ + "/ssh_host_" + type + "_key";
        if (runTool({kKeygen, "-q", "-t", type, "-N", "", "-C", "telvane-test-host", "-f", key}, "", &out) !=
            0)
            return fail("ssh-keygen -t " + std::string(type) + " failed: " + out);
    }

    // Another process may take the chosen port before sshd binds it; a few tries get past that.
    for (int attempt = 0; attempt < 5; ++attempt) {
        port_ = freePort();
        if (port_ == 0)
            return fail("no free port on loopback");
        if (!writeConfig() || !spawn())
            return false;
        if (waitUntilReady()) {
            reason_.clear();
            return true;
        }
        killDaemon();
        if (reason_.find("address already in use") == std::string::npos)
            break;
    }
    return false;
}

bool SshdHarness::prepareAccount()
{
    ::mkdir(kStateDir, 0700);
    const std::string lockPath = std::string(kStateDir) + "/lock";
    Descriptor lock(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (lock.get() < 0 || ::flock(lock.get(), LOCK_EX) != 0)
        return fail("cannot lock " + lockPath + ": " + std::strerror(errno));

    const std::string passwordPath = std::string(kStateDir) + "/password";
    password_.clear();
    std::getline(std::ifstream(passwordPath), password_);
    if (password_.find('#') == std::string::npos) {
        password_ = randomPassword();
        const std::string temporary = passwordPath + ".new";
        {
            std::ofstream file(temporary, std::ios::trunc);
            file << password_ << '\n';
            if (!file)
                return fail("cannot write " + temporary);
        }
        ::chmod(temporary.c_str(), 0600);
        if (::rename(temporary.c_str(), passwordPath.c_str()) != 0)
            return fail("cannot write " + passwordPath);
    }

    std::string out;
    if (!::getpwnam(kAccount) && runTool({kUseradd, "-m", "-s", "/bin/sh", kAccount}, "", &out) != 0)
        return fail("useradd " + std::string(kAccount) + " failed: " + out);
    // Reset every time: someone may have changed it, and the stored one is the one everybody uses.
    if (runTool({kChpasswd}, std::string(kAccount) + ":" + password_ + "\n", &out) != 0)
        return fail("chpasswd failed: " + out);
    return true;
}

bool SshdHarness::writeConfig()
{
    std::string extra = extraConfig_;
    for (auto at = extra.find("%PORT%"); at != std::string::npos; at = extra.find("%PORT%", at))
        extra.replace(at, 6, std::to_string(port_));
    std::ofstream config(directory_ + "/sshd_config", std::ios::trunc);
    config << extra; // first: for most keywords sshd keeps the first value it reads
    config
        << "ListenAddress 127.0.0.1:" << port_ << "\n"
        << "ListenAddress [::1]:" << port_ << "\n"
        << "HostKey " << directory_ << "/ssh_host_ed25519_key\n"
        << "HostKey " << directory_ << "/ssh_host_ecdsa_key\n"
        << "PidFile none\n"
        << "LogLevel VERBOSE\n"
        // Password logins against the shadow file; PAM would add nothing here but its own session noise.
        << "UsePAM no\n"
        << "PasswordAuthentication yes\n"
        << "KbdInteractiveAuthentication no\n"
        << "PubkeyAuthentication no\n"
        << "AuthorizedKeysFile none\n"
        << "PermitRootLogin no\n"
        << "AllowUsers " << kAccount << "\n"
        << "StrictModes no\n"
        << "UseDNS no\n"
        << "PrintMotd no\n"
        << "PrintLastLog no\n"
        << "X11Forwarding no\n"
        << "AllowTcpForwarding no\n"
        // Stress tests abandon many connections mid-handshake; the default limit would start dropping them.
        << "MaxStartups 500\n"
        << "LoginGraceTime 60\n";
    return config ? true : fail("cannot write the sshd configuration");
}

bool SshdHarness::spawn()
{
    const std::string config = directory_ + "/sshd_config";
    const std::string logPath = directory_ + "/sshd.log";
    // Everything the child needs is made before fork: after it only async-signal-safe calls are allowed.
    std::vector<std::string> argv{kSshd, "-D", "-f", config, "-E", logPath};
    std::vector<char *> args;
    for (auto &a : argv)
        args.push_back(a.data());
    args.push_back(nullptr);
    const int logFd = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const int nullFd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid == 0) {
        // Dies with us, however we end (a crash or a time-out kill included).
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent)
            ::_exit(1);
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::dup2(nullFd, 0);
        ::dup2(logFd, 1);
        ::dup2(logFd, 2);
        ::execv(kSshd, args.data()); // sshd re-executes itself, so it must be started by absolute path
        ::_exit(127);
    }
    ::close(logFd);
    ::close(nullFd);
    if (pid < 0)
        return fail(std::string("fork: ") + std::strerror(errno));
    pid_ = pid;
    return true;
}

bool SshdHarness::waitUntilReady()
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    while (std::chrono::steady_clock::now() < deadline) {
        int status;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            std::string why = "sshd exited before it was ready";
            const std::string text = log();
            if (text.find("Address already in use") != std::string::npos)
                why += " (address already in use)";
            return fail(why + ":\n" + text);
        }
        if (answersWithBanner(host().c_str(), port_, deadline) &&
            answersWithBanner(host6().c_str(), port_, deadline))
            return true;
        // A bind that failed on one address leaves sshd running on the other: that one never gets ready.
        if (log().find("Address already in use") != std::string::npos)
            return fail("sshd could not bind its port (address already in use)");
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return fail("sshd did not answer with a banner within 15 seconds:\n" + log());
}

void SshdHarness::killDaemon()
{
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGTERM);
    int status;
    bool gone = false;
    for (int i = 0; i < 200 && !gone; ++i) {
        gone = ::waitpid(pid_, &status, WNOHANG) == pid_;
        if (!gone)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (!gone) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
    }
    pid_ = -1;
}

void SshdHarness::stop()
{
    killDaemon();
    if (!directory_.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
        directory_.clear();
    }
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

std::size_t SshdHarness::logSize() const
{
    struct stat info
    {
    };
    return ::stat((directory_ + "/sshd.log").c_str(), &info) == 0 ? static_cast<std::size_t>(info.st_size)
                                                                  : 0;
}

} // namespace telvane::test
