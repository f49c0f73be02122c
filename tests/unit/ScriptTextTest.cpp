// Text rules without a model in fuzz/ (whose fuzzers, run by scripts/test, hold normalisation, substitution
// and the transcript's red span to models of their rules).
#include "LoginPrompts_p.h"
#include "ScriptText_p.h"
#include "support/TestEnvironment.h"

#include <Telvane/TelvaneTranscript.h>

#include <cerrno>

using telvane::isSendableText;

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

// The password answers a hidden prompt that asks for it and for nothing else; the rest goes to the delegate.
TEST(LoginPrompts, OnlyAPlainPasswordQuestionGetsThePassword)
{
    const std::tuple<const char *, bool, bool> rows[] = {
        {"Password: ", false, true},
        {"password:", false, true},
        {"alice@sensor's password: ", false, true},
        {"Password for alice@sensor:", false, true},
        {"Enter your password:\n", false, true},
        {"Password: ", true, false}, // it would show what is typed
        {"One-time password (OATH) for `alice': ", false, false},
        {"New password: ", false, false},
        {"Verification code: ", false, false},
        {"Password and code: ", false, false},
    };
    for (const auto &[prompt, echo, password] : rows)
        EXPECT_EQ(password, telvane::asksForThePassword(prompt, echo)) << prompt;
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

// The words and format arguments that the renderers' code-to-marker rows never vary.
TEST(Transcript, WordsAndLinesOfGivenFormats)
{
    EXPECT_EQ("invalid credentials", TelvaneTranscript::wordsForError(3));
    EXPECT_EQ("", TelvaneTranscript::wordsForError(7));
    EXPECT_EQ("Fehler: 2", TelvaneTranscript::closingLine(2, "fertig", "Fehler: %ld"));
    EXPECT_EQ("Connecting over SSH to h%@ on port 22: ",
              TelvaneTranscript::connectingLine(TelvaneTranscript::connectingFormat, "h%@", 22));
}
