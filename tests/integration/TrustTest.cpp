// Host keys against known-hosts files shared with OpenSSH.
#include "support/Files.h"
#include "support/Process.h"
#include "support/SshdFixture.h"

using namespace telvane::test;
using Policy = TelvaneHostKeyPolicy;

namespace {

enum class Known { Nothing, RightKey, OtherKey };

struct PolicyCase
{
    const char *name;
    Policy policy;
    Known known;
    std::optional<bool> delegateAnswer; // nothing: the delegate keeps the policy's answer
    bool runs;
    bool closeWhenAsked = false; // the delegate closes the sensor before it answers: the run ends as stopped
};

class HostKeys : public WithRows<SensorRunTest, PolicyCase>
{
protected:
    std::string file; // made by the test, once the daemon is known to run
    const std::string entry = "[" + sshd().host() + "]:" + std::to_string(sshd().port());
    std::vector<TelvaneHostKey> asked;

    // Runs `true` under @p policy, the delegate answering @p keyAnswer (else the policy's answer), after it
    // closed the sensor when @p closeWhenAsked.
    void runWith(Policy policy, std::optional<bool> keyAnswer = {}, bool closeWhenAsked = false)
    {
        freshDelegate();
        asked.clear();
        delegate->answerHostKey = [=, this](Telvane &sensor, const TelvaneHostKey &key, bool policyAnswer) {
            asked.push_back(key);
            if (closeWhenAsked)
                sensor.close();
            return keyAnswer.value_or(policyAnswer);
        };
        auto sensor = makeSensor();
        sensor->setHostKeyPolicy(policy);
        sensor->setKnownHostsFile(file);
        EXPECT_TRUE(runToEnd(*sensor, "true"));
    }
};

} // namespace

TEST_P(HostKeys, FollowThePolicyAndTheDelegate)
{
    const auto &row = GetParam();
    const std::string otherKey = // one that no harness ever has
        "# an older key\n" + entry +
        " ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIL98rV3YlPQ7pBBYFvr4PWI8gs5M7zXeSgbjOPz+RB3d\n";
    file = sshd().writeFile("known_hosts", row.known == Known::OtherKey ? otherKey : "");
    if (row.known == Known::RightKey) {
        runWith(Policy::AcceptNew);
        ASSERT_EQ(0, delegate->terminationStatus()) << log.joined();
    }
    const std::string before = readFile(file);
    runWith(row.policy, row.delegateAnswer, row.closeWhenAsked);

    EXPECT_EQ(row.runs, delegate->terminationStatus() == 0) << log.joined();
    EXPECT_EQ(row.runs ? std::nullopt : std::optional<long>(1), delegate->failureCode());
    EXPECT_EQ(1, delegate->count(RecordingDelegate::Event::Failed) +
                     delegate->count(RecordingDelegate::Event::Started));
    const bool questioned = row.policy != Policy::AcceptAny && row.known != Known::RightKey;
    ASSERT_EQ(questioned ? 1u : 0u, asked.size());
    if (questioned) {
        EXPECT_EQ(entry, asked[0].host);
        EXPECT_EQ(0u, asked[0].fingerprint.rfind("SHA256:", 0));
        EXPECT_EQ(row.known == Known::OtherKey, asked[0].changed);
    }
    // Only an accepted first key is written down.
    EXPECT_EQ(row.runs && questioned && row.known == Known::Nothing, readFile(file) != before)
        << readFile(file);
    // The reason alone (what a user sees without the verbose log) is enough to decide.
    if (row.known == Known::OtherKey && !row.runs) {
        const std::string reason = delegate->outcomes().at(0).failure.reason;
        for (const std::string &part :
             {"the " + asked[0].keyType + " key it sent is " + asked[0].fingerprint,
              "the old one is at " + file + ":2", "ssh-keygen -f '" + file + "' -R '" + entry + "'"})
            EXPECT_NE(std::string::npos, reason.find(part)) << reason;
    }
    if (row.known != Known::Nothing || !row.runs)
        return;
    // The key written at first contact is one OpenSSH trusts. With BatchMode ssh cannot log in; what
    // matters is that the host key is not why.
    const auto ssh =
        runProcess({"/usr/bin/ssh", "-o", "StrictHostKeyChecking=yes", "-o", "UserKnownHostsFile=" + file,
                    "-o", "BatchMode=yes", "-p", std::to_string(sshd().port()),
                    sshd().username() + "@" + sshd().host(), "true"});
    TELVANE_REQUIRE_COMPONENT(ssh.status != 127, "no OpenSSH client");
    EXPECT_NE(std::string::npos, ssh.err.find("Permission denied")) << ssh.err;
}

INSTANTIATE_TEST_SUITE_P(
    Policies, HostKeys,
    ::testing::Values(
        PolicyCase{"AcceptNewAddsAFirstKey", Policy::AcceptNew, Known::Nothing, {}, true},
        PolicyCase{"AcceptNewTakesAKnownKey", Policy::AcceptNew, Known::RightKey, {}, true},
        PolicyCase{"AcceptNewRefusesAChangedKey", Policy::AcceptNew, Known::OtherKey, {}, false},
        PolicyCase{"StrictRefusesAnUnknownKey", Policy::Strict, Known::Nothing, {}, false},
        PolicyCase{"StrictTakesAKnownKey", Policy::Strict, Known::RightKey, {}, true},
        PolicyCase{"StrictWithTheDelegatesYesAddsAKey", Policy::Strict, Known::Nothing, true, true},
        PolicyCase{"TheDelegateRefusesAFirstKey", Policy::AcceptNew, Known::Nothing, false, false},
        PolicyCase{"AcceptAnyIgnoresAChangedKey", Policy::AcceptAny, Known::OtherKey, {}, true},
        PolicyCase{"ACloseWhileAskedThenNo", Policy::AcceptNew, Known::Nothing, false, false, true},
        PolicyCase{"ACloseWhileAskedThenYes", Policy::AcceptNew, Known::Nothing, true, false, true}),
    [](const auto &info) { return std::string(info.param.name); });
