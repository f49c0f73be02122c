// The credentials, host-key and login-question prompts with real widgets on the offscreen platform, driven by
// real key and mouse events, asked on the GUI thread or, as a sensor's login thread asks, from a worker; and,
// before the suite's own application object, the prompt's life across application objects.
#include "TelvaneCredentialsPrompt.h"
#include "TelvaneHostKeyPrompt.h"
#include "TelvaneLoginQuestionPrompt.h"
#include "support/QtRequire.h"

#include <Telvane/Telvane.h>

#include <QtCore/QTimer>
#include <QtWidgets/QAbstractButton>
#include <QtWidgets/QLabel>
#include <QtWidgets/QLineEdit>
#include <QtWidgets/QPushButton>

#include <chrono>
#include <cstdio>
#include <future>
#include <memory>
#include <thread>

using namespace std::chrono_literals;

namespace {

const QString fingerprint = "SHA256:uNiVztksCsDhcc0u9e8BujQXVUpKZIDTMczCvj3tD2s";

/// What @p dialog shows: its title, the named buttons and texts that are visible (the message only where it
/// is not the title; a long explanation only as being there), then each field's label and whether it hides
/// the typing.
QStringList shownBy(QDialog *dialog)
{
    QStringList shown{dialog->windowTitle()};
    for (const char *name :
         {"okButton", "acceptButton", "refuseButton", "cancelButton", "messageLabel", "informativeLabel",
          "instructionLabel", "sensorLabel", "fingerprintLabel", "knownEntryLabel", "resetCommandLabel"}) {
        const QWidget *widget = dialog->findChild<QWidget *>(name);
        const QString text = widget && widget->isVisible() ? widget->property("text").toString() : "";
        if (!text.isEmpty() && text != shown[0])
            shown << (text.size() > 90 ? "(long)" : text);
    }
    for (const QLabel *label : dialog->findChildren<QLabel *>())
        if (const auto *field = qobject_cast<QLineEdit *>(label->buddy()))
            shown << label->text() << (field->echoMode() == QLineEdit::Password ? "hidden" : "shown");
    return shown;
}

/// Clicks the button named @p step, types what follows "=" where the focus is, or else presses the keys.
void act(QDialog *dialog, const QString &step)
{
    if (auto *button = dialog->findChild<QAbstractButton *>(step))
        return QTest::mouseClick(button, Qt::LeftButton, {}, QPoint(4, 4));
    if (step.startsWith('='))
        return QTest::keyClicks(QApplication::focusWidget(), step.mid(1));
    const QKeySequence sequence(step);
    for (int i = 0; i < sequence.count(); ++i)
        QTest::keyClick(QApplication::focusWidget(), sequence[i].key());
}

/// The answer of the prompt that @p kind names, as one line.
QString answerOf(const QStringList &kind, bool persistBefore)
{
    auto sensor = Telvane::create("id", kind[0] == "credentials" ? kind[1].toStdString() : "Kitchen sensor",
                                  "kitchen.local");
    if (kind[0] == "credentials") {
        bool persist = persistBefore; // left as it is unless the prompt is confirmed
        const auto pair = TelvaneCredentials::promptForCredentials(*sensor, &persist);
        return (pair ? QString::fromStdString(pair->username + "|" + pair->password) : "none") + "|" +
               QString::number(persist);
    }
    if (kind[0] == "key") { // the known entry's line; -1: the key is unknown, 0: changed, entry not found
        const long line = kind[1].toLong();
        const TelvaneHostKey key{"[kitchen.local]:2222",      "ssh-ed25519",
                                 fingerprint.toStdString(),   line >= 0,
                                 "/home/pi/.ssh/known_hosts", std::max(line, 0L)};
        return TelvaneCredentials::promptForHostKey(*sensor, key) ? "accepted" : "refused";
    }
    TelvaneLoginQuestion question{"", kind[1].toStdString(), {}}; // then the prompts, "*" when they echo
    for (const QString &prompt : kind.mid(2))
        question.prompts.push_back(
            {prompt.chopped(prompt.endsWith('*')).toStdString(), prompt.endsWith('*')});
    const auto answers = TelvaneCredentials::promptForLoginQuestion(*sensor, question);
    QStringList typed;
    for (const std::string &answer : answers.value_or(std::vector<std::string>{}))
        typed << QString::fromStdString(answer);
    return answers ? typed.join('|') : "none";
}

void require(bool condition, const char *what)
{
    if (!condition) {
        std::fprintf(stderr, "FAIL: %s\n", what);
        std::_Exit(1); // a worker may still wait in the prompt
    }
}

/// Asks for credentials on a worker while @p meanwhile runs here; the worker must be let go soon after,
/// without credentials and with the persist flag untouched.
void askFromWorker(const std::function<void()> &meanwhile, const char *what)
{
    auto answered = std::async(std::launch::async, [sensor = Telvane::create("id", "Keller", "host")] {
        bool persist = true;
        return TelvaneCredentials::promptForCredentials(*sensor, &persist).has_value() || !persist;
    });
    meanwhile();
    require(answered.wait_for(std::chrono::seconds(10)) == std::future_status::ready, what);
    require(!answered.get(), "no credentials, the persist flag untouched");
}

/// What only application objects of the test's own can show: the translation that QLocale() asks for,
/// installed by the first prompt of each application object; a second application object after the first
/// has gone; and a worker asking while the application quits or goes away. Stops at the first check that
/// fails.
void applicationLifecycle()
{
    int argc = 1;
    char name[] = "telvane_credentials_prompt_test", *argv[] = {name, nullptr};
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
    for (int application = 0; application < 2; ++application) {
        QApplication app(argc, argv);
        QStringList shown;
        const telvane::test::PromptWatch poll("TelvaneCredentialsDialog", [&](QDialog *dialog) {
            shown << dialog->findChild<QLabel *>("messageLabel")->text()
                  << dialog->findChild<QPushButton *>("cancelButton")->text();
            QCoreApplication::quit(); // ends the prompt as a cancel
        });
        QTimer::singleShot(10000, &app, &QCoreApplication::quit);
        askFromWorker([] { QApplication::exec(); }, "a worker is let go when the application quits");
        require(shown == QStringList{"Anmeldung erforderlich für Keller", "Abbrechen"},
                "the prompt, in German");
    }
    // No event loop runs, so the request waits in the queue until the application object goes.
    auto app = std::make_unique<QApplication>(argc, argv);
    askFromWorker(
        [&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            app.reset();
        },
        "a worker is let go when the application object goes");
}

} // namespace

class CredentialsPromptTest : public QObject
{
    Q_OBJECT

public:
    static void initMain() { applicationLifecycle(); }

private slots:
    void initTestCase() { QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates)); }

    // Row: the prompt and what it is asked with, the steps of the user (see act), what it shows, what it
    // answers (credentials: the pair or "none", then the persist flag, left as it is unless confirmed). A tag
    // starting "German" asks in German, one ending "worker" from a worker.
    void prompts_data()
    {
        QTest::addColumn<QStringList>("kind");
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<QStringList>("shown");
        QTest::addColumn<QString>("answer");
        const QStringList fields{"&Username:", "shown", "&Password:", "hidden"};
        const auto credentials = [&](const QString &name) {
            return QStringList{"Authentication required for " + name, "OK", "Cancel",
                               "Please enter the username and password:"} +
                   fields;
        };
        // Tab goes round, selecting the field's text; Return moves on from the username and confirms in the
        // password.
        QTest::newRow("credentials, Tab, Return, forget")
            << QStringList{"credentials", "Kitchen"}
            << QStringList{"=bob", "Tab, Tab", "=alice", "Return", "=s3cret pw", "Return"}
            << credentials("Kitchen") << "alice|s3cret pw|0";
        QTest::newRow("credentials, Enter moves on, remember")
            << QStringList{"credentials", ""}
            << QStringList{"=alice", "Enter", "=s3cret", "rememberPasswordButton", "okButton"}
            << credentials("") << "alice|s3cret|1";
        QTest::newRow("credentials, empty")
            << QStringList{"credentials", "50%@ %1"} << QStringList{"Tab", "okButton"}
            << credentials("50%@ %1") << "||0";
        QTest::newRow("credentials, cancel")
            << QStringList{"credentials", "K"} << QStringList{"=alice", "Tab", "=pw", "cancelButton"}
            << credentials("K") << "none|1";
        const QString reset = "ssh-keygen -f '/home/pi/.ssh/known_hosts' -R '[kitchen.local]:2222'";
        const QString unknown = "The authenticity of host [kitchen.local]:2222 can't be established.";
        const QString changed = "WARNING: The host key of [kitchen.local]:2222 has changed!";
        const auto key = [](const QString &message, const QStringList &entry, const QString &accept,
                            const QString &refuse = "Don't Connect") {
            return QStringList{message, accept, refuse, "(long)", "Kitchen sensor", fingerprint} + entry;
        };
        QTest::newRow("unknown key, connect") << QStringList{"key", "-1"} << QStringList{"acceptButton"}
                                              << key(unknown, {}, "Connect and Remember Key") << "accepted";
        QTest::newRow("changed key, entry not found, refuse")
            << QStringList{"key", "0"} << QStringList{"refuseButton"}
            << key(changed, {reset}, "Connect This Once") << "refused";
        QTest::newRow("German, unknown key, Return connects")
            << QStringList{"key", "-1"} << QStringList{"Return"}
            << key("Die Echtheit des Hosts [kitchen.local]:2222 kann nicht bestätigt werden.", {},
                   "Verbinden und Schlüssel merken", "Nicht verbinden")
            << "accepted";
        QTest::newRow("German, changed key, Return refuses, worker")
            << QStringList{"key", "7"} << QStringList{"Return"}
            << key("WARNUNG: Der Host-Schlüssel von [kitchen.local]:2222 hat sich geändert!",
                   {"/home/pi/.ssh/known_hosts:7", reset}, "Nur dieses Mal verbinden", "Nicht verbinden")
            << "refused";

        // One field per prompt, hidden unless the prompt echoes, under the server's instruction.
        const QStringList question{"Authentication required for Kitchen sensor", "OK", "Cancel",
                                   "Please answer the server's question:"};
        QTest::newRow("question, token and code, Return, worker")
            << QStringList{"question", "Touch the token.", "Token serial:*", "Code:"}
            << QStringList{"=abc", "Tab", "=42", "Return"}
            << question + QStringList{"Touch the token.", "Token serial:", "shown", "Code:", "hidden"}
            << "abc|42";
        QTest::newRow("question, cancel") << QStringList{"question", "", "Code:"}
                                          << QStringList{"=1", "cancelButton"} << QStringList() << "none";
    }

    void prompts()
    {
        QFETCH(QStringList, kind);
        QFETCH(QStringList, steps);
        QFETCH(QStringList, shown);
        QFETCH(QString, answer);
        const telvane::test::RowTranslation translation;
        QStringList seen;
        bool asked = false, active = false;
        const telvane::test::PromptWatch poll(nullptr, [&](QDialog *dialog) {
            if (std::exchange(asked, true)) // acts once, as soon as the prompt is up and active
                return;
            active = QTest::qWaitForWindowActive(dialog); // else key events reach nothing
            if (!active)
                return dialog->reject();
            seen = shownBy(dialog);
            for (const QString &step : steps)
                act(dialog, step);
        });
        const bool persistBefore = !steps.contains("rememberPasswordButton");
        // Asked on a worker while this thread runs its events, or here, as the GUI thread itself asks.
        const bool worker = QByteArray(QTest::currentDataTag()).endsWith("worker");
        auto answered = std::async(worker ? std::launch::async : std::launch::deferred,
                                   [&] { return answerOf(kind, persistBefore); });
        const bool inTime =
            QTest::qWaitFor([&] { return answered.wait_for(0s) != std::future_status::timeout; }, 20000);
        if (!inTime && QApplication::activeModalWidget())
            QApplication::activeModalWidget()->close(); // so that the worker can be joined
        const QString got = answered.get();
        QVERIFY2(inTime, "the worker was never answered");
        QVERIFY2(asked, "the prompt never showed");
        TELVANE_QREQUIRE(active, "the platform did not activate the dialog's window");
        if (!shown.isEmpty())
            QCOMPARE(seen, shown);
        QCOMPARE(got, answer);
    }
};

QTEST_MAIN(CredentialsPromptTest)
#include "CredentialsPromptTest.moc"
