// Writes that start a file action (an export, a settings file, a limit
// line's or a transducer factor's file) run on a worker thread of their own,
// one at a time in the order they came, so that a slow or stalled disk never
// holds up the daemon's loop. The loop learns through an eventfd that work
// has finished and then runs each finished job's answer, in order.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace vorndbd {

class FileActions {
public:
    // What the loop runs once the work is done.
    using Answer = std::function<void()>;
    // What the worker runs; it returns the answer.
    using Work = std::function<Answer()>;

    // Starts the worker (in the multithreaded apartment). Throws
    // std::system_error when the eventfd cannot be made.
    FileActions();
    // Lets the work under way finish and drops the rest unanswered.
    ~FileActions();
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;

    // Readable when answers are waiting.
    int Fd() const noexcept { return fd_; }
    // Queues work behind what is queued already.
    void Post(Work work);
    // The answers of the work finished since the last call, in order.
    std::vector<Answer> Finished();

private:
    void Run();

    int fd_ = -1;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Work> queued_;
    std::vector<Answer> finished_;
    bool stop_ = false;
    std::thread thread_;
};

}  // namespace vorndbd
