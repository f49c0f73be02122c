#include "TelvaneDiagnosticsView.h"

#include "TelvaneCredentialsPrompt.h"
#include "TelvaneTranscript.h"
#include "TelvaneWidgetsTranslations.h"
#include "ui_TelvaneDiagnosticsView.h"

#include <Telvane/Telvane.h>

#include <QtCore/QFile>
#include <QtGui/QClipboard>
#include <QtGui/QGuiApplication>
#include <QtGui/QShowEvent>
#include <QtGui/QTextCharFormat>
#include <QtGui/QTextCursor>
#include <QtGui/QTextDocument>
#include <QtGui/QTextFrame>
#include <QtWidgets/QScrollBar>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace {

/// Puts @p arguments in for the "%@" of @p format, one after the other. An argument that itself holds
/// "%@" is left as it is.
QString fillFormat(QString format, std::initializer_list<QString> arguments)
{
    qsizetype from = 0;
    for (const QString &argument : arguments) {
        const qsizetype at = format.indexOf(QLatin1String("%@"), from);
        if (at < 0)
            break;
        format.replace(at, 2, argument);
        from = at + argument.size();
    }
    return format;
}

/// Script output is ASCII; any other byte is shown as U+FFFD, one character per byte, so that the output
/// is seen rather than dropped and its marking lines up with what is shown.
QString decodeOutput(const std::string &bytes)
{
    QString text(static_cast<qsizetype>(bytes.size()), Qt::Uninitialized);
    QChar *out = text.data();
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        *out++ = value < 0x80 ? QChar(value) : QChar(QChar::ReplacementCharacter);
    }
    return text;
}

/// The whole script file when it is plain ASCII; nothing otherwise, as for a missing file.
std::optional<std::string> readScript(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QByteArray text = file.readAll();
    for (const char byte : text)
        if (static_cast<unsigned char>(byte) > 0x7f)
            return std::nullopt;
    return text.toStdString();
}

struct MarkedPiece
{
    QString text;
    qsizetype redStart = 0;
    qsizetype redLength = 0;
};

/// Marks a piece of any text, translations included: the marking works on a stand-in of the piece with one
/// ASCII character per UTF-16 unit, so that its positions are those of the piece.
MarkedPiece markPiece(const QString &piece)
{
    std::string standIn;
    standIn.reserve(static_cast<std::size_t>(piece.size()));
    for (const QChar c : piece)
        standIn.push_back(c.unicode() < 0x80 ? static_cast<char>(c.unicode()) : '?');
    const TelvaneTranscriptPiece marked = telvaneMarkTranscriptPiece(standIn);
    MarkedPiece result{piece, static_cast<qsizetype>(marked.redStart),
                       static_cast<qsizetype>(marked.redLength)};
    result.text.remove(QLatin1Char('*'));
    return result;
}

/// The panel's background threads are detached, since a panel must never wait for a connection. They are
/// counted so that the end of the process waits for their last steps rather than tearing down what they
/// still use.
class BackgroundThreads
{
public:
    static BackgroundThreads &instance()
    {
        // Never destroyed: a thread that outlives the wait at exit still finds its mutex.
        static auto *threads = new BackgroundThreads;
        static ExitWait exitWait;
        return *threads;
    }

    /// False when the system has no thread left to give.
    bool start(std::function<void()> body)
    {
        {
            std::lock_guard lock(mutex_);
            ++count_;
        }
        try {
            std::thread([this, body = std::move(body)]() mutable {
                {
                    // Whatever the body holds is let go here, before the count says the thread is done.
                    auto run = std::move(body);
                    run();
                }
                finished();
            }).detach();
            return true;
        } catch (const std::system_error &) {
            finished();
            return false;
        }
    }

private:
    struct ExitWait
    {
        ~ExitWait()
        {
            BackgroundThreads &threads = instance();
            std::unique_lock lock(threads.mutex_);
            threads.idle_.wait_for(lock, std::chrono::seconds(5), [&threads] { return threads.count_ == 0; });
        }
    };

    void finished()
    {
        std::lock_guard lock(mutex_);
        --count_;
        idle_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable idle_;
    int count_ = 0; // guarded by mutex_
};

/// Receives the queued hops to the GUI thread; by name and without arguments, so that Qt alone makes and
/// frees the queued call, and the data goes through the link's mutex, where ThreadSanitizer sees it.
class DiagnosticsRelay : public QObject
{
    Q_OBJECT

public:
    explicit DiagnosticsRelay(std::function<void()> drain) : drain_(std::move(drain)) {}
    Q_INVOKABLE void drain() { drain_(); }

private:
    const std::function<void()> drain_;
};

/// The texts of the transcript, translated on the GUI thread before any thread starts, and constant since.
struct TranscriptTexts
{
    QString connecting;
    QString ok;
    QString completed;
    QString terminatedWithError;
    QString failed;
    QString canceled;
    QString invalidCredentials;
};

TranscriptTexts translatedTexts()
{
    using TelvaneWidgets::localized;
    return {
        localized(QT_TRANSLATE_NOOP("Localizable", "Connecting over SSH to %@ on port %@: ")),
        localized(QT_TRANSLATE_NOOP("Localizable", "OK\n")),
        localized(QT_TRANSLATE_NOOP("Localizable", "Diagnostics completed.")),
        localized(QT_TRANSLATE_NOOP("Localizable", "Diagnostics terminated with error: %ld")),
        localized(QT_TRANSLATE_NOOP("Localizable", "*failed*\n")),
        localized(QT_TRANSLATE_NOOP("Localizable", "*canceled*\n")),
        localized(QT_TRANSLATE_NOOP("Localizable", "*invalid credentials*\n")),
    };
}

/// The sensor's delegate on behalf of a panel. The sensor holds its delegate weakly, and the panel's threads
/// hold this strongly, so it outlives the panel: once the panel has gone it drops what arrives and answers
/// no credentials. It touches no widget; it queues its changes for the panel's GUI thread.
class DiagnosticsLink : public TelvaneDelegate, public std::enable_shared_from_this<DiagnosticsLink>
{
public:
    struct Item
    {
        enum Kind { Text, Stop } kind;
        QString text;
    };

    explicit DiagnosticsLink(TranscriptTexts texts) : texts_(std::move(texts)) {}

    // GUI thread.
    void attach(DiagnosticsRelay *relay)
    {
        std::lock_guard lock(mutex_);
        relay_ = relay;
    }

    void detach()
    {
        std::lock_guard lock(mutex_);
        relay_ = nullptr;
        pending_.clear();
        deferred_.clear();
    }

    std::deque<Item> take()
    {
        std::lock_guard lock(mutex_);
        drainPosted_ = false;
        return std::exchange(pending_, {});
    }

    std::optional<QString> username() const
    {
        std::lock_guard lock(mutex_);
        return username_;
    }

    void setUsername(std::optional<QString> username)
    {
        std::lock_guard lock(mutex_);
        username_ = std::move(username);
    }

    std::optional<QString> password() const
    {
        std::lock_guard lock(mutex_);
        return password_;
    }

    void setPassword(std::optional<QString> password)
    {
        std::lock_guard lock(mutex_);
        password_ = std::move(password);
    }

    // Any thread.
    void appendOutput(const QString &text) { post({Item::Text, text}); }

    /// Ends a run with @p messages: the run stops at once, and the messages and the indicator's stop follow
    /// the script's output.
    void terminate(std::initializer_list<QString> messages)
    {
        running.store(false);
        std::lock_guard lock(mutex_);
        // The sensor reports the end before it closes the pipe, so the reader may still be catching up. Held
        // back until every reader is done, the end is shown last, as in a terminal.
        const auto add = [this](Item item) {
            if (readers_ > 0)
                deferred_.push_back(std::move(item));
            else
                postLocked(std::move(item));
        };
        for (const QString &message : messages)
            if (!message.isEmpty())
                add({Item::Text, message});
        add({Item::Stop, {}});
    }

    /// A run, on a thread of its own: it blocks until the script has started or the run has failed.
    void runDiagnostics(const std::shared_ptr<Telvane> &sensor, const QString &script)
    {
        appendOutput(fillFormat(texts_.connecting, {QString::fromStdString(sensor->hostname()),
                                                    QString::number(sensor->port())}));
        // Without a script the sensor does nothing and reports nothing, so the run never ends.
        sensor->runScript(readScript(script), std::nullopt);
    }

    /// Drains the output on a thread of its own until the pipe ends, whether or not the panel still lives.
    void handleOutput(const std::shared_ptr<TelvaneFileHandle> &output)
    {
        for (std::string chunk; !(chunk = output->availableData()).empty();)
            appendOutput(decodeOutput(chunk));
        readerEnded();
    }

    void sensorScriptDidStart(Telvane &, std::shared_ptr<TelvaneFileHandle> output) override
    {
        appendOutput(texts_.ok);
        // Counted only now, after the pump has started: an end reported in between (a script that is done
        // before its start is) is not held back.
        {
            std::lock_guard lock(mutex_);
            ++readers_;
        }
        auto reader = [self = shared_from_this(), output] {
            self->handleOutput(output);
        };
        if (!BackgroundThreads::instance().start(std::move(reader))) {
            // Nobody reads: let the run end rather than fill the pipe, and do not hold its end back.
            output->closeFile();
            readerEnded();
        }
    }

    void sensorScriptDidTerminate(Telvane &, long status) override
    {
        terminate(
            {status != 0
                 ? QString(texts_.terminatedWithError).replace(QLatin1String("%ld"), QString::number(status))
                 : texts_.completed});
    }

    void sensorDidFailWithError(Telvane &, long code) override
    {
        QString marker; // none for a code we do not know
        switch (code) {
        case TelvaneErrorConnection:
            marker = texts_.failed;
            break;
        case TelvaneErrorNoCredentials:
            marker = texts_.canceled;
            break;
        case TelvaneErrorAuthentication:
            marker = texts_.invalidCredentials;
            break;
        default:
            break;
        }
        terminate({marker, texts_.completed});
    }

    std::optional<TelvaneCredentialsDictionary> credentialsForSensor(Telvane &sensor, bool *persist) override
    {
        {
            std::lock_guard lock(mutex_);
            // Nobody to ask on behalf of.
            if (!relay_)
                return std::nullopt;
            if (username_ && password_)
                return TelvaneCredentialsDictionary(username_->toStdString(), password_->toStdString());
        }
        return TelvaneCredentials::promptForCredentials(sensor, persist);
    }

    std::atomic<bool> running{false};

private:
    void readerEnded()
    {
        std::lock_guard lock(mutex_);
        if (--readers_ > 0)
            return;
        for (Item &item : deferred_)
            postLocked(std::move(item));
        deferred_.clear();
    }

    void post(Item item)
    {
        std::lock_guard lock(mutex_);
        postLocked(std::move(item));
    }

    // Called with mutex_ held.
    void postLocked(Item item)
    {
        if (!relay_)
            return;
        pending_.push_back(std::move(item));
        // One hop drains all that is queued by then; the relay cannot go away while we hold the mutex.
        if (!drainPosted_) {
            drainPosted_ = true;
            QMetaObject::invokeMethod(relay_, "drain", Qt::QueuedConnection);
        }
    }

    const TranscriptTexts texts_; // set before any thread starts

    mutable std::mutex mutex_;
    DiagnosticsRelay *relay_ = nullptr; // guarded by mutex_; set and cleared by the panel
    std::deque<Item> pending_;          // guarded by mutex_: what waits for the GUI thread, in order
    bool drainPosted_ = false;          // guarded by mutex_
    int readers_ = 0;                   // guarded by mutex_: output readers not yet at the end
    std::vector<Item> deferred_;        // guarded by mutex_: end reports waiting for the readers
    std::optional<QString> username_;   // guarded by mutex_
    std::optional<QString> password_;   // guarded by mutex_
};

} // namespace

// Hidden, although nested in an exported class: none of it is API.
class TELVANE_WIDGETS_NO_EXPORT TelvaneDiagnosticsView::Private
{
public:
    Private(TelvaneDiagnosticsView *q, std::shared_ptr<Telvane> sensor, QString script)
        : q(q), sensor(std::move(sensor)), script(std::move(script)),
          link(std::make_shared<DiagnosticsLink>(translatedTexts())), relay([this] { drain(); })
    {}

    void drain();
    void render(const QString &piece);
    void applyInset();
    void startIndicator();
    void stopIndicator();
    void notifyRunning();

    // All GUI thread only, apart from what the link guards itself.
    TelvaneDiagnosticsView *const q;
    const std::shared_ptr<Telvane> sensor;
    const QString script;
    Ui::TelvaneDiagnosticsView ui;
    const std::shared_ptr<DiagnosticsLink> link;
    DiagnosticsRelay relay;
    bool notifiedRunning = false; // the value runningChanged last told
    QSize preferredSize;
};

void TelvaneDiagnosticsView::Private::drain()
{
    for (DiagnosticsLink::Item &item : link->take()) {
        if (item.kind == DiagnosticsLink::Item::Text) {
            render(item.text);
        } else {
            stopIndicator();
            notifyRunning();
        }
    }
}

void TelvaneDiagnosticsView::Private::render(const QString &piece)
{
    const MarkedPiece marked = markPiece(piece);
    QTextCharFormat base;
    base.setForeground(ui.textView->palette().color(QPalette::Text));
    QTextCharFormat red;
    red.setForeground(QColor(Qt::red));

    QTextCursor cursor(ui.textView->document());
    cursor.movePosition(QTextCursor::End);
    cursor.beginEditBlock();
    cursor.insertText(marked.text.left(marked.redStart), base);
    cursor.insertText(marked.text.mid(marked.redStart, marked.redLength), red);
    cursor.insertText(marked.text.mid(marked.redStart + marked.redLength), base);
    cursor.endEditBlock();

    QScrollBar *bar = ui.textView->verticalScrollBar();
    bar->setValue(bar->maximum());
}

void TelvaneDiagnosticsView::Private::applyInset()
{
    // The root frame's margins rather than the document margin, which is the same on all four sides.
    QTextDocument *document = ui.textView->document();
    document->setDocumentMargin(0);
    QTextFrameFormat format = document->rootFrame()->frameFormat();
    format.setLeftMargin(3);
    format.setRightMargin(3);
    format.setTopMargin(10);
    format.setBottomMargin(10);
    document->rootFrame()->setFrameFormat(format);
}

void TelvaneDiagnosticsView::Private::startIndicator()
{
    ui.progressIndicator->setRange(0, 0);
    ui.progressIndicator->show();
}

void TelvaneDiagnosticsView::Private::stopIndicator()
{
    // A range that is not empty ends the busy animation.
    ui.progressIndicator->setRange(0, 1);
    ui.progressIndicator->setValue(0);
    ui.progressIndicator->hide();
}

void TelvaneDiagnosticsView::Private::notifyRunning()
{
    const bool now = link->running.load();
    if (now == notifiedRunning)
        return;
    notifiedRunning = now;
    Q_EMIT q->runningChanged(now);
}

TelvaneDiagnosticsView::TelvaneDiagnosticsView(std::shared_ptr<Telvane> sensor, const QString &script,
                                               QWidget *parent)
    : QWidget(parent),
      d((TelvaneWidgets::installTranslator(), std::make_unique<Private>(this, sensor, script)))
{
    d->ui.setupUi(this);
    using TelvaneWidgets::localized;
    d->ui.runAgainButton->setText(localized(QT_TRANSLATE_NOOP("Localizable", "Run Again")));
    d->ui.closeButton->setText(localized(QT_TRANSLATE_NOOP("Localizable", "Close")));
    d->ui.copyToClipboardButton->setText(localized(QT_TRANSLATE_NOOP("Localizable", "Copy to Clipboard")));
    connect(d->ui.runAgainButton, &QPushButton::clicked, this, &TelvaneDiagnosticsView::onRunAgain);
    connect(d->ui.closeButton, &QPushButton::clicked, this, &TelvaneDiagnosticsView::onClose);
    connect(d->ui.copyToClipboardButton, &QPushButton::clicked, this,
            &TelvaneDiagnosticsView::onCopyToClipboard);

    // Keeps its place in the layout while it is hidden between runs.
    QSizePolicy policy = d->ui.progressIndicator->sizePolicy();
    policy.setRetainSizeWhenHidden(true);
    d->ui.progressIndicator->setSizePolicy(policy);
    d->stopIndicator();
    d->applyInset();
    d->preferredSize = size();

    d->link->attach(&d->relay);
    if (d->sensor)
        d->sensor->setDelegate(d->link);
}

TelvaneDiagnosticsView::~TelvaneDiagnosticsView()
{
    // From here on the sensor's threads find no panel; the sensor keeps its (now idle) delegate.
    d->link->detach();
}

std::shared_ptr<Telvane> TelvaneDiagnosticsView::sensor() const
{
    return d->sensor;
}

QString TelvaneDiagnosticsView::script() const
{
    return d->script;
}

bool TelvaneDiagnosticsView::running() const
{
    return d->link->running.load();
}

QLabel *TelvaneDiagnosticsView::label() const
{
    return d->ui.label;
}

QTextEdit *TelvaneDiagnosticsView::textView() const
{
    return d->ui.textView;
}

QProgressBar *TelvaneDiagnosticsView::progressIndicator() const
{
    return d->ui.progressIndicator;
}

std::optional<QString> TelvaneDiagnosticsView::username() const
{
    return d->link->username();
}

void TelvaneDiagnosticsView::setUsername(std::optional<QString> username)
{
    d->link->setUsername(std::move(username));
}

std::optional<QString> TelvaneDiagnosticsView::password() const
{
    return d->link->password();
}

void TelvaneDiagnosticsView::setPassword(std::optional<QString> password)
{
    d->link->setPassword(std::move(password));
}

void TelvaneDiagnosticsView::appendOutput(const QString &text)
{
    d->link->appendOutput(text);
}

QSize TelvaneDiagnosticsView::sizeHint() const
{
    return d->preferredSize;
}

void TelvaneDiagnosticsView::viewWillAppear()
{
    const QString name = d->sensor ? QString::fromStdString(d->sensor->name()) : QString();
    d->ui.label->setText(fillFormat(
        TelvaneWidgets::localized(QT_TRANSLATE_NOOP("Localizable", "Run diagnostics on %@:")), {name}));
    onRunAgain();
}

void TelvaneDiagnosticsView::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    // A window coming back from the window system (restored, uncovered) is no new appearance.
    if (!event->spontaneous())
        viewWillAppear();
}

void TelvaneDiagnosticsView::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    d->preferredSize = size();
}

void TelvaneDiagnosticsView::onRunAgain()
{
    d->link->running.store(true);
    d->notifyRunning();
    // Directly, not through the queue: what an earlier run still has queued comes after the clearing.
    d->ui.textView->clear();
    d->applyInset();
    d->startIndicator();
    if (!d->sensor)
        return;
    BackgroundThreads::instance().start(
        [link = d->link, sensor = d->sensor, script = d->script] { link->runDiagnostics(sensor, script); });
}

void TelvaneDiagnosticsView::onClose()
{
    window()->close();
}

void TelvaneDiagnosticsView::onCopyToClipboard()
{
    QGuiApplication::clipboard()->setText(d->ui.textView->toPlainText());
}

#include "TelvaneDiagnosticsView.moc"
