// Renders the library's widgets into PNG files for the README: telvane_widgets_screenshot NAME FILE.
// Run it under a real X server (scripts/screenshots uses Xvfb) so that fonts and style are the desktop's.
#include "TelvaneCredentialsAccessoryView.h"
#include "TelvaneCredentialsPrompt.h"

#include <Telvane/Telvane.h>

#include <QtCore/QTimer>
#include <QtWidgets/QApplication>
#include <QtWidgets/QCheckBox>
#include <QtWidgets/QDialog>
#include <QtWidgets/QLineEdit>

#include <cstdio>
#include <cstring>

namespace {

bool credentialsPrompt(const QString &file)
{
    bool saved = false;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, qApp, [&] {
        auto *dialog = qobject_cast<QDialog *>(QApplication::activeModalWidget());
        if (!dialog)
            return;
        poll.stop();
        auto *view = dialog->findChild<TelvaneCredentialsAccessoryView *>();
        view->usernameField()->setText(QStringLiteral("pi"));
        view->passwordField()->setText(QStringLiteral("raspberry"));
        view->rememberPasswordButton()->setChecked(true);
        view->passwordField()->setFocus();
        // Let the style repaint the focus frame before the grab.
        QTimer::singleShot(200, dialog, [&, dialog] {
            saved = dialog->grab().save(file, "PNG");
            dialog->reject();
        });
    });
    poll.start(20);
    auto sensor = Telvane::create("greenhouse", "Greenhouse sensor", "greenhouse.local");
    bool persist = false;
    TelvaneCredentials::promptForCredentials(*sensor, &persist);
    return saved;
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    const struct
    {
        const char *name;
        bool (*shoot)(const QString &);
    } shots[] = {
        {"credentials-prompt", credentialsPrompt},
    };
    if (argc == 3) {
        for (const auto &shot : shots) {
            if (std::strcmp(argv[1], shot.name) == 0) {
                if (shot.shoot(QString::fromLocal8Bit(argv[2])))
                    return 0;
                std::fprintf(stderr, "%s: could not write %s\n", argv[0], argv[2]);
                return 1;
            }
        }
    }
    std::fprintf(stderr, "usage: %s NAME FILE, NAME one of:", argv[0]);
    for (const auto &shot : shots)
        std::fprintf(stderr, " %s", shot.name);
    std::fprintf(stderr, "\n");
    return 2;
}
