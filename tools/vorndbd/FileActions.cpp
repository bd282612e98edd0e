#include "FileActions.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

#include "vorn/platform.h"

namespace vorndbd {

FileActions::FileActions() {
    fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    thread_ = std::thread([this] { Run(); });
}

FileActions::~FileActions() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    wake_.notify_one();
    thread_.join();
    close(fd_);
}

void FileActions::Post(Work work) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        queued_.push_back(std::move(work));
    }
    wake_.notify_one();
}

std::vector<FileActions::Answer> FileActions::Finished() {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t n = read(fd_, &count, sizeof count);
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(finished_, {});
}

void FileActions::Run() {
    const HRESULT init = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        wake_.wait(lock, [&] { return stop_ || !queued_.empty(); });
        if (stop_) break;
        Work work = std::move(queued_.front());
        queued_.pop_front();
        lock.unlock();
        Answer answer = work();
        work = nullptr;  // what it holds (the database's objects) goes here
        lock.lock();
        finished_.push_back(std::move(answer));
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t n = write(fd_, &one, sizeof one);
    }
    queued_.clear();
    lock.unlock();
    if (SUCCEEDED(init)) CoUninitialize();
}

}  // namespace vorndbd
