// The calls of the web API, and where an answer goes.
//
// A call is a function and a row in the table of calls.cpp. It answers through its Reply, at once or later:
// what takes longer (a mail) it hands to the service's transfers, copies what it needs of the request, and
// returns. It must not wait for anything itself, since everybody waits with it.
#pragma once

#include "webapi/request.h"

#include <cstdint>
#include <functional>

namespace tavr::webapi
{

class Transfers;
class QueueRunner;

// What calls may use. Lives as long as the service.
struct Tools {
    Transfers& transfers;
    QueueRunner& queue;
};

// Where the answer to one call goes; copies go to the same place. The first answer counts. One to a caller
// who is gone is dropped, and a caller who gets none within kCallSeconds is told Code::Internal.
class Reply
{
public:
    using Send = std::function<void(const std::string& answer)>;
    explicit Reply(Send send) : send_(std::move(send)) {}

    // Texts of JSON objects (request.h).
    void Data(std::string_view data) const { send_(Success(data)); }
    void Refuse(Code code, std::string_view members = "{}") const { send_(Refusal(code, members)); }

private:
    Send send_;
};

inline constexpr int64_t kCallSeconds = 15; // more than a mail may take, less than a client waits

// Finds the call and runs it. What it throws is logged and answered as Code::Internal.
void RunCall(const Request& request, const Reply& reply, Tools& tools);

} // namespace tavr::webapi
