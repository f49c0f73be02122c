#include "TelvaneDiagnosticsView.h"

#include "TelvaneSensorRunner.h"
#include "TelvaneWidgetsTranslations_p.h"
#include "TranscriptFormat_p.h"
#include "ui_TelvaneDiagnosticsView.h"
#include <Telvane/TelvaneTranscript.h>

#include <Telvane/Telvane.h>

#include <QtCore/QFile>
#include <QtCore/QStringDecoder>
#include <QtGui/QClipboard>
#include <QtGui/QGuiApplication>
#include <QtGui/QKeySequence>
#include <QtGui/QShortcut>
#include <QtGui/QShowEvent>
#include <QtGui/QTextCharFormat>
#include <QtGui/QTextCursor>
#include <QtGui/QTextDocument>
#include <QtGui/QTextFrame>
#include <QtWidgets/QScrollBar>

using TelvaneWidgets::localized;
using TelvaneWidgets::MarkedPiece;
using TelvaneWidgets::markPiece;

namespace {

/// The whole script file when it is UTF-8 text; a null string otherwise, as for a missing file.
QString readScript(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return TelvaneWidgets::scriptText(file.readAll()).value_or(QString());
}

} // namespace

// Hidden, although nested in an exported class: none of it is API.
class TELVANE_WIDGETS_NO_EXPORT TelvaneDiagnosticsView::Private
{
public:
    Private(TelvaneDiagnosticsView *q, std::shared_ptr<Telvane> sensor, QString script)
        : q(q), script(std::move(script)), runner(std::move(sensor))
    {}

    void listen();
    void answerCredentials();
    void fail(long code);
    void finish(const QString &closing);
    void render(const QString &piece);
    void applyInset();
    void startIndicator();
    void stopIndicator();
    void notifyRunning();

    // All GUI thread only.
    TelvaneDiagnosticsView *const q;
    const QString script;
    TelvaneSensorRunner runner;
    Ui::TelvaneDiagnosticsView ui;
    std::optional<QString> username;
    std::optional<QString> password;
    bool notifiedRunning = false; // the value runningChanged last told
    // The script's output, across chunks: a character split between two comes out whole with the second; an
    // invalid byte shows as U+FFFD, so that the output is seen rather than dropped.
    QStringDecoder decoder{QStringDecoder::Utf8};
    QSize preferredSize;
};

// The transcript's own words (TelvaneTranscript) are never translated: only the label is. A transcript then
// reads the same from every desktop and from `telvane diagnose`, whoever it is pasted to.
void TelvaneDiagnosticsView::Private::listen()
{
    using namespace TelvaneTranscript;
    connect(&runner, &TelvaneSensorRunner::started, q, [this] {
        decoder.resetState(); // a character the previous run left unfinished
        render(QString::fromLatin1(ok));
    });
    connect(&runner, &TelvaneSensorRunner::outputReceived, q,
            [this](const QByteArray &chunk) { render(decoder(chunk)); });
    connect(&runner, &TelvaneSensorRunner::finished, q,
            [this](long status) { finish(QString::fromStdString(closingLine(status))); });
    connect(&runner, &TelvaneSensorRunner::failed, q, [this](long code) { fail(code); });
    connect(&runner, &TelvaneSensorRunner::credentialsRequested, q, [this] { answerCredentials(); });
}

void TelvaneDiagnosticsView::Private::answerCredentials()
{
    // The preset pair only when both are set; the prompt's answer is never kept.
    if (username && password)
        runner.provideCredentials(*username, *password);
    else
        runner.askWithPrompt();
}

void TelvaneDiagnosticsView::Private::fail(long code)
{
    // The marker completes the connecting line; the run is reported as completed all the same.
    if (const char *marker = TelvaneTranscript::markerForError(code))
        render(QString::fromLatin1(marker));
    finish(QString::fromLatin1(TelvaneTranscript::completed));
}

void TelvaneDiagnosticsView::Private::finish(const QString &closing)
{
    render(closing);
    stopIndicator();
    notifyRunning();
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
    const bool now = runner.isRunning();
    if (now == notifiedRunning)
        return;
    notifiedRunning = now;
    Q_EMIT q->runningChanged(now);
}

TelvaneDiagnosticsView::TelvaneDiagnosticsView(std::shared_ptr<Telvane> sensor, const QString &script,
                                               QWidget *parent)
    : QWidget(parent),
      d((TelvaneWidgets::installTranslator(), std::make_unique<Private>(this, std::move(sensor), script)))
{
    d->ui.setupUi(this);
    d->ui.runAgainButton->setText(localized(QT_TRANSLATE_NOOP("Localizable", "Run Again")));
    d->ui.closeButton->setText(localized(QT_TRANSLATE_NOOP("Localizable", "Close")));
    d->ui.copyToClipboardButton->setText(localized(QT_TRANSLATE_NOOP("Localizable", "Copy to Clipboard")));
    connect(d->ui.runAgainButton, &QPushButton::clicked, this, &TelvaneDiagnosticsView::onRunAgain);
    connect(d->ui.closeButton, &QPushButton::clicked, this, &TelvaneDiagnosticsView::onClose);
    connect(d->ui.copyToClipboardButton, &QPushButton::clicked, this,
            &TelvaneDiagnosticsView::onCopyToClipboard);
    // Escape closes the panel wherever the focus is within it, as it closes a dialog.
    auto *escape = new QShortcut(QKeySequence::Cancel, this, this, &TelvaneDiagnosticsView::onClose);
    escape->setContext(Qt::WidgetWithChildrenShortcut);
    // Script output is often laid out in columns.
    d->ui.textView->setFont(TelvaneWidgets::transcriptFont());

    // Keeps its place in the layout while it is hidden between runs.
    QSizePolicy policy = d->ui.progressIndicator->sizePolicy();
    policy.setRetainSizeWhenHidden(true);
    d->ui.progressIndicator->setSizePolicy(policy);
    d->stopIndicator();
    d->applyInset();
    d->preferredSize = size();
    d->listen();
}

TelvaneDiagnosticsView::~TelvaneDiagnosticsView() = default;

std::shared_ptr<Telvane> TelvaneDiagnosticsView::sensor() const
{
    return d->runner.sensor();
}

QString TelvaneDiagnosticsView::script() const
{
    return d->script;
}

bool TelvaneDiagnosticsView::running() const
{
    return d->runner.isRunning();
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
    return d->username;
}

void TelvaneDiagnosticsView::setUsername(std::optional<QString> username)
{
    d->username = std::move(username);
}

std::optional<QString> TelvaneDiagnosticsView::password() const
{
    return d->password;
}

void TelvaneDiagnosticsView::setPassword(std::optional<QString> password)
{
    d->password = std::move(password);
}

void TelvaneDiagnosticsView::appendOutput(const QString &text)
{
    QMetaObject::invokeMethod(
        this, [this, text] { d->render(text); }, Qt::QueuedConnection);
}

QSize TelvaneDiagnosticsView::sizeHint() const
{
    return d->preferredSize;
}

void TelvaneDiagnosticsView::viewWillAppear()
{
    const std::shared_ptr<Telvane> sensor = d->runner.sensor();
    const QString name = sensor ? QString::fromStdString(sensor->name()) : QString();
    d->ui.label->setText(
        TelvaneWidgets::localizedWith(QT_TRANSLATE_NOOP("Localizable", "Run diagnostics on %@:"), name));
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
    // Directly, not through the queue: what an earlier run still has queued comes after the clearing.
    d->ui.textView->clear();
    d->applyInset();
    d->startIndicator();
    if (const std::shared_ptr<Telvane> sensor = d->runner.sensor())
        d->render(QString::fromStdString(TelvaneTranscript::connectingLine(
            TelvaneTranscript::connectingFormat, sensor->hostname(), sensor->port())));
    d->runner.start(readScript(d->script)); // running from here on
    d->notifyRunning();
}

void TelvaneDiagnosticsView::onClose()
{
    window()->close();
}

void TelvaneDiagnosticsView::onCopyToClipboard()
{
    QGuiApplication::clipboard()->setText(d->ui.textView->toPlainText());
}
