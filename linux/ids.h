// Effective ids, changed for one scope. The library has two mechanisms of its own; whatever else in the
// platform needs other ids for a stretch does it with this owner and nothing else.
//
// Needs root as the effective or the saved id. Ids that cannot be given back end the process: nothing may go
// on with rights that it should have lost.
#pragma once

#include <sys/types.h>

namespace tavr
{

class EffectiveIds
{
public:
    // Raises to root.
    static EffectiveIds Root();

    // Lowers to those of the service: a worker's real ids; tavr-web's in a process that root started.
    static EffectiveIds Service();

    ~EffectiveIds();
    EffectiveIds(const EffectiveIds&) = delete;
    EffectiveIds& operator=(const EffectiveIds&) = delete;

    // False when the ids could not be changed; the process then has those that it had.
    [[nodiscard]] bool Changed() const { return changed_; }

private:
    EffectiveIds(uid_t uid, gid_t gid);

    uid_t savedUid_;
    gid_t savedGid_;
    bool changed_;
};

// The service's group; that of no one (-1) where the system does not know the service's account.
gid_t ServiceGroup();

} // namespace tavr
