// Where a run's credentials come from (the delegate's pair, a stored pair with a one-time code, keys), what
// the server's answer does to the keyring, and what is never sent.
#include "Platform/SshLibrary_p.h"
#include "support/SshdFixture.h"

#include <Telvane/TelvaneCredentials.h>

#include <cstdlib>
#include <filesystem>

using namespace telvane::test;
using Event = RecordingDelegate::Event;
using Server = SshdHarness::Server;
using Pair = TelvaneCredentialsDictionary;

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
struct FactorCase
{
    const char *name;
    bool rightPassword;
    enum Answer { Code, WrongCode, Nobody } answer;
    std::string reason; // empty: the script runs
};
using SecondFactor = WithRows<SensorRunTestOn<Server::OneTimeCode>, FactorCase>;
using KeyLogin = WithRows<SensorRunTestOn<Server::PublicKey>, std::string>;
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

INSTANTIATE_TEST_SUITE_P(Answers, Credentials,
                         ::testing::Values(Answer{"Kept", Pair{"$", "$"}, true, {}, "", true},
                                           Answer{"NotAskedToKeep", Pair{"$", "$"}, false, {}, "", true},
                                           Answer{"RefusedNeverKept", Pair{"$", "not-$"}, true, 3,
                                                  "libssh2_userauth_password()) failed.", true},
                                           Answer{"None", std::nullopt, true, 2, "", false},
                                           Answer{"UsernameNotUtf8", Pair{"t\xe9st", "$"}, true, 3,
                                                  "is not valid UTF-8 text; it was not sent", false},
                                           Answer{"PasswordNotUtf8", Pair{"$", "$\xe9"}, true, 3,
                                                  "is not valid UTF-8 text; it was not sent", false}),
                         [](const auto &info) { return std::string(info.param.name); });

// The stored password answers its own prompt, the delegate the code's. The pair goes only when the password
// itself was refused.
TEST_P(SecondFactor, ThePasswordAnswersItsPromptAndTheDelegateTheCode)
{
    const FactorCase &row = GetParam();
    auto sensor = makeSensor();
    const std::string password = row.rightPassword ? sshd().password() : "not-" + sshd().password();
    TelvaneCredentials::credentialsAccepted(sensor->hostname(), {sshd().username(), password}, true);
    if (row.answer != FactorCase::Nobody)
        delegate->answerQuestion = [&](const TelvaneLoginQuestion &question) {
            return std::vector<std::string>(question.prompts.size(),
                                            row.answer == FactorCase::Code ? sshd().oneTimeCode() : "000000");
        };
    ASSERT_TRUE(runToEnd(*sensor, "echo in"));
    EXPECT_EQ(0, delegate->count(Event::AskedCredentials));
    const TelvaneFailure failure = delegate->outcomes().at(0).failure;
    EXPECT_EQ(row.reason.empty() ? 0 : TelvaneErrorAuthentication, failure.code) << log.joined();
    EXPECT_NE(std::string::npos, failure.reason.find(row.reason)) << failure.reason;
    EXPECT_EQ(row.reason.empty() ? "in\n" : "", delegate->output()) << log.joined() << sshd().log(logStart_);
    EXPECT_EQ(row.rightPassword, TelvaneCredentials::storedCredentials(sensor->hostname()).has_value());
    const std::vector<std::string> codePrompt{"One-time password (OATH) for `telvane-test': "};
    EXPECT_EQ(row.rightPassword ? codePrompt : std::vector<std::string>(), delegate->promptsAsked())
        << log.joined() << sshd().log(logStart_);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, SecondFactor,
    ::testing::Values(
        FactorCase{"TheDelegateGivesTheCode", true, FactorCase::Code, ""},
        FactorCase{
            "NobodyAnswers", true, FactorCase::Nobody,
            "asked \"One-time password (OATH) for `telvane-test':\" at the login, and nobody answered"},
        FactorCase{"AWrongCode", true, FactorCase::WrongCode,
                   "refused the answer to \"One-time password (OATH) for `telvane-test':\""},
        FactorCase{"AWrongPassword", false, FactorCase::Code, "refused the username or password"}),
    [](const auto &info) { return std::string(info.param.name); });

// A login by key asks for no password, only for an encrypted key's passphrase.
TEST_P(KeyLogin, LogsInWithoutAPassword)
{
    const std::string &way = GetParam();
    ::unsetenv("SSH_AUTH_SOCK");
    auto sensor = makeSensor();
    // The username comes from the preset pair, or from the stored one (whose password is never tried).
    if (way == "File")
        TelvaneCredentials::credentialsAccepted(sensor->hostname(), {sshd().username(), "not-it"}, true);
    else
        sensor->setPresetCredentials(Pair{sshd().username(), ""});
    sensor->setPublicKeyAuthentication(way != "KeysOff");
    const std::string key = sshd().makeClientKey("key", way == "EncryptedFile" ? "open sesame" : "");
    ASSERT_FALSE(key.empty());
    if (way == "Agent") {
        const std::string agent = sshd().startAgent(key);
        TELVANE_REQUIRE_COMPONENT(!agent.empty(), "ssh-agent or ssh-add failed");
        ::setenv("SSH_AUTH_SOCK", agent.c_str(), 1);
    }
    // The second of ssh's default identity files, in the process's own HOME; gone before any other test.
    const auto defaultKey = std::filesystem::path(std::getenv("HOME")) / ".ssh/id_ecdsa";
    if (way == "DefaultFile") {
        std::filesystem::create_directories(defaultKey.parent_path());
        std::filesystem::copy_file(key, defaultKey, std::filesystem::copy_options::overwrite_existing);
    }
    if (way == "File" || way == "EncryptedFile" || way == "KeysOff")
        sensor->setIdentityFiles({key});
    delegate->answerQuestion = [](const TelvaneLoginQuestion &) {
        return std::vector<std::string>{"open sesame"};
    };
    const bool ended = runToEnd(*sensor, "echo in");
    ::unsetenv("SSH_AUTH_SOCK");
    std::filesystem::remove(defaultKey);
    ASSERT_TRUE(ended);
    EXPECT_EQ(0, delegate->count(Event::AskedCredentials));
    const TelvaneFailure failure = delegate->outcomes().at(0).failure;
    EXPECT_EQ(way == "KeysOff" ? TelvaneErrorAuthentication : 0, failure.code) << failure.reason;
    EXPECT_NE(std::string::npos,
              failure.reason.find(way == "KeysOff" ? "takes only public-key logins, and they are off" : ""));
    EXPECT_EQ(way == "KeysOff" ? "" : "in\n", delegate->output()) << log.joined() << sshd().log(logStart_);
    EXPECT_EQ(way == "File", TelvaneCredentials::storedCredentials(sensor->hostname()).has_value());
    const std::vector<std::string> passphrase{"Enter passphrase for key '" + key + "': "};
    EXPECT_EQ(way == "EncryptedFile" ? passphrase : std::vector<std::string>(), delegate->promptsAsked());
}

INSTANTIATE_TEST_SUITE_P(Ways, KeyLogin,
                         ::testing::Values("Agent", "File", "EncryptedFile", "DefaultFile", "KeysOff"),
                         [](const auto &info) { return info.param; });
