#include "TelvaneCredentialsPrompt.h"

#include "TelvaneCredentialsAccessoryView.h"
#include "TelvaneWidgetsTranslations.h"

#include <Telvane/Platform/TelvaneLog.h>
#include <Telvane/Telvane.h>

#include <QtCore/QThread>
#include <QtWidgets/QApplication>
#include <QtWidgets/QCheckBox>
#include <QtWidgets/QDialog>
#include <QtWidgets/QDialogButtonBox>
#include <QtWidgets/QLabel>
#include <QtWidgets/QLineEdit>
#include <QtWidgets/QPushButton>
#include <QtWidgets/QStyle>
#include <QtWidgets/QVBoxLayout>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace {

// The answers of the two buttons, numbered as alerts number them: the first button answers 1000.
constexpr int firstButtonAnswer = 1000;
constexpr int secondButtonAnswer = 1001;

struct PromptAnswer
{
    TelvaneCredentialsDictionary credentials;
    bool persist = false;
};

/// Copies the password out of the field and leaves no copy behind in the field or in Qt's buffers that
/// we own.
std::string takePassword(QLineEdit *field)
{
    QString text = field->text();
    // setText, unlike clear(), also drops the undo history, which would keep the typed characters.
    field->setText(QString());
    QByteArray utf8 = text.toUtf8();
    std::string password(utf8.constData(), static_cast<size_t>(utf8.size()));
    // Now the only owners of their buffers, so writing through them does not detach.
    std::fill(text.begin(), text.end(), QChar());
    std::fill(utf8.begin(), utf8.end(), '\0');
    return password;
}

class CredentialsDialog : public QDialog
{
public:
    explicit CredentialsDialog(const QString &sensorName)
    {
        setObjectName(QStringLiteral("TelvaneCredentialsDialog"));
        // The key carries the alert's "%@" placeholder; translations keep it.
        const QString message =
            TelvaneWidgets::localized(QT_TRANSLATE_NOOP("Localizable", "Authentication required for %@"))
                .replace(QLatin1String("%@"), sensorName);
        setWindowTitle(message);
        setWindowModality(Qt::ApplicationModal);

        auto *icon = new QLabel(this);
        const QIcon fallback = style()->standardIcon(QStyle::SP_MessageBoxQuestion, nullptr, this);
        const int extent = style()->pixelMetric(QStyle::PM_MessageBoxIconSize, nullptr, this);
        icon->setPixmap(QIcon::fromTheme(QStringLiteral("dialog-password"), fallback).pixmap(extent, extent));
        icon->setAlignment(Qt::AlignTop | Qt::AlignHCenter);

        messageLabel = new QLabel(message, this);
        messageLabel->setObjectName(QStringLiteral("messageLabel"));
        messageLabel->setTextFormat(Qt::PlainText);
        messageLabel->setWordWrap(true);
        QFont bold = messageLabel->font();
        bold.setBold(true);
        messageLabel->setFont(bold);

        informativeLabel = new QLabel(TelvaneWidgets::localized(QT_TRANSLATE_NOOP(
                                          "Localizable", "Please enter the username and password:")),
                                      this);
        informativeLabel->setObjectName(QStringLiteral("informativeLabel"));
        informativeLabel->setTextFormat(Qt::PlainText);
        informativeLabel->setWordWrap(true);

        accessory = new TelvaneCredentialsAccessoryView(this);

        auto *buttons = new QDialogButtonBox(this);
        okButton = buttons->addButton(TelvaneWidgets::localized(QT_TRANSLATE_NOOP("Localizable", "OK")),
                                      QDialogButtonBox::AcceptRole);
        okButton->setObjectName(QStringLiteral("okButton"));
        cancelButton =
            buttons->addButton(TelvaneWidgets::localized(QT_TRANSLATE_NOOP("Localizable", "Cancel")),
                               QDialogButtonBox::RejectRole);
        cancelButton->setObjectName(QStringLiteral("cancelButton"));
        okButton->setDefault(true);
        okButton->setEnabled(true);
        connect(okButton, &QPushButton::clicked, this, [this] { done(firstButtonAnswer); });
        connect(cancelButton, &QPushButton::clicked, this, [this] { done(secondButtonAnswer); });

        auto *texts = new QVBoxLayout;
        texts->addWidget(messageLabel);
        texts->addWidget(informativeLabel);
        texts->addSpacing(style()->pixelMetric(QStyle::PM_LayoutVerticalSpacing, nullptr, this));
        texts->addWidget(accessory);
        auto *body = new QHBoxLayout;
        body->addWidget(icon);
        body->addLayout(texts, 1);
        auto *layout = new QVBoxLayout(this);
        layout->addLayout(body);
        layout->addWidget(buttons);
        // Wide enough for the message of a sensor with a long name without wrapping every word.
        setMinimumWidth(420);
    }

    QLabel *messageLabel = nullptr;
    QLabel *informativeLabel = nullptr;
    TelvaneCredentialsAccessoryView *accessory = nullptr;
    QPushButton *okButton = nullptr;
    QPushButton *cancelButton = nullptr;
};

/// Runs one prompt. GUI thread.
std::optional<PromptAnswer> runPrompt(const std::string &sensorName)
{
    TelvaneWidgets::installTranslator();
    CredentialsDialog dialog(QString::fromStdString(sensorName));
    const int answer = dialog.exec();
    std::optional<PromptAnswer> result;
    if (answer == firstButtonAnswer) {
        result.emplace();
        result->persist = dialog.accessory->rememberPasswordButton()->isChecked();
        result->credentials.username = dialog.accessory->usernameField()->text().toStdString();
        result->credentials.password = takePassword(dialog.accessory->passwordField());
    } else {
        takePassword(dialog.accessory->passwordField());
    }
    return result;
}

/// One prompt asked for from another thread. Lives on the asking thread's stack until `finished`.
struct Request
{
    std::string sensorName;             // set before the request is posted
    std::optional<PromptAnswer> answer; // guarded by relayMutex
    bool finished = false;              // guarded by relayMutex: answered, or abandoned with the application
};

class PromptRelay;

// The hand-over between asking threads and the GUI thread runs entirely on this mutex and condition variable
// rather than on a blocking queued call, so that the relay's end releases every waiter and no waiter can
// post to a relay that is being destroyed. It also keeps the order visible to ThreadSanitizer, which cannot
// see into Qt's own semaphores.
std::mutex relayMutex;
std::condition_variable relayFinished;
PromptRelay *relay = nullptr;           // guarded by relayMutex; set and cleared on the GUI thread
QThread *guiThread = nullptr;           // guarded by relayMutex
std::vector<Request *> pendingRequests; // guarded by relayMutex

/// Receives the requests of other threads on the GUI thread. A child of the application object, so that it
/// ends with it and abandons what it has not answered.
class PromptRelay : public QObject
{
    Q_OBJECT

public:
    explicit PromptRelay(QCoreApplication *app) : QObject(app)
    {
        std::lock_guard lock(relayMutex);
        relay = this;
        guiThread = app->thread();
    }

    ~PromptRelay() override
    {
        std::lock_guard lock(relayMutex);
        relay = nullptr;
        guiThread = nullptr;
        for (Request *request : pendingRequests)
            request->finished = true;
        pendingRequests.clear();
        relayFinished.notify_all();
    }

    // Invoked by name, so that Qt copies the argument itself and no functor of ours crosses threads.
    Q_INVOKABLE void show(void *address)
    {
        auto *request = static_cast<Request *>(address);
        std::string name;
        {
            std::lock_guard lock(relayMutex);
            if (std::find(pendingRequests.begin(), pendingRequests.end(), request) == pendingRequests.end())
                return;
            name = request->sensorName;
        }
        std::optional<PromptAnswer> answer;
        if (qobject_cast<QApplication *>(QCoreApplication::instance()))
            answer = runPrompt(name);
        else
            telvaneLog("promptForCredentials: the application has no widgets to show the prompt with\n");
        std::lock_guard lock(relayMutex);
        const auto pending = std::find(pendingRequests.begin(), pendingRequests.end(), request);
        if (pending == pendingRequests.end())
            return;
        pendingRequests.erase(pending);
        request->answer = std::move(answer);
        request->finished = true;
        relayFinished.notify_all();
    }
};

void createRelay()
{
    if (auto *app = QCoreApplication::instance())
        new PromptRelay(app);
}

} // namespace

// Every application object gets its relay as it is constructed, on the GUI thread, before any other thread
// can ask for a prompt.
Q_COREAPP_STARTUP_FUNCTION(createRelay)

namespace TelvaneCredentials {

std::optional<TelvaneCredentialsDictionary> promptForCredentials(Telvane &sensor, bool *persist)
{
    // Read before taking relayMutex: the sensor's own lock may be held by our caller, never the other way.
    Request request;
    request.sensorName = sensor.name();
    std::optional<PromptAnswer> answer;
    std::unique_lock lock(relayMutex);
    if (!relay) {
        telvaneLog("promptForCredentials: no application object to show the prompt on\n");
        return std::nullopt;
    }
    if (QThread::currentThread() == guiThread) {
        lock.unlock();
        // Asked on the GUI thread itself: waiting for it would wait forever.
        if (!qobject_cast<QApplication *>(QCoreApplication::instance())) {
            telvaneLog("promptForCredentials: the application has no widgets to show the prompt with\n");
            return std::nullopt;
        }
        answer = runPrompt(request.sensorName);
    } else {
        pendingRequests.push_back(&request);
        if (!QMetaObject::invokeMethod(relay, "show", Qt::QueuedConnection, Q_ARG(void *, &request))) {
            pendingRequests.pop_back();
            telvaneLog("promptForCredentials: could not reach the GUI thread\n");
            return std::nullopt;
        }
        relayFinished.wait(lock, [&request] { return request.finished; });
        answer = std::move(request.answer);
    }

    if (!answer)
        return std::nullopt;
    if (persist)
        *persist = answer->persist;
    return std::move(answer->credentials);
}

} // namespace TelvaneCredentials

#include "TelvaneCredentialsPrompt.moc"
