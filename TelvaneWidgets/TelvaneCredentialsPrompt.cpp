#include "TelvaneCredentialsPrompt.h"

#include "PromptRelay_p.h"
#include "SecretText_p.h"
#include "TelvaneCredentialsAccessoryView.h"
#include "TelvaneWidgetsTranslations_p.h"

#include <Telvane/Telvane.h>

#include <QtWidgets/QCheckBox>
#include <QtWidgets/QDialog>
#include <QtWidgets/QDialogButtonBox>
#include <QtWidgets/QLabel>
#include <QtWidgets/QLineEdit>
#include <QtWidgets/QPushButton>
#include <QtWidgets/QStyle>
#include <QtWidgets/QVBoxLayout>

namespace {

// The answers of the two buttons, numbered as alerts number them: the first button answers 1000.
constexpr int firstButtonAnswer = 1000;
constexpr int secondButtonAnswer = 1001;

struct PromptAnswer
{
    TelvaneCredentialsDictionary credentials;
    bool persist = false;
};

class CredentialsDialog : public QDialog
{
public:
    explicit CredentialsDialog(const QString &sensorName)
    {
        setObjectName(QStringLiteral("TelvaneCredentialsDialog"));
        const QString message = TelvaneWidgets::localizedWith(
            QT_TRANSLATE_NOOP("Localizable", "Authentication required for %@"), sensorName);
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
        result->credentials.password = TelvaneWidgets::takeSecretText(dialog.accessory->passwordField());
    } else {
        TelvaneWidgets::takeSecretText(dialog.accessory->passwordField());
    }
    return result;
}

} // namespace

namespace TelvaneCredentials {

std::optional<TelvaneCredentialsDictionary> promptForCredentials(Telvane &sensor, bool *persist)
{
    // Read on this thread: our caller may hold the sensor's lock while it waits for the GUI thread.
    const std::string sensorName = sensor.name();
    std::optional<PromptAnswer> answer;
    TelvaneWidgets::runPromptOnGuiThread("promptForCredentials", [&] { answer = runPrompt(sensorName); });
    if (!answer)
        return std::nullopt;
    if (persist)
        *persist = answer->persist;
    return std::move(answer->credentials);
}

} // namespace TelvaneCredentials
