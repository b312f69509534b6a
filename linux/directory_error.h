// What a directory did not say: it cannot be asked, did not answer in time, or is set up so that it cannot be
// used. Never to be read as "there is none" or "wrong password".
#pragma once

#include <stdexcept>
#include <string>

namespace tavr
{

class DirectoryError : public std::runtime_error
{
public:
    explicit DirectoryError(const std::string& text, bool othersAsk = false)
        : std::runtime_error(text), busy(othersAsk)
    {
    }
    const bool busy; // it was not asked, since others wait for it
};

} // namespace tavr
