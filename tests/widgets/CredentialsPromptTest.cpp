// The credentials prompt with real widgets on the offscreen platform, driven by real key and mouse events.
#include "TelvaneCredentialsAccessoryView.h"
#include "TelvaneCredentialsPrompt.h"
#include "TelvaneWidgetsTranslations.h"
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
    explicit DialogDriver(std::function<void(QDialog *)> action) : action_(std::move(action))
    {
        connect(&timer_, &QTimer::timeout, this, &DialogDriver::poll);
        timer_.start(10);
    }
    bool ran() const { return ran_; }
    bool activated() const { return activated_; }

private:
    void poll()
    {
        QDialog *dialog = telvane::test::shownPrompt();
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
