// How a fuzz target says what has to hold.
#pragma once

#include <cstdio>
#include <cstdlib>

inline void Demand(bool condition, const char* what)
{
    if (!condition) {
        std::fprintf(stderr, "not so: %s\n", what);
        std::abort();
    }
}
