#include "Commands.h"

#include "CliDelegate.h"
#include "OutputWriter.h"
#include "SignalWatcher.h"
#include "SshStyle.h"
#include "Terminal.h"

#include <Telvane/TelvaneKeychain.h>
#include <Telvane/TelvaneLog.h>
#include <Telvane/TelvaneTranscript.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <set>
#include <unistd.h>
#include <vector>

namespace {

// Keeps the library's log lines back, for a cause that no failure reports, or shows them all with --verbose.
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

    /// The last line that mentions @p word, for a cause the run's status does not tell.
    std::string lastAbout(std::string_view word) const
    {
        std::lock_guard lock(mutex_);
        for (auto it = lines_.rbegin(); it != lines_.rend(); ++it)
            if (it->find(word) != std::string::npos)
                return *it;
        return {};
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_; // guarded by mutex_
};

int reportFailure(long code, const Options &options, const std::string &reason, bool emptyPassword)
{
    const std::string words =
        failureWords(code, code == TelvaneErrorAuthentication && emptyPassword
                               ? "the server refused the empty password (the password file " +
                                     *options.passwordFile + " was empty)"
                               : reason);
    std::fprintf(stderr, "telvane: %s port %ld: %s\n", options.host.c_str(), options.port, words.c_str());
    switch (code) {
    case TelvaneErrorNoCredentials:
        return ExitNoCredentials;
    case TelvaneErrorAuthentication:
        return ExitAuthentication;
    default:
        return ExitConnection;
    }
}

// What the user should know when --remember could not keep the pair, or nothing when it was kept.
std::optional<std::string> rememberFailure(Telvane &sensor, const CliDelegate &delegate, const LogKeeper &log,
                                           bool verbose)
{
    const auto username = delegate.givenUsername();
    if (!username)
        return std::nullopt; // the stored pair served; there was nothing new to keep
    if (auto stored = TelvaneKeychain::passwordForService(sensor.serviceNameForSensor(), *username)) {
        telvaneWipe(*stored);
        return std::nullopt;
    }
    const std::string cause = log.lastAbout("keyring");
    return "--remember: the credentials could not be kept in the " + TelvaneKeychain::backend()->name() +
           " keyring" +
           (!cause.empty() ? ": " + cause
            : verbose      ? std::string(" (the log lines above say why)")
                           : std::string(" (-v shows why)"));
}

// The diagnostics transcript on standard output: marked spans in red with colours, as written without.
class Transcript
{
public:
    Transcript(OutputWriter &out, bool colour) : out_(out), colour_(colour) {}

    void show(std::string_view text)
    {
        if (!colour_) {
            out_.write(text); // the asterisks stay, so a finding is still seen in a file or a pipe
            return;
        }
        const TelvaneTranscriptPiece piece = telvaneMarkTranscriptPiece(text);
        out_.write(paintedRed(piece.text, piece.redStart, piece.redLength));
    }

    /// The closing line, on a line of its own whatever the script's output ended with.
    void close(const std::string &line)
    {
        if (!out_.atLineStart())
            out_.write("\n");
        show(line);
    }

private:
    OutputWriter &out_;
    bool colour_;
};

// Copies the script's output to ours until it ends; after a failed write the rest is read and dropped, so
// that the run can end.
void copyOutput(TelvaneFileHandle &output, Telvane &sensor, OutputWriter &out, Transcript *transcript)
{
    for (std::string chunk; !(chunk = output.availableData()).empty();) {
        if (out.state() != OutputWriter::State::Open)
            continue;
        if (transcript)
            transcript->show(chunk);
        else
            out.write(chunk);
        if (out.state() != OutputWriter::State::Open)
            sensor.stopScript();
    }
}

// The keyring as the run sees it when the command line names both username and password: those win, so the
// stored pair of a host they serve is neither read nor, when the given ones are refused, deleted. Keeping a
// pair (--remember) still reaches the keyring. One wraps the process's keyring for every sensor of the run.
class GivenCredentialsFirst : public TelvaneKeychainBackend
{
public:
    explicit GivenCredentialsFirst(std::shared_ptr<TelvaneKeychainBackend> keyring)
        : keyring_(std::move(keyring))
    {}
    /// Installs the one wrapper at the first call; any thread.
    static GivenCredentialsFirst &installed()
    {
        static const auto wrapper = [] {
            auto made = std::make_shared<GivenCredentialsFirst>(TelvaneKeychain::backend());
            TelvaneKeychain::setBackend(made);
            return made;
        }();
        return *wrapper;
    }
    void add(std::string service)
    {
        std::lock_guard lock(mutex_);
        services_.insert(std::move(service));
    }

    std::string name() const override { return keyring_->name(); }
    std::optional<std::vector<TelvaneKeychainAccount>> accountsForService(const std::string &service) override
    {
        return given(service) ? std::nullopt : keyring_->accountsForService(service);
    }
    std::optional<std::string> passwordForService(const std::string &service,
                                                  const std::string &account) override
    {
        return keyring_->passwordForService(service, account);
    }
    bool setPassword(const std::string &password, const std::string &service,
                     const std::string &account) override
    {
        return keyring_->setPassword(password, service, account);
    }
    bool deletePasswordForService(const std::string &service, const std::string &account) override
    {
        return !given(service) && keyring_->deletePasswordForService(service, account);
    }

private:
    bool given(const std::string &service) const
    {
        std::lock_guard lock(mutex_);
        return services_.count(service) > 0;
    }

    const std::shared_ptr<TelvaneKeychainBackend> keyring_;
    mutable std::mutex mutex_;
    std::set<std::string> services_; // guarded by mutex_
};

// ssh's three tries: a password typed on the terminal and refused is asked again.
constexpr int kPasswordTries = 3;

} // namespace

void configureSensor(Telvane &sensor, const Options &options, const std::string &connectHost,
                     const std::optional<std::string> &user)
{
    sensor.setConnectHostname(connectHost);
    sensor.setHostKeyPolicy(hostKeyPolicyFor(options.strictHostKeyChecking));
    sensor.setKnownHostsFile(options.knownHostsFile.value_or(""));
    if (user && options.passwordFile)
        GivenCredentialsFirst::installed().add(sensor.serviceNameForSensor());
}

int runCommand(const Options &options, const std::string &script, bool diagnose)
{
    LogKeeper log(options.verbose);
    TtyPrompt prompt;
    OutputWriter out(STDOUT_FILENO);
    auto sensor = Telvane::create(options.host, options.name.value_or(options.host), options.host,
                                  options.port, options.timeout);
    configureSensor(*sensor, options, options.connectHost, options.user);
    std::atomic<Progress *> progress{nullptr};
    // Before any thread starts, so that every thread inherits the blocked signals.
    SignalWatcher signals([&](int) {
        prompt.cancel(); // a question on the terminal holds the connection attempt; end it first
        if (Progress *p = progress.load())
            p->stop();
        out.cancel(); // a reader that does not read must not hold us
        sensor->stopScript();
    });

    std::unique_ptr<Progress> spinner;
    std::unique_ptr<Transcript> transcript;
    if (diagnose) {
        transcript = std::make_unique<Transcript>(out, colourChosen(options.colour, STDOUT_FILENO));
    } else {
        spinner = std::make_unique<Progress>("telvane: connecting to " + options.host + " port " +
                                             std::to_string(options.port));
        progress = spinner.get();
    }
    auto delegate = std::make_shared<CliDelegate>(options, prompt, spinner.get());
    sensor->setDelegate(delegate);

    if (transcript)
        transcript->show(TelvaneTranscript::connectingLine(TelvaneTranscript::connectingFormat, options.host,
                                                           options.port));
    const auto arguments = options.arguments.empty() ? std::nullopt : std::optional(options.arguments);
    sensor->runScript(script, arguments);
    for (int tries = 1;
         tries < kPasswordTries &&
         delegate->waitForEnd(std::chrono::milliseconds(0)) == -long(TelvaneErrorAuthentication) &&
         delegate->passwordTyped() && !signals.received();
         ++tries) {
        std::fprintf(stderr, "Permission denied, please try again.\n");
        delegate = std::make_shared<CliDelegate>(options, prompt, nullptr);
        sensor->setDelegate(delegate);
        sensor->runScript(script, arguments);
    }
    if (spinner)
        spinner->stop();

    const auto output = delegate->output();
    if (output) {
        if (transcript)
            transcript->show(TelvaneTranscript::ok);
        copyOutput(*output, *sensor, out, transcript.get());
    }
    // The end is reported before the output closes, so it is known by now if it was reported at all.
    const std::optional<long> result = delegate->waitForEnd(std::chrono::milliseconds(0));
    waitForRelease(sensor);

    if (const int signal = signals.received()) {
        std::fprintf(stderr, "telvane: interrupted\n");
        return 128 + signal;
    }
    if (output && options.remember)
        if (const auto warning = rememberFailure(*sensor, *delegate, log, options.verbose))
            std::fprintf(stderr, "telvane: warning: %s\n", warning->c_str());
    if (const auto status = outputFailure(out))
        return *status;
    if (!result) {
        // Only an address that cannot be used ends a run without a report.
        return reportFailure(TelvaneErrorConnection, options,
                             "the address it resolved to is neither IPv4 nor IPv6", false);
    }
    if (*result < 0) {
        const long code = -*result;
        if (transcript) {
            if (const char *marker = TelvaneTranscript::markerForError(code))
                transcript->show(marker); // it ends the "Connecting ..." line
            transcript->close(TelvaneTranscript::closingLine(0) + "\n");
        }
        const auto failure = sensor->lastFailure();
        return reportFailure(code, options, failure ? failure->reason : std::string(),
                             delegate->passwordFileWasEmpty());
    }
    const long status = *result;
    if (transcript)
        transcript->close(TelvaneTranscript::closingLine(status) + "\n");
    if (const auto failed = outputFailure(out))
        return *failed; // the closing line could not be written either
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
