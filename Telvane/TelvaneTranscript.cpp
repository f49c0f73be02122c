#include <Telvane/TelvaneTranscript.h>

#include <algorithm>

TelvaneTranscriptPiece telvaneMarkTranscriptPiece(std::string_view piece)
{
    TelvaneTranscriptPiece out;
    out.text.reserve(piece.size());
    for (const char c : piece)
        if (c != '*')
            out.text.push_back(c);

    // The first asterisk with a partner later on its own line opens the match; the line's last asterisk
    // closes it. Line feeds and carriage returns end a line.
    for (std::size_t open = piece.find('*'); open != std::string_view::npos; open = piece.find('*', open + 1)) {
        std::size_t lineEnd = piece.find_first_of("\n\r", open);
        if (lineEnd == std::string_view::npos)
            lineEnd = piece.size();
        const std::size_t close = piece.substr(0, lineEnd).rfind('*');
        if (close == open)
            continue;
        // The span is taken from the text with its asterisks: it may reach past the stripped text's end.
        const std::size_t start = std::min(open, out.text.size());
        out.redStart = start;
        out.redLength = std::min(close - open, out.text.size() - start);
        break;
    }
    return out;
}
