// Host keys against known-hosts files shared with OpenSSH, keyboard-interactive logins through PAM, and
// UTF-8 credentials as the server receives them.
#include "SensorRun.h"
#include "support/FaultServer.h"
#include "support/Process.h"

#include <filesystem>
#include <fstream>
#include <sstream>

using namespace telvane::test;

namespace {

// A key that no harness ever has.
constexpr const char *kStrangerKey =
    "ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIL98rV3YlPQ7pBBYFvr4PWI8gs5M7zXeSgbjOPz+RB3d";

std::string readFile(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

enum class Known { Nothing, RightKey, OtherKey };

struct PolicyCase
{
    const char *name;
    TelvaneHostKeyPolicy policy;
    Known known;
    std::optional<bool> delegateAnswer; // nothing: the delegate keeps the policy's answer
    bool runs;
    friend void PrintTo(const PolicyCase &c, std::ostream *os) { *os << c.name; }
};

// The recording delegate, answering about host keys as the row says.
class KeyDelegate : public RecordingDelegate
{
public:
    std::optional<bool> keyAnswer;
    std::vector<TelvaneHostKey> asked;
    bool shouldTrustHostKey(Telvane &, const TelvaneHostKey &key, bool policyAnswer) override
    {
        asked.push_back(key);
        return keyAnswer.value_or(policyAnswer);
    }
};

class HostKeys : public SensorRunTest, public ::testing::WithParamInterface<PolicyCase>
{
protected:
    std::string knownHosts() const
    {
        return sshd().writeFile("known_hosts_" + std::to_string(::getpid()), "");
    }
    std::string entryName() const { return "[" + sshd().host() + "]:" + std::to_string(sshd().port()); }

    // Runs `true` with @p policy against @p file; true when the script ran.
    bool runWith(const std::shared_ptr<KeyDelegate> &keys, TelvaneHostKeyPolicy policy,
                 const std::string &file)
    {
        delegate = keys;
        auto sensor = makeSensor();
        sensor->setHostKeyPolicy(policy);
        sensor->setKnownHostsFile(file);
        EXPECT_TRUE(runToEnd(*sensor, "true"));
        return delegate->terminationStatus() == 0;
    }
};

} // namespace

TEST_P(HostKeys, FollowThePolicyAndTheDelegate)
{
    const auto &row = GetParam();
    const std::string file = knownHosts();
    auto keys = std::make_shared<KeyDelegate>();
    keys->answer = accountDelegate()->answer;
    if (row.known == Known::RightKey)
        ASSERT_TRUE(runWith(keys, TelvaneHostKeyPolicy::AcceptNew, file)) << log.joined();
    if (row.known == Known::OtherKey)
        std::ofstream(file) << "# an older key\n" << entryName() << " " << kStrangerKey << "\n";
    const std::string before = readFile(file);

    auto asking = std::make_shared<KeyDelegate>();
    asking->answer = accountDelegate()->answer;
    asking->keyAnswer = row.delegateAnswer;
    delegate = asking;
    auto sensor = makeSensor();
    sensor->setHostKeyPolicy(row.policy);
    sensor->setKnownHostsFile(file);
    ASSERT_TRUE(runToEnd(*sensor, "true"));

    EXPECT_EQ(row.runs, delegate->terminationStatus() == 0) << log.joined();
    if (!row.runs)
        EXPECT_EQ(1, delegate->failureCode());
    const bool asked = row.policy != TelvaneHostKeyPolicy::AcceptAny && row.known != Known::RightKey;
    ASSERT_EQ(asked ? 1u : 0u, asking->asked.size());
    if (asked) {
        EXPECT_EQ(entryName(), asking->asked[0].host);
        EXPECT_EQ(0u, asking->asked[0].fingerprint.rfind("SHA256:", 0));
        EXPECT_EQ(row.known == Known::OtherKey, asking->asked[0].changed);
    }
    // Only an accepted first key is written down.
    const bool added = row.runs && asked && row.known == Known::Nothing;
    EXPECT_EQ(added, readFile(file) != before) << readFile(file);
    if (row.known == Known::OtherKey && !row.runs) {
        EXPECT_TRUE(log.contains("Offending key in " + file + ":2")) << log.joined();
        EXPECT_TRUE(log.contains(asking->asked[0].fingerprint)) << log.joined();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Policies, HostKeys,
    ::testing::Values(
        PolicyCase{"AcceptNewAddsAFirstKey", TelvaneHostKeyPolicy::AcceptNew, Known::Nothing, {}, true},
        PolicyCase{"AcceptNewTakesAKnownKey", TelvaneHostKeyPolicy::AcceptNew, Known::RightKey, {}, true},
        PolicyCase{
            "AcceptNewRefusesAChangedKey", TelvaneHostKeyPolicy::AcceptNew, Known::OtherKey, {}, false},
        PolicyCase{"StrictRefusesAnUnknownKey", TelvaneHostKeyPolicy::Strict, Known::Nothing, {}, false},
        PolicyCase{"StrictTakesAKnownKey", TelvaneHostKeyPolicy::Strict, Known::RightKey, {}, true},
        PolicyCase{"StrictWithTheDelegatesYesAddsAKey", TelvaneHostKeyPolicy::Strict, Known::Nothing, true,
                   true},
        PolicyCase{"TheDelegateRefusesAFirstKey", TelvaneHostKeyPolicy::AcceptNew, Known::Nothing, false,
                   false},
        PolicyCase{
            "AcceptAnyIgnoresAChangedKey", TelvaneHostKeyPolicy::AcceptAny, Known::OtherKey, {}, true}),
    [](const auto &info) { return std::string(info.param.name); });

TEST_F(HostKeys, AFirstContactIsTrustedByOpenSsh)
{
    const std::string file = knownHosts();
    auto keys = std::make_shared<KeyDelegate>();
    keys->answer = accountDelegate()->answer;
    ASSERT_TRUE(runWith(keys, TelvaneHostKeyPolicy::AcceptNew, file)) << log.joined();
    // With BatchMode ssh cannot log in; what matters is that the host key is not why.
    const auto ssh =
        runProcess({"/usr/bin/ssh", "-o", "StrictHostKeyChecking=yes", "-o", "UserKnownHostsFile=" + file,
                    "-o", "BatchMode=yes", "-p", std::to_string(sshd().port()),
                    std::string(sshd().username()) + "@" + sshd().host(), "true"},
                   {});
    TELVANE_REQUIRE_COMPONENT(ssh.status != 127, "no OpenSSH client");
    EXPECT_EQ(std::string::npos, ssh.err.find("Host key verification failed")) << ssh.err;
    EXPECT_NE(std::string::npos, ssh.err.find("Permission denied")) << ssh.err;
}

namespace {
struct KbdCase
{
    const char *name;
    bool rightPassword;
    friend void PrintTo(const KbdCase &c, std::ostream *os) { *os << c.name; }
};
class KeyboardInteractive : public SensorRunTest, public ::testing::WithParamInterface<KbdCase>
{
};
} // namespace

TEST_P(KeyboardInteractive, IsTheLoginOfAServerWithoutPassword)
{
    SshdHarness pam;
    pam.setExtraConfig("UsePAM yes\nPasswordAuthentication no\nKbdInteractiveAuthentication yes\n");
    TELVANE_REQUIRE_COMPONENT(pam.start(), "no PAM sshd: " + pam.reason());
    delegate->answer->password = GetParam().rightPassword ? pam.password() : pam.password() + "x";
    auto sensor = makeSensor(pam.host(), pam.port());
    ASSERT_TRUE(runToEnd(*sensor, "echo in"));
    if (GetParam().rightPassword) {
        EXPECT_EQ("in\n", delegate->output()) << log.joined() << pam.log();
    } else {
        EXPECT_EQ(3, delegate->failureCode()) << log.joined();
    }
    EXPECT_NE(std::string::npos, pam.log().find("keyboard-interactive")) << pam.log();
}

INSTANTIATE_TEST_SUITE_P(Passwords, KeyboardInteractive,
                         ::testing::Values(KbdCase{"Right", true}, KbdCase{"Wrong", false}),
                         [](const auto &info) { return std::string(info.param.name); });

namespace {
struct Utf8Case
{
    const char *name;
    const char *password; // the server takes "pässwörd-日本" (composed) from "jörg"
    bool accepted;
    friend void PrintTo(const Utf8Case &c, std::ostream *os) { *os << c.name; }
};
class Utf8Login : public SensorRunTest, public ::testing::WithParamInterface<Utf8Case>
{
};
} // namespace

// The login sends the bytes as given: telvane-faultd compares them with its own, so a password recoded or
// normalised on the way would be refused, and a differently composed one must be.
TEST_P(Utf8Login, SendsTheCredentialsBytesUnchanged)
{
    FaultServer::Options options;
    options.user = "jörg";
    options.password = "pässwörd-日本";
    FaultServer server(options);
    TELVANE_REQUIRE_COMPONENT(server.started(), server.error());
    delegate->answer = TelvaneCredentialsDictionary{server.user(), GetParam().password};
    auto sensor = makeSensor(server.host(), server.port());
    sensor->setHostKeyPolicy(TelvaneHostKeyPolicy::AcceptAny);
    ASSERT_TRUE(runToEnd(*sensor, "echo in"));
    if (GetParam().accepted)
        EXPECT_EQ("in\n", delegate->output()) << log.joined() << server.log();
    else
        EXPECT_EQ(3, delegate->failureCode()) << log.joined() << server.log();
}

INSTANTIATE_TEST_SUITE_P(Passwords, Utf8Login,
                         ::testing::Values(Utf8Case{"AsTheServerHasIt", "pässwörd-日本", true},
                                           Utf8Case{"Decomposed", "pa\u0308sswörd-日本", false}),
                         [](const auto &info) { return std::string(info.param.name); });
