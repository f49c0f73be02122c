#include <Telvane/TelvaneTranscript.h>

#include <gtest/gtest.h>

namespace {
struct Row
{
    const char *name;
    std::string piece;
    std::string text;
    std::size_t redStart, redLength;
};

class TranscriptMarking : public ::testing::TestWithParam<Row>
{
};
} // namespace

TEST_P(TranscriptMarking, StripsAsterisksAndColoursTheFirstGreedyMatch)
{
    const Row &row = GetParam();
    const auto piece = telvaneMarkTranscriptPiece(row.piece);
    EXPECT_EQ(row.text, piece.text);
    EXPECT_EQ(row.redLength, piece.redLength);
    if (row.redLength) {
        EXPECT_EQ(row.redStart, piece.redStart);
    }
    EXPECT_LE(piece.redStart + piece.redLength, piece.text.size());
}

INSTANTIATE_TEST_SUITE_P(
    Pieces, TranscriptMarking,
    ::testing::Values(
        Row{"plain", "OK\n", "OK\n", 0, 0},
        // The marker and its line end are red: match of 8 at 0, shortened by one.
        Row{"marker", "*canceled*\n", "canceled\n", 0, 9}, Row{"failed", "*failed*\n", "failed\n", 0, 7},
        // One asterisk matches nothing but still goes.
        Row{"single", "2*3=6\n", "23=6\n", 0, 0},
        // Two marked words: greedy from the first asterisk to the last; the span is measured with its
        // asterisks and overhangs the stripped text unless enough follows; here it is cut at the end.
        Row{"two words", "*a* and *b*\n", "a and b\n", 0, 8},
        Row{"two words, room after", "*a* and *b* ok\n", "a and b ok\n", 0, 10},
        // An asterisk on an earlier line shifts the span right by one.
        Row{"earlier line", "x*\n*bad*\n", "x\nbad\n", 3, 3},
        // A match does not cross a line end, so asterisks on different lines pair with nothing.
        Row{"across lines", "*a\nb*\n", "a\nb\n", 0, 0}, Row{"carriage return", "*a\r*b\n", "a\rb\n", 0, 0},
        // The closing asterisk is the last character: the span is clamped instead of running past the end.
        Row{"closing at end", "*x*", "x", 0, 1}, Row{"only asterisks", "**", "", 0, 0},
        Row{"empty", "", "", 0, 0}),
    [](const ::testing::TestParamInfo<Row> &info) {
        std::string name = info.param.name;
        for (char &c : name)
            if (!isalnum(static_cast<unsigned char>(c)))
                c = '_';
        return name;
    });

// The shared words: the code-to-marker table, and the signed status in the closing line.
TEST(TranscriptVocabulary, MarkersAndClosingLines)
{
    const struct
    {
        long code;
        const char *marker;
        std::string words;
    } codes[] = {{1, "*failed*\n", "failed"},
                 {2, "*canceled*\n", "canceled"},
                 {3, "*invalid credentials*\n", "invalid credentials"},
                 {7, nullptr, ""}};
    for (const auto &row : codes) {
        const char *marker = TelvaneTranscript::markerForError(row.code);
        EXPECT_EQ(row.marker ? std::string(row.marker) : "", marker ? std::string(marker) : "") << row.code;
        EXPECT_EQ(row.words, TelvaneTranscript::wordsForError(row.code)) << row.code;
    }
    EXPECT_EQ("Diagnostics completed.", TelvaneTranscript::closingLine(0));
    EXPECT_EQ("Diagnostics terminated with error: -1", TelvaneTranscript::closingLine(-1));
    EXPECT_EQ("Fehler: 2", TelvaneTranscript::closingLine(2, "fertig", "Fehler: %ld"));
    EXPECT_EQ("Connecting over SSH to h%@ on port 22: ",
              TelvaneTranscript::connectingLine(TelvaneTranscript::connectingFormat, "h%@", 22));
}
