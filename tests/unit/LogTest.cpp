#include "support/TestEnvironment.h"

#include <cerrno>

TEST(Log, SinkReceivesFormattedLinesAndPerrorText)
{
    telvane::test::LogCapture log;
    telvaneLog("libssh2_channel_read failed(): %d\n", -7);
    errno = ECONNREFUSED;
    telvanePerror("socket");
    const auto lines = log.lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("libssh2_channel_read failed(): -7\n", lines[0]);
    EXPECT_EQ("socket: Connection refused", lines[1]);
    EXPECT_EQ(ECONNREFUSED, errno);
}
