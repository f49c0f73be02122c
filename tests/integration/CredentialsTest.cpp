// Where a run's credentials come from, what the server's answer does to the keyring, and what is never sent.
#include "Platform/SshLibrary_p.h"
#include "support/SshdFixture.h"

using namespace telvane::test;
using Event = RecordingDelegate::Event;

namespace {
class Credentials : public SensorRunTest, public ::testing::WithParamInterface<bool>
{
protected:
    std::optional<std::string> stored(const Telvane &sensor) const
    {
        return TelvaneKeychain::passwordForService(sensor.serviceNameForSensor(), sshd().username());
    }
};
} // namespace

TEST_P(Credentials, TheDelegatesPairIsKeptOnlyWhenAskedAndAccepted)
{
    const bool persist = GetParam();
    auto sensor = makeSensor();
    delegate->answerPersist = persist;
    ASSERT_TRUE(runToEnd(*sensor, "echo ok"));
    EXPECT_EQ(1, delegate->count(Event::AskedCredentials));
    EXPECT_EQ(0, delegate->terminationStatus()) << log.joined();
    EXPECT_EQ(persist ? std::optional(sshd().password()) : std::nullopt, stored(*sensor));

    // A refused pair is never kept, whatever the delegate asked.
    freshDelegate();
    delegate->answer->password = "not-" + sshd().password();
    delegate->answerPersist = persist;
    auto other = Telvane::create("other", "Other", "localhost", sshd().port());
    other->setDelegate(delegate);
    ASSERT_TRUE(runToEnd(*other, "echo never"));
    EXPECT_EQ(3, delegate->failureCode());
    EXPECT_EQ(0, delegate->count(Event::Started));
    EXPECT_EQ(std::nullopt, stored(*other));
}

INSTANTIATE_TEST_SUITE_P(Persist, Credentials, ::testing::Bool());

TEST_F(Credentials, NoCredentialsEndTheRunWithCode2AndNotALine)
{
    delegate->answer.reset();
    ASSERT_TRUE(runToEnd(*makeSensor(), "echo never"));
    EXPECT_EQ(2, delegate->failureCode());
    EXPECT_EQ(1, delegate->count(Event::AskedCredentials));
    EXPECT_EQ(0, delegate->count(Event::Started));
    EXPECT_TRUE(log.lines().empty()) << log.joined();
    EXPECT_EQ(0, telvane::sshLibraryReferences());
}

// Either half of the pair that is not UTF-8 is refused with code 3 before anything is sent.
TEST_P(Credentials, UnsendableHalvesAreRefusedBeforeAnythingIsSent)
{
    if (GetParam())
        delegate->answer->username = "t\xe9st";
    else
        delegate->answer->password = sshd().password() + "\xe9";
    ASSERT_TRUE(runToEnd(*makeSensor(), "echo never"));
    EXPECT_EQ(3, delegate->failureCode());
    EXPECT_TRUE(log.contains("is not valid UTF-8 text; it was not sent")) << log.joined();
    const std::string daemon = sshd().log(logStart_);
    EXPECT_EQ(std::string::npos, daemon.find("Failed password")) << daemon;
    EXPECT_EQ(std::string::npos, daemon.find("Invalid user")) << daemon;
}
