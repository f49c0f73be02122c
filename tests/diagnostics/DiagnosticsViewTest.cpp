// The diagnostics panel and the sensor runner under it, with real widgets on the offscreen platform, whole
// runs against the loopback sshd, and the desktop host and the README's Qt example run as programs.
#include "TelvaneDiagnosticsView.h"
#include "TelvaneSensorRunner.h"

#include "support/Process.h"
#include "support/QtRequire.h"
#include "support/SshdHarness.h"

#include <Telvane/Telvane.h>

#include <QtGui/QClipboard>
#include <QtGui/QFontMetricsF>
#include <QtGui/QTextBlock>
#include <QtGui/QTextDocument>
#include <QtGui/QTextFrame>
#include <QtTest/QSignalSpy>
#include <QtWidgets/QLabel>
#include <QtWidgets/QLineEdit>
#include <QtWidgets/QProgressBar>
#include <QtWidgets/QPushButton>
#include <QtWidgets/QScrollBar>
#include <QtWidgets/QTextEdit>

#include <thread>

namespace {

constexpr int kRunTimeout = 30000;
#define REQUIRE_SERVER(server)                                                                               \
    TELVANE_QREQUIRE((server).running(), "no sshd: " + QString::fromStdString((server).reason()))
const QString done = "Diagnostics completed.", canceled = "canceled\n" + done,
              refused = "invalid credentials\n" + done;

/// The characters of the transcript shown in red, line ends left out.
QString redText(const QTextEdit *view)
{
    QString red;
    for (QTextBlock block = view->document()->begin(); block.isValid(); block = block.next())
        for (auto it = block.begin(); !it.atEnd(); ++it)
            if (it.fragment().charFormat().foreground().color() == QColor(Qt::red))
                red += it.fragment().text();
    return red;
}

bool busy(const TelvaneDiagnosticsView &panel)
{
    return panel.progressIndicator()->maximum() == 0 && panel.progressIndicator()->isVisibleTo(&panel);
}

/// Answers every prompt that shows while it lives, and counts them: a login question with @p code and OK,
/// any other prompt by cancelling it.
struct PromptAnswerer : telvane::test::PromptWatch
{
    explicit PromptAnswerer(const QString &code = {})
        : PromptWatch(nullptr, [this, code](QDialog *dialog) {
              auto *field = dialog->findChild<QLineEdit *>("answerField0");
              if (++count && !field)
                  return dialog->reject();
              QTest::keyClicks(field, code);
              dialog->findChild<QPushButton *>("okButton")->click();
          })
    {}
    int count = 0;
};

} // namespace

class DiagnosticsViewTest : public QObject
{
    Q_OBJECT

    // Started from the main thread, which outlives the daemons (their parent-death signal follows it).
    telvane::test::SshdHarness sshd, otp{telvane::test::SshdHarness::Server::OneTimeCode};

    QString script(const QByteArray &text) const
    {
        return text.isNull() ? "/nonexistent/script.sh"
                             : QString::fromStdString(sshd.writeFile("script.sh", text.toStdString()));
    }

    /// Waits until @p sensor's own threads have let go of it, leaving it to @p holders (the test included).
    static bool released(const std::shared_ptr<Telvane> &sensor, long holders = 2)
    {
        return QTest::qWaitFor([&] { return sensor.use_count() == holders && !sensor->running(); },
                               kRunTimeout);
    }

private Q_SLOTS:
    void initTestCase() { sshd.start(), otp.start(); }

    // Whole runs against sshd, the credentials preset or asked for (the prompt is cancelled); or a panel
    // whose script cannot be sent (missing, not UTF-8, empty), which never starts its sensor and then gets
    // output or an end report from a thread of its own ("unsent"). Row: script ("-": none; written as
    // Latin-1), username and password preset ("-" none, "$" the account's), what is shown after the
    // connecting line, in red, what happens mid-run (a button or key of the user, a one-time code asked, or
    // "unsent" and what arrives), its argument.
    void panel_data()
    {
        QTest::addColumn<QStringList>("row");
        const QString slow = "echo start\nsleep 1\necho '*end*'\n", ended = "OK\nstart\nend\n" + done;
        // The lone asterisk of the first line shifts the span one to the right.
        QTest::newRow("asterisk on an earlier line") << QStringList{
            "-", "$", "$", "ab\nsee this now\n", "his n", "unsent output", "a*b\nsee *this* now\n"};
        QTest::newRow("code 1") << QStringList{"", "$", "$", "failed\n" + done, "failed", "unsent end", "1"};
        QTest::newRow("unknown code") << QStringList{"echo grüße\n", "$", "$", done, "", "unsent end", "7"};
        // Only the label is translated: the transcript's words stay English in every language.
        QTest::newRow("German, code 3")
            << QStringList{"-", "$", "$", refused, "invalid credentials", "unsent end", "3"};
        // Long enough to scroll. A character split over two writes comes out whole, a stray byte as U+FFFD,
        // and the span lines up.
        QTest::newRow("UTF-8 output")
            << QStringList{"seq 12\nprintf 'caf\\303'; sleep 0.2; printf '\\251 \\377 *ok*\\n'\n", "$", "$",
                           "OK\n1\n2\n3\n4\n5\n6\n7\n8\n9\n10\n11\n12\ncaf\u00E9 \uFFFD ok\n" + done, "ok"};
        QTest::newRow("both empty") << QStringList{"echo hi\n", "", "", refused, "invalid credentials"};
        QTest::newRow("username only") << QStringList{"echo hi\n", "$", "-", canceled, "canceled"};
        QTest::newRow("password only") << QStringList{"echo hi\n", "-", "$", canceled, "canceled"};
        QTest::newRow("close during a run") << QStringList{slow, "$", "$", ended, "end", "closeButton"};
        QTest::newRow("Escape during a run") << QStringList{slow, "$", "$", ended, "end", "Escape"};
        QTest::newRow("run again during a run") << QStringList{slow, "$", "$", "", "", "runAgainButton"};
        // A server whose PAM asks for a one-time code after the password.
        QTest::newRow("German, one-time code, exit 2") << QStringList{
            "echo hi\nexit 2\n", "$", "$", "OK\nhi\nDiagnostics terminated with error: 2", "", "code"};
    }

    void panel()
    {
        QFETCH(QStringList, row);
        const QString &shown = row[3], &red = row[4], action = row.value(5), argument = row.value(6);
        telvane::test::SshdHarness &server = action == "code" ? otp : sshd;
        REQUIRE_SERVER(server);
        const telvane::test::RowTranslation translation;
        auto sensor = Telvane::create("diagnostics", "Cellar", server.host(), server.port(), 10);
        TelvaneDiagnosticsView panel(sensor, script(row[0] == "-" ? QByteArray() : row[0].toLatin1()));
        const auto preset = [](const QString &value, const std::string &own) {
            return value == "-" ? std::nullopt
                                : std::optional(value == "$" ? QString::fromStdString(own) : value);
        };
        panel.setUsername(preset(row[1], server.username()));
        panel.setPassword(preset(row[2], server.password()));
        QSignalSpy runningChanged(&panel, &TelvaneDiagnosticsView::runningChanged);
        PromptAnswerer prompts(action == "code" ? QString::fromStdString(otp.oneTimeCode()) : QString());
        panel.resize(400, 150);
        panel.show();
        QCOMPARE(panel.label()->text(), QString(translation.german ? "Diagnose auf Cellar ausführen:"
                                                                   : "Run diagnostics on Cellar:"));
        const QString start = QString("Connecting over SSH to 127.0.0.1 on port %1: ").arg(server.port());
        if (action.startsWith("unsent")) {
            QTRY_VERIFY(sensor.use_count() == 2); // no run's thread holds it
            QTest::qWait(100);
            QCOMPARE(panel.textView()->toPlainText(), start);
            QVERIFY(panel.running() && busy(panel));
            // The inset, size and font that script output laid out in columns needs.
            const QTextFrameFormat inset = panel.textView()->document()->rootFrame()->frameFormat();
            QCOMPARE((QList<qreal>{inset.leftMargin(), inset.rightMargin(), inset.topMargin(),
                                   inset.bottomMargin()}),
                     (QList<qreal>{3, 3, 10, 10}));
            panel.resize(611, 333);
            QCOMPARE(panel.sizeHint(), QSize(611, 333));
            const QFontMetricsF metrics(panel.textView()->font());
            QCOMPARE(metrics.horizontalAdvance('i'), metrics.horizontalAdvance('M'));
            if (action == "unsent output")
                panel.appendOutput(argument);
            if (action == "unsent end") {
                TelvaneRunOutcome outcome;
                outcome.kind = TelvaneRunOutcome::Kind::Failed;
                outcome.failure.code = argument.toLong();
                std::thread([&, delegate = sensor->delegate()] {
                    delegate->sensorRunDidFinish(*sensor, outcome);
                }).join();
                QVERIFY(!panel.running()); // at once, on the reporting thread
            }
        } else if (action.endsWith("Button") || action == "Escape") {
            QTRY_COMPARE_WITH_TIMEOUT(panel.textView()->toPlainText(), start + "OK\nstart\n", kRunTimeout);
            if (auto *button = panel.findChild<QPushButton *>(action))
                button->click();
            else if (QTest::qWaitForWindowActive(&panel))
                QTest::keyClick(panel.textView(), Qt::Key_Escape); // wherever the focus is in the panel
            QCOMPARE(panel.isVisible(), action == "runAgainButton");
        }
        if (action == "runAgainButton") { // cleared at once; both runs go on to their ends, in any order
            QCOMPARE(panel.textView()->toPlainText(), start);
            QVERIFY(busy(panel) && released(sensor));
            QTRY_VERIFY(!busy(panel) && !panel.running());
            const QString text = panel.textView()->toPlainText();
            QVERIFY2(text.startsWith(start) && text.contains("end\n") && text.contains(done),
                     qPrintable(text));
            return;
        }
        QTRY_COMPARE_WITH_TIMEOUT(panel.textView()->toPlainText(), start + shown, kRunTimeout);
        QCOMPARE(redText(panel.textView()), red);
        QCOMPARE(prompts.count, int(shown == canceled || action == "code"));
        const bool ending = action != "unsent output";
        QVERIFY(busy(panel) != ending && panel.running() != ending);
        QCOMPARE(runningChanged.count(), ending ? 2 : 1);
        QVERIFY(released(sensor));
        QCOMPARE(panel.textView()->toPlainText(), start + shown);
        const QScrollBar *bar = panel.textView()->verticalScrollBar();
        QCOMPARE(bar->value(), bar->maximum());
        panel.onCopyToClipboard();
        QCOMPARE(QGuiApplication::clipboard()->text(), start + shown);
    }

    // The runner's signals in order, failures with their reasons, and a runner destroyed mid-run (the run
    // ends unheard and lets go of the sensor). "prompt" leaves the request to the prompt, which is cancelled.
    void runner_data()
    {
        QTest::addColumn<QStringList>("row"); // the answer to the request, what the runner tells
        QTest::newRow("output, then the status") << QStringList{"right", "started|one\ntwo\n|finished:3"};
        QTest::newRow("declined by the slot")
            << QStringList{"decline", "failed:2:no credentials were given for 127.0.0.1"};
        // A stop while the user is asked ends the run at once, as a stop while connecting does.
        QTest::newRow("stopped while asked")
            << QStringList{"stop", "failed:1:connection to 127.0.0.1 stopped"};
        QTest::newRow("prompt cancelled")
            << QStringList{"prompt", "failed:2:no credentials were given for 127.0.0.1"};
        QTest::newRow("destroyed while credentials are asked") << QStringList{"destroy", ""};
        QTest::newRow("destroyed during the output") << QStringList{"right, destroy", "started|one\n"};
    }

    void runner()
    {
        REQUIRE_SERVER(sshd);
        QFETCH(QStringList, row);
        const QString &answer = row[0], &expected = row[1];
        auto sensor = Telvane::create("diagnostics", "Test sensor", sshd.host(), sshd.port());
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
        PromptAnswerer prompts;
        if (answer != "prompt") {
            connect(runner.get(), &TelvaneSensorRunner::credentialsRequested, this, [&] {
                if (answer == "destroy")
                    runner.reset();
                else if (answer == "decline")
                    runner->declineCredentials();
                else if (answer == "stop")
                    runner->stop();
                else
                    runner->provideCredentials(QString::fromStdString(sshd.username()),
                                               QString::fromStdString(sshd.password()));
            });
        }
        runner->start("echo one\nsleep 1\necho two\nexit 3\n");
        QTRY_VERIFY_WITH_TIMEOUT(ended || !runner, kRunTimeout);
        QCOMPARE(events, expected);
        QCOMPARE(prompts.count, answer == "prompt" ? 1 : 0);
        QVERIFY(released(sensor, runner ? 2 : 1));
    }

    // The programs as a user runs them. The desktop host: bad input ends it at once; a quit while a run goes
    // on ends it promptly and cleanly. The README's Qt example: a run, a refused password.
    void programs()
    {
        auto run =
            telvane::test::runProcess({TELVANE_DIAGNOSTICS_HOST, "127.0.0.1", "/nonexistent/script.sh"});
        QVERIFY2(run.status == 2 && run.err.find("cannot read the script") != std::string::npos,
                 run.err.c_str());
        REQUIRE_SERVER(sshd);
        const std::string port = std::to_string(sshd.port());
        for (const auto &[password, status, out] :
             {std::tuple{sshd.password(), 3, "hello\n"}, std::tuple{std::string("wrong"), 103, ""}}) {
            const std::string file = sshd.writeFile("qt-face-password", password + "\n");
            run = telvane::test::runProcess(
                {TELVANE_QT_FACE, sshd.host(), port, sshd.username(), file, "echo hello\nexit 3"});
            QVERIFY2(run.status == status, run.err.c_str());
            QCOMPARE(run.out, std::string(out));
        }
        const std::size_t logFrom = sshd.log().size();
        const std::string passwordFile = sshd.writeFile("host-password", sshd.password() + "\n");
        // SIGTERM closes the window, by then well into the run.
        const telvane::test::ProcessOptions options{.timeout = std::chrono::seconds(30),
                                                    .interruptAfter = std::chrono::seconds(10),
                                                    .interruptSignal = SIGTERM};
        run = telvane::test::runProcess({TELVANE_DIAGNOSTICS_HOST, "-p", port, "-l", sshd.username(),
                                         "--password-file", passwordFile, "127.0.0.1",
                                         script("sleep 60\n").toStdString()},
                                        options);
        QVERIFY2(sshd.log(logFrom).find("Starting session: command") != std::string::npos, run.err.c_str());
        QVERIFY2(run.status == 0 && run.seconds < 25, run.err.c_str());
    }
};

QTEST_MAIN(DiagnosticsViewTest)

#include "DiagnosticsViewTest.moc"
