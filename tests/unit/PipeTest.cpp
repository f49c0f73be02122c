#include <Telvane/Platform/TelvanePipe.h>

#include <gtest/gtest.h>

#include <csignal>
#include <thread>

TEST(Pipe, ClosingBothEndsKeepsWhatWasWrittenForTheReader)
{
    // The pump closes the reading end, then the writing end; a delegate reading the same handle must still
    // get every byte, then end of file.
    TelvanePipe pipe;
    const std::string data(100000, 'x');
    std::string received;
    std::thread reader([&] {
        for (std::string chunk; !(chunk = pipe.fileHandleForReading()->availableData()).empty();)
            received += chunk;
    });
    ASSERT_TRUE(pipe.fileHandleForWriting()->writeData(data));
    pipe.fileHandleForReading()->closeFile();
    pipe.fileHandleForWriting()->closeFile();
    reader.join();
    EXPECT_EQ(data, received);
    EXPECT_FALSE(pipe.fileHandleForWriting()->writeData("late"));
}

TEST(Pipe, ClosingWakesABlockedCallOnEitherEndWithoutSignal)
{
    TelvanePipe pipe;
    std::thread reader([&] { EXPECT_EQ("", pipe.fileHandleForReading()->availableData()); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    pipe.fileHandleForWriting()->closeFile();
    reader.join();

    // A writer blocked on a full pipe is released when the reader closes, and no SIGPIPE handler is
    // installed: a signal would end this test process.
    ASSERT_EQ(SIG_DFL, std::signal(SIGPIPE, SIG_DFL));
    TelvanePipe full;
    std::thread writer(
        [&] { EXPECT_FALSE(full.fileHandleForWriting()->writeData(std::string(16 << 20, 'y'))); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    full.fileHandleForReading()->closeFile();
    writer.join();
    EXPECT_FALSE(full.fileHandleForWriting()->writeData("hello"));
}
