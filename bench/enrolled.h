// Accounts for benchmarks: the file of a secret, and one account that is enrolled, with a recovery address
// and all its emergency codes.
#pragma once

#include "linux/enrolment.h"
#include "linux/names.h"
#include "linux/vault.h"

#include "bench/worker.h"

namespace tavr::bench
{

// A secret's file as the tool leaves it.
inline void PutSecretFile(const std::string& path, const SecretFileText& references)
{
    std::ofstream(path) << RenderSecretFile(references);
    Require(chmod(path.c_str(), 0600) == 0, path.c_str());
}

inline Account EnrolledAccount()
{
    Account account = *AddAccount({"alice", "", "alice@home.example", false}, "not to be used");
    Require(MakePreferenceDirectory(account), "preference directory");
    const SecretFileText references = MakeReferences();
    SecretBytes secret;
    DrawSecret(secret);
    StoreWaiting(account.uid, references, secret);
    SigninDatabase().Prepare("UPDATE secret SET state = 'active'").Run();
    PutSecretFile(SecretPath(account.name), references);
    Require(Settle(account).enrolment == Enrolment::Yes, "settle");
    return account;
}

} // namespace tavr::bench
