#include "TelvaneCredentialsAccessoryView.h"

#include "ui_TelvaneCredentialsAccessoryView.h"

#include <QtGui/QKeyEvent>

class TelvaneCredentialsAccessoryView::Private
{
public:
    Ui::TelvaneCredentialsAccessoryView ui;
};

TelvaneCredentialsAccessoryView::TelvaneCredentialsAccessoryView(QWidget *parent)
    : QWidget(parent), d(std::make_unique<Private>())
{
    d->ui.setupUi(this);
    // The filter sees Tab before QWidget::event turns it into focus movement, and Return before the
    // line edit hands it on to the dialog's default button.
    d->ui.usernameField->installEventFilter(this);
    d->ui.passwordField->installEventFilter(this);
}

TelvaneCredentialsAccessoryView::~TelvaneCredentialsAccessoryView() = default;

QLineEdit *TelvaneCredentialsAccessoryView::usernameField() const
{
    return d->ui.usernameField;
}

QLineEdit *TelvaneCredentialsAccessoryView::passwordField() const
{
    return d->ui.passwordField;
}

QCheckBox *TelvaneCredentialsAccessoryView::rememberPasswordButton() const
{
    return d->ui.rememberPasswordButton;
}

void TelvaneCredentialsAccessoryView::viewWillAppear()
{
    d->ui.usernameField->setFocus(Qt::OtherFocusReason);
}

void TelvaneCredentialsAccessoryView::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    viewWillAppear();
}

namespace {

void enterField(QLineEdit *field)
{
    field->setFocus(Qt::TabFocusReason);
    // Selected even where the style does not select on tab focus, and when the window is not active yet
    // (the focus-in then comes later, without a tab reason).
    field->selectAll();
}

bool isPlain(const QKeyEvent *key)
{
    return (key->modifiers() & ~Qt::KeypadModifier) == Qt::NoModifier;
}

} // namespace

bool TelvaneCredentialsAccessoryView::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() != QEvent::KeyPress)
        return QWidget::eventFilter(watched, event);
    const auto *key = static_cast<QKeyEvent *>(event);
    if (!isPlain(key))
        return false;
    const bool newline = key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter;
    const bool tab = key->key() == Qt::Key_Tab;

    if (watched == d->ui.usernameField && (newline || tab)) {
        enterField(d->ui.passwordField);
        return true;
    }
    // Return in the password field is not taken here: it reaches the dialog and presses its default button.
    if (watched == d->ui.passwordField && tab) {
        enterField(d->ui.usernameField);
        return true;
    }
    return false;
}
