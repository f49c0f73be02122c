#include "TelvaneLoginQuestionPrompt.h"

#include "PromptRelay_p.h"
#include "SecretText_p.h"
#include "TelvaneWidgetsTranslations_p.h"
#include "ui_TelvaneLoginQuestionPrompt.h"

#include <Telvane/Telvane.h>
#include <Telvane/TelvaneSecret.h>

#include <QtWidgets/QLineEdit>
#include <QtWidgets/QStyle>

namespace {

// Numbered as alerts number their buttons: the first, OK, answers 1000.
constexpr int okAnswer = 1000;
constexpr int cancelAnswer = 1001;

class LoginQuestionDialog : public QDialog
{
public:
    LoginQuestionDialog(const QString &sensorName, const TelvaneLoginQuestion &question)
    {
        ui.setupUi(this);
        const QString message = TelvaneWidgets::localizedWith(
            QT_TRANSLATE_NOOP("Localizable", "Authentication required for %@"), sensorName);
        setWindowTitle(message);
        ui.messageLabel->setText(message);
        ui.informativeLabel->setText(TelvaneWidgets::localized(
            QT_TRANSLATE_NOOP("Localizable", "Please answer the server's question:")));
        showServerText(ui.serverNameLabel, question.name);
        showServerText(ui.instructionLabel, question.instruction);
        addFields(question);
        ui.okButton->setText(TelvaneWidgets::localized(QT_TRANSLATE_NOOP("Localizable", "OK")));
        ui.cancelButton->setText(TelvaneWidgets::localized(QT_TRANSLATE_NOOP("Localizable", "Cancel")));
        ui.okButton->setDefault(true);
        connect(ui.okButton, &QPushButton::clicked, this, [this] { done(okAnswer); });
        connect(ui.cancelButton, &QPushButton::clicked, this, [this] { done(cancelAnswer); });
        const int extent = style()->pixelMetric(QStyle::PM_MessageBoxIconSize, nullptr, this);
        const QIcon fallback = style()->standardIcon(QStyle::SP_MessageBoxQuestion, nullptr, this);
        ui.iconLabel->setPixmap(QIcon::fromTheme(QStringLiteral("dialog-password"), fallback).pixmap(extent));
    }

    /// Every answer, in the order of the prompts; the fields are emptied.
    std::vector<std::string> takeAnswers()
    {
        std::vector<std::string> answers;
        for (QLineEdit *field : fields)
            answers.push_back(TelvaneWidgets::takeSecretText(field));
        return answers;
    }

    Ui::TelvaneLoginQuestionDialog ui;
    std::vector<QLineEdit *> fields;

private:
    static void showServerText(QLabel *label, const std::string &text)
    {
        label->setText(QString::fromStdString(text).trimmed());
        label->setVisible(!label->text().isEmpty());
    }

    // One field per prompt, named answerField0, answerField1, ...; the first has the focus, and the tab
    // order runs through them to the buttons.
    void addFields(const TelvaneLoginQuestion &question)
    {
        QWidget *previous = nullptr;
        for (const TelvaneLoginPrompt &prompt : question.prompts) {
            auto *field = new QLineEdit(this);
            field->setObjectName(QStringLiteral("answerField%1").arg(fields.size()));
            field->setEchoMode(prompt.echo ? QLineEdit::Normal : QLineEdit::Password);
            auto *label = new QLabel(QString::fromStdString(prompt.text).trimmed(), this);
            label->setTextFormat(Qt::PlainText);
            label->setBuddy(field);
            ui.answersLayout->addRow(label, field);
            if (previous)
                setTabOrder(previous, field);
            previous = field;
            fields.push_back(field);
        }
        if (previous)
            setTabOrder(previous, ui.okButton);
        if (!fields.empty())
            fields.front()->setFocus();
    }
};

} // namespace

namespace TelvaneCredentials {

std::optional<std::vector<std::string>> promptForLoginQuestion(Telvane &sensor,
                                                               const TelvaneLoginQuestion &question)
{
    // Read on this thread: our caller may hold the sensor's lock while it waits for the GUI thread.
    const QString sensorName = QString::fromStdString(sensor.name());
    std::optional<std::vector<std::string>> answers;
    TelvaneWidgets::runPromptOnGuiThread("promptForLoginQuestion", [&] {
        TelvaneWidgets::installTranslator();
        LoginQuestionDialog dialog(sensorName, question);
        const bool confirmed = dialog.exec() == okAnswer;
        std::vector<std::string> typed = dialog.takeAnswers();
        if (confirmed)
            answers = std::move(typed);
        else
            for (std::string &answer : typed)
                telvaneWipe(answer);
    });
    return answers;
}

} // namespace TelvaneCredentials
