#pragma once

#include <Telvane/TelvaneWidgetsExport.h>

#include <QtWidgets/QWidget>

#include <memory>
#include <optional>

class QLabel;
class QProgressBar;
class QTextEdit;
class Telvane;

/// A panel that checks that a sensor can be reached and can run scripts: every time it is shown it runs a
/// diagnostics script on the sensor and shows a live transcript: the connection, the script's output, the
/// end. Text between asterisks is shown in red, without its asterisks.
///
/// The panel runs the script through a TelvaneSensorRunner, which becomes the sensor's delegate. Runs go on
/// in the background: closing the panel does not stop them, and a panel may be destroyed while one goes on
/// (what arrives afterwards is dropped). The transcript is in the system's fixed-width font; Escape closes
/// the panel as the Close button does.
class TELVANE_WIDGETS_EXPORT TelvaneDiagnosticsView : public QWidget
{
    Q_OBJECT
    Q_PROPERTY(bool running READ running NOTIFY runningChanged)

public:
    /// @p script is the path of the diagnostics script file, read anew at every run. It must be UTF-8 text
    /// without NUL bytes; a file that is missing or is not leaves the run without a script, and so without
    /// an end.
    TelvaneDiagnosticsView(std::shared_ptr<Telvane> sensor, const QString &script, QWidget *parent = nullptr);
    ~TelvaneDiagnosticsView() override;

    /// The sensor under test.
    std::shared_ptr<Telvane> sensor() const;
    /// The path of the diagnostics script.
    QString script() const;

    /// True from the start of a run until its end has been reported. Any thread; runningChanged is emitted on
    /// the GUI thread.
    bool running() const;

    /// The heading above the transcript: "Run diagnostics on NAME:".
    QLabel *label() const;
    /// The transcript, read-only.
    QTextEdit *textView() const;
    /// Busy while a run goes on.
    QProgressBar *progressIndicator() const;

    /// Credentials to log in with instead of asking the user. Used only when both are set (an empty string
    /// counts as set); otherwise the user is asked with the credentials prompt. The panel never stores them.
    /// GUI thread, like the preset's setters.
    std::optional<QString> username() const;
    /// Sets the preset username; std::nullopt takes it away.
    void setUsername(std::optional<QString> username);
    /// The preset password.
    std::optional<QString> password() const;
    /// Sets the preset password; std::nullopt takes it away.
    void setPassword(std::optional<QString> password);

    /// Adds @p text to the transcript, its first span between asterisks in red. GUI thread only; returns at
    /// once, and the text appears once the event loop gets to it.
    void appendOutput(const QString &text);

    /// The size the panel had at its last layout; at first the size it was designed with.
    QSize sizeHint() const override;

public Q_SLOTS:
    /// Clears the transcript and starts a new run, also while one goes on.
    void onRunAgain();
    /// Closes the window that shows the panel. A run goes on.
    void onClose();
    /// Puts the transcript on the clipboard as plain text.
    void onCopyToClipboard();

Q_SIGNALS:
    /// running() changed; emitted on the GUI thread.
    void runningChanged(bool running);

protected:
    /// Sets the heading and starts a run. Called at every appearance.
    void viewWillAppear();
    /// Calls viewWillAppear() when the panel is shown, not when the window system merely uncovers it.
    void showEvent(QShowEvent *event) override;
    /// Keeps the size for sizeHint().
    void resizeEvent(QResizeEvent *event) override;

private:
    class Private;
    std::unique_ptr<Private> const d;
};
