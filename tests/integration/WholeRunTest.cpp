// Whole runs against a real sshd: what the remote script writes arrives byte for byte, and its exit status
// arrives with it, whatever the size of the output and whenever the server sends the status.
#include "integration/SensorRun.h"

#include <chrono>

using telvane::test::RecordingDelegate;
using telvane::test::SensorRunTest;
using Event = RecordingDelegate::Event;

namespace {

// The first @p size bytes of `seq 1 N`: no period, so a lost, doubled or reordered chunk shows.
std::string sequenceBytes(std::size_t size)
{
    std::string text;
    text.reserve(size + 16);
    for (long i = 1; text.size() < size; ++i)
        text += std::to_string(i) + '\n';
    text.resize(size);
    return text;
}

struct OutputCase
{
    std::size_t size;
    int status;
};

class WholeRun : public SensorRunTest, public ::testing::WithParamInterface<OutputCase>
{
};

} // namespace

TEST_P(WholeRun, DeliversEveryByteInOrderAndTheExitStatus)
{
    const auto [size, status] = GetParam();
    auto sensor = makeSensor();
    const std::string script =
        (size ? "seq 1 20000000 | head -c " + std::to_string(size) + "\n" : std::string()) + "exit " +
        std::to_string(status);
    ASSERT_TRUE(runToEnd(*sensor, script));

    ASSERT_EQ(std::nullopt, delegate->failureCode()) << log.joined();
    EXPECT_EQ(1, delegate->count(Event::Started));
    EXPECT_EQ(1, delegate->count(Event::Terminated));
    EXPECT_EQ(status, delegate->terminationStatus());
    const std::string output = delegate->output();
    ASSERT_EQ(size, output.size());
    EXPECT_TRUE(output == sequenceBytes(size)) << "the output differs from what the script wrote";
    EXPECT_FALSE(sensor->running());
}

INSTANTIATE_TEST_SUITE_P(Sizes, WholeRun,
                         ::testing::Values(OutputCase{0, 3}, OutputCase{1, 0}, OutputCase{32768, 3},
                                           OutputCase{32769, 255}, OutputCase{64u << 20, 0}),
                         [](const auto &info) {
                             return "Bytes" + std::to_string(info.param.size) + "Status" +
                                    std::to_string(info.param.status);
                         });
