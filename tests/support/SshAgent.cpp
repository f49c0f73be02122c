#include "support/SshAgent.h"
#include "support/Daemon.h"

#include <chrono>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace telvane::test {

bool SshAgent::start()
{
    stop();
    if (::access("/usr/bin/ssh-agent", X_OK) != 0 || ::access("/usr/bin/ssh-add", X_OK) != 0)
        return reason_ = "ssh-agent is missing (install openssh-client)", false;
    const std::string directory = scratch_.emplace("telvane-agent").path().string();
    socket_ = directory + "/agent.sock";
    pid_ = startDaemon({"/usr/bin/ssh-agent", "-D", "-a", socket_}, directory + "/agent.log");
    // The agent listens before it tells where: its socket is the sign that it serves.
    for (int i = 0; i < 1500 && pid_ > 0; ++i) {
        struct stat status
        {
        };
        if (::stat(socket_.c_str(), &status) == 0 && S_ISSOCK(status.st_mode))
            return true;
        if (::waitpid(pid_, nullptr, WNOHANG) == pid_)
            pid_ = -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    reason_ = "ssh-agent did not start: " + readFile(directory + "/agent.log");
    stop();
    return false;
}

void SshAgent::stop()
{
    killDaemon(pid_);
    scratch_.reset();
    socket_.clear();
}

bool SshAgent::add(const std::string &path) const
{
    return runTool("SSH_AUTH_SOCK=" + socket_ + " /usr/bin/ssh-add " + path);
}

} // namespace telvane::test
