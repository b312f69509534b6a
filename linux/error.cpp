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
    static Record record;
    return record;
}

} // namespace

int Fail(Error code, std::source_location place)
{
    const char* slash = std::strrchr(place.file_name(), '/');
    LastRecord() = {code, slash == nullptr ? place.file_name() : slash + 1, static_cast<int>(place.line())};
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
