// The diagnostics panel with real widgets on the offscreen platform: whole runs against the loopback sshd,
// the marking of its transcript, the end of a run however it comes, and panels that go away mid-run.
#include "TelvaneDiagnosticsView.h"

#include "support/QtRequire.h"
#include "support/SshdHarness.h"

#include <Telvane/Telvane.h>

#include <QtCore/QTemporaryDir>
#include <QtCore/QTimer>
#include <QtGui/QClipboard>
#include <QtGui/QFontInfo>
#include <QtGui/QTextCursor>
#include <QtGui/QTextDocument>
#include <QtGui/QTextFrame>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>
#include <QtWidgets/QApplication>
#include <QtWidgets/QDialog>
#include <QtWidgets/QLabel>
#include <QtWidgets/QProgressBar>
#include <QtWidgets/QPushButton>
#include <QtWidgets/QScrollBar>
#include <QtWidgets/QTextEdit>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

using telvane::test::shownPrompt;
using telvane::test::SshdHarness;

#ifndef TELVANE_DIAGNOSTICS_HOST
#define TELVANE_DIAGNOSTICS_HOST "" // not built
#endif

namespace {

constexpr int kRunTimeout = 30000;

#define REQUIRE_SSHD() TELVANE_QREQUIRE(sshd->running(), "no sshd: " + QString::fromStdString(sshd->reason()))

/// One character per character of the transcript: 'r' red, '.' the palette's text colour, '?' any other
/// colour, and a blank for each line end (whose format a cursor does not report reliably).
QString colours(const QTextEdit *view)
{
    const QString plain = view->toPlainText();
    const QColor text = view->palette().color(QPalette::Text);
    QTextCursor cursor(view->document());
    QString out;
    for (qsizetype i = 0; i < plain.size(); ++i) {
        if (plain[i] == QLatin1Char('\n')) {
            out += QLatin1Char(' ');
            continue;
        }
        cursor.setPosition(int(i + 1)); // the format of the character before the cursor
        const QColor colour = cursor.charFormat().foreground().color();
        out += colour == QColor(Qt::red) ? QLatin1Char('r')
               : colour == text          ? QLatin1Char('.')
                                         : QLatin1Char('?');
    }
    return out;
}

/// The colours expected of @p shown when only @p red (its first occurrence; none when empty) is red.
QString coloursWithRed(const QString &shown, const QString &red)
{
    const qsizetype start = red.isEmpty() ? -1 : shown.indexOf(red);
    QString out;
    for (qsizetype i = 0; i < shown.size(); ++i)
        out += shown[i] == QLatin1Char('\n')                        ? QLatin1Char(' ')
               : start >= 0 && i >= start && i < start + red.size() ? QLatin1Char('r')
                                                                    : QLatin1Char('.');
    return out;
}

/// The desktop host, started with posix_spawn: QProcess's vfork confuses ThreadSanitizer in this process.
struct HostProcess
{
    HostProcess(std::vector<std::string> arguments, const QString &errors)
    {
        arguments.insert(arguments.begin(), TELVANE_DIAGNOSTICS_HOST);
        std::vector<char *> argv;
        for (std::string &argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors.toLocal8Bit().constData(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0)
            pid = -1;
        posix_spawn_file_actions_destroy(&actions);
    }

    ~HostProcess()
    {
        if (pid > 0 && !ended()) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }

    bool ended()
    {
        if (status < 0 && pid > 0 && ::waitpid(pid, &status, WNOHANG) != pid)
            status = -1;
        return status >= 0;
    }

    /// The exit status, or -1 when it did not exit by itself within @p milliseconds.
    int wait(int milliseconds)
    {
        if (!QTest::qWaitFor([this] { return ended(); }, milliseconds) || !WIFEXITED(status))
            return -1;
        return WEXITSTATUS(status);
    }

    pid_t pid = -1;
    int status = -1;
};

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool busy(const TelvaneDiagnosticsView &panel)
{
    return panel.progressIndicator()->maximum() == 0 && panel.progressIndicator()->isVisibleTo(&panel);
}

} // namespace

class DiagnosticsViewTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<SshdHarness> sshd;
    QTemporaryDir directory;
    int scripts = 0;

    QString writeScript(const QByteArray &text)
    {
        const QString path = directory.filePath(QStringLiteral("script-%1.sh").arg(++scripts));
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
            qFatal("cannot write %s", qPrintable(path));
        return path;
    }

    std::shared_ptr<Telvane> sshdSensor() const
    {
        return Telvane::create("diagnostics", "Test sensor", sshd->host(), sshd->port(), 10);
    }

    QString connecting(long port) const
    {
        return QStringLiteral("Connecting over SSH to 127.0.0.1 on port %1: ").arg(port);
    }

    /// Waits until @p sensor's own threads have let go of it, leaving it to the test and @p panels.
    static bool released(const std::shared_ptr<Telvane> &sensor, long panels = 1)
    {
        return QTest::qWaitFor([&] { return sensor.use_count() == 1 + panels && !sensor->running(); },
                               kRunTimeout);
    }

private Q_SLOTS:
    void initTestCase()
    {
        // Nothing of the user's keyring, and nothing kept between runs but in this process.
        qputenv("TELVANE_KEYRING", "memory");
        QVERIFY(directory.isValid());
        // From the main thread, which outlives the daemon (its parent-death signal follows this thread).
        sshd = std::make_unique<SshdHarness>();
        sshd->start();
    }

    void cleanupTestCase() { sshd.reset(); }

    // The panel's colours and the plain text the clipboard gets, piece by piece; where the marking starts
    // and ends in every shape of piece is the transcript's own unit test.
    void rendering_data()
    {
        QTest::addColumn<QString>("piece");
        QTest::addColumn<QString>("shown");
        QTest::addColumn<QString>("expectedColours");
        QTest::newRow("OK in the text colour") << "OK\n"
                                               << "OK\n"
                                               << ".. ";
        QTest::newRow("marker") << "*canceled*\n"
                                << "canceled\n"
                                << "rrrrrrrr ";
        // The lone asterisk of the first line shifts the span one to the right.
        QTest::newRow("asterisk on an earlier line") << "a*b\nsee *this* now\n"
                                                     << "ab\nsee this now\n"
                                                     << ".. .....rrrrr.. ";
        QTest::newRow("non-ASCII text") << QStringLiteral("*fehlgeschlagen für*\n")
                                        << QStringLiteral("fehlgeschlagen für\n") << "rrrrrrrrrrrrrrrrrr ";
    }

    void rendering()
    {
        QFETCH(QString, piece);
        QFETCH(QString, shown);
        QFETCH(QString, expectedColours);
        TelvaneDiagnosticsView panel(Telvane::create("id", "name", "127.0.0.1", 1), QStringLiteral("/none"));
        panel.appendOutput(piece);
        QTRY_COMPARE(panel.textView()->toPlainText(), shown);
        QCOMPARE(colours(panel.textView()), expectedColours);
        panel.onCopyToClipboard();
        QCOMPARE(QGuiApplication::clipboard()->text(), shown);
    }

    void scrollsToEnd()
    {
        TelvaneDiagnosticsView panel(Telvane::create("id", "name", "127.0.0.1", 1), QStringLiteral("/none"));
        panel.resize(400, 200);
        panel.show(); // lays the text out; the run without a script adds its connecting line, in any order
        for (int i = 0; i < 200; ++i)
            panel.appendOutput(QStringLiteral("line %1\n").arg(i));
        QTRY_VERIFY(panel.textView()->toPlainText().contains(QLatin1String("line 199\n")) &&
                    panel.textView()->toPlainText().contains(QLatin1String("Connecting")));
        const QScrollBar *bar = panel.textView()->verticalScrollBar();
        QVERIFY(bar->maximum() > 0);
        QCOMPARE(bar->value(), bar->maximum());
    }

    // Without a usable script the sensor never starts, so the panel keeps waiting. Port 1 refuses, so a
    // script that was sent after all would end the run with "failed".
    void unusableScript_data()
    {
        QTest::addColumn<bool>("exists");
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("missing file") << false << QByteArray();
        QTest::newRow("not UTF-8") << true
                                   << QByteArray("echo gr\xfc\xdf"
                                                 "e\n");
        QTest::newRow("empty") << true << QByteArray();
    }

    void unusableScript()
    {
        QFETCH(bool, exists);
        QFETCH(QByteArray, text);
        const QString script = exists ? writeScript(text) : directory.filePath(QStringLiteral("absent.sh"));
        auto sensor = Telvane::create("id", "Cellar", "127.0.0.1", 1);
        TelvaneDiagnosticsView panel(sensor, script);
        QSignalSpy runningChanged(&panel, &TelvaneDiagnosticsView::runningChanged);
        panel.show();
        QCOMPARE(panel.label()->text(), QStringLiteral("Run diagnostics on Cellar:"));
        QTRY_COMPARE(panel.textView()->toPlainText(), connecting(1));
        QTRY_VERIFY(sensor.use_count() == 2); // the run's thread is done: the panel and we are left
        QTest::qWait(300);
        QCOMPARE(panel.textView()->toPlainText(), connecting(1));
        QVERIFY(panel.running());
        QVERIFY(busy(panel));
        QCOMPARE(runningChanged.count(), 1);

        const QTextFrameFormat inset = panel.textView()->document()->rootFrame()->frameFormat();
        QCOMPARE(inset.leftMargin(), 3.0);
        QCOMPARE(inset.rightMargin(), 3.0);
        QCOMPARE(inset.topMargin(), 10.0);
        QCOMPARE(inset.bottomMargin(), 10.0);
        panel.resize(611, 333);
        QCOMPARE(panel.sizeHint(), QSize(611, 333));
        QVERIFY(QFontInfo(panel.textView()->font()).fixedPitch()); // script output is often columns
    }

    // How the sensor's end reports are shown, called as the sensor calls them: on a thread of its own.
    void endReports_data()
    {
        QTest::addColumn<bool>("failure");
        QTest::addColumn<long>("value");
        QTest::addColumn<QString>("shown");
        QTest::addColumn<QString>("red");
        QTest::newRow("status 0") << false << 0L << "Diagnostics completed."
                                  << "";
        QTest::newRow("status 2") << false << 2L << "Diagnostics terminated with error: 2"
                                  << "";
        QTest::newRow("status -1") << false << -1L << "Diagnostics terminated with error: -1"
                                   << "";
        QTest::newRow("code 1") << true << 1L << "failed\nDiagnostics completed."
                                << "failed";
        QTest::newRow("code 2") << true << 2L << "canceled\nDiagnostics completed."
                                << "canceled";
        QTest::newRow("code 3") << true << 3L << "invalid credentials\nDiagnostics completed."
                                << "invalid credentials";
        QTest::newRow("unknown code") << true << 7L << "Diagnostics completed."
                                      << "";
    }

    void endReports()
    {
        QFETCH(bool, failure);
        QFETCH(long, value);
        QFETCH(QString, shown);
        QFETCH(QString, red);
        auto sensor = Telvane::create("id", "name", "127.0.0.1", 1);
        TelvaneDiagnosticsView panel(sensor, directory.filePath(QStringLiteral("absent.sh")));
        QSignalSpy runningChanged(&panel, &TelvaneDiagnosticsView::runningChanged);
        panel.show();
        QTRY_COMPARE(panel.textView()->toPlainText(), connecting(1));

        const std::shared_ptr<TelvaneDelegate> delegate = sensor->delegate();
        QVERIFY(delegate);
        std::thread([&] {
            if (failure)
                delegate->sensorDidFailWithError(*sensor, value);
            else
                delegate->sensorScriptDidTerminate(*sensor, value);
        }).join();
        QVERIFY(!panel.running()); // at once, on the reporting thread
        QTRY_COMPARE(panel.textView()->toPlainText(), connecting(1) + shown);
        QCOMPARE(colours(panel.textView()), coloursWithRed(connecting(1) + shown, red));
        QTRY_VERIFY(!busy(panel));
        QCOMPARE(runningChanged.count(), 2);
        QCOMPARE(runningChanged.at(1).at(0).toBool(), false);
    }

    // Whole runs against sshd.
    void runs_data()
    {
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<bool>("rightPassword");
        QTest::addColumn<QString>("shown");
        QTest::addColumn<QString>("red");
        QTest::newRow("hello") << QByteArray("echo hello\n") << true << "OK\nhello\nDiagnostics completed."
                               << "";
        QTest::newRow("exit 2") << QByteArray("echo hello\nexit 2\n") << true
                                << "OK\nhello\nDiagnostics terminated with error: 2"
                                << "";
        QTest::newRow("wrong password")
            << QByteArray("echo hello\n") << false << "invalid credentials\nDiagnostics completed."
            << "invalid credentials";
        QTest::newRow("marked output")
            << QByteArray("echo 'fan: *stopped*'\n") << true << "OK\nfan: stopped\nDiagnostics completed."
            << "stopped\n";
        // UTF-8 in two separate writes that split a character, and a byte that is no UTF-8: the character
        // comes out whole, the stray byte as U+FFFD, and the span still lines up.
        QTest::newRow("UTF-8 output")
            << QByteArray("printf 'caf\\303'; sleep 0.2; printf '\\251 \\377 *ok*\\n'\n") << true
            << QStringLiteral("OK\ncaf\u00E9 \uFFFD ok\nDiagnostics completed.") << "ok\n";
    }

    void runs()
    {
        REQUIRE_SSHD();
        QFETCH(QByteArray, script);
        QFETCH(bool, rightPassword);
        QFETCH(QString, shown);
        QFETCH(QString, red);
        auto sensor = sshdSensor();
        TelvaneDiagnosticsView panel(sensor, writeScript(script));
        panel.setUsername(QString::fromStdString(sshd->username()));
        panel.setPassword(rightPassword ? QString::fromStdString(sshd->password()) : QStringLiteral("wrong"));
        QSignalSpy runningChanged(&panel, &TelvaneDiagnosticsView::runningChanged);
        panel.show();
        const QString expected = connecting(sshd->port()) + shown;
        QTRY_COMPARE_WITH_TIMEOUT(panel.textView()->toPlainText(), expected, kRunTimeout);
        QCOMPARE(colours(panel.textView()), coloursWithRed(expected, red));
        QTRY_VERIFY(!busy(panel));
        QVERIFY(!panel.running());
        QCOMPARE(runningChanged.count(), 2);
        QVERIFY(released(sensor));
        QCOMPARE(panel.textView()->toPlainText(), expected);
    }

    // The prompt appears unless both credentials are preset; cancelling it ends the run as "canceled".
    void prompt_data()
    {
        QTest::addColumn<std::optional<QString>>("username");
        QTest::addColumn<std::optional<QString>>("password");
        QTest::addColumn<bool>("prompted");
        QTest::addColumn<QString>("shown");
        QTest::addColumn<QString>("red");
        const QString canceled = QStringLiteral("canceled\nDiagnostics completed.");
        const QString refused = QStringLiteral("invalid credentials\nDiagnostics completed.");
        QTest::newRow("none preset") << std::optional<QString>() << std::optional<QString>() << true
                                     << canceled << "canceled";
        QTest::newRow("username only") << std::optional<QString>(QStringLiteral("u"))
                                       << std::optional<QString>() << true << canceled << "canceled";
        QTest::newRow("password only")
            << std::optional<QString>() << std::optional<QString>(QStringLiteral("p")) << true << canceled
            << "canceled";
        QTest::newRow("both empty") << std::optional<QString>(QString()) << std::optional<QString>(QString())
                                    << false << refused << "invalid credentials";
    }

    void prompt()
    {
        REQUIRE_SSHD();
        QFETCH(std::optional<QString>, username);
        QFETCH(std::optional<QString>, password);
        QFETCH(bool, prompted);
        QFETCH(QString, shown);
        QFETCH(QString, red);
        auto sensor = sshdSensor();
        TelvaneDiagnosticsView panel(sensor, writeScript("echo hello\n"));
        panel.setUsername(username);
        panel.setPassword(password);
        int prompts = 0;
        QTimer poll;
        connect(&poll, &QTimer::timeout, this, [&] {
            if (QDialog *dialog = shownPrompt()) {
                ++prompts;
                dialog->reject();
            }
        });
        poll.start(10);
        panel.show();
        const QString expected = connecting(sshd->port()) + shown;
        QTRY_COMPARE_WITH_TIMEOUT(panel.textView()->toPlainText(), expected, kRunTimeout);
        QCOMPARE(colours(panel.textView()), coloursWithRed(expected, red));
        QCOMPARE(prompts, prompted ? 1 : 0);
        QTRY_VERIFY(!busy(panel));
        QVERIFY(released(sensor));
    }

    // A panel that is run again or closed while its run goes on; the runner's test destroys one mid-run.
    void lifetimes_data()
    {
        QTest::addColumn<QString>("action");
        QTest::newRow("run again during a run") << "again";
        QTest::newRow("close during a run") << "close";
        QTest::newRow("Escape during a run") << "escape";
    }

    void lifetimes()
    {
        REQUIRE_SSHD();
        QFETCH(QString, action);
        auto sensor = sshdSensor();
        auto panel = std::make_unique<TelvaneDiagnosticsView>(
            sensor, writeScript("echo start\nsleep 1\necho '*end*'\n"));
        panel->setUsername(QString::fromStdString(sshd->username()));
        panel->setPassword(QString::fromStdString(sshd->password()));
        panel->show();
        const QString started = connecting(sshd->port()) + QStringLiteral("OK\nstart\n");
        QTRY_COMPARE_WITH_TIMEOUT(panel->textView()->toPlainText(), started, kRunTimeout);

        if (action == QLatin1String("again")) {
            panel->findChild<QPushButton *>(QStringLiteral("runAgainButton"))->click();
            QCOMPARE(panel->textView()->toPlainText(), connecting(sshd->port())); // cleared at once
            QVERIFY(busy(*panel));
        } else if (action == QLatin1String("close")) {
            panel->findChild<QPushButton *>(QStringLiteral("closeButton"))->click();
            QVERIFY(!panel->isVisible());
        } else {
            QVERIFY(QTest::qWaitForWindowActive(panel.get()));
            QTest::keyClick(panel->textView(), Qt::Key_Escape); // wherever the focus is in the panel
            QVERIFY(!panel->isVisible());
        }
        // Both runs, or the closed panel's one, go on to their ends.
        QVERIFY(released(sensor));
        QTRY_VERIFY(!busy(*panel));
        QVERIFY(!panel->running());
        const QString text = panel->textView()->toPlainText();
        QVERIFY2(text.contains(QLatin1String("end\n")) &&
                     text.contains(QLatin1String("Diagnostics completed.")),
                 qPrintable(text));
        if (action != QLatin1String("again"))
            QCOMPARE(text, started + QStringLiteral("end\nDiagnostics completed."));
        else
            QVERIFY2(text.startsWith(connecting(sshd->port())), qPrintable(text));
    }

    // The desktop host: bad input ends it at once; a quit while a run goes on ends it promptly and cleanly.
    void host_data()
    {
        QTest::addColumn<bool>("usable");
        QTest::addColumn<int>("exitCode");
        QTest::newRow("missing script") << false << 2;
        QTest::newRow("quit during a run") << true << 0;
    }

    void host()
    {
        QFETCH(bool, usable);
        QFETCH(int, exitCode);
        if (QStringLiteral(TELVANE_DIAGNOSTICS_HOST).isEmpty())
            QSKIP("telvane-diagnostics is not built");
        const QString errors = directory.filePath(QStringLiteral("host-errors.txt"));
        if (!usable) {
            HostProcess host({"127.0.0.1", directory.filePath(QStringLiteral("absent.sh")).toStdString()},
                             errors);
            QVERIFY(host.pid > 0);
            QCOMPARE(host.wait(kRunTimeout), exitCode);
            QVERIFY(readAll(errors).contains("cannot read the script"));
            return;
        }
        REQUIRE_SSHD();
        // The script itself says when it runs: it shares this machine with the test.
        const QString started = directory.filePath(QStringLiteral("started"));
        QFile(started).remove();
        QFile::setPermissions(directory.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                                    QFile::WriteOther | QFile::ExeOther);
        const QString script = writeScript("touch " + started.toUtf8() + "\nsleep 60\n");
        const QString passwordFile = writeScript(QByteArray::fromStdString(sshd->password() + "\n"));
        HostProcess host({"-p", std::to_string(sshd->port()), "-l", sshd->username(), "--password-file",
                          passwordFile.toStdString(), "127.0.0.1", script.toStdString()},
                         errors);
        QVERIFY(host.pid > 0);
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(started) || host.ended(), kRunTimeout);
        QVERIFY2(QFile::exists(started), readAll(errors).constData());
        ::kill(host.pid, SIGTERM); // closes the window, as the user would
        QVERIFY2(host.wait(10000) == exitCode, readAll(errors).constData());
    }
};

QTEST_MAIN(DiagnosticsViewTest)

#include "DiagnosticsViewTest.moc"
