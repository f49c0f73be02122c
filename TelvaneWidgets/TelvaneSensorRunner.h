#pragma once

#include <Telvane/Telvane.h>
#include <Telvane/TelvaneWidgetsExport.h>

#include <QtCore/QByteArray>
#include <QtCore/QObject>
#include <QtCore/QString>

#include <memory>
#include <optional>

/// Runs scripts on a sensor and reports in Qt terms, as QProcess does for a local program: every signal is
/// emitted on the thread the runner lives in, in the order of the run (started, then each chunk of output,
/// then finished or failed, which come after the last chunk). The connection and the reading go on in
/// background threads; nothing here blocks the caller.
///
/// The runner makes itself the sensor's delegate; a host key that differs from the known one is put to the
/// user with the host-key prompt, a new one is left to the sensor's policy, and the login's questions beyond
/// the password (a one-time code, a key's passphrase) with the login-question prompt. It may be destroyed
/// while a run goes on: the run goes on to its end unheard, and a credentials request that is still waiting
/// is answered with none.
///
/// When the sensor needs credentials, credentialsRequested() is emitted; the run waits until a slot below
/// answers it. With nothing connected to that signal the credentials prompt asks the user.
class TELVANE_WIDGETS_EXPORT TelvaneSensorRunner : public QObject
{
    Q_OBJECT

public:
    /// A runner for @p sensor, which it holds and whose delegate it becomes.
    explicit TelvaneSensorRunner(std::shared_ptr<Telvane> sensor, QObject *parent = nullptr);
    /// Lets the runs go on unheard and answers a waiting credentials request with none.
    ~TelvaneSensorRunner() override;

    /// The sensor the runner drives.
    std::shared_ptr<Telvane> sensor() const;

    /// Starts a run of @p script (UTF-8 text, sent as it is) with @p arguments for its placeholders, also
    /// while another run goes on: both then report here. An empty or null @p script makes the sensor do
    /// nothing and report nothing, so such a run never ends.
    void start(const QString &script, std::optional<TelvaneArguments> arguments = std::nullopt);
    /// True from start() until the end of a run has been reported. Any thread: it turns false on the
    /// sensor's thread that reports the end, before finished() or failed() reach this object's thread.
    bool isRunning() const;

public Q_SLOTS:
    /// Stops the running script and answers a waiting credentials request with none.
    void stop();
    /// Answers the oldest waiting credentials request with @p username and @p password; @p persist keeps
    /// them in the keyring once the server has accepted them.
    void provideCredentials(const QString &username, const QString &password, bool persist = false);
    /// Answers the oldest waiting credentials request with none: the run fails with
    /// TelvaneErrorNoCredentials.
    void declineCredentials();
    /// Answers the oldest waiting credentials request by asking the user with the credentials prompt.
    void askWithPrompt();

Q_SIGNALS:
    /// The script was launched on the sensor.
    void started();
    /// A chunk of the script's standard output, as read.
    void outputReceived(const QByteArray &chunk);
    /// The script ended with @p status (0 when the server sent none).
    void finished(long status);
    /// The run failed with a TelvaneError @p code; @p reason says what failed, in words (the sensor's
    /// lastFailure()).
    void failed(long code, const QString &reason);
    /// The sensor needs credentials: answer with provideCredentials(), declineCredentials() or
    /// askWithPrompt().
    void credentialsRequested();

private:
    class Private;
    std::unique_ptr<Private> const d;
};
