#include "webapi/transfers.h"

#include "webapi/smtp.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>
#include <system_error>

namespace tavr::webapi
{

namespace
{

constexpr std::chrono::seconds kKeepIdle{5}; // a connection

struct Cleanup {
    void operator()(CURLM* multi) const noexcept
    {
        HangUpKeptConnections();
        curl_multi_cleanup(multi);
    }
};
using Multi = std::unique_ptr<CURLM, Cleanup>;

// Waits for the end of it. The connections of the multi handle are used.
CURLcode Perform(CURLM* multi, CURL* easy)
{
    if (multi == nullptr || curl_multi_add_handle(multi, easy) != CURLM_OK) {
        return CURLE_OUT_OF_MEMORY;
    }
    int running = 1;
    while (curl_multi_perform(multi, &running) == CURLM_OK && running != 0) {
        curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
    CURLcode result = CURLE_OUT_OF_MEMORY;
    int unused = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi, &unused)) {
        result = message->data.result;
    }
    curl_multi_remove_handle(multi, easy);
    return result;
}

} // namespace

Transfers::Transfers() : ended_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (!ended_) {
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

void Transfers::Start(CURL* easy, Done done)
{
    running_.emplace(easy, std::move(done));
    bool isEnough = false;
    {
        const std::lock_guard lock(mutex_);
        waiting_.push_back(easy);
        isEnough = waiting_.size() <= idle_ || threads_.size() == kMostAtOnce;
    }
    work_.notify_one();
    if (isEnough) {
        return;
    }
    try {
        threads_.emplace_back([this] { Work(); });
    } catch (const std::system_error&) {
        if (threads_.empty()) { // nobody would ever take it
            waiting_.clear();
            running_.erase(easy);
            throw;
        }
    }
}

CURL* Transfers::Take(bool keepsConnections)
{
    std::unique_lock lock(mutex_);
    const auto isTime = [this] { return ending_ || !waiting_.empty(); };
    ++idle_;
    if (keepsConnections) {
        work_.wait_for(lock, kKeepIdle, isTime);
    } else {
        work_.wait(lock, isTime);
    }
    --idle_;
    if (ending_ || waiting_.empty()) {
        return nullptr;
    }
    CURL* easy = waiting_.front();
    waiting_.pop_front();
    return easy;
}

void Transfers::Work()
{
    Multi multi;
    for (;;) {
        CURL* easy = Take(multi != nullptr);
        if (easy == nullptr && !multi) {
            return;
        }
        if (easy == nullptr) {
            multi.reset();
            continue;
        }
        if (!multi) {
            multi.reset(curl_multi_init());
        }
        const CURLcode result = Perform(multi.get(), easy);
        const std::lock_guard lock(mutex_);
        results_.emplace_back(easy, result);
        eventfd_write(ended_.Get(), 1);
    }
}

void Transfers::Wait(int descriptor, std::chrono::milliseconds longest)
{
    pollfd waiting[] = {{descriptor, POLLIN, 0}, {ended_.Get(), POLLIN, 0}};
    const auto most = longest.count() < 0 ? -1 : std::min<int64_t>(longest.count(), INT_MAX);
    poll(waiting, std::size(waiting), static_cast<int>(most));
}

void Transfers::GoOn()
{
    std::vector<std::pair<CURL*, CURLcode>> results;
    {
        const std::lock_guard lock(mutex_);
        eventfd_t unused = 0;
        eventfd_read(ended_.Get(), &unused);
        results.swap(results_);
    }
    for (const auto& [easy, result] : results) {
        const auto ended = running_.extract(easy);
        ended.mapped()(result);
    }
}

} // namespace tavr::webapi
