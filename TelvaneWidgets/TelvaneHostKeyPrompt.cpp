#include "TelvaneHostKeyPrompt.h"

#include "PromptRelay_p.h"
#include "TelvaneWidgetsTranslations_p.h"
#include "ui_TelvaneHostKeyPrompt.h"

#include <Telvane/Telvane.h>

#include <QtWidgets/QStyle>

namespace {

// Numbered as alerts number their buttons: the first, Connect, answers 1000.
constexpr int acceptAnswer = 1000;
constexpr int refuseAnswer = 1001;

/// The command that removes the known entry, quoted for a shell as the log's hint is.
QString resetCommand(const TelvaneHostKey &key)
{
    QString command = QStringLiteral("ssh-keygen");
    if (!key.knownFile.empty())
        command += QStringLiteral(" -f '%1'").arg(QString::fromStdString(key.knownFile));
    return command + QStringLiteral(" -R '%1'").arg(QString::fromStdString(key.host));
}

class HostKeyDialog : public QDialog
{
public:
    HostKeyDialog(const QString &sensorName, const TelvaneHostKey &key)
    {
        ui.setupUi(this);
        const QString host = QString::fromStdString(key.host);
        showDetails(sensorName, host, key);
        ui.refuseButton->setText(
            TelvaneWidgets::localized(QT_TRANSLATE_NOOP("Localizable", "Don't Connect")));
        connect(ui.acceptButton, &QPushButton::clicked, this, [this] { done(acceptAnswer); });
        connect(ui.refuseButton, &QPushButton::clicked, this, [this] { done(refuseAnswer); });
        if (key.changed)
            showChanged(host, key);
        else
            showUnknown(host);
        setWindowTitle(ui.messageLabel->text());
    }

    Ui::TelvaneHostKeyDialog ui;

private:
    void showDetails(const QString &sensorName, const QString &host, const TelvaneHostKey &key)
    {
        ui.sensorCaption->setText(TelvaneWidgets::localized(QT_TRANSLATE_NOOP("Localizable", "Sensor:")));
        ui.hostCaption->setText(TelvaneWidgets::localized(QT_TRANSLATE_NOOP("Localizable", "Host:")));
        ui.keyTypeCaption->setText(TelvaneWidgets::localized(QT_TRANSLATE_NOOP("Localizable", "Key type:")));
        ui.fingerprintCaption->setText(
            TelvaneWidgets::localized(QT_TRANSLATE_NOOP("Localizable", "Fingerprint:")));
        ui.knownEntryCaption->setText(
            TelvaneWidgets::localized(QT_TRANSLATE_NOOP("Localizable", "Known key:")));
        ui.sensorLabel->setText(sensorName);
        ui.detailsLayout->setRowVisible(ui.sensorLabel, !sensorName.isEmpty());
        ui.hostLabel->setText(host);
        ui.keyTypeLabel->setText(QString::fromStdString(key.keyType));
        ui.fingerprintLabel->setText(QString::fromStdString(key.fingerprint));
    }

    void showUnknown(const QString &host)
    {
        ui.messageLabel->setText(TelvaneWidgets::localizedWith(
            QT_TRANSLATE_NOOP("Localizable", "The authenticity of host %@ can't be established."), host));
        ui.informativeLabel->setText(TelvaneWidgets::localized(QT_TRANSLATE_NOOP(
            "Localizable", "Its key is not known yet. Compare the fingerprint with the one the host's "
                           "administrator gives you before you connect; the key is then remembered.")));
        ui.acceptButton->setText(
            TelvaneWidgets::localized(QT_TRANSLATE_NOOP("Localizable", "Connect and Remember Key")));
        // Connecting to a first key is what a sensor does by default, so Return may answer it.
        ui.acceptButton->setDefault(true);
        ui.acceptButton->setFocus();
        ui.detailsLayout->setRowVisible(ui.knownEntryLabel, false);
        ui.resetHintLabel->hide();
        ui.resetCommandLabel->hide();
        setIcon(QStringLiteral("dialog-question"), QStyle::SP_MessageBoxQuestion);
    }

    void showChanged(const QString &host, const TelvaneHostKey &key)
    {
        ui.messageLabel->setText(TelvaneWidgets::localizedWith(
            QT_TRANSLATE_NOOP("Localizable", "WARNING: The host key of %@ has changed!"), host));
        ui.informativeLabel->setText(TelvaneWidgets::localized(QT_TRANSLATE_NOOP(
            "Localizable", "Someone could be eavesdropping on you right now (a man-in-the-middle attack), or "
                           "the host's key was replaced. Connecting anyway uses the new key for this "
                           "connection only.")));
        ui.acceptButton->setText(
            TelvaneWidgets::localized(QT_TRANSLATE_NOOP("Localizable", "Connect This Once")));
        // A changed key is refused unless the user means otherwise; focused as well, since a focused
        // button takes Return whichever is the default.
        ui.refuseButton->setDefault(true);
        ui.refuseButton->setFocus();
        const bool located = !key.knownFile.empty() && key.knownLine > 0;
        ui.knownEntryLabel->setText(
            QStringLiteral("%1:%2").arg(QString::fromStdString(key.knownFile)).arg(key.knownLine));
        ui.detailsLayout->setRowVisible(ui.knownEntryLabel, located);
        ui.resetHintLabel->setText(TelvaneWidgets::localized(
            QT_TRANSLATE_NOOP("Localizable", "If you expect the change, remove the old key with:")));
        ui.resetCommandLabel->setText(resetCommand(key));
        setIcon(QStringLiteral("dialog-warning"), QStyle::SP_MessageBoxWarning);
    }

    void setIcon(const QString &themeName, QStyle::StandardPixmap fallback)
    {
        const int extent = style()->pixelMetric(QStyle::PM_MessageBoxIconSize, nullptr, this);
        const QIcon icon = QIcon::fromTheme(themeName, style()->standardIcon(fallback, nullptr, this));
        ui.iconLabel->setPixmap(icon.pixmap(extent, extent));
    }
};

} // namespace

namespace TelvaneCredentials {

bool promptForHostKey(Telvane &sensor, const TelvaneHostKey &key)
{
    // Read on this thread: our caller may hold the sensor's lock while it waits for the GUI thread.
    const QString sensorName = QString::fromStdString(sensor.name());
    bool accepted = false;
    TelvaneWidgets::runPromptOnGuiThread("promptForHostKey", [&] {
        TelvaneWidgets::installTranslator();
        HostKeyDialog dialog(sensorName, key);
        accepted = dialog.exec() == acceptAnswer;
    });
    return accepted;
}

} // namespace TelvaneCredentials
