#pragma once

#include <Telvane/TelvaneExport.h>

#include <cstddef>
#include <string>
#include <string_view>

/// One piece of diagnostics transcript, ready to show: the text without its asterisks, and the span of it
/// to show in red.
struct TelvaneTranscriptPiece
{
    std::string text;          ///< the piece with every "*" removed
    std::size_t redStart = 0;  ///< where the red span starts in text
    std::size_t redLength = 0; ///< how long it is; 0 when nothing is marked
};

/// Marks a piece of transcript: a span between asterisks is shown in red and the asterisks go. The span is
/// the first greedy match of an asterisk, anything on the same line, and an asterisk, measured on the piece
/// as given and one shorter than the match (so "*failed*\n" colours "failed\n"), then kept within the text.
/// Pieces are marked one by one: a span split across two pieces is not coloured.
TELVANE_EXPORT TelvaneTranscriptPiece telvaneMarkTranscriptPiece(std::string_view piece);

/// The words of a diagnostics transcript, shared by every host that writes one. Each text is English and
/// stays so in every language (the diagnostics panel translates its label only); "%@" and "%ld" are filled
/// in by the functions below.
namespace TelvaneTranscript {
/// Opens the transcript; OK or a failure marker completes the line.
inline constexpr const char *connectingFormat = "Connecting over SSH to %@ on port %@: ";
/// Completes the connecting line once the script has started.
inline constexpr const char *ok = "OK\n";
/// Closes a run that ended with status 0, and every failed run.
inline constexpr const char *completed = "Diagnostics completed.";
/// Closes a run that ended with another status.
inline constexpr const char *terminatedWithErrorFormat = "Diagnostics terminated with error: %ld";
/// The marker of TelvaneErrorConnection.
inline constexpr const char *failedMarker = "*failed*\n";
/// The marker of TelvaneErrorNoCredentials.
inline constexpr const char *canceledMarker = "*canceled*\n";
/// The marker of TelvaneErrorAuthentication.
inline constexpr const char *invalidCredentialsMarker = "*invalid credentials*\n";

/// The marker that completes the connecting line for a failure @p code; nullptr for a code without one.
TELVANE_EXPORT const char *markerForError(long code);
/// The words of @p code's marker, without asterisks and line end ("invalid credentials"); empty for a code
/// without one.
TELVANE_EXPORT std::string wordsForError(long code);
/// @p format (connectingFormat) with its two "%@" filled by @p host and @p port.
TELVANE_EXPORT std::string connectingLine(std::string_view format, std::string_view host, long port);
/// The closing line for a run that ended with @p status: @p completedText for 0, otherwise
/// @p terminatedFormat with its "%ld" filled by the signed status. Without a line end.
TELVANE_EXPORT std::string closingLine(long status, std::string_view completedText = completed,
                                       std::string_view terminatedFormat = terminatedWithErrorFormat);
} // namespace TelvaneTranscript
