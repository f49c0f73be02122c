// telvane-diagnostics: runs a diagnostics script on a sensor host and shows the live transcript in a window.
#include "PasswordFile.h"
#include "ScriptFile.h"

#include <Telvane/TelvaneLog.h>
#include <Telvane/TelvaneSecret.h>
#include <Telvane/Telvane.h>
#include <Telvane/TelvaneDiagnosticsView.h>
#include <Telvane/Telvane_vers.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QFileInfo>
#include <QtCore/QSocketNotifier>
#include <QtWidgets/QApplication>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <thread>

namespace {

constexpr int usageStatus = 2;

struct Sensor
{
    QString host;
    QString script;
    long port = 22;
    QString name;
    std::optional<QString> user;
    std::optional<QString> password;
    double timeout = 10;
    bool verbose = false;
};

void configure(QCommandLineParser &parser)
{
    parser.setApplicationDescription(QStringLiteral(
        "Runs the diagnostics script SCRIPT on the sensor host HOST over SSH and shows the "
        "transcript in a window:\nthe connection, the script's output with *marked* spans in red, "
        "the end. Every showing and Run Again runs it anew.\nCredentials come from the keyring "
        "(TELVANE_KEYRING: secret-service, file or memory), then from --user together with\n"
        "--password-file, then from a prompt. Exit status: 0 when the window was closed, 2 for "
        "bad usage."));
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    // Our own help and version options: Qt's would add a --help-all that needs an application object.
    parser.addOption(
        {{QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("show this help and exit")});
    parser.addOption({QStringLiteral("version"), QStringLiteral("show the version and exit")});
    parser.addPositionalArgument(QStringLiteral("HOST"),
                                 QStringLiteral("the sensor host: a name or an IPv4/IPv6 address"));
    parser.addPositionalArgument(QStringLiteral("SCRIPT"),
                                 QStringLiteral("the diagnostics script file (UTF-8 text)"));
    parser.addOptions({
        {{QStringLiteral("p"), QStringLiteral("port")},
         QStringLiteral("port, 1 to 65535 (default 22)"),
         QStringLiteral("PORT"),
         QStringLiteral("22")},
        {{QStringLiteral("n"), QStringLiteral("name")},
         QStringLiteral("the sensor's display name (default: HOST)"),
         QStringLiteral("NAME")},
        {{QStringLiteral("l"), QStringLiteral("user")},
         QStringLiteral("username; used without asking only together with --password-file"),
         QStringLiteral("USER")},
        {QStringLiteral("password-file"), QStringLiteral("read the password from the first line of FILE"),
         QStringLiteral("FILE")},
        {{QStringLiteral("v"), QStringLiteral("verbose")},
         QStringLiteral("show the library's log lines on standard error")},
        {{QStringLiteral("t"), QStringLiteral("timeout")},
         QStringLiteral("seconds allowed to the connect and to each wait on the socket (default 10)"),
         QStringLiteral("SECONDS"),
         QStringLiteral("10")},
    });
}

int usageError(const QString &message)
{
    std::fprintf(stderr, "telvane-diagnostics: %s\n", qPrintable(message));
    return usageStatus;
}

/// The sensor the command line asks for, or a message saying what is wrong with it.
std::optional<Sensor> sensorFromArguments(const QCommandLineParser &parser, QString &error)
{
    const QStringList positional = parser.positionalArguments();
    if (positional.size() != 2) {
        error = QStringLiteral("expected HOST and SCRIPT (see --help)");
        return std::nullopt;
    }
    Sensor sensor;
    sensor.host = positional.at(0);
    sensor.script = positional.at(1);
    if (sensor.host.isEmpty()) {
        error = QStringLiteral("HOST is empty");
        return std::nullopt;
    }

    bool ok = false;
    sensor.port = parser.value(QStringLiteral("port")).toLong(&ok);
    if (!ok || sensor.port < 1 || sensor.port > 65535) {
        error = QStringLiteral("--port wants a number from 1 to 65535, not \"%1\"").arg(parser.value("port"));
        return std::nullopt;
    }
    sensor.timeout = parser.value(QStringLiteral("timeout")).toDouble(&ok);
    if (!ok || !(sensor.timeout > 0)) {
        error = QStringLiteral("--timeout wants a positive number of seconds, not \"%1\"")
                    .arg(parser.value("timeout"));
        return std::nullopt;
    }
    sensor.verbose = parser.isSet(QStringLiteral("verbose"));
    sensor.name = parser.isSet(QStringLiteral("name")) ? parser.value(QStringLiteral("name")) : sensor.host;
    if (parser.isSet(QStringLiteral("user")))
        sensor.user = parser.value(QStringLiteral("user"));

    if (parser.isSet(QStringLiteral("password-file"))) {
        std::string why;
        auto password =
            readPasswordFile(parser.value(QStringLiteral("password-file")).toLocal8Bit().toStdString(), &why);
        if (!password) {
            error = QString::fromStdString(why);
            return std::nullopt;
        }
        sensor.password = QString::fromStdString(*password);
        telvaneWipe(*password);
    }

    // The panel would wait forever on a script the sensor cannot send; say so here instead. The panel reads
    // the file itself at every run: this reading only checks it.
    std::string why;
    if (!loadScript(sensor.script.toLocal8Bit().toStdString(), why)) {
        error = QString::fromStdString(why);
        return std::nullopt;
    }
    // The panel reads the file at every run; an absolute path survives a change of directory.
    sensor.script = QFileInfo(sensor.script).absoluteFilePath();
    return sensor;
}

/// Whether every option that @p parser did not know is one that QApplication takes for itself.
bool onlyQtOptionsUnknown(const QCommandLineParser &parser)
{
    static const QStringList qtOptions = {
        QStringLiteral("platform"),
        QStringLiteral("platformpluginpath"),
        QStringLiteral("platformtheme"),
        QStringLiteral("plugin"),
        QStringLiteral("qwindowgeometry"),
        QStringLiteral("qwindowicon"),
        QStringLiteral("qwindowtitle"),
        QStringLiteral("reverse"),
        QStringLiteral("session"),
        QStringLiteral("display"),
        QStringLiteral("geometry"),
        QStringLiteral("style"),
        QStringLiteral("stylesheet"),
        QStringLiteral("widgetcount"),
        QStringLiteral("nograb"),
        QStringLiteral("dograb"),
        QStringLiteral("sync"),
        QStringLiteral("title"),
    };
    const QStringList unknown = parser.unknownOptionNames();
    return !unknown.isEmpty() && std::all_of(unknown.begin(), unknown.end(),
                                             [](const QString &name) { return qtOptions.contains(name); });
}

int quitSignalPipe[2] = {-1, -1};

void onQuitSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const auto written = ::write(quitSignalPipe[1], &byte, 1);
}

/// SIGINT and SIGTERM close the window as the user would, so that the run is stopped and the process ends
/// through the same clean path.
void closeWindowsOnSignals(QApplication &app)
{
    if (::pipe2(quitSignalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    auto *notifier = new QSocketNotifier(quitSignalPipe[0], QSocketNotifier::Read, &app);
    QObject::connect(notifier, &QSocketNotifier::activated, &app, [] {
        char byte;
        while (::read(quitSignalPipe[0], &byte, 1) > 0) {
        }
        QApplication::closeAllWindows();
    });
    struct sigaction action = {};
    action.sa_handler = onQuitSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

QStringList argumentList(int argc, char **argv)
{
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    return arguments;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication::setApplicationName(QStringLiteral("telvane-diagnostics"));
    QCoreApplication::setApplicationVersion(QString::number(TelvaneVersionNumber, 'f', 1));

    // Help, version and bad input are answered before the application object connects to a display. Should
    // the arguments hold Qt's own options (-platform, ...), they are parsed again once Qt has taken those
    // out.
    std::optional<Sensor> options;
    {
        QCommandLineParser parser;
        configure(parser);
        if (parser.parse(argumentList(argc, argv))) {
            if (parser.isSet(QStringLiteral("help"))) {
                std::fputs(qPrintable(parser.helpText().replace(QLatin1String("<executable_name>"),
                                                                QCoreApplication::applicationName())),
                           stdout);
                return 0;
            }
            if (parser.isSet(QStringLiteral("version"))) {
                std::printf("telvane-diagnostics %.1f\n", TelvaneVersionNumber);
                return 0;
            }
            QString error;
            if (!(options = sensorFromArguments(parser, error)))
                return usageError(error);
        } else if (!onlyQtOptionsUnknown(parser)) {
            return usageError(parser.errorText() + QStringLiteral(" (see --help)"));
        }
    }

    auto app = std::make_unique<QApplication>(argc, argv);
    QApplication::setApplicationDisplayName(QStringLiteral("Telvane Diagnostics"));
    QApplication::setDesktopFileName(QStringLiteral("telvane-diagnostics"));
    if (!options) {
        QCommandLineParser parser;
        configure(parser);
        if (!parser.parse(QCoreApplication::arguments()))
            return usageError(parser.errorText() + QStringLiteral(" (see --help)"));
        QString error;
        if (!(options = sensorFromArguments(parser, error)))
            return usageError(error);
    }

    // The window shows what went wrong; the library's own lines are for -v, as with telvane.
    if (!options->verbose)
        telvaneSetLogSink([](std::string_view) {});
    auto sensor = Telvane::create(options->host.toStdString(), options->name.toStdString(),
                                  options->host.toStdString(), options->port, options->timeout);
    auto panel = std::make_unique<TelvaneDiagnosticsView>(sensor, options->script);
    panel->setUsername(options->user);
    panel->setPassword(options->password);
    panel->setWindowTitle(options->name);
    closeWindowsOnSignals(*app);
    panel->show(); // starts the first run
    const int status = app->exec();

    // Closing the window leaves the run going; end it so that the process ends now and not at its time-out.
    sensor->stopScript();
    panel.reset();
    // The application takes a prompt that is still waiting with it, releasing the run's thread.
    app.reset();
    // The sensor's threads let go of it as their last step; no thread of a run outlives main.
    for (int i = 0; i < 500 && sensor.use_count() > 1; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return status;
}
