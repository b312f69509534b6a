#include "webapi/transfers.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace tavr::webapi
{

Transfers::Transfers() : bell_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (!bell_) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

Transfers::~Transfers()
{
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    work_.notify_all();
    for (std::thread& thread : threads_) {
        thread.join();
    }
}

void Transfers::Start(std::function<void()> work, std::function<void()> done)
{
    bool isEnough = false;
    {
        const std::lock_guard lock(mutex_);
        waiting_.push_back({std::move(work), std::move(done)});
        isEnough = waiting_.size() <= idle_ || threads_.size() == kMostAtOnce;
    }
    ++running_;
    work_.notify_one();
    if (isEnough) {
        return;
    }
    try {
        threads_.emplace_back([this] { Work(); });
    } catch (const std::system_error&) {
        if (threads_.empty()) { // nobody would ever take it
            waiting_.clear();
            running_ = 0;
            throw;
        }
    }
}

void Transfers::Work()
{
    std::unique_lock lock(mutex_);
    for (;;) {
        ++idle_;
        work_.wait(lock, [this] { return ending_ || !waiting_.empty(); });
        --idle_;
        if (ending_) {
            return;
        }
        Transfer transfer = std::move(waiting_.front());
        waiting_.pop_front();
        lock.unlock();
        transfer.work();
        transfer.work = nullptr; // what it holds is let go of here, where it may take its time
        lock.lock();
        done_.push_back(std::move(transfer.done));
        Ring();
    }
}

void Transfers::Ring() const
{
    eventfd_write(bell_.Get(), 1);
}

void Transfers::GoOn()
{
    std::vector<std::function<void()>> done;
    {
        const std::lock_guard lock(mutex_);
        eventfd_t unused = 0;
        eventfd_read(bell_.Get(), &unused);
        done.swap(done_);
    }
    for (const std::function<void()>& tell : done) {
        --running_;
        tell();
    }
}

} // namespace tavr::webapi
