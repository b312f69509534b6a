#include "linux/loaded_library.h"

#include <dlfcn.h>

namespace tavr
{

namespace
{

std::string LastProblem()
{
    const char* text = dlerror(); // NOLINT(concurrency-mt-unsafe): each thread has its own
    return text != nullptr ? text : "no reason";
}

} // namespace

LoadedLibrary::LoadedLibrary(const char* file) : file_(file), handle_(dlopen(file, RTLD_NOW | RTLD_LOCAL))
{
    if (handle_ == nullptr) {
        throw LibraryError(LastProblem());
    }
}

void* LoadedLibrary::Address(const char* name) const
{
    void* address = dlsym(handle_, name);
    if (address == nullptr) {
        throw LibraryError(file_ + " has no " + name);
    }
    return address;
}

} // namespace tavr
