#include "Commands.h"

#include "CliDelegate.h"
#include "SignalWatcher.h"
#include "Terminal.h"

#include <Telvane/Platform/TelvaneLog.h>
#include <Telvane/TelvaneTranscript.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// "error: -1" and the like: a number without words.
bool isBareErrorNumber(const std::string &line)
{
    const std::string prefix = "error: ";
    if (line.compare(0, prefix.size(), prefix) != 0)
        return false;
    std::size_t i = prefix.size();
    if (i < line.size() && line[i] == '-')
        ++i;
    return i < line.size() && line.find_first_not_of("0123456789", i) == std::string::npos;
}

// Keeps the library's log lines for the one-line failure message, or shows them all with --verbose.
class LogKeeper
{
public:
    explicit LogKeeper(bool verbose)
    {
        if (!verbose)
            telvaneSetLogSink([this](std::string_view line) {
                std::lock_guard lock(mutex_);
                lines_.emplace_back(line);
            });
    }
    ~LogKeeper() { telvaneSetLogSink({}); }

    /// The last line that says something to a person (the bare "error: -1" style lines do not).
    std::string cause() const
    {
        std::lock_guard lock(mutex_);
        for (auto it = lines_.rbegin(); it != lines_.rend(); ++it) {
            std::string line = *it;
            while (!line.empty() && (line.back() == '\n' || line.back() == ' '))
                line.pop_back();
            if (!line.empty() && !isBareErrorNumber(line))
                return line;
        }
        return {};
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_; // guarded by mutex_
};

void say(const char *format, const std::string &host, long port, const std::string &detail)
{
    std::fprintf(stderr, format, host.c_str(), port, detail.c_str());
    std::fputc('\n', stderr);
}

int reportFailure(long code, const Options &options, const LogKeeper &log)
{
    const std::string cause = log.cause();
    switch (code) {
    case TelvaneErrorNoCredentials:
        say("telvane: %s port %ld: no credentials were given%s", options.host, options.port,
            " (use --user and --password-file, or run on a terminal)");
        return ExitNoCredentials;
    case TelvaneErrorAuthentication:
        say("telvane: %s port %ld: authentication failed: %s", options.host, options.port,
            cause.find("not ASCII") != std::string::npos ? cause
                                                         : "the server refused the username or password");
        return ExitAuthentication;
    default:
        say("telvane: %s port %ld: connection failed%s", options.host, options.port,
            cause.empty() ? "" : ": " + cause);
        return ExitConnection;
    }
}

// Writes a piece of transcript to standard output, its marked span in red when colours are wanted.
void showTranscript(std::string_view text, bool colour)
{
    const TelvaneTranscriptPiece piece = telvaneMarkTranscriptPiece(text);
    if (!colour || piece.redLength == 0) {
        writeAll(STDOUT_FILENO, piece.text);
        return;
    }
    std::string out = piece.text.substr(0, piece.redStart);
    out += "\033[31m";
    out.append(piece.text, piece.redStart, piece.redLength);
    out += "\033[0m";
    out.append(piece.text, piece.redStart + piece.redLength);
    writeAll(STDOUT_FILENO, out);
}

} // namespace

int runCommand(const Options &options, const std::string &script, bool diagnose)
{
    LogKeeper log(options.verbose);
    TtyPrompt prompt;
    auto sensor = Telvane::create(options.host, options.name.value_or(options.host), options.host,
                                  options.port, options.timeout);
    std::atomic<Progress *> progress{nullptr};
    // Before any thread starts, so that every thread inherits the blocked signals.
    SignalWatcher signals([&](int) {
        prompt.cancel(); // a question on the terminal holds the connection attempt; end it first
        if (Progress *p = progress.load())
            p->stop();
        sensor->stopScript();
    });

    const bool colour = diagnose && colourWanted(STDOUT_FILENO);
    std::unique_ptr<Progress> spinner;
    if (!diagnose) {
        spinner = std::make_unique<Progress>("telvane: connecting to " + options.host + " port " +
                                             std::to_string(options.port));
        progress = spinner.get();
    }
    auto delegate = std::make_shared<CliDelegate>(options, prompt, spinner.get());
    sensor->setDelegate(delegate);

    if (diagnose)
        showTranscript("Connecting over SSH to " + options.host + " on port " + std::to_string(options.port) +
                           ": ",
                       colour);
    sensor->runScript(script, options.arguments.empty() ? std::nullopt : std::optional(options.arguments));
    if (spinner)
        spinner->stop();

    bool readerGone = false;
    if (const auto output = delegate->output()) {
        if (diagnose)
            showTranscript("OK\n", colour);
        for (std::string chunk; !(chunk = output->availableData()).empty();) {
            if (readerGone)
                continue; // drain, so that the run can end
            if (diagnose) {
                showTranscript(chunk, colour);
            } else if (!writeAll(STDOUT_FILENO, chunk)) {
                readerGone = true;
                sensor->stopScript();
            }
        }
    }
    // The end is reported before the output closes, so it is known by now if it was reported at all.
    const std::optional<long> result = delegate->waitForEnd(std::chrono::milliseconds(0));

    // The pump thread lets go of the sensor as its last act; wait for that so no thread outlives main.
    for (int i = 0; i < 2000 && sensor.use_count() > 1; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));

    if (const int signal = signals.received()) {
        std::fprintf(stderr, "telvane: interrupted\n");
        return 128 + signal;
    }
    if (readerGone)
        return 128 + SIGPIPE;
    if (!result) {
        // Only an address that cannot be used ends a run without a report.
        say("telvane: %s port %ld: connection failed%s", options.host, options.port,
            log.cause().empty() ? "" : ": " + log.cause());
        return ExitConnection;
    }
    if (*result < 0) {
        const long code = -*result;
        if (diagnose) {
            showTranscript(code == TelvaneErrorNoCredentials    ? "*canceled*\n"
                           : code == TelvaneErrorAuthentication ? "*invalid credentials*\n"
                                                                : "*failed*\n",
                           colour);
            showTranscript("Diagnostics completed.\n", colour);
        }
        return reportFailure(code, options, log);
    }
    const long status = *result;
    if (diagnose)
        showTranscript(status != 0 ? "Diagnostics terminated with error: " + std::to_string(status) + "\n"
                                   : std::string("Diagnostics completed.\n"),
                       colour);
    return status >= 0 && status <= 255 ? static_cast<int>(status) : 1;
}

int forgetCommand(const std::string &host)
{
    auto sensor = Telvane::create(host, host, host);
    if (TelvaneCredentials::forgetCredentials(*sensor)) {
        std::printf("telvane: forgot the stored credentials of %s\n", host.c_str());
        return 0;
    }
    std::fprintf(stderr, "telvane: no stored credentials for %s\n", host.c_str());
    return 1;
}
