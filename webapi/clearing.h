// Rows that mean nothing any more go, whether or not anybody signs in.
#pragma once

#include <cstdint>

namespace tavr::webapi
{

class Clearing
{
public:
    // Clears when it is time. Gives the seconds until it has to be called again. Never throws: what cannot be
    // cleared now is tried the next time, and logged.
    int64_t GoOn();

private:
    int64_t next_ = 0; // BootSeconds
};

} // namespace tavr::webapi
