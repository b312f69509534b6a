#include "linux/ids.h"

#include "linux/audit.h"
#include "linux/paths.h"

#include <pwd.h>
#include <syslog.h>
#include <unistd.h>

namespace tavr
{

namespace
{

constexpr uid_t kNoUid = static_cast<uid_t>(-1);
constexpr gid_t kNoGid = static_cast<gid_t>(-1);

bool AreEffective(uid_t uid, gid_t gid)
{
    return geteuid() == uid && getegid() == gid;
}

// Up user before group, down group before user: only root may change the group.
bool Switch(uid_t uid, gid_t gid)
{
    if (geteuid() != 0 && setresuid(kNoUid, 0, kNoUid) != 0) {
        return false;
    }
    return setresgid(kNoGid, gid, kNoGid) == 0 && setresuid(kNoUid, uid, kNoUid) == 0;
}

struct Ids {
    uid_t uid = kNoUid;
    gid_t gid = kNoGid;
};

Ids ServiceIds()
{
    const uid_t real = getuid();
    if (real != 0) {
        return {real, getgid()};
    }
    passwd entry{};
    passwd* found = nullptr;
    char texts[4096];
    if (getpwnam_r(kServiceUser, &entry, texts, sizeof texts, &found) == 0 && found != nullptr) {
        return {entry.pw_uid, entry.pw_gid};
    }
    return {};
}

} // namespace

gid_t ServiceGroup()
{
    return ServiceIds().gid;
}

EffectiveIds EffectiveIds::Root()
{
    return EffectiveIds(0, 0);
}

EffectiveIds EffectiveIds::Service()
{
    const Ids ids = ServiceIds();
    return EffectiveIds(ids.uid, ids.gid);
}

EffectiveIds::EffectiveIds(uid_t uid, gid_t gid) : savedUid_(geteuid()), savedGid_(getegid())
{
    if (savedUid_ == uid && savedGid_ == gid) {
        changed_ = true; // as they are already
        return;
    }
    changed_ = uid != kNoUid && gid != kNoGid && Switch(uid, gid);
    if (!changed_) {
        syslog(LOG_AUTH | LOG_ERR, "cannot switch to ids %d, %d: %m", static_cast<int>(uid),
               static_cast<int>(gid));
        Audit(AuditEvent::PrivilegeFailed, std::string_view(), "ids");
        if (!AreEffective(savedUid_, savedGid_) && !Switch(savedUid_, savedGid_)) {
            _exit(70);
        }
    }
}

EffectiveIds::~EffectiveIds()
{
    if (!AreEffective(savedUid_, savedGid_) && !Switch(savedUid_, savedGid_)) {
        syslog(LOG_AUTH | LOG_CRIT, "cannot give back ids %d, %d: %m", static_cast<int>(savedUid_),
               static_cast<int>(savedGid_));
        Audit(AuditEvent::PrivilegeFailed, std::string_view(), "ids");
        _exit(70);
    }
}

} // namespace tavr
