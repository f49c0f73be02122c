// What only a process of its own can show: the translator chosen from QLocale() on first use, and a worker
// that asks while the application shuts down. Each case runs in a child process, since quitting and
// destroying the application object cannot be undone. Prints Qt Test's "PASS   :" / "FAIL!  :" lines.
#include "TelvaneCredentialsPrompt.h"
#include "support/QtRequire.h"

#include <Telvane/Telvane.h>

#include <QtCore/QTimer>
#include <QtWidgets/QApplication>
#include <QtWidgets/QDialog>
#include <QtWidgets/QLabel>
#include <QtWidgets/QPushButton>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <memory>
#include <thread>

namespace {

using namespace std::chrono_literals;
using telvane::test::shownPrompt;

bool check(bool condition, const char *what)
{
    if (!condition)
        std::fprintf(stderr, "  check failed: %s\n", what);
    return condition;
}

/// Calls the prompt on a thread of its own; the future holds {answered, persist}.
std::future<std::pair<bool, bool>> askFromWorker(std::shared_ptr<Telvane> sensor, std::thread &thread)
{
    auto task = std::packaged_task<std::pair<bool, bool>()>([sensor] {
        bool persist = true;
        const bool answered = TelvaneCredentials::promptForCredentials(*sensor, &persist).has_value();
        return std::make_pair(answered, persist);
    });
    auto future = task.get_future();
    thread = std::thread(std::move(task));
    return future;
}

// The first prompt of a process installs the translation that QLocale() asks for.
bool germanOnFirstUse(int argc, char **argv)
{
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
    QApplication app(argc, argv);
    QString message, informative, cancel;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &app, [&] {
        if (auto *dialog = shownPrompt()) {
            message = dialog->findChild<QLabel *>("messageLabel")->text();
            informative = dialog->findChild<QLabel *>("informativeLabel")->text();
            cancel = dialog->findChild<QPushButton *>("cancelButton")->text();
            dialog->reject();
        }
    });
    poll.start(10);
    auto sensor = Telvane::create("id", "Keller", "host");
    bool persist = false;
    TelvaneCredentials::promptForCredentials(*sensor, &persist);
    return check(message == QStringLiteral("Anmeldung erforderlich für Keller"), "German message text") &&
           check(informative == QStringLiteral("Bitte geben Sie Benutzername und Passwort ein:"),
                 "German informative text") &&
           check(cancel == QStringLiteral("Abbrechen"), "German cancel button");
}

// quit() while a worker's prompt is up ends the dialog as a cancel and releases the worker.
bool quitWhileShown(int argc, char **argv)
{
    QApplication app(argc, argv);
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &app, [&] {
        if (shownPrompt())
            QCoreApplication::quit();
    });
    poll.start(10);
    std::thread thread;
    auto answer = askFromWorker(Telvane::create("id", "Sensor", "host"), thread);
    app.exec();
    const bool released = answer.wait_for(10s) == std::future_status::ready;
    if (!released)
        return check(false, "worker released after quit"); // the thread is left hanging; the process exits
    thread.join();
    const auto [answered, persist] = answer.get();
    return check(!answered, "no credentials after quit") && check(persist, "persist flag untouched");
}

// The application object goes away while a worker waits for a prompt that never got to run.
bool destroyedWhileWaiting(int argc, char **argv)
{
    auto app = std::make_unique<QApplication>(argc, argv);
    std::thread thread;
    auto answer = askFromWorker(Telvane::create("id", "Sensor", "host"), thread);
    // No event loop runs here, so the request stays queued; give the worker the time to queue it. Should
    // it come later, it finds no application and answers the same.
    std::this_thread::sleep_for(200ms);
    app.reset();
    const bool released = answer.wait_for(10s) == std::future_status::ready;
    if (!released)
        return check(false, "worker released after the application was destroyed");
    thread.join();
    const auto [answered, persist] = answer.get();
    return check(!answered, "no credentials without an application") &&
           check(persist, "persist flag untouched");
}

// A process may make a second application object after the first has gone; prompts work with it as well.
bool secondApplicationObject(int argc, char **argv)
{
    std::make_unique<QApplication>(argc, argv).reset();
    QApplication app(argc, argv);
    bool shown = false;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &app, [&] {
        if (auto *dialog = shownPrompt()) {
            shown = true;
            dialog->reject();
            QCoreApplication::quit();
        }
    });
    poll.start(10);
    std::thread thread;
    auto answer = askFromWorker(Telvane::create("id", "Sensor", "host"), thread);
    QTimer::singleShot(10000, &app, &QCoreApplication::quit);
    app.exec();
    const bool released = answer.wait_for(10s) == std::future_status::ready;
    if (!released)
        return check(false, "worker released");
    thread.join();
    return check(shown, "prompt shown with the second application object");
}

} // namespace

int main(int argc, char **argv)
{
    const struct
    {
        const char *name;
        bool (*run)(int, char **);
    } cases[] = {
        {"germanOnFirstUse", germanOnFirstUse},
        {"quitWhileShown", quitWhileShown},
        {"destroyedWhileWaiting", destroyedWhileWaiting},
        {"secondApplicationObject", secondApplicationObject},
    };
    if (argc == 3 && std::strcmp(argv[1], "--case") == 0) {
        for (const auto &c : cases)
            if (std::strcmp(argv[2], c.name) == 0)
                return c.run(1, argv) ? 0 : 1;
        return 2;
    }

    int failures = 0;
    for (const auto &c : cases) {
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            char caseFlag[] = "--case";
            char *args[] = {argv[0], caseFlag, const_cast<char *>(c.name), nullptr};
            execv("/proc/self/exe", args);
            _exit(127);
        }
        int status = 0;
        waitpid(child, &status, 0);
        const bool passed = WIFEXITED(status) && WEXITSTATUS(status) == 0;
        std::printf("%s: PromptLifecycle::%s()\n", passed ? "PASS   " : "FAIL!  ", c.name);
        failures += passed ? 0 : 1;
    }
    std::printf("Totals: %d passed, %d failed\n", int(std::size(cases)) - failures, failures);
    return failures == 0 ? 0 : 1;
}
