#include "PromptRelay_p.h"

#include <Telvane/TelvaneLog.h>

#include <QtCore/QThread>
#include <QtWidgets/QApplication>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace {

/// One prompt asked for from another thread. Lives on the asking thread's stack until `finished`.
struct Request
{
    const char *caller = nullptr;                  // set before the request is posted
    const std::function<void()> *prompt = nullptr; // set before the request is posted
    bool ran = false;                              // guarded by relayMutex
    bool finished = false; // guarded by relayMutex: answered, or abandoned with the application
};

class PromptRelay;

// The hand-over between asking threads and the GUI thread runs entirely on this mutex and condition variable
// rather than on a blocking queued call, so that the relay's end releases every waiter and no waiter can
// post to a relay that is being destroyed. It also keeps the order visible to ThreadSanitizer, which cannot
// see into Qt's own semaphores.
std::mutex relayMutex;
std::condition_variable relayFinished;
PromptRelay *relay = nullptr;           // guarded by relayMutex; set and cleared on the GUI thread
QThread *guiThread = nullptr;           // guarded by relayMutex
std::vector<Request *> pendingRequests; // guarded by relayMutex

/// Runs @p prompt unless the application has no widgets to show it with. GUI thread.
bool runIfWidgets(const char *caller, const std::function<void()> &prompt)
{
    if (!qobject_cast<QApplication *>(QCoreApplication::instance())) {
        telvaneLog("%s: the application has no widgets to show the prompt with\n", caller);
        return false;
    }
    prompt();
    return true;
}

/// Receives the requests of other threads on the GUI thread. A child of the application object, so that it
/// ends with it and abandons what it has not answered.
class PromptRelay : public QObject
{
    Q_OBJECT

public:
    explicit PromptRelay(QCoreApplication *app) : QObject(app)
    {
        std::lock_guard lock(relayMutex);
        relay = this;
        guiThread = app->thread();
    }

    ~PromptRelay() override
    {
        std::lock_guard lock(relayMutex);
        relay = nullptr;
        guiThread = nullptr;
        for (Request *request : pendingRequests)
            request->finished = true;
        pendingRequests.clear();
        relayFinished.notify_all();
    }

    // Invoked by name, so that Qt copies the argument itself and no functor of ours crosses threads.
    Q_INVOKABLE void show(void *address)
    {
        auto *request = static_cast<Request *>(address);
        {
            std::lock_guard lock(relayMutex);
            if (std::find(pendingRequests.begin(), pendingRequests.end(), request) == pendingRequests.end())
                return;
        }
        // The request stays pending, and so its asker waiting, while the prompt runs: only this thread
        // could abandon it, when the relay ends.
        const bool ran = runIfWidgets(request->caller, *request->prompt);
        std::lock_guard lock(relayMutex);
        const auto pending = std::find(pendingRequests.begin(), pendingRequests.end(), request);
        if (pending == pendingRequests.end())
            return;
        pendingRequests.erase(pending);
        request->ran = ran;
        request->finished = true;
        relayFinished.notify_all();
    }
};

void createRelay()
{
    if (auto *app = QCoreApplication::instance())
        new PromptRelay(app);
}

} // namespace

// Every application object gets its relay as it is constructed, on the GUI thread, before any other thread
// can ask for a prompt.
Q_COREAPP_STARTUP_FUNCTION(createRelay)

namespace TelvaneWidgets {

bool runPromptOnGuiThread(const char *caller, const std::function<void()> &prompt)
{
    Request request;
    request.caller = caller;
    request.prompt = &prompt;
    std::unique_lock lock(relayMutex);
    if (!relay) {
        telvaneLog("%s: no application object to show the prompt on\n", caller);
        return false;
    }
    if (QThread::currentThread() == guiThread) {
        lock.unlock();
        // Asked on the GUI thread itself: waiting for it would wait forever.
        return runIfWidgets(caller, prompt);
    }
    pendingRequests.push_back(&request);
    if (!QMetaObject::invokeMethod(relay, "show", Qt::QueuedConnection, Q_ARG(void *, &request))) {
        pendingRequests.pop_back();
        telvaneLog("%s: could not reach the GUI thread\n", caller);
        return false;
    }
    relayFinished.wait(lock, [&request] { return request.finished; });
    return request.ran;
}

} // namespace TelvaneWidgets

#include "PromptRelay.moc"
