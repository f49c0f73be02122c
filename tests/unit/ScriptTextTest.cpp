#include "ScriptText_p.h"
#include "support/TestEnvironment.h"

#include <cerrno>

using telvane::isSendableText;
using telvane::normaliseScript;
using telvane::substitutePlaceholders;

TEST(Substitution, VisitsArgumentsInOrderReplacesEveryOccurrenceAndLeavesUnknownKeys)
{
    // A's value holds B's placeholder: replaced when B comes later, kept when B was visited before.
    EXPECT_EQ("x=one-two", substitutePlaceholders("x=__A__", {{"A", "one-__B__"}, {"B", "two"}}));
    EXPECT_EQ("x=one-__B__", substitutePlaceholders("x=__A__", {{"B", "two"}, {"A", "one-__B__"}}));
    EXPECT_EQ("ping h; ping h; __OTHER__",
              substitutePlaceholders("ping __HOST__; ping __HOST__; __OTHER__", {{"HOST", "h"}}));
    EXPECT_EQ("__K__!", substitutePlaceholders("__K__", {{"K", "__K__!"}})); // does not loop
    EXPECT_EQ("a=b", substitutePlaceholders("a=____", {{"", "b"}}));
}

TEST(Normalisation, DropsLinesWithANumberSignFoldsLineFeedsAndPutsThePasswordInLast)
{
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"#!/bin/sh\necho hi\n", "", "\necho hi\n"},
        // A trailing comment takes its command with it; so does any other use of "#".
        {"echo x # note\na\necho ${#v}\n", "", "\na\n"},
        // Comments only: at most one line break is left, and that is still a script to send.
        {"# one\n# two\n\n# three\n", "", "\n"},
        {"# no line end", "", ""},
        {"\n\na\n\n\n\nb", "", "\na\nb"},
        {"a\n \n\t\nb", "", "a\n \n\t\nb"},
        // A carriage return ends a line for the "#" rule, and is neither removed nor folded.
        {"a\r\n# c\r\nb\r\n", "", "a\r\n\r\nb\r\n"},
        {"echo __PASSWORD__ | sudo -S true\n", "p#ss", "echo p#ss | sudo -S true\n"},
        {"echo __PASSWORD__ # sudo\n", "secret", "\n"}, // the placeholder goes with its line
        {"x=__PASSWORD__\n", "", "x=\n"},
    };
    for (const auto &[script, password, expected] : rows)
        EXPECT_EQ(expected, normaliseScript(script, password)) << ::testing::PrintToString(script);
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

TEST(Log, SinkReceivesFormattedLinesAndPerrorText)
{
    telvane::test::LogCapture log;
    telvaneLog("libssh2_channel_read failed(): %d\n", -7);
    errno = ECONNREFUSED;
    telvanePerror("socket");
    EXPECT_EQ((std::vector<std::string>{"libssh2_channel_read failed(): -7\n", "socket: Connection refused"}),
              log.lines());
    EXPECT_EQ(ECONNREFUSED, errno);
}
