// Transcript marking: the asterisks go, the red span always lies inside the text, and for short pieces the
// span is the first greedy match of "\*.*\*", one shorter, clamped to the text.
#include "FuzzCheck.h"

#include <Telvane/TelvaneTranscript.h>

#include <algorithm>
#include <cstdint>
#include <regex>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string piece(reinterpret_cast<const char *>(data), size);
    const TelvaneTranscriptPiece marked = telvaneMarkTranscriptPiece(piece);

    std::string stripped = piece;
    stripped.erase(std::remove(stripped.begin(), stripped.end(), '*'), stripped.end());
    FUZZ_CHECK(marked.text == stripped);
    FUZZ_CHECK(marked.redStart <= marked.text.size());
    FUZZ_CHECK(marked.redLength <= marked.text.size() - marked.redStart);

    // std::regex recurses per character: only short pieces are compared with it.
    if (piece.size() <= 256) {
        std::smatch match;
        if (std::regex_search(piece, match, std::regex("\\*.*\\*"))) {
            const auto position = static_cast<std::size_t>(match.position(0));
            const auto length = static_cast<std::size_t>(match.length(0));
            const std::size_t start = std::min(position, stripped.size());
            FUZZ_CHECK(marked.redStart == start);
            FUZZ_CHECK(marked.redLength == std::min(length - 1, stripped.size() - start));
        } else {
            FUZZ_CHECK(marked.redLength == 0);
        }
    }
    return 0;
}
