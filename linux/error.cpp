#include "linux/error.h"

#include "platform/core.h"

#include <cstring>

namespace tavr
{

namespace
{

struct Record {
    Error code = Error::None;
    const char* file = "";
    int line = 0;
};

Record& LastRecord()
{
    static thread_local Record record; // its members are plain, so nothing is run for it in a new thread
    return record;
}

} // namespace

int Fail(Error code, const char* file, int line)
{
    const char* slash = std::strrchr(file, '/');
    LastRecord() = {code, slash == nullptr ? file : slash + 1, line};
    return -1;
}

} // namespace tavr

int KLIBCErrGet(void)
{
    return static_cast<int>(tavr::LastRecord().code);
}

const char* KLIBCErrorGetFile(void)
{
    return tavr::LastRecord().file;
}

int KLIBCErrorGetLine(void)
{
    return tavr::LastRecord().line;
}
