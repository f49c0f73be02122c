#include "SignalWatcher.h"

#include <csignal>
#include <pthread.h>
#include <unistd.h>

namespace {
constexpr int kQuit = SIGUSR2; // sent to ourselves to end the watcher thread
}

SignalWatcher::SignalWatcher(std::function<void(int)> onSignal) : onSignal_(std::move(onSignal))
{
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, kQuit);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    thread_ = std::thread([this, set] {
        for (;;) {
            int signal = 0;
            if (sigwait(&set, &signal) != 0 || signal == kQuit)
                return;
            if (received_.exchange(signal) != 0)
                _exit(128 + signal); // a second interrupt: the user wants out now
            onSignal_(signal);
        }
    });
}

SignalWatcher::~SignalWatcher()
{
    pthread_kill(thread_.native_handle(), kQuit);
    thread_.join();
}
