// The Cookie header: an identifier that stands in it, or nothing.
#include "web/request.h"

#include <cstdlib>

using namespace tavr::web;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    const std::string_view header(reinterpret_cast<const char*>(data), size);
    for (const char* name : {"sid", "__Host-sid"}) {
        const std::string identifier = Cookie(header, name);
        const bool good = identifier.size() == 32 && header.find(identifier) != std::string_view::npos &&
                          identifier.find_first_not_of("0123456789abcdef") == std::string::npos;
        if (!identifier.empty() && !good) {
            std::abort();
        }
    }
    HttpRequest request;
    request.origin = header.substr(0, size / 2);
    request.host = header.substr(size / 2);
    if (OriginAllowed(request) && !request.origin.empty() && request.host.empty()) {
        std::abort();
    }
    IsJsonContentType(header);
    return 0;
}
