// Where a run's credentials come from, what the server's answer does to the keyring, and what is never sent.
#include "Platform/SshLibrary_p.h"
#include "support/SshdFixture.h"

using namespace telvane::test;
using Event = RecordingDelegate::Event;

namespace {
struct Answer
{
    const char *name;
    std::optional<TelvaneCredentialsDictionary> answer; // "$" stands for the account's username or password
    bool persist;
    std::optional<long> code; // none: the script runs
    const char *logged;       // part of the log, "" for none at all
    bool sent;                // the server saw a login with the pair
};
using Credentials = WithRows<SensorRunTest, Answer>;
} // namespace

// The delegate's pair is kept only when it asked for that and the server accepted it; no credentials end the
// run with code 2 and not a line; a half that is not UTF-8 is refused with code 3 before anything is sent.
TEST_P(Credentials, FromTheDelegateAreKeptOnlyWhenAskedAndAccepted)
{
    const Answer &row = GetParam();
    delegate->answer = row.answer;
    if (row.answer)
        for (auto [half, own] : {std::pair{&delegate->answer->username, sshd().username()},
                                 std::pair{&delegate->answer->password, sshd().password()}})
            if (const auto at = half->find('$'); at != std::string::npos)
                half->replace(at, 1, own);
    delegate->answerPersist = row.persist;
    auto sensor = makeSensor();
    ASSERT_TRUE(runToEnd(*sensor, "echo ok"));
    EXPECT_EQ(1, delegate->count(Event::AskedCredentials));
    EXPECT_EQ(row.code, delegate->failureCode()) << log.joined();
    EXPECT_EQ(row.code ? "" : "ok\n", delegate->output());
    const auto stored =
        TelvaneKeychain::passwordForService(sensor->serviceNameForSensor(), sshd().username());
    EXPECT_EQ(row.persist && !row.code ? std::optional(sshd().password()) : std::nullopt, stored);
    EXPECT_TRUE(*row.logged ? log.contains(row.logged) : log.lines().empty()) << log.joined();
    EXPECT_EQ(0, telvane::sshLibraryReferences());
    const std::string daemon = sshd().log(logStart_);
    EXPECT_EQ(row.sent, daemon.find(" password for ") != std::string::npos) << daemon;
}

INSTANTIATE_TEST_SUITE_P(
    Answers, Credentials,
    ::testing::Values(Answer{"Kept", TelvaneCredentialsDictionary{"$", "$"}, true, {}, "", true},
                      Answer{"NotAskedToKeep", TelvaneCredentialsDictionary{"$", "$"}, false, {}, "", true},
                      Answer{"RefusedNeverKept", TelvaneCredentialsDictionary{"$", "not-$"}, true, 3,
                             "libssh2_userauth_password()) failed.", true},
                      Answer{"None", std::nullopt, true, 2, "", false},
                      Answer{"UsernameNotUtf8", TelvaneCredentialsDictionary{"t\xe9st", "$"}, true, 3,
                             "is not valid UTF-8 text; it was not sent", false},
                      Answer{"PasswordNotUtf8", TelvaneCredentialsDictionary{"$", "$\xe9"}, true, 3,
                             "is not valid UTF-8 text; it was not sent", false}),
    [](const auto &info) { return std::string(info.param.name); });
