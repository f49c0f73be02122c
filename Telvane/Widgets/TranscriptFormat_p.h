// Turns script output and transcript text into what the diagnostics panel shows.
#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QStringDecoder>

#include <optional>

namespace TelvaneWidgets {

/// A piece of transcript without its asterisks, and the span of it to show in red.
struct MarkedPiece
{
    QString text;            ///< the piece with every "*" removed
    qsizetype redStart = 0;  ///< where the red span starts in text
    qsizetype redLength = 0; ///< how long it is; 0 when nothing is marked
};

/// Script output as text: UTF-8 read chunk by chunk, so that a character split between two chunks comes out
/// whole with the second; an invalid byte is shown as U+FFFD, so that the output is seen rather than dropped.
class OutputDecoder
{
public:
    QString decode(const QByteArray &chunk) { return decoder_(chunk); }
    /// Forgets a character left unfinished by the previous run.
    void reset() { decoder_.resetState(); }

private:
    QStringDecoder decoder_{QStringDecoder::Utf8};
};

/// The text of a script file: nothing when it is not valid UTF-8 or holds a NUL byte, which is never sent.
std::optional<QString> scriptText(const QByteArray &bytes);

/// Marks a piece of any text, translations included, as telvaneMarkTranscriptPiece marks ASCII.
MarkedPiece markPiece(const QString &piece);

} // namespace TelvaneWidgets
