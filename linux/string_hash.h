// What stands behind platform/core.h's string hash, for those in linux/ who read one.
#pragma once

#include "platform/core.h"

#include <map>
#include <string>

struct KLIBCSzHash {
    std::map<std::string, std::string, std::less<>> values;
};
