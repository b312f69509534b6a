#include "platform/conf.h"

#include "linux/request.h"
#include "linux/settings.h"

const char* TavrConf::Info(const char* key, const char* fallback)
{
    static std::string value;
    const std::string other = fallback == nullptr ? "" : fallback; // may be the text of the last call
    value = key == nullptr ? other : tavr::Setting(key, other);
    if (!tavr::SettingsKnown()) {
        tavr::NoteFault(tavr::Fault::SettingsUnavailable);
    }
    return value.c_str();
}
