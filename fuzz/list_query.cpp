// Queries of the administrator's list: what is accepted keeps to its limits, and is accepted again, as the
// same, when it is written out.
#include "fuzz/demand.h"
#include "linux/untrusted_json.h"
#include "web/enforce_request.h"

#include <cstdint>
#include <string>

using namespace tavr::web;

namespace
{

std::string Escaped(const std::string& text)
{
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string escaped;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        escaped += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
    return escaped;
}

std::string WrittenOut(const ListRequest& asked)
{
    return "type=" + Escaped(asked.type) + "&offset=" + std::to_string(asked.offset) +
           "&limit=" + std::to_string(asked.limit) + "&query=" + Escaped(asked.query) +
           "&domain=" + Escaped(asked.domain) + "&filter=" + Escaped(asked.filter);
}

bool IsText(const std::string& text, size_t limit)
{
    return text.size() <= limit && text.find('\0') == std::string::npos && tavr::IsUtf8(text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::optional<ListRequest> asked = ParseListRequest({reinterpret_cast<const char*>(data), size});
    if (!asked) {
        return 0;
    }
    Demand(IsSettingType(asked->type), "a known type");
    Demand(asked->filter == "all" || asked->filter == "enforced" || asked->filter == "unenforced",
           "a known filter");
    Demand(asked->offset >= 0 && asked->limit >= -1 && asked->limit <= kLargestPage, "numbers within limits");
    Demand(IsText(asked->query, 1024) && IsText(asked->domain, 256), "texts within limits");

    const std::optional<ListRequest> again = ParseListRequest(WrittenOut(*asked));
    Demand(again.has_value(), "accepted again");
    Demand(WrittenOut(*again) == WrittenOut(*asked), "the same again");
    return 0;
}
