// The credentials and host-key prompts with real widgets on the offscreen platform, driven by real key and
// mouse events.
#include "TelvaneCredentialsAccessoryView.h"
#include "TelvaneCredentialsPrompt.h"
#include "TelvaneHostKeyPrompt.h"
#include "TelvaneWidgetsTranslations_p.h"
#include "support/QtRequire.h"

#include <Telvane/Telvane.h>

#include <QtCore/QTimer>
#include <QtCore/QTranslator>
#include <QtTest/QtTest>
#include <QtWidgets/QApplication>
#include <QtWidgets/QCheckBox>
#include <QtWidgets/QDialog>
#include <QtWidgets/QLabel>
#include <QtWidgets/QLineEdit>
#include <QtWidgets/QPushButton>

#include <atomic>
#include <functional>
#include <thread>

namespace {

enum class Finish { ClickOk, ClickCancel, ReturnInPassword, Escape };

/// Runs @p action once on the prompt's dialog when it is up and active, from the GUI thread's event loop,
/// whichever thread asked for the prompt.
class DialogDriver : public QObject
{
public:
    explicit DialogDriver(std::function<void(QDialog *)> action,
                          QLatin1String dialogName = QLatin1String("TelvaneCredentialsDialog"))
        : action_(std::move(action)), dialogName_(dialogName)
    {
        connect(&timer_, &QTimer::timeout, this, &DialogDriver::poll);
        timer_.start(10);
    }
    bool ran() const { return ran_; }
    bool activated() const { return activated_; }

private:
    void poll()
    {
        QDialog *dialog = telvane::test::shownPrompt(dialogName_);
        if (!dialog)
            return;
        timer_.stop();
        ran_ = true;
        activated_ = QTest::qWaitForWindowActive(dialog);
        if (activated_)
            action_(dialog);
        else
            dialog->reject();
    }

    std::function<void(QDialog *)> action_;
    QLatin1String dialogName_;
    QTimer timer_;
    bool ran_ = false;
    bool activated_ = false;
};

TelvaneCredentialsAccessoryView *accessory(QDialog *dialog)
{
    return dialog->findChild<TelvaneCredentialsAccessoryView *>();
}

void typeCredentials(QDialog *dialog, const QString &username, const QString &password, bool remember)
{
    auto *view = accessory(dialog);
    QTest::keyClicks(view->usernameField(), username);
    QTest::keyClicks(view->passwordField(), password);
    if (view->rememberPasswordButton()->isChecked() != remember)
        QTest::mouseClick(view->rememberPasswordButton(), Qt::LeftButton, {}, QPoint(4, 4));
}

void finish(QDialog *dialog, Finish how)
{
    switch (how) {
    case Finish::ClickOk:
        QTest::mouseClick(dialog->findChild<QPushButton *>("okButton"), Qt::LeftButton);
        break;
    case Finish::ClickCancel:
        QTest::mouseClick(dialog->findChild<QPushButton *>("cancelButton"), Qt::LeftButton);
        break;
    case Finish::ReturnInPassword:
        accessory(dialog)->passwordField()->setFocus();
        QTest::keyClick(accessory(dialog)->passwordField(), Qt::Key_Return);
        break;
    case Finish::Escape:
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Escape);
        break;
    }
}

TelvaneHostKey hostKey(bool changed, long knownLine)
{
    TelvaneHostKey key;
    key.host = "[kitchen.local]:2222";
    key.keyType = "ssh-ed25519";
    key.fingerprint = "SHA256:uNiVztksCsDhcc0u9e8BujQXVUpKZIDTMczCvj3tD2s";
    key.changed = changed;
    if (changed) {
        key.knownFile = "/home/pi/.ssh/known_hosts";
        key.knownLine = knownLine;
    }
    return key;
}

/// The host-key prompt's answer, asked on this thread or on a worker while this one runs its events;
/// nullopt when the worker never got one.
std::optional<bool> askHostKey(const TelvaneHostKey &key, bool onWorker)
{
    auto sensor = Telvane::create("kitchen", "Kitchen sensor", "kitchen.local");
    if (!onWorker)
        return TelvaneCredentials::promptForHostKey(*sensor, key);
    std::atomic<bool> done{false};
    bool accepted = false;
    std::thread worker([&] {
        accepted = TelvaneCredentials::promptForHostKey(*sensor, key);
        done = true;
    });
    const bool finished = QTest::qWaitFor([&] { return done.load(); }, 20000);
    if (!finished && QApplication::activeModalWidget())
        QApplication::activeModalWidget()->close();
    worker.join();
    return finished ? std::optional<bool>(accepted) : std::nullopt;
}

QString shownText(QDialog *dialog, const char *label)
{
    auto *widget = dialog->findChild<QLabel *>(label);
    return widget && widget->isVisible() ? widget->text() : QString();
}

} // namespace

Q_DECLARE_METATYPE(Finish)

/// Every test checks the driver first: without an active window, key events reach nothing.
#define REQUIRE_DRIVEN(driver)                                                                               \
    do {                                                                                                     \
        QVERIFY2((driver).ran(), "the prompt never showed");                                                 \
        /* Under CI the offscreen platform always gives windows the focus. */                                \
        TELVANE_QREQUIRE((driver).activated(), "the platform did not activate the dialog's window");         \
    } while (0)

class CredentialsPromptTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        // The texts under test are the English keys, whatever the locale of the machine.
        QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    }

    void answers_data()
    {
        QTest::addColumn<QString>("username");
        QTest::addColumn<QString>("password");
        QTest::addColumn<bool>("remember");
        QTest::addColumn<Finish>("finish");
        QTest::addColumn<bool>("persistBefore");
        QTest::addColumn<bool>("confirmed");
        QTest::addColumn<bool>("persistAfter");

        QTest::newRow("ok, remember on") << "alice"
                                         << "s3cret pw" << true << Finish::ClickOk << false << true << true;
        QTest::newRow("ok, remember off") << "alice"
                                          << "s3cret" << false << Finish::ClickOk << true << true << false;
        QTest::newRow("ok, empty fields") << ""
                                          << "" << false << Finish::ClickOk << false << true << false;
        QTest::newRow("return in password field")
            << "bob"
            << "pw" << true << Finish::ReturnInPassword << false << true << true;
        QTest::newRow("cancel keeps false") << "alice"
                                            << "pw" << true << Finish::ClickCancel << false << false << false;
        QTest::newRow("cancel keeps true") << "alice"
                                           << "pw" << false << Finish::ClickCancel << true << false << true;
        QTest::newRow("escape") << "alice"
                                << "pw" << true << Finish::Escape << false << false << false;
    }

    void answers()
    {
        QFETCH(QString, username);
        QFETCH(QString, password);
        QFETCH(bool, remember);
        QFETCH(Finish, finish);
        QFETCH(bool, persistBefore);
        QFETCH(bool, confirmed);
        QFETCH(bool, persistAfter);

        auto sensor = Telvane::create("kitchen", "Kitchen sensor", "kitchen.local");
        DialogDriver driver([&](QDialog *dialog) {
            typeCredentials(dialog, username, password, remember);
            ::finish(dialog, finish);
        });
        bool persist = persistBefore;
        const auto credentials = TelvaneCredentials::promptForCredentials(*sensor, &persist);

        REQUIRE_DRIVEN(driver);
        QCOMPARE(credentials.has_value(), confirmed);
        if (confirmed) {
            QCOMPARE(QString::fromStdString(credentials->username), username);
            QCOMPARE(QString::fromStdString(credentials->password), password);
        }
        QCOMPARE(persist, persistAfter);
    }

    void texts_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("message");
        QTest::newRow("named") << "Kitchen sensor"
                               << "Authentication required for Kitchen sensor";
        QTest::newRow("no name") << ""
                                 << "Authentication required for ";
        QTest::newRow("placeholder in the name") << "50%@ %1"
                                                 << "Authentication required for 50%@ %1";
    }

    void texts()
    {
        QFETCH(QString, name);
        QFETCH(QString, message);

        auto sensor = Telvane::create("id", name.toStdString(), "host");
        QString shownMessage, informative, title, cancel;
        bool okDefault = false, okEnabled = false, hidden = false;
        Qt::WindowModality modality = Qt::NonModal;
        DialogDriver driver([&](QDialog *dialog) {
            shownMessage = dialog->findChild<QLabel *>("messageLabel")->text();
            informative = dialog->findChild<QLabel *>("informativeLabel")->text();
            title = dialog->windowTitle();
            cancel = dialog->findChild<QPushButton *>("cancelButton")->text();
            auto *ok = dialog->findChild<QPushButton *>("okButton");
            okDefault = ok->isDefault();
            okEnabled = ok->isEnabled();
            modality = dialog->windowModality();
            hidden = accessory(dialog)->passwordField()->echoMode() == QLineEdit::Password;
            dialog->reject();
        });
        bool persist = false;
        QVERIFY(!TelvaneCredentials::promptForCredentials(*sensor, &persist));

        REQUIRE_DRIVEN(driver);
        QCOMPARE(shownMessage, message);
        QCOMPARE(informative, QStringLiteral("Please enter the username and password:"));
        QVERIFY(!title.isEmpty());
        QCOMPARE(cancel, QStringLiteral("Cancel"));
        QVERIFY(okDefault);
        QVERIFY(okEnabled);
        QCOMPARE(modality, Qt::ApplicationModal);
        QVERIFY(hidden);
    }

    void keyboard_data()
    {
        QTest::addColumn<QList<int>>("keys");
        QTest::addColumn<QString>("focused");
        QTest::newRow("return in username") << QList<int>{Qt::Key_Return} << "passwordField";
        QTest::newRow("keypad enter in username") << QList<int>{Qt::Key_Enter} << "passwordField";
        QTest::newRow("tab in username") << QList<int>{Qt::Key_Tab} << "passwordField";
        QTest::newRow("tab, tab") << QList<int>{Qt::Key_Tab, Qt::Key_Tab} << "usernameField";
        QTest::newRow("tab, backtab") << QList<int>{Qt::Key_Tab, Qt::Key_Backtab} << "usernameField";
        QTest::newRow("backtab in username") << QList<int>{Qt::Key_Backtab} << "";
    }

    // The dialog stays open through every key, and the field that gets the focus has its text selected.
    void keyboard()
    {
        QFETCH(QList<int>, keys);
        QFETCH(QString, focused);

        auto sensor = Telvane::create("id", "Sensor", "host");
        QString focusName, selected, content;
        bool stillOpen = false, initiallyInUsername = false;
        DialogDriver driver([&](QDialog *dialog) {
            auto *view = accessory(dialog);
            initiallyInUsername = QApplication::focusWidget() == view->usernameField();
            view->usernameField()->setText("alice");
            view->passwordField()->setText("secret");
            for (int key : keys)
                QTest::keyClick(QApplication::focusWidget(), Qt::Key(key),
                                key == Qt::Key_Backtab ? Qt::ShiftModifier : Qt::NoModifier);
            stillOpen = dialog->isVisible();
            if (auto *field = qobject_cast<QLineEdit *>(QApplication::focusWidget())) {
                focusName = field->objectName();
                selected = field->selectedText();
                content = field->text();
            }
            dialog->reject();
        });
        bool persist = false;
        QVERIFY(!TelvaneCredentials::promptForCredentials(*sensor, &persist));

        REQUIRE_DRIVEN(driver);
        QVERIFY(initiallyInUsername);
        QVERIFY(stillOpen);
        QCOMPARE(focusName, focused);
        // Backward tabbing is Qt's own and leaves the fields; only the forward moves promise a selection.
        if (!focused.isEmpty() && keys.last() != Qt::Key_Backtab)
            QCOMPARE(selected, content);
    }

    // The way a sensor's login thread asks: the GUI thread keeps running its events meanwhile. A cancel
    // from a worker is PromptLifecycleTest's (quitWhileShown, secondApplicationObject).
    void fromWorkerThread()
    {
        auto sensor = Telvane::create("id", "Garden sensor", "garden.local");
        std::optional<TelvaneCredentialsDictionary> credentials;
        bool persist = false;
        std::atomic<bool> done{false};
        QThread *askedOn = nullptr;
        DialogDriver driver([&](QDialog *dialog) {
            askedOn = QThread::currentThread();
            typeCredentials(dialog, "carol", "pw", true);
            finish(dialog, Finish::ClickOk);
        });
        std::thread worker([&] {
            credentials = TelvaneCredentials::promptForCredentials(*sensor, &persist);
            done = true;
        });
        const bool finished = QTest::qWaitFor([&] { return done.load(); }, 20000);
        if (!finished && QApplication::activeModalWidget())
            QApplication::activeModalWidget()->close();
        worker.join();

        QVERIFY(finished);
        REQUIRE_DRIVEN(driver);
        QCOMPARE(askedOn, qApp->thread());
        QVERIFY(credentials.has_value());
        QVERIFY(persist);
        QCOMPARE(credentials->username, std::string("carol"));
    }

    void hostKeyTexts_data()
    {
        QTest::addColumn<bool>("german");
        QTest::addColumn<bool>("changed");
        QTest::addColumn<int>("knownLine");
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("connect");
        QTest::addColumn<QString>("refuse");
        QTest::addColumn<QString>("knownEntry"); // empty: the row is hidden
        QTest::addColumn<QString>("reset");

        const QString command = "ssh-keygen -f '/home/pi/.ssh/known_hosts' -R '[kitchen.local]:2222'";
        QTest::newRow("unknown") << false << false << 0
                                 << "The authenticity of host [kitchen.local]:2222 can't be established."
                                 << "Connect and Remember Key"
                                 << "Don't Connect"
                                 << ""
                                 << "";
        QTest::newRow("changed") << false << true << 12
                                 << "WARNING: The host key of [kitchen.local]:2222 has changed!"
                                 << "Connect This Once"
                                 << "Don't Connect"
                                 << "/home/pi/.ssh/known_hosts:12" << command;
        QTest::newRow("changed, entry not found")
            << false << true << 0 << "WARNING: The host key of [kitchen.local]:2222 has changed!"
            << "Connect This Once"
            << "Don't Connect"
            << "" << command;
        QTest::newRow("German, unknown")
            << true << false << 0
            << "Die Echtheit des Hosts [kitchen.local]:2222 kann nicht bestätigt "
               "werden."
            << "Verbinden und Schlüssel merken"
            << "Nicht verbinden"
            << ""
            << "";
        QTest::newRow("German, changed")
            << true << true << 7 << "WARNUNG: Der Host-Schlüssel von [kitchen.local]:2222 hat sich geändert!"
            << "Nur dieses Mal verbinden"
            << "Nicht verbinden"
            << "/home/pi/.ssh/known_hosts:7" << command;
    }

    void hostKeyTexts()
    {
        QFETCH(bool, german);
        QFETCH(bool, changed);
        QFETCH(int, knownLine);
        QFETCH(QString, message);
        QFETCH(QString, connect);
        QFETCH(QString, refuse);
        QFETCH(QString, knownEntry);
        QFETCH(QString, reset);

        QTranslator translator;
        if (german) {
            QVERIFY(TelvaneWidgets::loadTranslation(translator, QLocale(QLocale::German)));
            QCoreApplication::installTranslator(&translator);
        }
        QMap<QString, QString> shown;
        bool acceptDefault = true;
        Qt::WindowModality modality = Qt::NonModal;
        DialogDriver driver(
            [&](QDialog *dialog) {
                for (const char *label :
                     {"messageLabel", "informativeLabel", "sensorLabel", "hostLabel", "keyTypeLabel",
                      "fingerprintLabel", "knownEntryLabel", "resetCommandLabel"})
                    shown[label] = shownText(dialog, label);
                shown["connect"] = dialog->findChild<QPushButton *>("acceptButton")->text();
                shown["refuse"] = dialog->findChild<QPushButton *>("refuseButton")->text();
                shown["title"] = dialog->windowTitle();
                acceptDefault = dialog->findChild<QPushButton *>("acceptButton")->isDefault();
                modality = dialog->windowModality();
                dialog->reject();
            },
            QLatin1String("TelvaneHostKeyDialog"));
        QCOMPARE(askHostKey(hostKey(changed, knownLine), false), false);

        REQUIRE_DRIVEN(driver);
        QCOMPARE(shown["messageLabel"], message);
        QCOMPARE(shown["title"], message);
        QVERIFY(!shown["informativeLabel"].isEmpty());
        QCOMPARE(shown["sensorLabel"], QStringLiteral("Kitchen sensor"));
        QCOMPARE(shown["hostLabel"], QStringLiteral("[kitchen.local]:2222"));
        QCOMPARE(shown["keyTypeLabel"], QStringLiteral("ssh-ed25519"));
        QCOMPARE(shown["fingerprintLabel"],
                 QStringLiteral("SHA256:uNiVztksCsDhcc0u9e8BujQXVUpKZIDTMczCvj3tD2s"));
        QCOMPARE(shown["knownEntryLabel"], knownEntry);
        QCOMPARE(shown["resetCommandLabel"], reset);
        QCOMPARE(shown["connect"], connect);
        QCOMPARE(shown["refuse"], refuse);
        QCOMPARE(acceptDefault, !changed);
        QCOMPARE(modality, Qt::ApplicationModal);
    }

    void hostKeyAnswers_data()
    {
        QTest::addColumn<bool>("changed");
        QTest::addColumn<QString>("button"); // empty: the key is pressed on the focused widget
        QTest::addColumn<int>("key");
        QTest::addColumn<bool>("onWorker");
        QTest::addColumn<bool>("accepted");

        QTest::newRow("unknown, connect") << false << "acceptButton" << 0 << false << true;
        QTest::newRow("unknown, refuse") << false << "refuseButton" << 0 << false << false;
        QTest::newRow("unknown, return connects") << false << "" << int(Qt::Key_Return) << false << true;
        QTest::newRow("changed, return refuses") << true << "" << int(Qt::Key_Return) << false << false;
        QTest::newRow("changed, escape") << true << "" << int(Qt::Key_Escape) << false << false;
        QTest::newRow("changed, connect from a worker") << true << "acceptButton" << 0 << true << true;
        QTest::newRow("unknown, refuse from a worker") << false << "refuseButton" << 0 << true << false;
    }

    void hostKeyAnswers()
    {
        QFETCH(bool, changed);
        QFETCH(QString, button);
        QFETCH(int, key);
        QFETCH(bool, onWorker);
        QFETCH(bool, accepted);

        QThread *shownOn = nullptr;
        DialogDriver driver(
            [&](QDialog *dialog) {
                shownOn = QThread::currentThread();
                if (button.isEmpty())
                    QTest::keyClick(QApplication::focusWidget(), Qt::Key(key));
                else
                    QTest::mouseClick(dialog->findChild<QPushButton *>(button), Qt::LeftButton);
            },
            QLatin1String("TelvaneHostKeyDialog"));
        const std::optional<bool> answer = askHostKey(hostKey(changed, 3), onWorker);

        REQUIRE_DRIVEN(driver);
        QCOMPARE(shownOn, qApp->thread());
        QCOMPARE(answer, std::optional<bool>(accepted));
    }

    // No translation is shipped for English: the prompt shows its keys (texts() checks them). The German
    // one is installed on first use in a process of its own (PromptLifecycleTest).
    void englishHasNoTranslation()
    {
        QTranslator translator;
        QVERIFY(!TelvaneWidgets::loadTranslation(translator, QLocale(QLocale::English)));
    }
};

QTEST_MAIN(CredentialsPromptTest)
#include "CredentialsPromptTest.moc"
