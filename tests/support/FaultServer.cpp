#include "FaultServer.h"
#include "Daemon.h"
#include "TestEnvironment.h"

#include <csignal>
#include <cstdlib>
#include <fstream>

namespace telvane::test {

namespace {
constexpr std::string_view kListening = "listening on port ";
}

FaultServer::FaultServer(const std::string &user, const std::string &password)
{
    if (!directory_.empty())
        pid_ = startDaemon({TELVANE_FAULTD_PATH, user, password, directory_ + "/fault"},
                           directory_ + "/faultd.log");
    // Generous patience, for sanitizer builds on a busy machine.
    if (pid_ > 0 &&
        waitUntil([&] { return log().find(kListening) != std::string::npos; }, std::chrono::seconds(30)))
        port_ = std::atoi(log().c_str() + log().find(kListening) + kListening.size());
    if (port_ <= 0) {
        error_ = "telvane-faultd did not start; its log:\n" + log();
        stop();
    }
}

FaultServer::~FaultServer()
{
    stop();
}

bool FaultServer::setFault(std::string_view fault)
{
    // Written aside and renamed, so a connection accepted meanwhile reads the old fault or the new one.
    const std::string path = directory_ + "/fault";
    std::ofstream(path + ".new") << fault << '\n';
    return !directory_.empty() && std::rename((path + ".new").c_str(), path.c_str()) == 0;
}

std::string FaultServer::log() const
{
    return directory_.empty() ? std::string() : readFile(directory_ + "/faultd.log");
}

void FaultServer::stop()
{
    if (pid_ > 0)
        kill(-pid_, SIGKILL); // the server leads a process group of its connections and their commands
    killDaemon(pid_);
    port_ = 0;
}

} // namespace telvane::test
