#include <Telvane/Telvane.h>
#include <Telvane/TelvaneTranscript.h>

#include <algorithm>
#include <initializer_list>

TelvaneTranscriptPiece telvaneMarkTranscriptPiece(std::string_view piece)
{
    TelvaneTranscriptPiece out;
    out.text.reserve(piece.size());
    for (const char c : piece)
        if (c != '*')
            out.text.push_back(c);

    // The first asterisk with a partner later on its own line opens the match; the line's last asterisk
    // closes it. Line feeds and carriage returns end a line.
    for (std::size_t open = piece.find('*'); open != std::string_view::npos;
         open = piece.find('*', open + 1)) {
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

namespace {

/// Puts @p arguments in for the occurrences of @p placeholder in @p format, one after the other. An
/// argument that itself holds the placeholder is left as it is.
std::string fill(std::string_view format, std::string_view placeholder,
                 std::initializer_list<std::string_view> arguments)
{
    std::string out(format);
    std::size_t from = 0;
    for (const std::string_view argument : arguments) {
        const std::size_t at = out.find(placeholder, from);
        if (at == std::string::npos)
            break;
        out.replace(at, placeholder.size(), argument);
        from = at + argument.size();
    }
    return out;
}

} // namespace

namespace TelvaneTranscript {

const char *markerForError(long code)
{
    switch (code) {
    case TelvaneErrorConnection:
        return failedMarker;
    case TelvaneErrorNoCredentials:
        return canceledMarker;
    case TelvaneErrorAuthentication:
        return invalidCredentialsMarker;
    default:
        return nullptr;
    }
}

std::string wordsForError(long code)
{
    const char *marker = markerForError(code);
    if (!marker)
        return {};
    std::string words = telvaneMarkTranscriptPiece(marker).text;
    words.pop_back(); // the line end
    return words;
}

std::string connectingLine(std::string_view format, std::string_view host, long port)
{
    return fill(format, "%@", {host, std::to_string(port)});
}

std::string closingLine(long status, std::string_view completedText, std::string_view terminatedFormat)
{
    return status == 0 ? std::string(completedText) : fill(terminatedFormat, "%ld", {std::to_string(status)});
}

std::string ending(const TelvaneRunOutcome &outcome)
{
    switch (outcome.kind) {
    case TelvaneRunOutcome::Kind::Ended:
        return closingLine(outcome.status);
    case TelvaneRunOutcome::Kind::Failed: {
        // A failed run is reported as completed all the same; its marker says what failed.
        const char *marker = markerForError(outcome.failure.code);
        return (marker ? std::string(marker) : std::string()) + completed;
    }
    case TelvaneRunOutcome::Kind::Stopped:
        break;
    }
    return {};
}

} // namespace TelvaneTranscript
