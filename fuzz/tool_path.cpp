// The path that the secret tool is started with.
#include "linux/secret_tool.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    const std::string_view path(reinterpret_cast<const char*>(data), size);
    const auto parsed = tavr::ParseToolPath(path);
    if (!parsed.has_value()) {
        return 0;
    }
    const bool good = parsed->name == "OTP_" + std::to_string(parsed->account) &&
                      path.ends_with(parsed->name) && !parsed->directory.empty() &&
                      path.find('\0') == std::string_view::npos;
    if (!good) {
        std::abort();
    }
    return 0;
}
