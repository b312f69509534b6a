#include "webapi/transfers.h"

#include <algorithm>
#include <climits>
#include <new>
#include <stdexcept>

namespace tavr::webapi
{

namespace
{

void Check(CURLMcode code)
{
    if (code != CURLM_OK) {
        throw std::runtime_error(curl_multi_strerror(code));
    }
}

} // namespace

Transfers::Transfers() : multi_(curl_multi_init())
{
    if (!multi_) {
        throw std::bad_alloc();
    }
}

Transfers::~Transfers()
{
    for (const auto& [easy, done] : running_) {
        curl_multi_remove_handle(multi_.get(), easy);
    }
}

void Transfers::Start(CURL* easy, Done done)
{
    Check(curl_multi_add_handle(multi_.get(), easy));
    running_.emplace(easy, std::move(done));
}

void Transfers::Wait(int descriptor, std::chrono::milliseconds longest)
{
    curl_waitfd other{};
    other.fd = descriptor;
    other.events = CURL_WAIT_POLLIN;
    const auto most = longest.count() < 0 ? INT_MAX : std::min<int64_t>(longest.count(), INT_MAX);
    Check(curl_multi_poll(multi_.get(), &other, 1, static_cast<int>(most), nullptr));
}

void Transfers::GoOn()
{
    int unused = 0;
    Check(curl_multi_perform(multi_.get(), &unused));
    while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &unused)) {
        CURL* const easy = message->easy_handle;
        const CURLcode result = message->data.result; // the message goes with the handle
        curl_multi_remove_handle(multi_.get(), easy);
        const auto ended = running_.extract(easy);
        if (!ended.empty()) {
            ended.mapped()(result);
        }
    }
}

} // namespace tavr::webapi
