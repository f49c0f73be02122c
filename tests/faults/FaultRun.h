// What the fault suites share: one telvane-faultd per test, a sensor aimed at it with an in-memory keyring,
// a recording delegate, and the checks every case ends with: no password in any log line, and no thread,
// descriptor or libssh reference left once the run is over.
#pragma once

#include "Platform/SshLibrary_p.h"
#include "support/FaultServer.h"
#include "support/TestEnvironment.h"

#include <Telvane/Platform/TelvaneKeychain.h>
#include <Telvane/Telvane.h>

#include <gtest/gtest.h>

#include <chrono>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

namespace telvane::test {

class FaultRunTest : public ::testing::Test
{
protected:
    using Event = RecordingDelegate::Event;

    // A number sign and a dash, so a password that reached a log line through a script or a format would
    // not hide among ordinary words.
    static constexpr const char *kPassword = "faultd#Pw-5517";

    void SetUp() override
    {
        TelvaneKeychain::setBackend(TelvaneKeychain::makeBackend("memory"));
        FaultServer::Options options;
        options.password = kPassword;
        options.delay = std::chrono::milliseconds(40); // the slow fault: 4 ms between 16-byte packets
        server_ = std::make_unique<FaultServer>(options);
        TELVANE_REQUIRE_COMPONENT(server_->started(), server_->error());

        // A first thread, so that a runtime that starts a helper of its own with it (ThreadSanitizer does)
        // has done so before the count.
        std::thread([] {}).join();
        // The baselines are taken around one clean run, so that whatever the first run sets up for the life
        // of the process (libssh's and OpenSSL's global state) is not counted against the case.
        threads_ = threadCount();
        delegate = freshDelegate(server_->user());
        {
            auto warm = makeSensor();
            ASSERT_TRUE(runToEnd(*warm, "echo warm")) << log.joined();
            ASSERT_EQ("warm\n", delegate->output()) << "the server does not run scripts:\n" << server_->log();
            // Both hold the reading end of the run's pipe, which stays open for a late reader.
            sensors_.clear();
            delegate = freshDelegate(server_->user());
        }
        ASSERT_TRUE(waitUntil([&] { return threadCount() == threads_; }, std::chrono::seconds(10)));
        descriptors_ = openDescriptorCount();
        ready_ = true;
    }

    void TearDown() override
    {
        if (ready_) {
            for (const auto &line : log.lines())
                EXPECT_EQ(std::string::npos, line.find(kPassword))
                    << "a log line holds the password: " << line;
            expectNothingLeftBehind();
            if (HasFailure())
                std::cerr << "---- library log ----\n"
                          << log.joined() << "---- telvane-faultd log ----\n"
                          << server_->log() << "---- end of logs ----\n";
        }
        TelvaneKeychain::setBackend(nullptr);
    }

    FaultServer &server() { return *server_; }

    std::shared_ptr<RecordingDelegate> freshDelegate(const std::string &user)
    {
        auto fresh = std::make_shared<RecordingDelegate>();
        fresh->answer = TelvaneCredentialsDictionary{user, kPassword};
        return fresh;
    }

    /// A sensor aimed at the server; @p timeout is long by default, so that only data or a stop can end a
    /// wait on the socket early.
    std::shared_ptr<Telvane> makeSensor(double timeout = 30.0)
    {
        auto sensor = Telvane::create("faults", "Fault sensor", server_->host(), server_->port(), timeout);
        sensor->setDelegate(delegate);
        sensors_.push_back(sensor);
        return sensor;
    }

    /// Runs @p script and waits until the run has ended and its output has reached end of file.
    ::testing::AssertionResult runToEnd(Telvane &sensor, const std::string &script,
                                        std::chrono::milliseconds limit = std::chrono::seconds(30))
    {
        sensor.runScript(script, std::nullopt);
        if (!delegate->waitForEnd(limit))
            return ::testing::AssertionFailure() << "the run did not end within " << limit.count()
                                                 << " ms (events: " << delegate->events().size() << ")";
        if (!waitUntil([&] { return !sensor.running(); }, limit))
            return ::testing::AssertionFailure() << "still running after the end was reported";
        return ::testing::AssertionSuccess();
    }

    /// Every run of the case is over: its pump and the delegate's reader have left, every socket and pipe
    /// is closed, and libssh is no longer held.
    void expectNothingLeftBehind()
    {
        // The reading end of a run's pipe lives as long as its holders (sensor and delegate), on purpose.
        sensors_.clear();
        delegate.reset();
        EXPECT_TRUE(waitUntil([&] { return threadCount() == threads_; }, std::chrono::seconds(10)))
            << threadCount() << " threads, " << threads_ << " before";
        EXPECT_TRUE(waitUntil([&] { return openDescriptorCount() == descriptors_; }, std::chrono::seconds(5)))
            << openDescriptorCount() << " descriptors open, " << descriptors_ << " before";
        EXPECT_EQ(0, telvane::sshLibraryReferences());
    }

    LogCapture log;
    std::shared_ptr<RecordingDelegate> delegate;

private:
    std::unique_ptr<FaultServer> server_;
    std::vector<std::shared_ptr<Telvane>> sensors_;
    int threads_ = 0;
    int descriptors_ = 0;
    bool ready_ = false; // the baselines are taken
};

} // namespace telvane::test
