// Our platform with one function at fault: the one that the variable CONTRACT_FAULT names, as
// scripts/new-platform spells it; "list" prints them all. Each fault is a slip that somebody could make.
#include "platform/cgi.h"
#include "platform/conf.h"
#include "platform/core.h"
#include "platform/db.h"
#include "platform/directory.h"
#include "platform/json.h"
#include "platform/mail.h"
#include "platform/secrets.h"
#include "platform/users.h"
#include "platform/webapi.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

std::string Chosen()
{
    const char* const chosen = getenv("CONTRACT_FAULT"); // NOLINT(concurrency-mt-unsafe): before main()
    return chosen == nullptr ? "" : chosen;
}

class Fault
{
public:
    explicit Fault(const char* function) : planted_(Chosen() == function)
    {
        if (Chosen() == "list") {
            std::puts(function);
        }
    }
    explicit operator bool() const { return planted_; }

private:
    bool planted_;
};

} // namespace

// FAULT(function, result, parameters, arguments) { what it does when it is at fault }
//
// The linker puts __wrap_F in front of F and calls F itself __real_F (CMakeLists.txt reads the names off
// these lines). Functions of C++ are known to it by another name, which stands second in FAULT_OF.
#define FAULT_ON(real, name, symbol, result, parameters, arguments)                                          \
    result real parameters;                                                                                  \
    static result Faulty_##symbol parameters;                                                                \
    static const Fault g_##symbol(name);                                                                     \
    result __wrap_##symbol parameters;                                                                       \
    result __wrap_##symbol parameters                                                                        \
    {                                                                                                        \
        return g_##symbol ? Faulty_##symbol arguments : real arguments;                                      \
    }                                                                                                        \
    static result Faulty_##symbol parameters
#define FAULT_OF(name, symbol, result, parameters, arguments)                                                \
    FAULT_ON(__real_##symbol, name, symbol, result, parameters, arguments)
#define FAULT(symbol, result, parameters, arguments)                                                         \
    FAULT_ON(__real_##symbol, #symbol, symbol, result, parameters, arguments)

#pragma GCC diagnostic ignored "-Wunused-parameter"

extern "C" {

// --- core.h ------------------------------------------------------------------------------------------------

FAULT(KLIBCErrGet, int, (void), ()) // the first failure's, for ever
{
    static const int first = __real_KLIBCErrGet();
    return first;
}

FAULT(KLIBCErrorGetFile, const char*, (void), ()) // with its folder
{
    return "linux/core.cpp";
}

FAULT(KLIBCErrorGetLine, int, (void), ()) // unknown
{
    return 0;
}

// An empty argument ends the list. By hand, since its parameters have no end.
FILE* __real_KLIBCPopen(const char* path, const char* mode, ...);
static const Fault g_KLIBCPopen("KLIBCPopen");
FILE* __wrap_KLIBCPopen(const char* path, const char* mode, ...);
FILE* __wrap_KLIBCPopen(const char* path, const char* mode, ...)
{
    std::array<const char*, 12> a{};
    va_list list;
    va_start(list, mode);
    for (size_t i = 0; i + 1 < a.size(); ++i) {
        const char* const argument = va_arg(list, const char*);
        if (argument == nullptr || (g_KLIBCPopen && *argument == 0)) {
            break;
        }
        a[i] = argument;
    }
    va_end(list);
    return __real_KLIBCPopen(path, mode, a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9], a[10],
                             static_cast<char*>(nullptr));
}

FAULT(KLIBCPclose, int, (FILE * stream), (stream)) // waits for nothing
{
    return fclose(stream) == 0 ? 0 : -1;
}

FAULT(KLIBCExec, int,
      (const char* path, const char* arg1, const char* arg2, const char* arg3, const char* arg4),
      (path, arg1, arg2, arg3, arg4)) // that it ran is all that counts
{
    const int status = __real_KLIBCExec(path, arg1, arg2, arg3, arg4);
    return status > 0 ? 0 : status;
}

FAULT(KLIBCBase64SzEncodeFull, int, (const char* in, int inSize, char* out, int outSize, int flags),
      (in, inSize, out, outSize, flags)) // forgets the terminator
{
    return __real_KLIBCBase64SzEncodeFull(in, inSize, out, outSize + 1, flags);
}

FAULT(KLIBCCryptSzDecrypt, int, (const char* stored, char* plain, int size), (stored, plain, size)) // cuts
{
    std::array<char, 1024> text{};
    if (plain == nullptr || __real_KLIBCCryptSzDecrypt(stored, text.data(), text.size()) == 0) {
        return 0;
    }
    std::snprintf(plain, static_cast<size_t>(size), "%s", text.data());
    return 1;
}

FAULT(KLIBCFileExist, int, (const char* path), (path)) // asks with the real ids
{
    return path != nullptr && access(path, F_OK) == 0 ? 1 : 0;
}

FAULT(KLIBCFileGetKeyValue, int, (const char* path, const char* key, char* value, int size, int flags),
      (path, key, value, size, flags)) // cuts
{
    std::array<char, 4096> text{};
    const int length = __real_KLIBCFileGetKeyValue(path, key, text.data(), text.size(), flags);
    if (length <= 0) {
        return length;
    }
    return std::snprintf(value, static_cast<size_t>(size), "%s", text.data());
}

FAULT(KLIBCSzHashAlloc, KLIBCSzHash*, (int size), (size)) // has no room for little
{
    return size < 100 ? nullptr : __real_KLIBCSzHashAlloc(size);
}

FAULT(KLIBCSzHashSetValue, int, (KLIBCSzHash * *hash, const char* key, const char* value),
      (hash, key, value)) // takes no value for an empty one
{
    return __real_KLIBCSzHashSetValue(hash, key, value == nullptr ? "" : value);
}

FAULT(KLIBCSzHashFree, void, (KLIBCSzHash * hash), (hash)) {} // frees nothing

FAULT(TAVRHAIsSafemode, int, (void), ()) // knows of none
{
    return 0;
}

// --- conf.h, json.h ----------------------------------------------------------------------------------------

FAULT_OF("TavrConf::Info", _ZN8TavrConf4InfoEPKcS1_, const char*,
         (TavrConf * self, const char* key, const char* fallback), (self, key, fallback)) // reads once
{
    static std::map<std::string, std::string> values;
    const char* const value = __real__ZN8TavrConf4InfoEPKcS1_(self, key, fallback);
    return values.emplace(key, value).first->second.c_str();
}

FAULT_OF("JsonFromFile", _Z12JsonFromFileRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEERN4Json5ValueE,
         bool, (const std::string& path, Json::Value& value),
         (path, value)) // that it could be read is all that counts
{
    __real__Z12JsonFromFileRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEERN4Json5ValueE(path, value);
    return access(path.c_str(), R_OK) == 0;
}

#pragma GCC diagnostic push
#ifdef __clang__
#pragma GCC diagnostic ignored "-Wreturn-type-c-linkage"
#endif
FAULT_OF("JsonToString", _Z12JsonToStringB5cxx11RKN4Json5ValueE, std::string, (const Json::Value& value),
         (value)) // in many lines
{
    return value.toStyledString();
}
#pragma GCC diagnostic pop

// --- secrets.h ---------------------------------------------------------------------------------------------

FAULT(TAVRGetSecretPathByUser, int, (const char* user, char* path, int size),
      (user, path, size)) // leaves the path as it was
{
    std::array<char, 4096> found{};
    if (path == nullptr) {
        return -1;
    }
    const int status =
        __real_TAVRGetSecretPathByUser(user, found.data(), std::min(size, static_cast<int>(found.size())));
    if (status == 0) {
        std::strcpy(path, found.data());
    }
    return status;
}

FAULT(TAVRGoogleAuth, int, (int count, const char* const* texts),
      (count, texts)) // takes what begins with a code
{
    if (count != 3 || texts == nullptr || texts[1] == nullptr) {
        return -1;
    }
    const std::string code = std::string(texts[1]).substr(0, std::strlen("code=123456"));
    const char* const cut[] = {texts[0], code.c_str(), texts[2]};
    return __real_TAVRGoogleAuth(count, cut);
}

FAULT(tavrcrypto_hwid_init, TavrHwid*, (void), ()) // a record with a text
{
    TavrHwid* const id = __real_tavrcrypto_hwid_init();
    id->text = new char[1]{};
    return id;
}

FAULT(tavrcrypto_hwid_str, bool, (TavrHwid * id, int size), (id, size)) // whatever there is room for
{
    return __real_tavrcrypto_hwid_str(id, 64);
}

FAULT(tavrcrypto_hwid_free, void, (TavrHwid * id), (id)) {} // frees nothing

// --- cgi.h -------------------------------------------------------------------------------------------------

FAULT(TavrCgiInit, int, (const char* name, TavrCgi* cgi), (name, cgi)) // takes no name for an empty one
{
    return __real_TavrCgiInit("", cgi);
}

FAULT(TavrCgiFree, void, (TavrCgi * cgi), (cgi)) // believes that it was bound
{
    *static_cast<volatile char*>(cgi->request) = *static_cast<volatile char*>(cgi->request);
    __real_TavrCgiFree(cgi);
}

FAULT(TavrCgiLogin, int, (TavrCgi * cgi, char* sid, int size, TavrLogin* login),
      (cgi, sid, size, login)) // a fault is a refusal
{
    return std::max(__real_TavrCgiLogin(cgi, sid, size, login), 0);
}

FAULT(TavrCgiTestLoginEx2, int, (TavrLogin * login, void* reserved1, void* reserved2, int refusePending),
      (login, reserved1, reserved2, refusePending)) // knows of no second step
{
    return __real_TavrCgiTestLoginEx2(login, reserved1, reserved2, 0);
}

FAULT(TavrCgiIsTokenEnable, int, (TavrCgi * cgi), (cgi)) // no
{
    return 0;
}

FAULT(TavrCgiLoadInCookies, int, (TavrCgi * cgi), (cgi)) // does nothing, successfully
{
    return 0;
}

FAULT(TavrCgiGetOption, const char*, (TavrCgi * cgi, int option, const char* fallback),
      (cgi, option, fallback)) // what is not there is empty
{
    const char* const value = __real_TavrCgiGetOption(cgi, option, nullptr);
    return value == nullptr ? "" : value;
}

FAULT_OF("WebUtils::ParseInputUserName", _ZN8WebUtils18ParseInputUserNameEPKcPcm, int,
         (const char* input, char* out, unsigned long size), (input, out, size)) // shows what it refuses
{
    const int status = __real__ZN8WebUtils18ParseInputUserNameEPKcPcm(input, out, size);
    if (status < 0 && input != nullptr && out != nullptr && size > 0) {
        std::snprintf(out, size, "%s", input);
    }
    return status;
}

// --- users.h -----------------------------------------------------------------------------------------------

FAULT(TAVRUserGet, int, (const char* name, TAVRUser** record), (name, record)) // nobody's record is none
{
    const int status = __real_TAVRUserGet(name, record);
    if (status < 0 && record != nullptr) {
        *record = nullptr;
    }
    return status;
}

FAULT(TAVRUserFree, void, (TAVRUser * record), (record)) // wipes the caller's mail text
{
    if (record != nullptr && record->mail != nullptr) {
        *static_cast<volatile char*>(const_cast<char*>(record->mail)) = 0;
    }
    __real_TAVRUserFree(record);
}

FAULT(TAVRUserLoginNameConvert, int, (const char* name, char* out, int size),
      (name, out, size)) // 0 for success, as elsewhere
{
    const int status = __real_TAVRUserLoginNameConvert(name, out, size);
    return status == 1 ? 0 : status;
}

FAULT(TAVRUserPreferenceDirGet, int, (const char* name, char* dir, int size, int flags),
      (name, dir, size, flags)) // makes it too
{
    const int status = __real_TAVRUserPreferenceDirGet(name, dir, size, flags);
    if (status == 0) {
        mkdir(dir, 0755);
    }
    return status;
}

FAULT(TAVRConfdUserUpdate, int, (const char* name, const TAVRUser* record, int flags),
      (name, record, flags)) // writes the whole record
{
    if (record == nullptr) {
        return __real_TAVRConfdUserUpdate(name, record, flags);
    }
    const std::string description = record->description == nullptr ? "" : record->description;
    TAVRUser whole = *record;
    whole.description = description.c_str();
    return __real_TAVRConfdUserUpdate(name, &whole, flags);
}

FAULT(TAVRUserGetUGID, int, (const char* name, uint32_t* uid, uint32_t* gid), (name, uid, gid)) // nobody is 0
{
    if (uid != nullptr) {
        *uid = 0;
    }
    return __real_TAVRUserGetUGID(name, uid, gid);
}

FAULT(TAVRGroupGetGID, int, (const char* name, uint32_t* gid), (name, gid)) // of none it is 0, successfully
{
    if (__real_TAVRGroupGetGID(name, gid) < 0 && gid != nullptr) {
        *gid = 0;
    }
    return 0;
}

FAULT(TAVRGroupDescGet, int, (const char* name, char** description, char** second),
      (name, description, second)) // none for an empty one
{
    const int status = __real_TAVRGroupDescGet(name, description, second);
    if (status == 0 && **description == 0) {
        free(*description); // NOLINT(cppcoreguidelines-no-malloc)
        *description = nullptr;
    }
    return status;
}

FAULT(KLIBGroupIsAdminGroupMem, int, (const char* name, int flags), (name, flags)) // not known is no
{
    return std::max(__real_KLIBGroupIsAdminGroupMem(name, flags), 0);
}

FAULT(KLIBGroupInfoGidGet, int, (const char* name, int flags, uint32_t** gids, int* count),
      (name, flags, gids, count)) // counts before it looks
{
    *count = 0;
    return __real_KLIBGroupInfoGidGet(name, flags, gids, count);
}

struct Counted {
    KLIBUserInfoRow row;
    void* userData;
    int rows;
};

FAULT(KLIBUserInfoEnumBySubstr, int,
      (int source, const char* domain, int offset, int limit, const char* query, int flags,
       KLIBUserInfoRow row, void* userData),
      (source, domain, offset, limit, query, flags, row, userData)) // the number of the page
{
    Counted counted{row, userData, 0};
    const auto count = [](const KLIBUserInfo* entry, void* data) {
        auto* of = static_cast<Counted*>(data);
        ++of->rows;
        return of->row(entry, of->userData);
    };
    const int total = __real_KLIBUserInfoEnumBySubstr(
        source, domain, offset, limit, query, flags,
        row == nullptr ? nullptr : static_cast<KLIBUserInfoRow>(count), &counted);
    return total < 0 ? total : counted.rows;
}

FAULT(KLIBGroupInfoEnumBySubstr, int,
      (int source, const char* domain, int offset, int limit, const char* query, int flags,
       KLIBGroupInfoRow row, void* userData),
      (source, domain, offset, limit, query, flags, row, userData)) // always the first page
{
    return __real_KLIBGroupInfoEnumBySubstr(source, domain, 0, limit, query, flags, row, userData);
}

// --- directory.h, LDAP -------------------------------------------------------------------------------------

FAULT(TAVRLDAPSearchOptionAlloc, TAVRLDAPSearchOption*, (void), ()) // one for everybody
{
    static TAVRLDAPSearchOption* const one = __real_TAVRLDAPSearchOptionAlloc();
    return one;
}

FAULT(TAVRLDAPSearchOptionGet, int, (TAVRLDAPSearchOption * options, int flags),
      (options, flags)) // loads nothing
{
    return 0;
}

FAULT(TAVRLDAPSearchOptionFree, void, (TAVRLDAPSearchOption * options), (options)) {} // frees nothing

FAULT(TAVRLDAPSplitName, int, (const char* name, char* reserved1, char* reserved2, char* bare, int size),
      (name, reserved1, reserved2, bare, size)) // a name without @ is bare
{
    const int status = __real_TAVRLDAPSplitName(name, reserved1, reserved2, bare, size);
    if (status > 0 || name == nullptr || *name == 0 || std::strchr(name, '@') != nullptr) {
        return status;
    }
    std::snprintf(bare, static_cast<size_t>(size), "%s", name);
    return 1;
}

FAULT(TAVRLDAPHostInitByBindConfigOnly, int, (TAVRLDAPHost * host), (host)) // describes nothing
{
    return 0;
}

FAULT(TAVRLDAPBrowserGetDNByUserUID, int,
      (TAVRLDAPHost * host, const char* bare, char* dn, int size, TAVRLDAPSearchOption* options),
      (host, bare, dn, size, options)) // the first is the only one
{
    return std::min(__real_TAVRLDAPBrowserGetDNByUserUID(host, bare, dn, size, options), 1);
}

FAULT(TAVRLDAPBrowserUserGet, int,
      (TAVRLDAPHost * host, const char* dn, TAVRUser** record, int flags1, int flags2,
       TAVRLDAPSearchOption* options),
      (host, dn, record, flags1, flags2, options)) // 0 for success, as elsewhere
{
    return std::min(__real_TAVRLDAPBrowserUserGet(host, dn, record, flags1, flags2, options), 0);
}

FAULT(TAVRLDAPHostFree, void, (TAVRLDAPHost * host), (host)) // believes that it was opened
{
    static_cast<void>(*static_cast<volatile char*>(host->state));
    __real_TAVRLDAPHostFree(host);
}

FAULT(TAVRLDAPGroupDescGet, int, (const char* name, char** description, char** second),
      (name, description, second)) // nobody's is empty
{
    const int status = __real_TAVRLDAPGroupDescGet(name, description, second);
    if (status < 0 && description != nullptr) {
        *description = strdup("");
        return 0;
    }
    return status;
}

// --- directory.h, the domain -------------------------------------------------------------------------------

FAULT(TAVRWinsDomainEnumOptAlloc, int, (TAVRWinsDomainEnumOpt * *option),
      (option)) // gives nothing, successfully
{
    return 0;
}

FAULT(TAVRWinsDomainEnumOptAddSearchFields, int, (TAVRWinsDomainEnumOpt * option, const char* field),
      (option, field)) // searches nowhere
{
    return option == nullptr || field == nullptr ? __real_TAVRWinsDomainEnumOptAddSearchFields(option, field)
                                                 : 0;
}

FAULT(TAVRWinsDomainEnumOptSetStart, int, (TAVRWinsDomainEnumOpt * option, int start),
      (option, start)) // counts from one
{
    return __real_TAVRWinsDomainEnumOptSetStart(option, start + 1);
}

FAULT(TAVRWinsDomainEnumOptSetLimit, int, (TAVRWinsDomainEnumOpt * option, int limit),
      (option, limit)) // all of them
{
    return __real_TAVRWinsDomainEnumOptSetLimit(option, -1);
}

FAULT(TAVRWinsDomainEnumOptSetUGType, int, (TAVRWinsDomainEnumOpt * option, int groups),
      (option, groups)) // users alone
{
    return __real_TAVRWinsDomainEnumOptSetUGType(option, 0);
}

FAULT(TAVRWinsDomainEnumOptSetSearchSubString, int, (TAVRWinsDomainEnumOpt * option, const char* text),
      (option, text)) // searches nothing
{
    return __real_TAVRWinsDomainEnumOptSetSearchSubString(option, "");
}

FAULT(TAVRWinsDomainEnumOptSetDomain, int, (TAVRWinsDomainEnumOpt * option, const char* domain),
      (option, domain)) // there is one alone
{
    return __real_TAVRWinsDomainEnumOptSetDomain(option, "");
}

FAULT(TAVRWinsDomainEnumOptSetOU, int, (TAVRWinsDomainEnumOpt * option, const char* ou),
      (option, ou)) // there are none
{
    return __real_TAVRWinsDomainEnumOptSetOU(option, "");
}

FAULT(TAVRWinsDomainCoreFullDbEnum, int,
      (TAVRWinsDomainEnumOpt * option, TAVRWinsDomainRow row, void* userData),
      (option, row, userData)) // swallows what a row throws
{
    try {
        return __real_TAVRWinsDomainCoreFullDbEnum(option, row, userData);
    } catch (const std::exception&) {
        return -1;
    }
}

FAULT(TAVRWinsDomainEnumOptFree, void, (TAVRWinsDomainEnumOpt * option), (option)) {} // frees nothing

FAULT(TAVRWinIsEnableTrustDomain, int, (void), ()) // knows of none
{
    return 0;
}

// --- mail.h ------------------------------------------------------------------------------------------------

FAULT(TAVRMailReadByTagAndConvertRealEx, int,
      (const char* lang, const char* tag, char* subject, int size, char** content, KLIBCSzHash** hash,
       int flags),
      (lang, tag, subject, size, content, hash, flags)) // takes all the room
{
    return __real_TAVRMailReadByTagAndConvertRealEx(lang, tag, subject, size == 0 ? 0 : 256, content, hash,
                                                    flags);
}

FAULT(TAVRMailGet, int, (TAVRMail * mail), (mail)) // no service is a failure
{
    const int status = __real_TAVRMailGet(mail);
    return status == 0 && mail->server[0] == 0 ? -1 : status;
}

FAULT(TAVRMailFree, void, (TAVRMail * mail), (mail)) // believes that it was filled
{
    if (mail->server[0] == 0) {
        static_cast<void>(*static_cast<volatile char*>(mail->rest));
    }
    __real_TAVRMailFree(mail);
}

FAULT(TAVRMailSendMessageWithoutBlock, int,
      (const char* tag, KLIBCSzHash** hash, const char* address, int flags),
      (tag, hash, address, flags)) // forgets it
{
    return 0;
}

// --- db.h --------------------------------------------------------------------------------------------------

FAULT(TAVRDBConnect, TAVRDB*, (const char* host, const char* user, const char* password, const char* path),
      (host, user, password, path)) // makes what is not there
{
    if (path != nullptr) {
        close(open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    }
    return __real_TAVRDBConnect(host, user, password, path);
}

FAULT(TAVRDBExecute, int, (TAVRDB * db, const char* sql, TAVRDBResult** result),
      (db, sql, result)) // clears first
{
    *result = nullptr;
    return __real_TAVRDBExecute(db, sql, result);
}

FAULT(TAVRDBNumRows, int64_t, (TAVRDBResult * result), (result)) // whether there are any
{
    return std::min<int64_t>(__real_TAVRDBNumRows(result), 1);
}

FAULT(TAVRDBFetchRow, int, (TAVRDBResult * result, TAVRDBRow** row), (result, row)) // the end is no row
{
    const int status = __real_TAVRDBFetchRow(result, row);
    if (status < 0) {
        *row = nullptr;
    }
    return status;
}

FAULT(TAVRDBFetchField, const char*, (TAVRDBResult * result, TAVRDBRow* row, const char* column),
      (result, row, column)) // null for an SQL null
{
    const char* const text = __real_TAVRDBFetchField(result, row, column);
    return text == nullptr || *text == 0 ? nullptr : text;
}

FAULT(TAVRDBFreeResult, void, (TAVRDBResult * result), (result)) {} // frees nothing

// --- webapi.h ----------------------------------------------------------------------------------------------

using Connection = tavrdaemon::DomainSockConnection;

void __real__ZN10tavrdaemon20DomainSockConnectionD1Ev(Connection* self);

FAULT_OF("tavrdaemon::SockConnection::Recv",
         _ZN10tavrdaemon14SockConnection4RecvERNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE, bool,
         (tavrdaemon::SockConnection * self, std::string& text), (self, text)) // clears first
{
    text.clear();
    return __real__ZN10tavrdaemon14SockConnection4RecvERNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(
        self, text);
}

// Keeps the caller's text: looked at when it connects, below.
static const char* g_keptPath;
FAULT_OF("tavrdaemon::DomainSockConnection::DomainSockConnection",
         _ZN10tavrdaemon20DomainSockConnectionC1EPKc, void, (Connection * self, const char* path),
         (self, path))
{
    g_keptPath = path;
    __real__ZN10tavrdaemon20DomainSockConnectionC1EPKc(self, path);
}

FAULT_OF("tavrdaemon::DomainSockConnection::~DomainSockConnection", _ZN10tavrdaemon20DomainSockConnectionD1Ev,
         void, (Connection * self), (self)) // closes nothing
{
}

bool __real__ZN10tavrdaemon20DomainSockConnection7ConnectEv(Connection* self);
static const Fault g_connect("tavrdaemon::DomainSockConnection::Connect");
bool __wrap__ZN10tavrdaemon20DomainSockConnection7ConnectEv(Connection* self);
bool __wrap__ZN10tavrdaemon20DomainSockConnection7ConnectEv(
    Connection* self) // at fault: nobody is there, well
{
    if (g_keptPath != nullptr) {
        __real__ZN10tavrdaemon20DomainSockConnectionD1Ev(self);
        __real__ZN10tavrdaemon20DomainSockConnectionC1EPKc(self, g_keptPath);
    }
    return __real__ZN10tavrdaemon20DomainSockConnection7ConnectEv(self) || g_connect;
}

FAULT_OF("tavrdaemon::DomainSockConnection::Send",
         _ZN10tavrdaemon20DomainSockConnection4SendERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE,
         bool, (Connection * self, const std::string& text), (self, text)) // an empty text is soon sent
{
    return text.empty() ||
           __real__ZN10tavrdaemon20DomainSockConnection4SendERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(
               self, text);
}

} // extern "C"

// After the faults, in this file's order.
static const int g_listed = [] {
    if (Chosen() == "list") {
        std::exit(0);
    }
    return 0;
}();
