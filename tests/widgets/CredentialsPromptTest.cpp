// The credentials and host-key prompts with real widgets on the offscreen platform, driven by real key and
// mouse events, asked on the GUI thread or, as a sensor's login thread asks, from a worker.
#include "TelvaneCredentialsAccessoryView.h"
#include "TelvaneCredentialsPrompt.h"
#include "TelvaneHostKeyPrompt.h"
#include "TelvaneLoginQuestionPrompt.h"
#include "TelvaneWidgetsTranslations_p.h"
#include "support/QtRequire.h"

#include <Telvane/Telvane.h>

#include <QtCore/QTimer>
#include <QtCore/QTranslator>
#include <QtWidgets/QCheckBox>
#include <QtWidgets/QFormLayout>
#include <QtWidgets/QLabel>
#include <QtWidgets/QLineEdit>
#include <QtWidgets/QPushButton>

#include <atomic>
#include <functional>
#include <thread>

namespace {

/// Runs an action once on the named prompt as soon as it is up and active, from the GUI thread's loop.
struct DialogDriver
{
    DialogDriver(const char *name, std::function<void(QDialog *)> action)
    {
        QObject::connect(&timer, &QTimer::timeout, [=, this] {
            if (QDialog *dialog = telvane::test::shownPrompt(QLatin1String(name))) {
                timer.stop();
                shown = true;
                active = QTest::qWaitForWindowActive(dialog); // else key events reach nothing
                active ? action(dialog) : dialog->reject();
            }
        });
        timer.start(10);
    }
    QTimer timer;
    bool shown = false, active = false;
};

/// Every test checks the driver first.
#define REQUIRE_DRIVEN(driver)                                                                               \
    QVERIFY2((driver).shown, "the prompt never showed");                                                     \
    TELVANE_QREQUIRE((driver).active, "the platform did not activate the dialog's window")

/// The answer of @p prompt, asked here or on a worker while this thread runs its events (nullopt: none came).
template <typename T> std::optional<T> ask(const std::function<T()> &prompt, bool onWorker)
{
    if (!onWorker)
        return prompt();
    std::atomic<bool> done{false};
    T answer{};
    std::thread worker([&] {
        answer = prompt();
        done = true;
    });
    const bool finished = QTest::qWaitFor([&] { return done.load(); }, 20000);
    if (!finished && QApplication::activeModalWidget())
        QApplication::activeModalWidget()->close();
    worker.join();
    return finished ? std::optional<T>(std::move(answer)) : std::nullopt;
}

QString text(QDialog *dialog, const char *name)
{
    if (auto *button = dialog->findChild<QPushButton *>(name))
        return button->text();
    auto *label = dialog->findChild<QLabel *>(name);
    return label && label->isVisible() ? label->text() : QString();
}

/// Clicks the button named @p keys, or else presses the keys one by one wherever the focus is.
void press(QDialog *dialog, const QString &keys)
{
    if (auto *button = dialog->findChild<QPushButton *>(keys))
        return QTest::mouseClick(button, Qt::LeftButton);
    const QKeySequence sequence(keys);
    for (int i = 0; i < sequence.count(); ++i)
        QTest::keyClick(QApplication::focusWidget(), sequence[i].key());
}

} // namespace

class CredentialsPromptTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates)); }

    // Typed where the focus is: the username, the keys that move on to the password field, the password.
    void answers_data()
    {
        // The sensor's name, the username, the password, the keys between them, how the prompt is finished.
        QTest::addColumn<QStringList>("row");
        QTest::addColumn<bool>("remember");
        QTest::addColumn<bool>("onWorker");
        QTest::newRow("ok, remember")
            << QStringList{"Kitchen", "alice", "s3cret pw", "Return", "okButton"} << true << false;
        QTest::newRow("ok, forget") << QStringList{"", "alice", "s3cret", "Enter", "okButton"} << false
                                    << false;
        QTest::newRow("ok, empty fields")
            << QStringList{"50%@ %1", "", "", "Tab", "okButton"} << false << false;
        QTest::newRow("return in password")
            << QStringList{"K", "bob", "pw", "Tab, Tab, Tab", "Return"} << true << false;
        QTest::newRow("cancel") << QStringList{"K", "alice", "pw", "Tab", "cancelButton"} << false << false;
        QTest::newRow("escape") << QStringList{"K", "alice", "pw", "Return", "Escape"} << true << false;
        QTest::newRow("ok from a worker")
            << QStringList{"K", "carol", "pw", "Tab", "okButton"} << true << true;
    }

    void answers()
    {
        QFETCH(QStringList, row);
        const QString &name = row[0], &username = row[1], &password = row[2], &finish = row[4];
        QFETCH(bool, remember);
        QFETCH(bool, onWorker);
        QStringList shown;
        bool hidden = false;
        DialogDriver driver("TelvaneCredentialsDialog", [&](QDialog *dialog) {
            shown = {dialog->windowTitle(), text(dialog, "messageLabel"), text(dialog, "informativeLabel"),
                     text(dialog, "okButton"), text(dialog, "cancelButton")};
            auto *view = dialog->findChild<TelvaneCredentialsAccessoryView *>();
            hidden = view->passwordField()->echoMode() == QLineEdit::Password;
            QTest::keyClicks(QApplication::focusWidget(), username);
            press(dialog, row[3]);
            QTest::keyClicks(QApplication::focusWidget(), password);
            if (view->rememberPasswordButton()->isChecked() != remember)
                QTest::mouseClick(view->rememberPasswordButton(), Qt::LeftButton, {}, QPoint(4, 4));
            press(dialog, finish);
        });
        auto sensor = Telvane::create("id", name.toStdString(), "kitchen.local");
        const bool persistBefore = !remember; // left as it is unless the prompt is confirmed
        bool persist = persistBefore;
        const auto answer = ask<std::optional<TelvaneCredentialsDictionary>>(
            [&] { return TelvaneCredentials::promptForCredentials(*sensor, &persist); }, onWorker);

        QVERIFY2(answer, "the worker was never answered");
        REQUIRE_DRIVEN(driver);
        const QString message = "Authentication required for " + name;
        QCOMPARE(shown,
                 (QStringList{message, message, "Please enter the username and password:", "OK", "Cancel"}));
        QVERIFY(hidden);
        const bool confirmed = finish == "okButton" || finish == "Return";
        QCOMPARE(answer->has_value(), confirmed);
        QCOMPARE(persist, confirmed ? remember : persistBefore);
        if (confirmed)
            QCOMPARE(QString::fromStdString((*answer)->username) + "|" +
                         QString::fromStdString((*answer)->password),
                     username + "|" + password);
    }

    void hostKey_data()
    {
        QTest::addColumn<bool>("german");
        QTest::addColumn<int>("knownLine");  // -1: the key is unknown; 0: changed, its entry not found
        QTest::addColumn<QString>("finish"); // a button's name, or a key pressed where the focus is
        QTest::addColumn<bool>("onWorker");
        QTest::addColumn<bool>("accepted");
        QTest::addColumn<QStringList>("expected"); // message, accept, refuse, known entry, reset command
        const QString reset = "ssh-keygen -f '/home/pi/.ssh/known_hosts' -R '[kitchen.local]:2222'";
        const QString unknown = "The authenticity of host [kitchen.local]:2222 can't be established.";
        const QString changed = "WARNING: The host key of [kitchen.local]:2222 has changed!";
        QTest::newRow("unknown, connect")
            << false << -1 << "acceptButton" << false << true
            << QStringList{unknown, "Connect and Remember Key", "Don't Connect", "", ""};
        QTest::newRow("changed, refuse") << false << 12 << "refuseButton" << false << false
                                         << QStringList{changed, "Connect This Once", "Don't Connect",
                                                        "/home/pi/.ssh/known_hosts:12", reset};
        QTest::newRow("changed, entry not found, escape")
            << false << 0 << "Escape" << false << false
            << QStringList{changed, "Connect This Once", "Don't Connect", "", reset};
        QTest::newRow("German, unknown, return connects")
            << true << -1 << "Return" << false << true
            << QStringList{"Die Echtheit des Hosts [kitchen.local]:2222 kann nicht bestätigt werden.",
                           "Verbinden und Schlüssel merken", "Nicht verbinden", "", ""};
        QTest::newRow("German, changed, return refuses")
            << true << 7 << "Return" << false << false
            << QStringList{"WARNUNG: Der Host-Schlüssel von [kitchen.local]:2222 hat sich geändert!",
                           "Nur dieses Mal verbinden", "Nicht verbinden", "/home/pi/.ssh/known_hosts:7",
                           reset};
        QTest::newRow("changed, connect from a worker")
            << false << 3 << "acceptButton" << true << true << QStringList();
        QTest::newRow("unknown, refuse from a worker")
            << false << -1 << "refuseButton" << true << false << QStringList();
    }

    void hostKey()
    {
        QFETCH(bool, german);
        QFETCH(int, knownLine);
        QFETCH(QString, finish);
        QFETCH(bool, onWorker);
        QFETCH(bool, accepted);
        QFETCH(QStringList, expected);
        QTranslator translator;
        if (german) {
            QVERIFY(TelvaneWidgets::loadTranslation(translator, QLocale(QLocale::German)));
            QCoreApplication::installTranslator(&translator);
        }
        QStringList shown;
        QString informative;
        DialogDriver driver("TelvaneHostKeyDialog", [&](QDialog *dialog) {
            shown << dialog->windowTitle();
            for (const char *name :
                 {"messageLabel", "acceptButton", "refuseButton", "knownEntryLabel", "resetCommandLabel",
                  "sensorLabel", "hostLabel", "keyTypeLabel", "fingerprintLabel"})
                shown << text(dialog, name);
            informative = text(dialog, "informativeLabel");
            press(dialog, finish);
        });
        const bool changed = knownLine >= 0;
        const TelvaneHostKey hostKey{"[kitchen.local]:2222",
                                     "ssh-ed25519",
                                     fingerprint.toStdString(),
                                     changed,
                                     changed ? "/home/pi/.ssh/known_hosts" : "",
                                     std::max(knownLine, 0)};
        auto sensor = Telvane::create("kitchen", "Kitchen sensor", "kitchen.local");
        const std::optional<bool> answer =
            ask<bool>([&] { return TelvaneCredentials::promptForHostKey(*sensor, hostKey); }, onWorker);

        REQUIRE_DRIVEN(driver);
        QCOMPARE(answer, std::optional<bool>(accepted));
        const QStringList details{"Kitchen sensor", "[kitchen.local]:2222", "ssh-ed25519", fingerprint};
        if (!expected.isEmpty()) // the title is the message
            QCOMPARE(shown, QStringList{expected[0]} + expected + details);
        QVERIFY(!informative.isEmpty());
    }

    // One field per prompt, hidden unless the prompt echoes; the server's texts shown only when it gave them.
    void loginQuestion_data()
    {
        QTest::addColumn<QStringList>("prompts"); // each prompt's text, "*" at the end when it echoes
        QTest::addColumn<QString>("instruction");
        QTest::addColumn<QStringList>("typed"); // per field; the last entry finishes the dialog
        QTest::addColumn<bool>("onWorker");
        QTest::newRow("a code, ok") << QStringList{"One-time password: "} << ""
                                    << QStringList{"123456", "okButton"} << false;
        QTest::newRow("token and code, return, from a worker")
            << QStringList{"Token serial:*", "Code:"} << "Touch the token."
            << QStringList{"abc", "42", "Return"} << true;
        QTest::newRow("cancel") << QStringList{"Code:"} << "" << QStringList{"1", "cancelButton"} << false;
    }

    void loginQuestion()
    {
        QFETCH(QStringList, prompts);
        QFETCH(QString, instruction);
        QFETCH(QStringList, typed);
        QFETCH(bool, onWorker);
        TelvaneLoginQuestion question{"", instruction.toStdString(), {}};
        for (const QString &prompt : prompts)
            question.prompts.push_back(
                {prompt.chopped(prompt.endsWith('*')).toStdString(), prompt.endsWith('*')});
        QStringList shown; // the texts, then per field its label and whether it hides what is typed
        DialogDriver driver("TelvaneLoginQuestionDialog", [&](QDialog *dialog) {
            shown << dialog->windowTitle() << text(dialog, "informativeLabel")
                  << text(dialog, "instructionLabel");
            for (qsizetype i = 0; i + 1 < typed.size(); ++i) {
                auto *field = dialog->findChild<QLineEdit *>(QString("answerField%1").arg(i));
                shown << qobject_cast<QLabel *>(dialog->findChild<QFormLayout *>()->labelForField(field))
                             ->text()
                      << (field->echoMode() == QLineEdit::Password ? "hidden" : "shown");
                QTest::keyClicks(QApplication::focusWidget(), typed[i]); // the focus moves on by Tab
                QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
            }
            if (typed.last() == "Return")
                dialog->findChild<QLineEdit *>("answerField0")->setFocus();
            press(dialog, typed.last());
        });
        auto sensor = Telvane::create("kitchen", "Kitchen sensor", "kitchen.local");
        const auto answer = ask<std::optional<std::vector<std::string>>>(
            [&] { return TelvaneCredentials::promptForLoginQuestion(*sensor, question); }, onWorker);

        QVERIFY2(answer, "the worker was never answered");
        REQUIRE_DRIVEN(driver);
        QStringList expected{"Authentication required for Kitchen sensor",
                             "Please answer the server's question:", instruction};
        for (const QString &prompt : prompts)
            expected << prompt.chopped(prompt.endsWith('*')).trimmed()
                     << (prompt.endsWith('*') ? "shown" : "hidden");
        QCOMPARE(shown, expected);
        QCOMPARE(answer->has_value(), typed.last() != "cancelButton");
        QStringList answers;
        for (const std::string &typedAnswer : answer->value_or(std::vector<std::string>{}))
            answers << QString::fromStdString(typedAnswer);
        if (answer->has_value())
            QCOMPARE(answers, typed.mid(0, typed.size() - 1));
    }

private:
    const QString fingerprint = "SHA256:uNiVztksCsDhcc0u9e8BujQXVUpKZIDTMczCvj3tD2s";
};

QTEST_MAIN(CredentialsPromptTest)
#include "CredentialsPromptTest.moc"
