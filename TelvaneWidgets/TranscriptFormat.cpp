#include "TranscriptFormat_p.h"

#include <Telvane/TelvaneTranscript.h>

#include <QtCore/QStringDecoder>

#include <string>

namespace TelvaneWidgets {

std::optional<QString> scriptText(const QByteArray &bytes)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder(bytes);
    if (decoder.hasError() || bytes.contains('\0'))
        return std::nullopt;
    return text;
}

// The marking works on a stand-in of the piece with one ASCII character per UTF-16 unit, so that its
// positions are those of the piece.
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

} // namespace TelvaneWidgets
