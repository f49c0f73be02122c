#include "ScriptText_p.h"

#include <gtest/gtest.h>

using telvane::isSendableText;
using telvane::normaliseScript;
using telvane::substitutePlaceholders;

TEST(Substitution, VisitsArgumentsInOrderSoLaterPlaceholdersInValuesAreReplaced)
{
    // A's value holds B's placeholder: B comes later, so it is replaced too.
    EXPECT_EQ("x=one-two", substitutePlaceholders("x=__A__", {{"A", "one-__B__"}, {"B", "two"}}));
    // The other order: B was visited before A brought its placeholder in, so it stays.
    EXPECT_EQ("x=one-__B__", substitutePlaceholders("x=__A__", {{"B", "two"}, {"A", "one-__B__"}}));
}

TEST(Substitution, ReplacesEveryOccurrenceAndLeavesUnknownKeys)
{
    EXPECT_EQ("ping h; ping h; __OTHER__",
              substitutePlaceholders("ping __HOST__; ping __HOST__; __OTHER__", {{"HOST", "h"}}));
    EXPECT_EQ("__HOST__", substitutePlaceholders("__HOST__", {}));
    // A value holding its own placeholder does not loop.
    EXPECT_EQ("__K__!", substitutePlaceholders("__K__", {{"K", "__K__!"}}));
    // Non-ASCII text survives substitution untouched; whether it can be sent is decided at launch.
    EXPECT_EQ("echo Grüße", substitutePlaceholders("echo __G__", {{"G", "Grüße"}}));
    // An empty key makes the placeholder "____", an ordinary text.
    EXPECT_EQ("a=b", substitutePlaceholders("a=____", {{"", "b"}}));
}

TEST(Normalisation, DropsEveryLineWithANumberSignKeepingItsBreak)
{
    EXPECT_EQ("\necho hi\n", normaliseScript("#!/bin/sh\necho hi\n", ""));
    // A trailing comment takes its command with it; so does any other use of "#".
    EXPECT_EQ("\na\n", normaliseScript("echo x # note\na\necho ${#v}\n", ""));
    // Comments only: at most one line break is left, and that is still a script to send.
    EXPECT_EQ("\n", normaliseScript("# one\n# two\n\n# three\n", ""));
    EXPECT_EQ("", normaliseScript("# no line end", ""));
}

TEST(Normalisation, FoldsRunsOfLineFeedsButKeepsBlankishLines)
{
    EXPECT_EQ("a\nb", normaliseScript("a\n\n\n\nb", ""));
    EXPECT_EQ("\na\n", normaliseScript("\n\na\n\n", ""));
    EXPECT_EQ("a\n \n\t\nb", normaliseScript("a\n \n\t\nb", ""));
    // A carriage return ends a line for the "#" rule, and is neither removed nor folded.
    EXPECT_EQ("a\r\n\r\nb\r\n", normaliseScript("a\r\n# c\r\nb\r\n", ""));
}

TEST(Normalisation, PutsThePasswordInLastSoItsNumberSignSurvives)
{
    EXPECT_EQ("echo p#ss | sudo -S true\n", normaliseScript("echo __PASSWORD__ | sudo -S true\n", "p#ss"));
    // On a line with a "#" the placeholder goes with the line.
    EXPECT_EQ("\n", normaliseScript("echo __PASSWORD__ # sudo\n", "secret"));
    EXPECT_EQ("x=\n", normaliseScript("x=__PASSWORD__\n", ""));
}

TEST(Normalisation, SendableTextIsValidUtf8WithoutNul)
{
    const std::pair<std::string, bool> rows[] = {
        {"echo \x7f ok\t\r\n", true},
        {"", true},
        {"echo Grüße € \xf0\x9f\x8c\xa1", true}, // two, three and four bytes
        {"\xef\xbf\xbf\xf4\x8f\xbf\xbf", true},  // U+FFFF, U+10FFFF
        {std::string("a\0b", 3), false},
        {"caf\xe9", false},          // Latin-1
        {"\xc3", false},             // cut short
        {"\xc0\xaf", false},         // overlong "/"
        {"\xe0\x80\xaf", false},     // overlong, three bytes
        {"\xed\xa0\x80", false},     // a UTF-16 surrogate
        {"\xf4\x90\x80\x80", false}, // past U+10FFFF
        {"\xc3\x28", false},         // a lead byte without its continuation
    };
    for (const auto &[text, valid] : rows)
        EXPECT_EQ(valid, isSendableText(text)) << ::testing::PrintToString(text);
}
