// Work that waits for mail servers, while the service serves others.
//
// On threads of its own: libcurl takes its time inside one call for the reply to a mail and for a goodbye, as
// long as the server likes, whichever of its interfaces is used. Whoever starts a transfer and is told of its
// end does so on one thread, the service's own.
#pragma once

#include "linux/descriptor.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace tavr::webapi
{

class Transfers
{
public:
    static constexpr size_t kMostAtOnce = 32; // others wait for their turn

    Transfers();  // throws std::system_error
    ~Transfers(); // waits for those that run; nobody is told
    Transfers(const Transfers&) = delete;
    Transfers& operator=(const Transfers&) = delete;

    // Begins. `work` runs on some thread and does not throw; then `done` is called by GoOn, never before this
    // returns.
    void Start(std::function<void()> work, std::function<void()> done);

    [[nodiscard]] size_t Running() const { return running_; }

    // A descriptor that can be read when there is something for GoOn to tell.
    [[nodiscard]] int Bell() const { return bell_.Get(); }

    // Makes the bell readable, from any thread.
    void Ring() const;

    // Tells who is done. Does not wait.
    void GoOn();

private:
    struct Transfer {
        std::function<void()> work;
        std::function<void()> done;
    };

    void Work();

    size_t running_ = 0;
    Descriptor bell_; // an eventfd

    std::mutex mutex_; // of what follows
    std::condition_variable work_;
    std::deque<Transfer> waiting_;
    std::vector<std::function<void()>> done_;
    size_t idle_ = 0; // threads
    bool ending_ = false;

    std::vector<std::thread> threads_;
};

} // namespace tavr::webapi
