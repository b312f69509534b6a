// A library that is loaded when it is first needed: most processes never need it, and each would pay for it,
// and for those that it brings along, at every start.
#pragma once

#include <stdexcept>
#include <string>

namespace tavr
{

// Why a library cannot be used, in a few words.
class LibraryError : public std::runtime_error
{
public:
    explicit LibraryError(const std::string& text) : std::runtime_error(text) {}
};

// Stays loaded until the process ends.
class LoadedLibrary
{
public:
    // Where the system keeps its libraries, by the name that linked programs have of it. Throws LibraryError.
    explicit LoadedLibrary(const char* file);

    template<class Function>
    void Find(Function*& function, const char* name) const
    {
        function = reinterpret_cast<Function*>(Address(name));
    }

private:
    [[nodiscard]] void* Address(const char* name) const; // throws LibraryError where it has no such function

    std::string file_;
    void* handle_;
};

} // namespace tavr
