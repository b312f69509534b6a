// libcurl transfers that go on while the service serves others.
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <functional>
#include <memory>
#include <unordered_map>

namespace tavr::webapi
{

class Transfers
{
public:
    using Done = std::function<void(CURLcode result)>;

    Transfers();  // throws std::bad_alloc
    ~Transfers(); // those that still run are cut; nobody is told
    Transfers(const Transfers&) = delete;
    Transfers& operator=(const Transfers&) = delete;

    // Begins. `easy` stays the caller's and has to live until `done` was called, which may let go of it;
    // `done` is never called before this returns. Connections are kept and used again while there is anything
    // to transfer.
    void Start(CURL* easy, Done done);

    [[nodiscard]] size_t Running() const { return running_.size(); }

    // Waits until something can go on, `descriptor` can be read, or `longest` (negative: no end) has passed.
    void Wait(int descriptor, std::chrono::milliseconds longest);

    // Does what can be done without waiting, and tells who is done.
    void GoOn();

private:
    struct Cleanup {
        void operator()(CURLM* multi) const noexcept { curl_multi_cleanup(multi); }
    };
    std::unique_ptr<CURLM, Cleanup> multi_;
    std::unordered_map<CURL*, Done> running_;
};

} // namespace tavr::webapi
