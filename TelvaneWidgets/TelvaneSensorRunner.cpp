#include "TelvaneSensorRunner.h"

#include "BackgroundThreads_p.h"
#include "RunnerLink_p.h"

#include <QtCore/QMetaMethod>
#include <QtCore/QPointer>

using TelvaneWidgets::CredentialsRequest;
using TelvaneWidgets::RunEvent;
using TelvaneWidgets::RunnerLink;
using TelvaneWidgets::RunnerRelay;

// Hidden, although nested in an exported class: none of it is API.
class TELVANE_WIDGETS_NO_EXPORT TelvaneSensorRunner::Private
{
public:
    Private(TelvaneSensorRunner *q, std::shared_ptr<Telvane> sensor)
        : q(q), sensor(std::move(sensor)), relay(new RunnerRelay([this] { drain(); }, q))
    {}

    void drain();
    bool deliver(RunEvent &event);

    TelvaneSensorRunner *const q;
    const std::shared_ptr<Telvane> sensor;
    const std::shared_ptr<RunnerLink> link = std::make_shared<RunnerLink>();
    RunnerRelay *const relay; // owned by q
};

void TelvaneSensorRunner::Private::drain()
{
    for (RunEvent &event : link->take())
        if (!deliver(event))
            return; // a slot destroyed the runner, and what is left goes with it
}

/// Emits the signal of @p event. False when a slot destroyed the runner.
bool TelvaneSensorRunner::Private::deliver(RunEvent &event)
{
    const QPointer<TelvaneSensorRunner> alive(q);
    switch (event.kind) {
    case RunEvent::Started:
        Q_EMIT q->started();
        break;
    case RunEvent::Output:
        Q_EMIT q->outputReceived(event.chunk);
        break;
    case RunEvent::Finished:
        Q_EMIT q->finished(event.value);
        break;
    case RunEvent::Failed:
        Q_EMIT q->failed(event.value, QString::fromUtf8(event.chunk));
        break;
    case RunEvent::CredentialsRequested:
        Q_EMIT q->credentialsRequested();
        if (alive &&
            !q->isSignalConnected(QMetaMethod::fromSignal(&TelvaneSensorRunner::credentialsRequested)))
            q->askWithPrompt();
        break;
    }
    return !alive.isNull();
}

TelvaneSensorRunner::TelvaneSensorRunner(std::shared_ptr<Telvane> sensor, QObject *parent)
    : QObject(parent), d(std::make_unique<Private>(this, std::move(sensor)))
{
    d->link->attach(d->relay);
    if (d->sensor)
        d->sensor->setDelegate(d->link);
}

TelvaneSensorRunner::~TelvaneSensorRunner()
{
    // From here on the sensor's threads find no runner; the sensor keeps its (now idle) delegate.
    d->link->detach();
}

std::shared_ptr<Telvane> TelvaneSensorRunner::sensor() const
{
    return d->sensor;
}

void TelvaneSensorRunner::start(const QString &script, std::optional<TelvaneArguments> arguments)
{
    d->link->running.store(true);
    if (!d->sensor)
        return;
    std::optional<std::string> text;
    if (!script.isNull())
        text = script.toStdString();
    const bool started = TelvaneWidgets::startBackgroundThread(
        [sensor = d->sensor, text = std::move(text), arguments = std::move(arguments)] {
            sensor->runScript(text, arguments);
        });
    if (!started)
        d->link->end(
            RunEvent(RunEvent::Failed, TelvaneErrorConnection, "no thread could be started for the run"));
}

bool TelvaneSensorRunner::isRunning() const
{
    return d->link->running.load();
}

// The sensor is stopped before its questions are declined: a run woken by the refusal must already find
// itself stopped, or it would end as one that was given no credentials.
void TelvaneSensorRunner::stop()
{
    if (d->sensor)
        d->sensor->stopScript();
    d->link->declineAll();
}

void TelvaneSensorRunner::provideCredentials(const QString &username, const QString &password, bool persist)
{
    d->link->answer(CredentialsRequest::Given,
                    TelvaneCredentialsDictionary(username.toStdString(), password.toStdString()), persist);
}

void TelvaneSensorRunner::declineCredentials()
{
    d->link->answer(CredentialsRequest::Declined);
}

void TelvaneSensorRunner::askWithPrompt()
{
    d->link->answer(CredentialsRequest::Prompt);
}
