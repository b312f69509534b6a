// The system settings: /etc/tavrinfo.conf, lines key="value", everything else kept and ignored.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tavr
{

// The value of `key`, or `fallback` where the file or the key is missing. Re-read when the file has changed.
std::string Setting(std::string_view key, std::string_view fallback);
int64_t NumberSetting(std::string_view key, int64_t fallback, int64_t least, int64_t most);   // outside: fallback, logged once

}  // namespace tavr
