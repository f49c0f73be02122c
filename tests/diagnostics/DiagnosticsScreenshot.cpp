// Renders the diagnostics panel after a real run against the loopback sshd into a PNG file for the README:
// telvane_diagnostics_screenshot FILE. Needs root (the harness makes its test account) and a real X server
// (scripts/screenshots uses Xvfb) so that fonts and style are the desktop's.
#include "TelvaneDiagnosticsView.h"

#include "support/SshdHarness.h"

#include <Telvane/Telvane.h>

#include <QtCore/QTimer>
#include <QtWidgets/QApplication>
#include <QtWidgets/QProgressBar>

#include <cstdio>

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FILE\n", argv[0]);
        return 2;
    }
    qputenv("TELVANE_KEYRING", "memory"); // never the keyring of whoever renders the pictures
    QApplication app(argc, argv);

    telvane::test::SshdHarness sshd;
    if (!sshd.start()) {
        std::fprintf(stderr, "%s: no sshd: %s\n", argv[0], sshd.reason().c_str());
        return 1;
    }
    // What a diagnostics script of a greenhouse sensor might say, with one finding marked.
    const std::string script =
        sshd.writeFile("diagnostics.sh", "echo 'Kernel: Linux 6.1, up 12 days'\n"
                                         "echo 'Free space on /: 61%'\n"
                                         "echo 'Temperature probe: 21.4 C'\n"
                                         "echo 'I2C bus 1: *humidity sensor not responding*'\n"
                                         "echo 'Camera: ready'\n");
    auto sensor = Telvane::create("greenhouse", "Greenhouse sensor", sshd.host(), sshd.port(), 10);
    TelvaneDiagnosticsView panel(sensor, QString::fromStdString(script));
    panel.setUsername(QString::fromStdString(sshd.username()));
    panel.setPassword(QString::fromStdString(sshd.password()));
    panel.setWindowTitle(QStringLiteral("Greenhouse sensor"));
    panel.resize(560, 300);

    bool saved = false;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &app, [&] {
        // Ended and drawn: the indicator stops once the last line is in.
        if (panel.running() || panel.progressIndicator()->maximum() == 0)
            return;
        poll.stop();
        QTimer::singleShot(300, &app, [&] {
            saved = panel.grab().save(QString::fromLocal8Bit(argv[1]), "PNG");
            app.quit();
        });
    });
    poll.start(50);
    QTimer::singleShot(60000, &app, &QApplication::quit);
    panel.show();
    app.exec();
    if (!saved)
        std::fprintf(stderr, "%s: could not write %s\n", argv[0], argv[1]);
    return saved ? 0 : 1;
}
