// Script files and transcript text as the diagnostics panel uses them.
#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtGui/QFont>

#include <optional>

namespace TelvaneWidgets {

/// A piece of transcript without its asterisks, and the span of it to show in red.
struct MarkedPiece
{
    QString text;            ///< the piece with every "*" removed
    qsizetype redStart = 0;  ///< where the red span starts in text
    qsizetype redLength = 0; ///< how long it is; 0 when nothing is marked
};

/// The text of a script file: nothing when it is not valid UTF-8 or holds a NUL byte, which is never sent.
std::optional<QString> scriptText(const QByteArray &bytes);

/// Marks a piece of any text (script output is UTF-8), as telvaneMarkTranscriptPiece marks ASCII.
MarkedPiece markPiece(const QString &piece);

/// The font of the transcript: the desktop's fixed-width font when its columns line up, else the first family
/// installed whose columns do, so that script output laid out in columns stays so on any set of fonts.
QFont transcriptFont();

} // namespace TelvaneWidgets
