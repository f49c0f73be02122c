// The sensor runner against the loopback sshd: its signals in order, failures with their reasons, the
// credentials answered by a slot or the prompt, a runner destroyed mid-run, and the README's example.
#include "TelvaneSensorRunner.h"

#include "support/Process.h"
#include "support/QtRequire.h"
#include "support/SshdHarness.h"

#include <QtCore/QTimer>
#include <QtTest/QTest>

#include <memory>

using telvane::test::shownPrompt;

namespace {

constexpr int kRunTimeout = 30000;

/// What a runner tells, one entry a signal; consecutive chunks of output are joined.
struct Recorder
{
    explicit Recorder(TelvaneSensorRunner &runner)
    {
        QObject::connect(&runner, &TelvaneSensorRunner::started,
                         [this] { events << QStringLiteral("started"); });
        QObject::connect(&runner, &TelvaneSensorRunner::outputReceived, [this](const QByteArray &chunk) {
            if (events.isEmpty() || !events.last().startsWith(QLatin1String("output:")))
                events << QStringLiteral("output:");
            events.last() += QString::fromUtf8(chunk);
        });
        QObject::connect(&runner, &TelvaneSensorRunner::finished,
                         [this](long status) { events << QStringLiteral("finished:%1").arg(status); });
        QObject::connect(&runner, &TelvaneSensorRunner::failed, [this](long code, const QString &reason) {
            events << QStringLiteral("failed:%1:%2").arg(code).arg(reason);
        });
    }

    bool ended() const
    {
        return !events.isEmpty() && (events.last().startsWith(QLatin1String("finished")) ||
                                     events.last().startsWith(QLatin1String("failed")));
    }

    QStringList events;
};

} // namespace

class SensorRunnerTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<telvane::test::SshdHarness> sshd;

    std::shared_ptr<Telvane> sensor(long port = 0) const
    {
        return Telvane::create("runner", "Runner sensor", sshd->host(), port ? port : sshd->port(), 10);
    }

private Q_SLOTS:
    void initTestCase()
    {
        qputenv("TELVANE_KEYRING", "memory");
        sshd = std::make_unique<telvane::test::SshdHarness>();
        sshd->start();
    }

    void cleanupTestCase() { sshd.reset(); }

    // How the request for credentials is answered: "right", "wrong", "decline", "stop", "prompt" (nothing
    // connected; the prompt appears and is cancelled), "none" (port 1 refuses before any request).
    void runs_data()
    {
        QTest::addColumn<QString>("answer");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("output, then the status")
            << "right" << QStringList{"started", "output:one\ntwo\n", "finished:3"};
        QTest::newRow("refused credentials")
            << "wrong" << QStringList{"failed:3:the server refused the username or password"};
        QTest::newRow("declined by the slot")
            << "decline" << QStringList{"failed:2:no credentials were given for 127.0.0.1"};
        // A stop while the user is asked ends the run at once, as a stop while connecting does.
        QTest::newRow("stopped while asked")
            << "stop" << QStringList{"failed:1:connection to 127.0.0.1 stopped"};
        QTest::newRow("prompt cancelled")
            << "prompt" << QStringList{"failed:2:no credentials were given for 127.0.0.1"};
        QTest::newRow("connection refused")
            << "none" << QStringList{"failed:1:connect to 127.0.0.1 port 1: Connection refused"};
    }

    void runs()
    {
        TELVANE_QREQUIRE(sshd->running(), "no sshd: " + QString::fromStdString(sshd->reason()));
        QFETCH(QString, answer);
        QFETCH(QStringList, expected);
        auto target = sensor(answer == QLatin1String("none") ? 1 : 0);
        TelvaneSensorRunner runner(target);
        Recorder recorder(runner);
        int prompts = 0;
        QTimer poll; // the prompt runs its own loop: look for it from a timer
        connect(&poll, &QTimer::timeout, this, [&] {
            if (QDialog *dialog = shownPrompt()) {
                ++prompts;
                dialog->reject();
            }
        });
        poll.start(10);
        if (answer != QLatin1String("prompt")) {
            connect(&runner, &TelvaneSensorRunner::credentialsRequested, this, [&] {
                if (answer == QLatin1String("decline"))
                    runner.declineCredentials();
                else if (answer == QLatin1String("stop"))
                    runner.stop();
                else
                    runner.provideCredentials(QString::fromStdString(sshd->username()),
                                              answer == QLatin1String("right")
                                                  ? QString::fromStdString(sshd->password())
                                                  : QStringLiteral("wrong"));
            });
        }
        runner.start(QStringLiteral("echo one\necho two\nexit 3\n"));
        QTRY_VERIFY_WITH_TIMEOUT(recorder.ended(), kRunTimeout);
        QCOMPARE(recorder.events, expected);
        QVERIFY(!runner.isRunning());
        QCOMPARE(prompts, answer == QLatin1String("prompt") ? 1 : 0);
    }

    // The runner may go while the run goes on: the run ends unheard and lets go of the sensor.
    void destroyedMidRun_data()
    {
        QTest::addColumn<bool>("atRequest");
        QTest::newRow("during the output") << false;
        QTest::newRow("while credentials are asked") << true;
    }

    void destroyedMidRun()
    {
        TELVANE_QREQUIRE(sshd->running(), "no sshd: " + QString::fromStdString(sshd->reason()));
        QFETCH(bool, atRequest);
        auto target = sensor();
        auto runner = std::make_unique<TelvaneSensorRunner>(target);
        bool outputSeen = false;
        connect(runner.get(), &TelvaneSensorRunner::credentialsRequested, this, [&] {
            if (atRequest)
                runner.reset(); // the request still waits; the destruction answers it
            else
                runner->provideCredentials(QString::fromStdString(sshd->username()),
                                           QString::fromStdString(sshd->password()));
        });
        connect(runner.get(), &TelvaneSensorRunner::outputReceived, this, [&] {
            outputSeen = true;
            runner.reset();
        });
        runner->start(QStringLiteral("echo start\nsleep 1\necho end\n"));
        QTRY_VERIFY_WITH_TIMEOUT(!runner, kRunTimeout);
        QCOMPARE(outputSeen, !atRequest);
        QTRY_VERIFY_WITH_TIMEOUT(target.use_count() == 1 && !target->running(), kRunTimeout);
    }

    // The README's example, built as it is shown.
    void example_data()
    {
        QTest::addColumn<bool>("rightPassword");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("out");
        QTest::newRow("run") << true << 3 << QByteArray("hello\n");
        QTest::newRow("refused") << false << 103 << QByteArray();
    }

    void example()
    {
        TELVANE_QREQUIRE(sshd->running(), "no sshd: " + QString::fromStdString(sshd->reason()));
        QFETCH(bool, rightPassword);
        QFETCH(int, status);
        QFETCH(QByteArray, out);
        const std::string passwordFile =
            sshd->writeFile("qt-face-password", (rightPassword ? sshd->password() : "wrong") + "\n");
        telvane::test::ProcessOptions options;
        options.environment = {{"TELVANE_KEYRING", "memory"}};
        const auto run =
            telvane::test::runProcess({TELVANE_QT_FACE, sshd->host(), std::to_string(sshd->port()),
                                       sshd->username(), passwordFile, "echo hello\nexit 3"},
                                      options);
        QVERIFY2(run.status == status, run.err.c_str());
        QCOMPARE(QByteArray::fromStdString(run.out), out);
    }
};

QTEST_MAIN(SensorRunnerTest)

#include "SensorRunnerTest.moc"
