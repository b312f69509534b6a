// A password or the like that is kept for a while: overwritten wherever a copy of it ends.
#pragma once

#include <sodium.h>

#include <string>
#include <utility>

namespace tavr
{

// Moving copies it, since a short text that was moved away stays where it stood.
struct KeptSecret {
    std::string text;

    KeptSecret() = default;
    explicit KeptSecret(std::string&& value) : text(std::move(value)) { Wipe(value); }
    KeptSecret(const KeptSecret&) = default;
    KeptSecret& operator=(const KeptSecret& other)
    {
        if (this != &other) {
            Wipe(text);
            text = other.text;
        }
        return *this;
    }
    ~KeptSecret() { Wipe(text); }

private:
    static void Wipe(std::string& what) { sodium_memzero(what.data(), what.capacity()); }
};

} // namespace tavr
