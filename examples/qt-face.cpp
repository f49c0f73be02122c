// Runs one script on a sensor host from a Qt program and prints what it writes:
//   qt-face HOST PORT USER PASSWORD-FILE 'SCRIPT'
// The exit status is the script's, or 100 + the failure code when the run could not start.
#include <Telvane/TelvaneSensorRunner.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>

#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 6) {
        std::fprintf(stderr, "usage: qt-face HOST PORT USER PASSWORD-FILE 'SCRIPT'\n");
        return 2;
    }
    const QStringList args = app.arguments();
    QFile file(args[4]);
    const QString password = file.open(QIODevice::ReadOnly)
                                 ? QString::fromUtf8(file.readLine()).remove(QLatin1Char('\n'))
                                 : QString();

    auto sensor = Telvane::create("kitchen", "Kitchen sensor", argv[1], std::atol(argv[2]));
    TelvaneSensorRunner runner(sensor);
    QObject::connect(&runner, &TelvaneSensorRunner::credentialsRequested, &runner,
                     [&] { runner.provideCredentials(args[3], password); }); // else the prompt asks
    QObject::connect(&runner, &TelvaneSensorRunner::outputReceived, [](const QByteArray &chunk) {
        std::fwrite(chunk.constData(), 1, chunk.size(), stdout);
    });
    QObject::connect(&runner, &TelvaneSensorRunner::finished, &app, [](long status) { qApp->exit(status); });
    QObject::connect(&runner, &TelvaneSensorRunner::failed, &app, [](long code, const QString &reason) {
        std::fprintf(stderr, "%s\n", qPrintable(reason));
        qApp->exit(100 + code);
    });
    runner.start(args[5]); // everything arrives on this thread, in order
    return app.exec();
}
