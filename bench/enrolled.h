// An account for benchmarks: enrolled, with a recovery address and all its emergency codes.
#pragma once

#include "linux/enrolment.h"
#include "linux/names.h"
#include "linux/vault.h"

#include "bench/worker.h"

namespace tavr::bench
{

inline Account EnrolledAccount()
{
    Account account = *AddAccount({"alice", "", "alice@home.example", false}, "not to be used");
    Require(MakePreferenceDirectory(account), "preference directory");
    const SecretFileText references = MakeReferences();
    SecretBytes secret;
    DrawSecret(secret);
    StoreWaiting(account.uid, references, secret);
    SigninDatabase().Prepare("UPDATE secret SET state = 'active'").Run();
    const std::string path = SecretPath(account.name);
    std::ofstream(path) << RenderSecretFile(references);
    Require(chmod(path.c_str(), 0600) == 0, path.c_str());
    Require(Settle(account).enrolment == Enrolment::Yes, "settle");
    return account;
}

} // namespace tavr::bench
