// Where exceptions stop: behind the C interface of accounts and directories there is only the error record.
// The library takes some of these failures for a "no", so the request notes that the answer is not known.
#pragma once

#include "linux/database.h"
#include "linux/directory_error.h"
#include "linux/error.h"
#include "linux/request.h"

#include <syslog.h>

#include <new>

namespace tavr
{

inline Fault FaultOf(const DirectoryError& error)
{
    return error.busy ? Fault::DirectoryBusy : Fault::DirectoryUnavailable;
}

template<class Call>
int Guarded(Call call, const char* file = __builtin_FILE(), int line = __builtin_LINE())
{
    try {
        return call();
    } catch (const DatabaseError& error) {
        syslog(LOG_ERR, "accounts: %s", error.what());
        NoteFault(Fault::AccountsUnavailable);
        return Fail(Error::DatabaseFailed, file, line);
    } catch (const DirectoryError& error) {
        syslog(LOG_ERR, "directory: %s", error.what());
        NoteFault(FaultOf(error));
        return Fail(Error::DirectoryUnavailable, file, line);
    } catch (const std::bad_alloc&) {
        NoteFault(Fault::AccountsUnavailable);
        return Fail(Error::OutOfMemory, file, line);
    }
}

} // namespace tavr
