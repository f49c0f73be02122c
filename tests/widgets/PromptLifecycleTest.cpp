// What only a process of its own can show: the translation that QLocale() asks for, installed by the first
// prompt of each application object; a second application object after the first has gone; and a worker
// asking while the application quits or goes away. Stops at the first check that fails.
#include "TelvaneCredentialsPrompt.h"
#include "support/QtRequire.h"

#include <Telvane/Telvane.h>

#include <QtCore/QTimer>
#include <QtWidgets/QLabel>
#include <QtWidgets/QPushButton>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <thread>

namespace {

void require(bool condition, const char *what)
{
    if (!condition) {
        std::fprintf(stderr, "FAIL: %s\n", what);
        std::_Exit(1); // a worker may still wait in the prompt
    }
}

/// Asks for credentials on a worker while @p meanwhile runs here; the worker must be let go soon after,
/// without credentials and with the persist flag untouched.
void askFromWorker(const std::function<void()> &meanwhile, const char *what)
{
    auto answered = std::async(std::launch::async, [sensor = Telvane::create("id", "Keller", "host")] {
        bool persist = true;
        return TelvaneCredentials::promptForCredentials(*sensor, &persist).has_value() || !persist;
    });
    meanwhile();
    require(answered.wait_for(std::chrono::seconds(10)) == std::future_status::ready, what);
    require(!answered.get(), "no credentials, the persist flag untouched");
}

} // namespace

int main(int argc, char **argv)
{
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
    for (int application = 0; application < 2; ++application) { // a second one after the first has gone
        QApplication app(argc, argv);
        QStringList shown;
        QTimer poll;
        QObject::connect(&poll, &QTimer::timeout, &app, [&] {
            if (QDialog *dialog = telvane::test::shownPrompt()) {
                shown << dialog->findChild<QLabel *>("messageLabel")->text()
                      << dialog->findChild<QPushButton *>("cancelButton")->text();
                QCoreApplication::quit(); // ends the prompt as a cancel
            }
        });
        poll.start(10);
        QTimer::singleShot(10000, &app, &QCoreApplication::quit);
        askFromWorker([] { QApplication::exec(); }, "a worker is let go when the application quits");
        require(shown == QStringList{"Anmeldung erforderlich für Keller", "Abbrechen"},
                "the prompt, in German");
    }
    // No event loop runs, so the request waits in the queue until the application object goes.
    auto app = std::make_unique<QApplication>(argc, argv);
    askFromWorker(
        [&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            app.reset();
        },
        "a worker is let go when the application object goes");
}
