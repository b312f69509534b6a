#include "linux/request.h"

#include <sodium.h>

namespace tavr
{

namespace
{

void Wipe(std::string& text)
{
    text.resize(text.capacity());
    sodium_memzero(text.data(), text.size());
    text.clear();
}

} // namespace

const char* FaultText(Fault fault)
{
    switch (fault) {
    case Fault::None:
        return "no fault";
    case Fault::KeyMissing:
        return "machine key missing";
    case Fault::KeyWrong:
        return "machine key is not the one that sealed the vault, or its owner or mode is wrong";
    case Fault::VaultDamaged:
        return "vault damaged";
    case Fault::StateUnavailable:
        return "sign-in state cannot be read or written";
    case Fault::SecretFile:
        return "secret file is not what the vault says";
    case Fault::AccountsUnavailable:
        return "account store cannot be read";
    case Fault::MailNotQueued:
        return "mail cannot be queued";
    case Fault::DirectoryBusy:
        return "too many requests wait for the directory";
    case Fault::DirectoryUnavailable:
        return "directory cannot be asked";
    case Fault::SettingsUnavailable:
        return "system settings cannot be read";
    case Fault::PolicyUnavailable:
        return "it cannot be told whether two-step sign-in is demanded";
    }
    return "unknown fault";
}

Request& CurrentRequest()
{
    static Request request;
    return request;
}

void StartRequest()
{
    Request& request = CurrentRequest();
    Wipe(request.sidCookie);
    Wipe(request.pendingCookie);
    Wipe(request.newSid);
    const uint64_t number = request.number + 1;
    request = Request();
    request.number = number;
}

void NoteFault(Fault fault)
{
    Request& request = CurrentRequest();
    if (request.fault == Fault::None) {
        request.fault = fault;
    }
}

} // namespace tavr
