#include <Telvane/Telvane.h>

#include "Platform/SshLibrary_p.h"
#include "ScriptText_p.h"
#include "Telvane_p.h"
#include <Telvane/TelvaneLog.h>

TelvaneDelegate::~TelvaneDelegate() = default;
void TelvaneDelegate::sensorScriptDidStart(Telvane &, std::shared_ptr<TelvaneFileHandle>) {}
void TelvaneDelegate::sensorScriptDidTerminate(Telvane &, long) {}
void TelvaneDelegate::sensorDidFailWithError(Telvane &, long) {}
bool TelvaneDelegate::shouldTrustHostKey(Telvane &, const TelvaneHostKey &, bool policyAnswer)
{
    return policyAnswer;
}
void TelvaneDelegate::sensorRunDidFinish(Telvane &, const TelvaneRunOutcome &) {}
std::optional<TelvaneOutputSink> TelvaneDelegate::outputSinkForRun(Telvane &, TelvaneRunId)
{
    return std::nullopt;
}
std::optional<std::vector<std::string>> TelvaneDelegate::answersForLoginQuestion(Telvane &,
                                                                                 const TelvaneLoginQuestion &)
{
    return std::nullopt;
}

TelvanePrivate::TelvanePrivate(Telvane &q, std::string identifier, std::string name, std::string hostname,
                               long port, double timeout)
    : q(q), identifier(std::move(identifier)), name(std::move(name)), hostname(std::move(hostname)),
      port(port), timeout(timeout)
{}

void TelvanePrivate::startRun(TelvaneRunId id, const std::string &script)
{
    newestRun = id;
    auto run = std::make_shared<Run>(*this, id);
    {
        std::lock_guard lock(runMutex);
        runs.push_back(run);
    }
    run->start(script);
}

void TelvanePrivate::closeRun(Run &run)
{
    run.requestStop();
    bool held;
    {
        std::lock_guard lock(monitor);
        bool newest;
        {
            std::lock_guard runLock(runMutex);
            newest = !runs.empty() && runs.back().get() == &run;
            std::erase_if(runs, [&](const std::shared_ptr<Run> &live) { return live.get() == &run; });
        }
        if (newest)
            running = false;
        held = run.teardown();
    }
    telvane::sshLibraryRelease(held);
}

void TelvanePrivate::closeAll()
{
    // running goes NO before the lock; the wakes reach every wait on a socket (of a pump, or of a run still
    // connecting, which holds the lock) at once.
    running = false;
    const auto wakeAll = [this] {
        std::lock_guard runLock(runMutex);
        for (const auto &run : runs)
            run->requestStop();
    };
    wakeAll();
    std::vector<std::shared_ptr<Run>> closing;
    {
        std::lock_guard lock(monitor);
        wakeAll(); // a run registered after the first wake must see the stop too
        {
            std::lock_guard runLock(runMutex);
            closing.swap(runs);
        }
        for (const auto &run : closing)
            telvane::sshLibraryRelease(run->teardown());
        // Again under the lock: a run that was launching when this close began set running after the first
        // store.
        running = false;
    }
}

void TelvanePrivate::keepFailure(TelvaneRunId id, const TelvaneFailure &failure)
{
    if (newestRun.load() != id)
        return;
    std::lock_guard lock(propertyMutex);
    lastFailure = failure;
}

std::shared_ptr<Telvane> Telvane::create(std::string identifier, std::string name, std::string hostname,
                                         std::optional<long> port, double timeout)
{
    return std::make_shared<Telvane>(Token{}, std::move(identifier), std::move(name), std::move(hostname),
                                     port.value_or(22), timeout);
}

Telvane::Telvane(Token, std::string identifier, std::string name, std::string hostname, long port,
                 double timeout)
    : d(std::make_unique<TelvanePrivate>(*this, std::move(identifier), std::move(name), std::move(hostname),
                                         port, timeout))
{}

Telvane::~Telvane() = default; // a run frees itself with its last owner

TelvaneRunId Telvane::runScript(std::optional<std::string> script, std::optional<TelvaneArguments> arguments)
{
    static std::atomic<TelvaneRunId> lastRun{0};
    if (!script || script->empty())
        return 0;
    const TelvaneRunId run = ++lastRun;
    setScript(script);
    setArgs(arguments);
    {
        std::lock_guard lock(d->propertyMutex);
        d->lastFailure.reset();
    }
    std::string text = arguments ? telvane::substitutePlaceholders(*script, *arguments) : std::move(*script);
    if (d->runScriptOverride)
        d->runScriptOverride(text);
    else
        d->startRun(run, text);
    return run;
}

TelvaneRunId Telvane::runAgain()
{
    if (running())
        return 0;
    return runScript(script(), args());
}

void Telvane::stopScript()
{
    close();
}

void Telvane::close()
{
    d->closeAll();
}

void TelvanePrivate::fail(long code, std::string reason)
{
    {
        std::lock_guard lock(propertyMutex);
        lastFailure = TelvaneFailure{code, std::move(reason), {}};
    }
    q.close();
    if (auto delegate = q.delegate())
        delegate->sensorDidFailWithError(q, code);
}

std::optional<TelvaneFailure> Telvane::lastFailure() const
{
    std::lock_guard lock(d->propertyMutex);
    return d->lastFailure;
}

void Telvane::sensorDidFailWithError(long code)
{
    static const char *const words[] = {"the run failed", "the connection failed",
                                        "no credentials were given", "the login was refused"};
    d->fail(code, words[code >= 1 && code <= 3 ? code : 0]);
}

std::string Telvane::serviceNameForSensor() const
{
    return TelvaneCredentials::serviceNameForHost(hostname());
}

#define TELVANE_PROPERTY(Type, getter, setter, field)                                                        \
    Type Telvane::getter() const                                                                             \
    {                                                                                                        \
        std::lock_guard lock(d->propertyMutex);                                                              \
        return d->field;                                                                                     \
    }                                                                                                        \
    void Telvane::setter(Type value)                                                                         \
    {                                                                                                        \
        std::lock_guard lock(d->propertyMutex);                                                              \
        d->field = std::move(value);                                                                         \
    }

TELVANE_PROPERTY(std::shared_ptr<TelvanePipe>, pipe, setPipe, pipe)
TELVANE_PROPERTY(std::string, identifier, setIdentifier, identifier)
TELVANE_PROPERTY(std::string, name, setName, name)
TELVANE_PROPERTY(std::string, hostname, setHostname, hostname)
TELVANE_PROPERTY(long, port, setPort, port)
TELVANE_PROPERTY(std::string, connectHostname, setConnectHostname, connectHostname)
TELVANE_PROPERTY(std::string, knownHostsFile, setKnownHostsFile, knownHostsFile)
TELVANE_PROPERTY(TelvaneHostKeyPolicy, hostKeyPolicy, setHostKeyPolicy, hostKeyPolicy)
TELVANE_PROPERTY(std::optional<std::string>, script, setScript, script)
TELVANE_PROPERTY(std::optional<TelvaneArguments>, args, setArgs, args)
TELVANE_PROPERTY(std::string, username, setUsername, username)
TELVANE_PROPERTY(std::optional<TelvaneCredentialsDictionary>, presetCredentials, setPresetCredentials,
                 presetCredentials)
TELVANE_PROPERTY(bool, publicKeyAuthentication, setPublicKeyAuthentication, publicKeyAuthentication)
TELVANE_PROPERTY(std::vector<std::string>, identityFiles, setIdentityFiles, identityFiles)
#undef TELVANE_PROPERTY

std::shared_ptr<TelvaneDelegate> Telvane::delegate() const
{
    std::lock_guard lock(d->propertyMutex);
    return d->delegate.lock();
}

void Telvane::setDelegate(std::weak_ptr<TelvaneDelegate> delegate)
{
    std::lock_guard lock(d->propertyMutex);
    d->delegate = std::move(delegate);
}

bool Telvane::running() const
{
    return d->running.load();
}

void Telvane::setRunning(bool running)
{
    d->running.store(running);
}

double Telvane::timeout() const
{
    return d->timeout.load();
}

void Telvane::setTimeout(double timeout)
{
    d->timeout.store(timeout);
}
