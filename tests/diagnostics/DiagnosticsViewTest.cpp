// The diagnostics panel and the sensor runner under it, with real widgets on the offscreen platform, whole
// runs against the loopback sshd, and the desktop host and the README's Qt example run as programs.
#include "TelvaneDiagnosticsView.h"
#include "TelvaneSensorRunner.h"
#include "TelvaneWidgetsTranslations_p.h"

#include "support/Process.h"
#include "support/QtRequire.h"
#include "support/SshdHarness.h"

#include <Telvane/Telvane.h>

#include <QtCore/QTemporaryDir>
#include <QtCore/QTimer>
#include <QtCore/QTranslator>
#include <QtGui/QClipboard>
#include <QtGui/QFontMetricsF>
#include <QtGui/QTextCursor>
#include <QtGui/QTextDocument>
#include <QtGui/QTextFrame>
#include <QtTest/QSignalSpy>
#include <QtWidgets/QLabel>
#include <QtWidgets/QLineEdit>
#include <QtWidgets/QProgressBar>
#include <QtWidgets/QPushButton>
#include <QtWidgets/QScrollBar>
#include <QtWidgets/QTextEdit>

#include <memory>
#include <thread>

namespace {

constexpr int kRunTimeout = 30000;

#define REQUIRE_SSHD() TELVANE_QREQUIRE(sshd->running(), "no sshd: " + QString::fromStdString(sshd->reason()))

/// The characters of the transcript shown in red, line ends left out.
QString redText(const QTextEdit *view)
{
    const QString plain = view->toPlainText();
    QTextCursor cursor(view->document());
    QString red;
    for (qsizetype i = 0; i < plain.size(); ++i) {
        cursor.setPosition(int(i + 1)); // the format of the character before the cursor
        if (plain[i] != QLatin1Char('\n') && cursor.charFormat().foreground().color() == QColor(Qt::red))
            red += plain[i];
    }
    return red;
}

bool busy(const TelvaneDiagnosticsView &panel)
{
    return panel.progressIndicator()->maximum() == 0 && panel.progressIndicator()->isVisibleTo(&panel);
}

/// Cancels every credentials prompt that shows while it lives, and counts them.
struct PromptCanceller
{
    PromptCanceller()
    {
        QObject::connect(&poll, &QTimer::timeout, [this] {
            if (QDialog *dialog = telvane::test::shownPrompt())
                ++count, dialog->reject();
        });
        poll.start(10);
    }
    QTimer poll;
    int count = 0;
};

/// For a row whose tag starts with "German", the library's German translation, installed while it lives. A
/// text of the "Localizable" table that German has no entry for comes out marked all the same, so that any
/// text that goes through the table shows, translated or not.
struct RowTranslation : QTranslator
{
    const bool german = QByteArray(QTest::currentDataTag()).startsWith("German") &&
                        TelvaneWidgets::loadTranslation(*this, QLocale(QLocale::German)) &&
                        QCoreApplication::installTranslator(this);

    QString translate(const char *context, const char *key, const char *disambiguation, int n) const override
    {
        const QString text = QTranslator::translate(context, key, disambiguation, n);
        return text.isEmpty() && qstrcmp(context, "Localizable") == 0 ? "[de] " + QString(key) : text;
    }
};

} // namespace

class DiagnosticsViewTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<telvane::test::SshdHarness> sshd;

    std::shared_ptr<Telvane> sshdSensor(long port = 0) const
    {
        return Telvane::create("diagnostics", "Test sensor", sshd->host(), port ? port : sshd->port(), 10);
    }

    QString connecting(long port) const
    {
        return QString("Connecting over SSH to 127.0.0.1 on port %1: ").arg(port);
    }

    const QString done = "Diagnostics completed.";
    const QString canceled = "canceled\n" + done;
    const QString refused = "invalid credentials\n" + done;

    QString script(const QByteArray &text) const
    {
        return text.isNull() ? "/nonexistent/script.sh"
                             : QString::fromStdString(sshd->writeFile("script.sh", text.toStdString()));
    }

    /// Waits until @p sensor's own threads have let go of it, leaving it to @p holders (the test included).
    static bool released(const std::shared_ptr<Telvane> &sensor, long holders = 2)
    {
        return QTest::qWaitFor([&] { return sensor.use_count() == holders && !sensor->running(); },
                               kRunTimeout);
    }

private Q_SLOTS:
    void initTestCase()
    {
        qputenv("TELVANE_KEYRING", "memory"); // nothing of the user's keyring
        // From the main thread, which outlives the daemon (its parent-death signal follows this thread).
        sshd = std::make_unique<telvane::test::SshdHarness>();
        sshd->start();
    }

    void cleanupTestCase() { sshd.reset(); }

    // A panel whose script is unusable never starts its sensor; then output or an end report arrives from a
    // thread of its own. Row: event, its argument, what the panel shows after the connecting line, in red.
    void offline_data()
    {
        QTest::addColumn<QStringList>("row");
        QTest::newRow("missing script") << QStringList{"missing script", "", "", ""};
        // Written as Latin-1, which is no UTF-8.
        QTest::newRow("script not UTF-8") << QStringList{"script", "echo grüße\n", "", ""};
        QTest::newRow("empty script") << QStringList{"script", "", "", ""};
        // The lone asterisk of the first line shifts the span one to the right.
        QTest::newRow("asterisk on an earlier line")
            << QStringList{"output", "a*b\nsee *this* now\n", "ab\nsee this now\n", "his n"};
        QTest::newRow("status 0") << QStringList{"terminate", "0", done, ""};
        QTest::newRow("code 1") << QStringList{"fail", "1", "failed\n" + done, "failed"};
        QTest::newRow("unknown code") << QStringList{"fail", "7", done, ""};
        // Only the label is translated: the transcript's words stay English in every language.
        QTest::newRow("German, code 3") << QStringList{"fail", "3", refused, "invalid credentials"};
    }

    void offline()
    {
        QFETCH(QStringList, row);
        const QString &event = row[0], &argument = row[1], &shown = row[2], &red = row[3];
        const RowTranslation translation;
        auto sensor = Telvane::create("id", "Cellar", "127.0.0.1", 1);
        TelvaneDiagnosticsView panel(sensor, script(event == "script" ? argument.toLatin1() : QByteArray()));
        QSignalSpy runningChanged(&panel, &TelvaneDiagnosticsView::runningChanged);
        panel.show();
        QCOMPARE(panel.label()->text(), QString(translation.german ? "Diagnose auf Cellar ausführen:"
                                                                   : "Run diagnostics on Cellar:"));
        // Port 1 refuses: a script sent after all would end the run as "failed".
        QTRY_VERIFY(sensor.use_count() == 2); // the run's thread is done
        QTest::qWait(100);
        QCOMPARE(panel.textView()->toPlainText(), connecting(1));
        QVERIFY(panel.running() && busy(panel));

        const std::shared_ptr<TelvaneDelegate> delegate = sensor->delegate();
        if (event == "output")
            panel.appendOutput(argument);
        else if (event == "terminate" || event == "fail") {
            TelvaneRunOutcome outcome;
            outcome.kind = event == "fail" ? TelvaneRunOutcome::Kind::Failed : TelvaneRunOutcome::Kind::Ended;
            (event == "fail" ? outcome.failure.code : outcome.status) = argument.toLong();
            std::thread([&] { delegate->sensorRunDidFinish(*sensor, outcome); }).join();
        }
        const bool ended = event == "terminate" || event == "fail";
        QCOMPARE(panel.running(), !ended); // at once, on the reporting thread
        QTRY_COMPARE(panel.textView()->toPlainText(), connecting(1) + shown);
        QCOMPARE(redText(panel.textView()), red);
        QCOMPARE(busy(panel), !ended);
        QCOMPARE(runningChanged.count(), ended ? 2 : 1);
        panel.onCopyToClipboard();
        QCOMPARE(QGuiApplication::clipboard()->text(), connecting(1) + shown);

        const QTextFrameFormat inset = panel.textView()->document()->rootFrame()->frameFormat();
        QCOMPARE(
            (QList<qreal>{inset.leftMargin(), inset.rightMargin(), inset.topMargin(), inset.bottomMargin()}),
            (QList<qreal>{3, 3, 10, 10}));
        panel.resize(611, 333);
        QCOMPARE(panel.sizeHint(), QSize(611, 333));
        const QFontMetricsF metrics(panel.textView()->font()); // script output is often columns
        QCOMPARE(metrics.horizontalAdvance('i'), metrics.horizontalAdvance('M'));
    }

    // Whole runs against sshd; the prompt appears unless both credentials are preset, and is cancelled.
    // Row: script, username and password preset ("-" none), what is shown, in red, what the user does
    // mid-run.
    void runs_data()
    {
        QTest::addColumn<QStringList>("row");
        const QString slow = "echo start\nsleep 1\necho '*end*'\n";
        for (const char *tag : {"exit 2", "German, exit 2"})
            QTest::newRow(tag) << QStringList{"echo hi\nexit 2\n", "$user", "$password",
                                              "OK\nhi\nDiagnostics terminated with error: 2", ""};
        QTest::newRow("marked output") << QStringList{"echo 'fan: *stopped*'\n", "$user", "$password",
                                                      "OK\nfan: stopped\n" + done, "stopped"};
        // A character split over two writes comes out whole, a stray byte as U+FFFD, and the span lines up.
        QTest::newRow("UTF-8 output")
            << QStringList{"printf 'caf\\303'; sleep 0.2; printf '\\251 \\377 *ok*\\n'\n", "$user",
                           "$password", "OK\ncaf\u00E9 \uFFFD ok\n" + done, "ok"};
        QTest::newRow("long output") << QStringList{"seq 12\n", "$user", "$password",
                                                    "OK\n1\n2\n3\n4\n5\n6\n7\n8\n9\n10\n11\n12\n" + done, ""};
        QTest::newRow("wrong password")
            << QStringList{"echo hi\n", "$user", "wrong", refused, "invalid credentials"};
        QTest::newRow("both empty") << QStringList{"echo hi\n", "", "", refused, "invalid credentials"};
        QTest::newRow("none preset") << QStringList{"echo hi\n", "-", "-", canceled, "canceled"};
        QTest::newRow("username only") << QStringList{"echo hi\n", "$user", "-", canceled, "canceled"};
        QTest::newRow("password only") << QStringList{"echo hi\n", "-", "$password", canceled, "canceled"};
        QTest::newRow("close during a run")
            << QStringList{slow, "$user", "$password", "OK\nstart\nend\n" + done, "end", "close"};
        QTest::newRow("Escape during a run")
            << QStringList{slow, "$user", "$password", "OK\nstart\nend\n" + done, "end", "escape"};
        QTest::newRow("run again during a run") << QStringList{slow, "$user", "$password", "", "", "again"};
    }

    void runs()
    {
        REQUIRE_SSHD();
        QFETCH(QStringList, row);
        const QString &shown = row[3], &red = row[4], action = row.value(5);
        const RowTranslation translation;
        auto sensor = sshdSensor();
        TelvaneDiagnosticsView panel(sensor, script(row[0].toUtf8()));
        const auto preset = [this](QString value) {
            value.replace("$user", QString::fromStdString(sshd->username()));
            value.replace("$password", QString::fromStdString(sshd->password()));
            return value == "-" ? std::nullopt : std::optional<QString>(value);
        };
        panel.setUsername(preset(row[1]));
        panel.setPassword(preset(row[2]));
        QSignalSpy runningChanged(&panel, &TelvaneDiagnosticsView::runningChanged);
        PromptCanceller prompts;
        panel.resize(400, 150);
        panel.show();
        const QString start = connecting(sshd->port());
        if (!action.isEmpty()) {
            QTRY_COMPARE_WITH_TIMEOUT(panel.textView()->toPlainText(), start + "OK\nstart\n", kRunTimeout);
            if (action != "escape")
                panel.findChild<QPushButton *>(action == "again" ? "runAgainButton" : "closeButton")->click();
            else if (QTest::qWaitForWindowActive(&panel))
                QTest::keyClick(panel.textView(), Qt::Key_Escape); // wherever the focus is in the panel
            QCOMPARE(panel.isVisible(), action == "again");
        }
        if (action == "again") { // cleared at once; both runs go on to their ends, their lines in any order
            QCOMPARE(panel.textView()->toPlainText(), start);
            QVERIFY(busy(panel));
            QVERIFY(released(sensor));
            QTRY_VERIFY(!busy(panel) && !panel.running());
            const QString text = panel.textView()->toPlainText();
            QVERIFY2(text.startsWith(start) && text.contains("end\n") && text.contains(done),
                     qPrintable(text));
            return;
        }
        QTRY_COMPARE_WITH_TIMEOUT(panel.textView()->toPlainText(), start + shown, kRunTimeout);
        QCOMPARE(redText(panel.textView()), red);
        QCOMPARE(prompts.count, shown == canceled ? 1 : 0);
        QVERIFY(!busy(panel) && !panel.running());
        QCOMPARE(runningChanged.count(), 2);
        QVERIFY(released(sensor));
        QCOMPARE(panel.textView()->toPlainText(), start + shown);
        const QScrollBar *bar = panel.textView()->verticalScrollBar();
        QCOMPARE(bar->value(), bar->maximum());
    }

    // The runner's signals in order, failures with their reasons, and a runner destroyed mid-run (the run
    // ends unheard and lets go of the sensor). "none" fails before any request.
    void runner_data()
    {
        QTest::addColumn<QString>("answer");
        QTest::addColumn<QString>("expected");
        QTest::newRow("output, then the status") << "right"
                                                 << "started|one\ntwo\n|finished:3";
        QTest::newRow("refused credentials") << "wrong"
                                             << "failed:3:the server refused the username or password";
        QTest::newRow("declined by the slot") << "decline"
                                              << "failed:2:no credentials were given for 127.0.0.1";
        // A stop while the user is asked ends the run at once, as a stop while connecting does.
        QTest::newRow("stopped while asked") << "stop"
                                             << "failed:1:connection to 127.0.0.1 stopped";
        QTest::newRow("prompt cancelled") << "prompt"
                                          << "failed:2:no credentials were given for 127.0.0.1";
        QTest::newRow("connection refused") << "none"
                                            << "failed:1:connect to 127.0.0.1 port 1: Connection refused";
        QTest::newRow("destroyed while credentials are asked") << "destroy"
                                                               << "";
        QTest::newRow("destroyed during the output") << "right, destroy"
                                                     << "started|one\n";
    }

    void runner()
    {
        REQUIRE_SSHD();
        QFETCH(QString, answer);
        QFETCH(QString, expected);
        auto sensor = sshdSensor(answer == "none" ? 1 : 0);
        auto runner = std::make_unique<TelvaneSensorRunner>(sensor);
        QString events; // what the runner tells, in order
        bool ended = false;
        connect(runner.get(), &TelvaneSensorRunner::started, this, [&] { events += "started|"; });
        connect(runner.get(), &TelvaneSensorRunner::outputReceived, this, [&](const QByteArray &chunk) {
            events += chunk;
            if (answer.endsWith("destroy"))
                runner.reset();
        });
        connect(runner.get(), &TelvaneSensorRunner::finished, this,
                [&](long status) { events += QString("|finished:%1").arg(status), ended = true; });
        connect(runner.get(), &TelvaneSensorRunner::failed, this, [&](long code, const QString &reason) {
            events += QString("failed:%1:%2").arg(code).arg(reason), ended = true;
        });
        PromptCanceller prompts;
        if (answer != "prompt") {
            connect(runner.get(), &TelvaneSensorRunner::credentialsRequested, this, [&] {
                if (answer == "destroy")
                    runner.reset();
                else if (answer == "decline")
                    runner->declineCredentials();
                else if (answer == "stop")
                    runner->stop();
                else
                    runner->provideCredentials(QString::fromStdString(sshd->username()),
                                               answer.startsWith("right")
                                                   ? QString::fromStdString(sshd->password())
                                                   : QString("wrong"));
            });
        }
        runner->start("echo one\nsleep 1\necho two\nexit 3\n");
        QTRY_VERIFY_WITH_TIMEOUT(ended || !runner, kRunTimeout);
        QCOMPARE(events, expected);
        QCOMPARE(prompts.count, answer == "prompt" ? 1 : 0);
        QVERIFY(released(sensor, runner ? 2 : 1));
    }

    // A server whose PAM asks for a one-time code after the password: the preset pair answers the password,
    // the user the code, in the login-question dialog; a cancelled dialog fails the run as refused.
    void secondFactor()
    {
        telvane::test::SshdHarness otp(telvane::test::SshdHarness::Server::OneTimeCode);
        TELVANE_QREQUIRE(otp.start(), "no one-time-code sshd: " + QString::fromStdString(otp.reason()));
        for (const bool answered : {true, false}) {
            auto sensor = Telvane::create("diagnostics", "Test sensor", otp.host(), otp.port(), 10);
            TelvaneDiagnosticsView panel(sensor, script("echo in\n"));
            panel.setUsername(QString::fromStdString(otp.username()));
            panel.setPassword(QString::fromStdString(otp.password()));
            QTimer poll;
            connect(&poll, &QTimer::timeout, this, [&] {
                QDialog *dialog = telvane::test::shownPrompt(QLatin1String("TelvaneLoginQuestionDialog"));
                if (!dialog)
                    return;
                poll.stop();
                if (!answered)
                    return dialog->reject();
                QTest::keyClicks(dialog->findChild<QLineEdit *>("answerField0"),
                                 QString::fromStdString(otp.oneTimeCode()));
                dialog->findChild<QPushButton *>("okButton")->click();
            });
            poll.start(10);
            panel.show();
            const QString shown = answered ? "OK\nin\n" + done : refused;
            QTRY_COMPARE_WITH_TIMEOUT(panel.textView()->toPlainText(), connecting(otp.port()) + shown,
                                      kRunTimeout);
            QVERIFY(released(sensor));
        }
    }

    // The desktop host: bad input ends it at once; a quit while a run goes on ends it promptly and cleanly.
    void host()
    {
        QTemporaryDir directory;
        QFile latin1(directory.filePath("latin1.sh")); // no UTF-8
        QVERIFY(latin1.open(QIODevice::WriteOnly) && latin1.write("echo gr\xfc\xdf\n") > 0 && latin1.flush());
        telvane::test::ProcessResult run;
        for (const auto &[path, message] :
             {std::pair{std::string("/nonexistent/script.sh"), "cannot read the script"},
              std::pair{latin1.fileName().toStdString(), "is not UTF-8 text or holds a NUL byte"}}) {
            run = telvane::test::runProcess({TELVANE_DIAGNOSTICS_HOST, "127.0.0.1", path});
            QCOMPARE(run.status, 2);
            QVERIFY2(run.err.find(message) != std::string::npos, run.err.c_str());
        }

        REQUIRE_SSHD();
        const QString started = directory.filePath("started");
        QFile::setPermissions(directory.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                                    QFile::WriteOther | QFile::ExeOther);
        const std::string passwordFile = sshd->writeFile("host-password", sshd->password() + "\n");
        // SIGTERM closes the window, by then well into the run.
        const telvane::test::ProcessOptions options{.timeout = std::chrono::seconds(30),
                                                    .interruptAfter = std::chrono::seconds(10),
                                                    .interruptSignal = SIGTERM};
        run = telvane::test::runProcess({TELVANE_DIAGNOSTICS_HOST, "-p", std::to_string(sshd->port()), "-l",
                                         sshd->username(), "--password-file", passwordFile, "127.0.0.1",
                                         script("touch " + started.toUtf8() + "\nsleep 60\n").toStdString()},
                                        options);
        QVERIFY2(QFile::exists(started), run.err.c_str());
        QVERIFY2(run.status == 0 && run.seconds < 25, run.err.c_str());
    }

    // The README's example, built as it is shown: a run, and a refused password.
    void example()
    {
        REQUIRE_SSHD();
        for (const auto &[password, status, out] :
             {std::tuple{sshd->password(), 3, "hello\n"}, std::tuple{std::string("wrong"), 103, ""}}) {
            const std::string file = sshd->writeFile("qt-face-password", password + "\n");
            const auto run =
                telvane::test::runProcess({TELVANE_QT_FACE, sshd->host(), std::to_string(sshd->port()),
                                           sshd->username(), file, "echo hello\nexit 3"});
            QVERIFY2(run.status == status, run.err.c_str());
            QCOMPARE(run.out, std::string(out));
        }
    }
};

QTEST_MAIN(DiagnosticsViewTest)

#include "DiagnosticsViewTest.moc"
