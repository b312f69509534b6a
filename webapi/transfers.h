// libcurl transfers that go on while the service serves others.
//
// On threads of their own: libcurl takes its time inside one call for the reply to a mail and for a goodbye,
// as long as the server likes, whichever of its interfaces is used. Whoever starts a transfer and is told of
// its end does so on one thread, the service's own, and sees none of this.
#pragma once

#include "linux/descriptor.h"

#include <curl/curl.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tavr::webapi
{

class Transfers
{
public:
    using Done = std::function<void(CURLcode result)>;

    static constexpr size_t kMostAtOnce = 32; // others wait for their turn

    Transfers();  // throws std::system_error
    ~Transfers(); // waits for those that run; nobody is told
    Transfers(const Transfers&) = delete;
    Transfers& operator=(const Transfers&) = delete;

    // Begins. `easy` stays the caller's, who leaves it alone until `done` was called, which may let go of it;
    // `done` is never called before this returns. Connections that a transfer has kept are used again while
    // there is anything to transfer.
    void Start(CURL* easy, Done done);

    [[nodiscard]] size_t Running() const { return running_.size(); }

    // Waits until a transfer is done, `descriptor` can be read, or `longest` (negative: no end) has passed.
    void Wait(int descriptor, std::chrono::milliseconds longest);

    // Tells who is done. Does not wait.
    void GoOn();

private:
    void Work();
    CURL* Take(bool keepsConnections); // null: it is time to let go of them, or to end

    std::unordered_map<CURL*, Done> running_;
    Descriptor ended_; // an eventfd: something is in results_

    std::mutex mutex_; // of what follows
    std::condition_variable work_;
    std::deque<CURL*> waiting_;
    std::vector<std::pair<CURL*, CURLcode>> results_;
    size_t idle_ = 0; // threads
    bool ending_ = false;

    std::vector<std::thread> threads_;
};

} // namespace tavr::webapi
