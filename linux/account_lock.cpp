#include "linux/account_lock.h"

#include "linux/paths.h"

namespace tavr
{

Descriptor LockAccount(uint32_t account, LockWait wait)
{
    Descriptor file = OpenLockFile(kAccountLockFile);
    return file && LockByte(file, static_cast<off_t>(account), LockKind::Exclusive, wait) ? std::move(file)
                                                                                          : Descriptor();
}

} // namespace tavr
