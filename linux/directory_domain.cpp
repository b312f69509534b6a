// Domain accounts: no domain can be joined yet, so every question is answered with DirectoryNotConfigured.
#include "linux/error.h"
#include "platform/directory.h"

using tavr::Error;
using tavr::Fail;

int TAVRWinsDomainEnumOptAlloc(TAVRWinsDomainEnumOpt** /*option*/)
{
    return Fail(Error::DirectoryNotConfigured);
}

int TAVRWinsDomainEnumOptAddSearchFields(TAVRWinsDomainEnumOpt* /*option*/, const char* /*field*/)
{
    return Fail(Error::DirectoryNotConfigured);
}

int TAVRWinsDomainEnumOptSetStart(TAVRWinsDomainEnumOpt* /*option*/, int /*start*/)
{
    return Fail(Error::DirectoryNotConfigured);
}

int TAVRWinsDomainEnumOptSetLimit(TAVRWinsDomainEnumOpt* /*option*/, int /*limit*/)
{
    return Fail(Error::DirectoryNotConfigured);
}

int TAVRWinsDomainEnumOptSetUGType(TAVRWinsDomainEnumOpt* /*option*/, int /*groups*/)
{
    return Fail(Error::DirectoryNotConfigured);
}

int TAVRWinsDomainEnumOptSetSearchSubString(TAVRWinsDomainEnumOpt* /*option*/, const char* /*text*/)
{
    return Fail(Error::DirectoryNotConfigured);
}

int TAVRWinsDomainEnumOptSetDomain(TAVRWinsDomainEnumOpt* /*option*/, const char* /*domain*/)
{
    return Fail(Error::DirectoryNotConfigured);
}

int TAVRWinsDomainEnumOptSetOU(TAVRWinsDomainEnumOpt* /*option*/, const char* /*ou*/)
{
    return Fail(Error::DirectoryNotConfigured);
}

int TAVRWinsDomainCoreFullDbEnum(TAVRWinsDomainEnumOpt* /*option*/, TAVRWinsDomainRow /*row*/,
                                 void* /*userData*/)
{
    return Fail(Error::DirectoryNotConfigured);
}

void TAVRWinsDomainEnumOptFree(TAVRWinsDomainEnumOpt* /*option*/) {}

int TAVRWinIsEnableTrustDomain(void)
{
    return 0;
}
