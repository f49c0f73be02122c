#pragma once

#include <Telvane/TelvaneWidgetsExport.h>

#include <QtWidgets/QWidget>

#include <memory>

class QCheckBox;
class QLineEdit;

/// The username and password fields and the remember-password checkbox of the credentials prompt.
///
/// Return or Tab in the username field moves on to the password field; Tab in the password field goes back
/// to the username field; Return in the password field is left to the dialog, which takes it as its default
/// button. Either field is entered with its text selected. Shift-Tab keeps its usual meaning.
class TELVANE_WIDGETS_EXPORT TelvaneCredentialsAccessoryView : public QWidget
{
    Q_OBJECT

public:
    /// The fields as the layout gives them: empty, the checkbox off. GUI thread only, like every method here.
    explicit TelvaneCredentialsAccessoryView(QWidget *parent = nullptr);
    ~TelvaneCredentialsAccessoryView() override;

    /// The username as typed. Owned by the view.
    QLineEdit *usernameField() const;
    /// Echoes no characters; its text is never shown, copied or logged.
    QLineEdit *passwordField() const;
    /// Checked: keep the pair in the keyring once the server has accepted it.
    QCheckBox *rememberPasswordButton() const;

    /// Gives the username field the keyboard focus. Called whenever the view is shown.
    void viewWillAppear();

protected:
    /// Moves the focus between the two fields on Return and Tab, as described above.
    bool eventFilter(QObject *watched, QEvent *event) override;
    /// Calls viewWillAppear().
    void showEvent(QShowEvent *event) override;

private:
    class Private;
    std::unique_ptr<Private> const d;
};
