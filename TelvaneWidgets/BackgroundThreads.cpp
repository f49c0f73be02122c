#include "BackgroundThreads_p.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

namespace {

class BackgroundThreads
{
public:
    static BackgroundThreads &instance()
    {
        // Never destroyed: a thread that outlives the wait at exit still finds its mutex.
        static auto *threads = new BackgroundThreads;
        static ExitWait exitWait;
        return *threads;
    }

    bool start(std::function<void()> body)
    {
        {
            std::lock_guard lock(mutex_);
            ++count_;
        }
        try {
            std::thread([this, body = std::move(body)]() mutable {
                {
                    // Whatever the body holds is let go here, before the count says the thread is done.
                    auto run = std::move(body);
                    run();
                }
                finished();
            }).detach();
            return true;
        } catch (const std::system_error &) {
            finished();
            return false;
        }
    }

private:
    struct ExitWait
    {
        ~ExitWait()
        {
            BackgroundThreads &threads = instance();
            std::unique_lock lock(threads.mutex_);
            threads.idle_.wait_for(lock, std::chrono::seconds(5), [&threads] { return threads.count_ == 0; });
        }
    };

    void finished()
    {
        std::lock_guard lock(mutex_);
        --count_;
        idle_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable idle_;
    int count_ = 0; // guarded by mutex_
};

} // namespace

namespace TelvaneWidgets {

bool startBackgroundThread(std::function<void()> body)
{
    return BackgroundThreads::instance().start(std::move(body));
}

} // namespace TelvaneWidgets
