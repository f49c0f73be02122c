// Renders the library's widgets for the README: telvane_widgets_screenshot
// credentials-prompt|diagnostics-panel FILE.PNG, under a real X server (scripts/screenshots uses Xvfb) so
// that fonts and style are the desktop's.
#include "TelvaneCredentialsAccessoryView.h"
#include "TelvaneCredentialsPrompt.h"
#include "TelvaneDiagnosticsView.h"

#include <Telvane/Telvane.h>

#include <QtCore/QTimer>
#include <QtWidgets/QApplication>
#include <QtWidgets/QCheckBox>
#include <QtWidgets/QDialog>
#include <QtWidgets/QLineEdit>

#include <cstdio>

namespace {

bool credentialsPrompt(const QString &file)
{
    bool saved = false;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, qApp, [&] {
        auto *dialog = qobject_cast<QDialog *>(QApplication::activeModalWidget());
        if (!dialog || !dialog->isActiveWindow())
            return;
        poll.stop();
        auto *view = dialog->findChild<TelvaneCredentialsAccessoryView *>();
        view->usernameField()->setText("pi");
        view->passwordField()->setText("raspberry");
        view->rememberPasswordButton()->setChecked(true);
        view->passwordField()->setFocus();
        saved = dialog->grab().save(file, "PNG");
        dialog->reject();
    });
    poll.start(100);
    auto sensor = Telvane::create("greenhouse", "Greenhouse sensor", "greenhouse.local");
    TelvaneCredentials::promptForCredentials(*sensor, nullptr);
    return saved;
}

// The transcript of a greenhouse sensor's diagnostics, with one finding marked, as a run would show it. The
// script is missing, so the sensor itself never connects.
bool diagnosticsPanel(const QString &file)
{
    auto sensor = Telvane::create("greenhouse", "Greenhouse sensor", "greenhouse.local");
    TelvaneDiagnosticsView panel(sensor, "/nonexistent/diagnostics.sh");
    panel.setWindowTitle("Greenhouse sensor");
    panel.resize(560, 300);
    panel.show();
    panel.appendOutput("OK\nKernel: Linux 6.1, up 12 days\nFree space on /: 61%\nTemperature probe: 21.4 C\n"
                       "I2C bus 1: *humidity sensor not responding*\nCamera: ready\n");
    QTimer::singleShot(100, [&] { sensor->delegate()->sensorRunDidFinish(*sensor, TelvaneRunOutcome{}); });
    bool saved = false;
    QTimer::singleShot(500, [&] {
        saved = panel.grab().save(file, "PNG");
        QApplication::quit();
    });
    QApplication::exec();
    return saved;
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    const QString name = argc == 3 ? argv[1] : "";
    const QString file = argc == 3 ? QString::fromLocal8Bit(argv[2]) : "";
    if (name == "credentials-prompt" ? credentialsPrompt(file)
                                     : name == "diagnostics-panel" && diagnosticsPanel(file))
        return 0;
    std::fprintf(stderr, "usage: %s credentials-prompt|diagnostics-panel FILE, FILE a PNG file to write\n",
                 argv[0]);
    return 1;
}
