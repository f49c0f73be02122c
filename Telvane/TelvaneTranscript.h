#pragma once

#include <Telvane/TelvaneExport.h>

#include <cstddef>
#include <string>
#include <string_view>

/// One piece of diagnostics transcript, ready to show: the text without its asterisks, and the span of it
/// to show in red.
struct TelvaneTranscriptPiece {
    std::string text;          ///< the piece with every "*" removed
    std::size_t redStart = 0;  ///< where the red span starts in text
    std::size_t redLength = 0; ///< how long it is; 0 when nothing is marked
};

/// Marks a piece of transcript: a span between asterisks is shown in red and the asterisks go. The span is
/// the first greedy match of an asterisk, anything on the same line, and an asterisk, measured on the piece
/// as given and one shorter than the match (so "*failed*\n" colours "failed\n"), then kept within the text.
/// Pieces are marked one by one: a span split across two pieces is not coloured.
TELVANE_EXPORT TelvaneTranscriptPiece telvaneMarkTranscriptPiece(std::string_view piece);
