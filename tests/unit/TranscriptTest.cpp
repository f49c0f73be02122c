#include <Telvane/TelvaneTranscript.h>

#include <gtest/gtest.h>

TEST(Transcript, StripsAsterisksAndColoursTheFirstGreedyMatch)
{
    const struct
    {
        std::string piece, text;
        std::size_t redStart, redLength;
    } rows[] = {
        {"OK\n", "OK\n", 0, 0},
        // The marker and its line end are red: match of 8 at 0, shortened by one.
        {"*canceled*\n", "canceled\n", 0, 9},
        {"2*3=6\n", "23=6\n", 0, 0}, // one asterisk matches nothing but still goes
        // Two marked words: greedy from the first asterisk to the last; the span is measured with its
        // asterisks and overhangs the stripped text unless enough follows; here it is cut at the end.
        {"*a* and *b*\n", "a and b\n", 0, 8},
        {"*a* and *b* ok\n", "a and b ok\n", 0, 10},
        {"x*\n*bad*\n", "x\nbad\n", 3, 3}, // an asterisk on an earlier line shifts the span right by one
        // A match does not cross a line end, so asterisks on different lines pair with nothing.
        {"*a\nb*\n", "a\nb\n", 0, 0},
        {"*a\r*b\n", "a\rb\n", 0, 0},
        {"*x*", "x", 0, 1}, // the closing asterisk is the last character: the span is clamped
        {"**", "", 0, 0},
        {"", "", 0, 0},
    };
    for (const auto &row : rows) {
        const auto piece = telvaneMarkTranscriptPiece(row.piece);
        EXPECT_EQ(row.text, piece.text) << row.piece;
        EXPECT_EQ(row.redLength, piece.redLength) << row.piece;
        if (row.redLength)
            EXPECT_EQ(row.redStart, piece.redStart) << row.piece;
    }
}

// The words and format arguments that the renderers' code-to-marker rows never vary.
TEST(Transcript, WordsAndLinesOfGivenFormats)
{
    EXPECT_EQ("invalid credentials", TelvaneTranscript::wordsForError(3));
    EXPECT_EQ("", TelvaneTranscript::wordsForError(7));
    EXPECT_EQ("Fehler: 2", TelvaneTranscript::closingLine(2, "fertig", "Fehler: %ld"));
    EXPECT_EQ("Connecting over SSH to h%@ on port 22: ",
              TelvaneTranscript::connectingLine(TelvaneTranscript::connectingFormat, "h%@", 22));
}
