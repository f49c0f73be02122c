#include "TranscriptFormat_p.h"

#include <Telvane/TelvaneTranscript.h>

#include <QtCore/QStringDecoder>
#include <QtCore/QStringList>
#include <QtGui/QFontDatabase>
#include <QtGui/QFontMetricsF>

#include <algorithm>
#include <string>

namespace {

// Measured rather than asked: QFontInfo::fixedPitch() reports fontconfig's spacing, which some monospaced
// fonts do not declare (Noto Sans Mono, fontconfig's first choice for "monospace" where it is installed).
bool columnsLineUp(const QFont &font)
{
    const QFontMetricsF metrics(font);
    return metrics.horizontalAdvance(QLatin1Char('i')) == metrics.horizontalAdvance(QLatin1Char('M'));
}

} // namespace

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

QFont transcriptFont()
{
    const QFont desktop = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    if (columnsLineUp(desktop))
        return desktop;
    // The desktop's choice is missing and stood in for by a proportional font. Families that call themselves
    // fixed-pitch are tried first; each is measured all the same, as the font that draws it may be another.
    QStringList families = QFontDatabase::families();
    std::stable_partition(families.begin(), families.end(),
                          [](const QString &family) { return QFontDatabase::isFixedPitch(family); });
    for (const QString &family : families) {
        QFont candidate = desktop;
        candidate.setFamilies({family});
        if (columnsLineUp(candidate))
            return candidate;
    }
    return desktop;
}

} // namespace TelvaneWidgets
