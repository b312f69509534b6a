// How often a test does what is worth more rounds than every run can wait for.
#pragma once

#include <cstdlib>

namespace tavr::test
{

// `all` when the environment has TAVR_ALL_ROUNDS, else `usual`.
inline int Rounds(int usual, int all)
{
    return std::getenv("TAVR_ALL_ROUNDS") != nullptr ? all : usual; // NOLINT(concurrency-mt-unsafe)
}

} // namespace tavr::test
