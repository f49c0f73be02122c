// Turns script output and transcript text into what the diagnostics panel shows.
#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace TelvaneWidgets {

/// A piece of transcript without its asterisks, and the span of it to show in red.
struct MarkedPiece
{
    QString text;            ///< the piece with every "*" removed
    qsizetype redStart = 0;  ///< where the red span starts in text
    qsizetype redLength = 0; ///< how long it is; 0 when nothing is marked
};

/// Script output is ASCII; any other byte is shown as U+FFFD, one character per byte, so that the output
/// is seen rather than dropped and its marking lines up with what is shown.
QString decodeOutput(const QByteArray &bytes);

/// Marks a piece of any text, translations included, as telvaneMarkTranscriptPiece marks ASCII.
MarkedPiece markPiece(const QString &piece);

} // namespace TelvaneWidgets
