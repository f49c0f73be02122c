// Servers as they are in the field: dropbear, an sshd whose PAM asks for a one-time code after the password,
// and an sshd that takes public keys only.
#include "support/Process.h"
#include "support/SshdFixture.h"

#include <Telvane/TelvaneCredentials.h>

#include <cstdlib>
#include <filesystem>

using namespace telvane::test;
using Event = RecordingDelegate::Event;
using Server = SshdHarness::Server;

namespace {
using Dropbear = SensorRunTestOn<Server::Dropbear>;
} // namespace

// dropbear takes no exec request over 9000 bytes: longer scripts travel on standard input, and their end
// (a status, a signal) is still their own.
TEST_F(Dropbear, ScriptsOfEverySizeRunByteForByte)
{
    for (const auto &[size, end, status] :
         {std::tuple{20 * 1024, "exit 7", 7}, {300 * 1024, "kill -KILL $$", 137}}) {
        freshDelegate();
        std::string script, expected;
        for (long line = 1; script.size() < static_cast<std::size_t>(size); ++line) {
            script += "echo " + std::to_string(line) + " 'it'\\''s'\n";
            expected += std::to_string(line) + " it's\n";
        }
        ASSERT_TRUE(runToEnd(*makeSensor(), script + end)) << size;
        EXPECT_EQ(std::optional<long>(status), delegate->terminationStatus()) << log.joined() << sshd().log();
        EXPECT_EQ(status == 137, log.contains("killed by signal KILL")) << "not told as the script's signal";
        EXPECT_TRUE(expected == delegate->output()) << size << ": " << delegate->output().substr(0, 200);
    }
}

// dropbear signals the login shell alone; the script's children must end with it, whichever way it came.
TEST_F(Dropbear, AStopLeavesNothingOfTheScriptRunning)
{
    const auto sleeping = [] {
        return runProcess({"/usr/bin/pgrep", "-u", SshdHarness::kAccount, "-f", "^sleep 47$"}).status == 0;
    };
    for (const std::string &start : {std::string(), ": " + std::string(9000, 'p') + "\n"}) {
        freshDelegate();
        delegate->drainOutput = false;
        auto sensor = makeSensor();
        sensor->runScript(start + "sleep 47 &\nsleep 47\n", std::nullopt);
        ASSERT_EQ(1, delegate->count(Event::Started)) << log.joined();
        ASSERT_TRUE(waitUntil(sleeping)) << "the script never started its sleeps";
        sensor->stopScript();
        EXPECT_TRUE(waitUntil([&] { return !sleeping(); })) << "a sleep of the script runs on";
    }
}

namespace {
struct FactorCase
{
    const char *name;
    bool rightPassword;
    enum Answer { Code, WrongCode, Nobody } answer;
    std::string reason; // empty: the script runs
    bool pairKept;
};
using SecondFactor = WithRows<SensorRunTestOn<Server::OneTimeCode>, FactorCase>;
} // namespace

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
    EXPECT_EQ(row.pairKept, TelvaneCredentials::storedCredentials(sensor->hostname()).has_value());
    const std::vector<std::string> codePrompt{"One-time password (OATH) for `telvane-test': "};
    EXPECT_EQ(row.rightPassword ? codePrompt : std::vector<std::string>(), delegate->promptsAsked())
        << log.joined() << sshd().log(logStart_);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, SecondFactor,
    ::testing::Values(
        FactorCase{"TheDelegateGivesTheCode", true, FactorCase::Code, "", true},
        FactorCase{"NobodyAnswers", true, FactorCase::Nobody,
                   "asked \"One-time password (OATH) for `telvane-test':\" at the login, and nobody answered",
                   true},
        FactorCase{"AWrongCode", true, FactorCase::WrongCode,
                   "refused the answer to \"One-time password (OATH) for `telvane-test':\"", true},
        FactorCase{"AWrongPassword", false, FactorCase::Code, "refused the username or password", false}),
    [](const auto &info) { return std::string(info.param.name); });

namespace {
using KeyLogin = WithRows<SensorRunTestOn<Server::PublicKey>, std::string>;
} // namespace

// A login by key asks for no password, only for an encrypted key's passphrase.
TEST_P(KeyLogin, LogsInWithoutAPassword)
{
    const std::string &way = GetParam();
    ::unsetenv("SSH_AUTH_SOCK");
    auto sensor = makeSensor();
    // The username comes from the preset pair, or from the stored one (whose password is never tried).
    const TelvaneCredentialsDictionary unusable{sshd().username(), "not-" + sshd().password()};
    if (way == "File")
        TelvaneCredentials::credentialsAccepted(sensor->hostname(), unusable, true);
    else
        sensor->setPresetCredentials(TelvaneCredentialsDictionary{sshd().username(), ""});
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
