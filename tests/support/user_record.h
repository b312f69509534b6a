// A user's record of the platform, with an owner.
#pragma once

#include "platform/users.h"

#include <memory>
#include <string>

namespace tavr::test
{

struct FreeUser {
    void operator()(TAVRUser* user) const noexcept { TAVRUserFree(user); }
};
using UserRecord = std::unique_ptr<TAVRUser, FreeUser>;

inline UserRecord FindRecord(const std::string& name) // empty: not found
{
    TAVRUser* record = nullptr;
    return TAVRUserGet(name.c_str(), &record) < 0 ? UserRecord() : UserRecord(record);
}

} // namespace tavr::test
