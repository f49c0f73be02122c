#include "BenchDelegate.h"
#include "Modes.h"

#include "../common/SessionMethods.h"
#include "Telvane_p.h"

#include <fstream>
#include <sstream>

namespace telvane::bench {

std::shared_ptr<BenchDelegate> makeDelegate(const Args &args)
{
    return std::make_shared<BenchDelegate>(args.text("user", "telvane-test"),
                                           readFirstLine(args.text("password-file")));
}

std::shared_ptr<Telvane> makeSensor(const Args &args, const std::shared_ptr<BenchDelegate> &delegate,
                                    const std::string &host)
{
    auto sensor = Telvane::create("bench", "bench", host, args.number("port", 22),
                                  static_cast<double>(args.number("timeout", 30)));
    TelvanePrivate::get(*sensor).configureSession = [](ssh_session session) {
        applySessionMethods(session);
    };
    sensor->setDelegate(delegate);
    return sensor;
}

ProcessFigures processFigures()
{
    ProcessFigures figures;
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        std::istringstream fields(line);
        std::string key;
        fields >> key;
        if (key == "VmRSS:")
            fields >> figures.rssKiB;
        else if (key == "Threads:")
            fields >> figures.threads;
    }
    return figures;
}

} // namespace telvane::bench
