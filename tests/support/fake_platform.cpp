#include "tests/support/fake_platform.h"

#include "platform/conf.h"
#include "platform/core.h"
#include "platform/db.h"
#include "platform/directory.h"
#include "platform/json.h"
#include "platform/mail.h"
#include "platform/secrets.h"
#include "platform/webapi.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/types.h>

namespace
{

FakePlatform* g_current = nullptr;
char g_secondText[] = "another text";

std::string Shown(const char* text)
{
    return text == nullptr ? "null" : "\"" + std::string(text) + "\"";
}
std::string Shown(const std::string& text)
{
    return text;
}
template<typename Number>
requires std::is_integral_v<Number> std::string Shown(Number number)
{
    return std::to_string(number);
}

template<typename... Arguments>
std::string List(const Arguments&... arguments)
{
    std::string list;
    ((list += (list.empty() ? "" : ", ") + Shown(arguments)), ...);
    return list;
}

// Writes the call down; what the script has it give, if anything.
template<typename... Arguments>
std::optional<int> Called(const std::string& name, const Arguments&... arguments)
{
    FakePlatform& fake = *FakePlatform::Current();
    fake.Record(name, List(arguments...));
    return fake.Scripted(name);
}

FakePlatform& Fake()
{
    return *FakePlatform::Current();
}

void Put(const std::string& text, char* out, std::size_t size)
{
    std::snprintf(out, size, "%s", text.c_str());
}

char* MallocCopy(const std::string& text)
{
    return strdup(text.c_str());
}

const char* TextOrNull(const std::optional<std::string>& text)
{
    return text ? text->c_str() : nullptr;
}

bool IsZeroFilled(const char* buffer, int size)
{
    return std::all_of(buffer, buffer + size, [](char byte) { return byte == '\0'; });
}

// A record with texts of its own.
struct OwnedUser {
    TAVRUser record{};
    std::string name;
    FakePlatform::User data;
};

TAVRUser* NewUser(const std::string& name, const FakePlatform::User& data)
{
    auto* user = new OwnedUser;
    user->name = name;
    user->data = data;
    user->record = {
        user->name.c_str(),         data.uid, data.gid, data.kind, TextOrNull(user->data.description),
        TextOrNull(user->data.mail)};
    Fake().Opened(&user->record, "user record");
    return &user->record;
}

} // namespace

FakePlatform::FakePlatform()
{
    EXPECT_EQ(nullptr, g_current) << "one fake platform at a time";
    g_current = this;
}

FakePlatform::~FakePlatform()
{
    g_current = nullptr;
    for (const auto& [thing, kind] : open_) {
        ADD_FAILURE() << "never given back: " << kind;
    }
}

FakePlatform* FakePlatform::Current()
{
    return g_current;
}

std::vector<std::string> FakePlatform::LogTexts() const
{
    std::vector<std::string> texts;
    for (const LogLine& entry : log) {
        texts.push_back(std::to_string(entry.priority) + " " + entry.file + " " + entry.text);
    }
    return texts;
}

std::vector<std::string> FakePlatform::LogLines() const
{
    std::vector<std::string> texts;
    for (const LogLine& entry : log) {
        texts.push_back(std::to_string(entry.priority) + " " + entry.file + ":" + std::to_string(entry.line) +
                        " " + entry.text);
    }
    return texts;
}

std::vector<std::string> FakePlatform::CallsOf(const std::string& name) const
{
    std::vector<std::string> found;
    for (const std::string& call : calls) {
        if (call.starts_with(name + "(")) {
            found.push_back(call);
        }
    }
    return found;
}

void FakePlatform::Record(const std::string& name, const std::string& arguments)
{
    calls.push_back(name + "(" + arguments + ")");
    logAndCalls.push_back(calls.back());
}

std::optional<int> FakePlatform::Scripted(const std::string& name)
{
    if (const auto during = during_.find(name); during != during_.end()) {
        during->second();
    }
    const auto found = script_.find(name);
    if (found == script_.end()) {
        return {};
    }
    const int number = ++count_[name];
    for (const int nth : {number, 0}) {
        if (const auto answer = found->second.find(nth); answer != found->second.end()) {
            return answer->second;
        }
    }
    return {};
}

std::string FakePlatform::PlaceOf(const std::string& path) const
{
    const auto found = files.find(path);
    return found == files.end() ? path : found->second;
}

void FakePlatform::Opened(const void* thing, const std::string& kind)
{
    open_[thing] = kind;
}

void FakePlatform::Closed(const void* thing, const std::string& kind)
{
    const auto found = open_.find(thing);
    if (found == open_.end() || found->second != kind) {
        ADD_FAILURE() << "given back and not handed out, or given back twice: " << kind;
        return;
    }
    open_.erase(found);
}

void FakePlatform::Logged(int priority, const std::string& line)
{
    const std::size_t blank = line.find(' ');
    const std::size_t colon = line.find(':');
    LogLine entry;
    entry.priority = priority;
    if (colon != std::string::npos && blank != std::string::npos && colon < blank) {
        entry.file = line.substr(0, colon);
        entry.line = std::stoi(line.substr(colon + 1, blank - colon - 1));
        entry.text = line.substr(blank + 1);
    } else {
        ADD_FAILURE() << "a log line without file and line: " << line;
        entry.text = line;
    }
    logAndCalls.push_back("log: " + entry.text);
    log.push_back(entry);
}

// --- platform/core.h ---

int KLIBCErrGet(void)
{
    return Fake().error.code;
}

const char* KLIBCErrorGetFile(void)
{
    return Fake().error.file.c_str();
}

int KLIBCErrorGetLine(void)
{
    return Fake().error.line;
}

FILE* KLIBCPopen(const char* path, const char* mode, ...)
{
    std::string arguments = List(path, mode);
    va_list list;
    va_start(list, mode);
    for (const char* text = va_arg(list, char*); text != nullptr; text = va_arg(list, char*)) {
        arguments += ", " + Shown(text);
    }
    va_end(list);
    Fake().Record("KLIBCPopen", arguments);
    if (Fake().Scripted("KLIBCPopen")) {
        return nullptr;
    }
    std::string& output = Fake().outputs[path];
    FILE* stream = tmpfile();
    std::fwrite(output.data(), 1, output.size(), stream);
    std::rewind(stream);
    Fake().Opened(stream, "program's output");
    return stream;
}

int KLIBCPclose(FILE* stream)
{
    const auto scripted = Called("KLIBCPclose");
    Fake().Closed(stream, "program's output");
    std::fclose(stream);
    return scripted.value_or(0);
}

int KLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3, const char* arg4)
{
    return Called("KLIBCExec", path, arg1, arg2, arg3, arg4).value_or(0);
}

int KLIBCBase64SzEncodeFull(const char* in, int inSize, char* out, int outSize, int flags)
{
    const std::string shown = "<" + std::to_string(inSize) + " bytes>";
    if (const auto scripted = Called("KLIBCBase64SzEncodeFull", shown, std::string("out"), outSize, flags)) {
        return *scripted;
    }
    // Base-16 tells just as well what was handed over, and that it was put through here.
    std::string text = "picture:";
    for (int i = 0; i < inSize; ++i) {
        constexpr char kDigits[] = "0123456789abcdef";
        const auto byte = static_cast<unsigned char>(in[i]);
        text += {kDigits[byte >> 4], kDigits[byte & 0xF]};
    }
    text.resize(std::min(text.size(), outSize > 0 ? static_cast<std::size_t>(outSize) - 1 : 0));
    if (outSize > 0) {
        std::memcpy(out, text.c_str(), text.size() + 1);
    }
    return static_cast<int>(text.size());
}

int KLIBCCryptSzDecrypt(const char* stored, char* plain, int size)
{
    const auto scripted = Called("KLIBCCryptSzDecrypt", stored, std::string("plain"), size);
    const auto found = Fake().ciphered.find(stored);
    if (scripted || found == Fake().ciphered.end()) {
        return scripted.value_or(0);
    }
    Put(found->second, plain, static_cast<std::size_t>(size));
    return 1;
}

int KLIBCFileExist(const char* path)
{
    return Called("KLIBCFileExist", path).value_or(access(Fake().PlaceOf(path).c_str(), F_OK) == 0 ? 1 : 0);
}

int KLIBCFileGetKeyValue(const char* path, const char* key, char* value, int size, int flags)
{
    EXPECT_TRUE(IsZeroFilled(value, size));
    const auto scripted = Called("KLIBCFileGetKeyValue", path, key, std::string("value"), size, flags);
    const auto found = Fake().keyValues.find(key);
    if (scripted || found == Fake().keyValues.end()) {
        return scripted.value_or(-1);
    }
    Put(found->second, value, static_cast<std::size_t>(size));
    return static_cast<int>(found->second.size());
}

struct KLIBCSzHash {
    std::map<std::string, std::string> entries;
};

// Every call that may move the table does, so that an old address is noticed.
static void Move(KLIBCSzHash** hash)
{
    auto* moved = new KLIBCSzHash(**hash);
    Fake().Opened(moved, "hash");
    Fake().Closed(*hash, "hash");
    delete std::exchange(*hash, moved);
}

// The texts of a table, which is somewhere else afterwards.
static std::string ShownMoved(KLIBCSzHash** hash)
{
    Move(hash);
    std::string values = "{";
    for (const auto& [key, value] : (*hash)->entries) {
        values += (values.size() > 1 ? ", " : "") + key + "=" + value;
    }
    return values + "}";
}

KLIBCSzHash* KLIBCSzHashAlloc(int size)
{
    if (Called("KLIBCSzHashAlloc", size)) {
        return nullptr;
    }
    auto* hash = new KLIBCSzHash;
    Fake().Opened(hash, "hash");
    return hash;
}

int KLIBCSzHashSetValue(KLIBCSzHash** hash, const char* key, const char* value)
{
    if (const auto scripted = Called("KLIBCSzHashSetValue", key, value)) {
        return *scripted;
    }
    Move(hash);
    (*hash)->entries[key] = value;
    return 0;
}

void KLIBCSzHashFree(KLIBCSzHash* hash)
{
    Called("KLIBCSzHashFree");
    if (hash != nullptr) {
        Fake().Closed(hash, "hash");
        delete hash;
    }
}

int TAVRHAIsSafemode(void)
{
    return Called("TAVRHAIsSafemode").value_or(Fake().safeMode ? 1 : 0);
}

// --- platform/secrets.h ---

int TAVRGetSecretPathByUser(const char* user, char* path, int size)
{
    EXPECT_TRUE(IsZeroFilled(path, size));
    if (const auto scripted = Called("TAVRGetSecretPathByUser", user, std::string("path"), size)) {
        return *scripted;
    }
    Put(Fake().secretPath, path, static_cast<std::size_t>(size));
    return 0;
}

int TAVRGoogleAuth(int count, const char* const* texts)
{
    return Called("TAVRGoogleAuth", count, texts[0], texts[1], texts[2]).value_or(0);
}

TavrHwid* tavrcrypto_hwid_init(void)
{
    if (Called("tavrcrypto_hwid_init")) {
        return nullptr;
    }
    auto* id = new TavrHwid{0, nullptr};
    Fake().Opened(id, "hardware id");
    return id;
}

bool tavrcrypto_hwid_str(TavrHwid* id, int size)
{
    const auto scripted = Called("tavrcrypto_hwid_str", size);
    if (scripted) {
        return *scripted > 0;
    }
    if (id == nullptr || !Fake().hardwareId) {
        return false;
    }
    id->text = Fake().hardwareId->data();
    return true;
}

void tavrcrypto_hwid_free(TavrHwid* id)
{
    Called("tavrcrypto_hwid_free", std::string(id == nullptr ? "null" : "id"));
    if (id != nullptr) {
        Fake().Closed(id, "hardware id");
        delete id;
    }
}

// --- platform/cgi.h ---

int TavrCgiInit(const char* name, TavrCgi* cgi)
{
    Fake().contexts.push_back(cgi);
    Fake().Opened(cgi, "request context");
    return Called("TavrCgiInit", name, std::string("cgi")).value_or(0);
}

void TavrCgiFree(TavrCgi* cgi)
{
    Called("TavrCgiFree", std::string("cgi"));
    Fake().Closed(cgi, "request context");
}

int TavrCgiLogin(TavrCgi* cgi, char* sid, int size, TavrLogin* login)
{
    EXPECT_EQ(Fake().contexts.back(), cgi);
    EXPECT_TRUE(IsZeroFilled(sid, 1024));
    const auto scripted = Called("TavrCgiLogin", std::string("cgi"), std::string("sid"), size, login->user,
                                 login->password, login->client, login->flags);
    Put(Fake().sid, sid, static_cast<std::size_t>(size));
    return scripted.value_or(Fake().loginStatus);
}

int TavrCgiTestLoginEx2(TavrLogin* login, void* reserved1, void* reserved2, int refusePending)
{
    EXPECT_EQ(nullptr, reserved1);
    EXPECT_EQ(nullptr, reserved2);
    return Called("TavrCgiTestLoginEx2", login->user, login->password, login->client, login->flags,
                  refusePending)
        .value_or(Fake().loginStatus);
}

int TavrCgiIsTokenEnable(TavrCgi* /*cgi*/)
{
    return Called("TavrCgiIsTokenEnable", std::string("cgi")).value_or(Fake().token ? 1 : 0);
}

int TavrCgiLoadInCookies(TavrCgi* /*cgi*/)
{
    return Called("TavrCgiLoadInCookies", std::string("cgi")).value_or(0);
}

const char* TavrCgiGetOption(TavrCgi* /*cgi*/, int option, const char* fallback)
{
    Called("TavrCgiGetOption", std::string("cgi"), option, fallback);
    return Fake().token ? Fake().token->c_str() : fallback;
}

int WebUtils::ParseInputUserName(const char* input, char* out, unsigned long size)
{
    EXPECT_TRUE(IsZeroFilled(out, static_cast<int>(size)));
    if (const auto scripted = Called("ParseInputUserName", input, std::string("out"), size)) {
        return *scripted;
    }
    const auto found = Fake().canonicalNames.find(input);
    Put(found == Fake().canonicalNames.end() ? input : found->second, out, size);
    return 0;
}

// --- platform/users.h ---

int TAVRUserGet(const char* name, TAVRUser** record)
{
    const auto scripted = Called("TAVRUserGet", name);
    const auto found = Fake().users.find(name);
    if (scripted.value_or(0) < 0 || found == Fake().users.end()) {
        return scripted.value_or(-1);
    }
    *record = NewUser(name, found->second);
    return scripted.value_or(0);
}

void TAVRUserFree(TAVRUser* record)
{
    Called("TAVRUserFree", record->name);
    Fake().Closed(record, "user record");
    delete reinterpret_cast<OwnedUser*>(record);
}

int TAVRUserLoginNameConvert(const char* name, char* out, int size)
{
    EXPECT_TRUE(IsZeroFilled(out, size));
    const auto scripted = Called("TAVRUserLoginNameConvert", name, std::string("out"), size);
    const auto found = Fake().loginNames.find(name);
    if (scripted || found == Fake().loginNames.end()) {
        return scripted.value_or(0);
    }
    Put(found->second, out, static_cast<std::size_t>(size));
    return 1;
}

int TAVRUserPreferenceDirGet(const char* name, char* dir, int size, int flags)
{
    EXPECT_TRUE(IsZeroFilled(dir, size));
    if (const auto scripted = Called("TAVRUserPreferenceDirGet", name, std::string("dir"), size, flags)) {
        return *scripted;
    }
    Put(Fake().preferenceDir, dir, static_cast<std::size_t>(size));
    return 0;
}

int TAVRConfdUserUpdate(const char* name, const TAVRUser* record, int flags)
{
    const auto scripted = Called("TAVRConfdUserUpdate", name, record->name, record->uid, record->gid,
                                 record->kind, record->description, record->mail, flags);
    if (!scripted) {
        Fake().users[name].mail = record->mail;
    }
    return scripted.value_or(0);
}

int TAVRUserGetUGID(const char* name, uint32_t* uid, uint32_t* gid)
{
    const auto scripted = Called("TAVRUserGetUGID", name);
    const auto found = Fake().users.find(name);
    if (scripted || found == Fake().users.end()) {
        return scripted.value_or(-1);
    }
    if (uid != nullptr) {
        *uid = found->second.uid;
    }
    if (gid != nullptr) {
        *gid = found->second.gid;
    }
    return 0;
}

int TAVRGroupGetGID(const char* name, uint32_t* gid)
{
    const auto scripted = Called("TAVRGroupGetGID", name);
    const auto found = Fake().groups.find(name);
    if (scripted || found == Fake().groups.end()) {
        return scripted.value_or(-1);
    }
    *gid = found->second;
    return 0;
}

int TAVRGroupDescGet(const char* name, char** description, char** second)
{
    const auto scripted =
        Called("TAVRGroupDescGet", name, std::string(second == nullptr ? "null" : "second"));
    if (scripted) {
        return *scripted;
    }
    *description = MallocCopy(std::string("group ") + name);
    if (second != nullptr) {
        *second = g_secondText; // nobody's to free
    }
    return 0;
}

int KLIBGroupIsAdminGroupMem(const char* name, int flags)
{
    return Called("KLIBGroupIsAdminGroupMem", name, flags).value_or(0);
}

// Hands memory out whatever it says, for a caller that leaks to be noticed.
int KLIBGroupInfoGidGet(const char* name, int flags, uint32_t** gids, int* count)
{
    const auto scripted = Called("KLIBGroupInfoGidGet", name, flags);
    const std::vector<uint32_t>& list = Fake().gidsOfUser;
    *count = static_cast<int>(list.size());
    *gids = static_cast<uint32_t*>(std::malloc((list.size() + 1) * sizeof(uint32_t)));
    std::copy(list.begin(), list.end(), *gids);
    return scripted.value_or(0);
}

// Gives the entries of a page to the call-back; the number of all of them.
template<typename Entry, typename Row>
static int Page(const char* call, const std::vector<Entry>& entries, int offset, int limit, const Row& row)
{
    const int count = static_cast<int>(entries.size());
    const int first = std::clamp(offset, 0, count);
    const int end = limit < 0 ? count : first + std::min(count - first, limit);
    for (int i = first; i < end; ++i) {
        row(entries[static_cast<std::size_t>(i)]);
    }
    return Fake().Scripted(std::string(call) + " end").value_or(count);
}

int KLIBUserInfoEnumBySubstr(int source, const char* domain, int offset, int limit, const char* query,
                             int flags, KLIBUserInfoRow row, void* userData)
{
    if (const auto scripted =
            Called("KLIBUserInfoEnumBySubstr", source, domain, offset, limit, query, flags)) {
        return *scripted;
    }
    return Page("KLIBUserInfoEnumBySubstr", Fake().userList, offset, limit,
                [&](const KLIBUserInfo& entry) { row(&entry, userData); });
}

int KLIBGroupInfoEnumBySubstr(int source, const char* domain, int offset, int limit, const char* query,
                              int flags, KLIBGroupInfoRow row, void* userData)
{
    if (const auto scripted =
            Called("KLIBGroupInfoEnumBySubstr", source, domain, offset, limit, query, flags)) {
        return *scripted;
    }
    return Page("KLIBGroupInfoEnumBySubstr", Fake().groupList, offset, limit,
                [&](const KLIBGroupInfo& entry) { row(&entry, userData); });
}

// --- platform/directory.h ---

struct TAVRLDAPSearchOption {
    bool loaded = false;
};

TAVRLDAPSearchOption* TAVRLDAPSearchOptionAlloc(void)
{
    if (Called("TAVRLDAPSearchOptionAlloc")) {
        return nullptr;
    }
    auto* options = new TAVRLDAPSearchOption;
    Fake().Opened(options, "search options");
    return options;
}

int TAVRLDAPSearchOptionGet(TAVRLDAPSearchOption* options, int flags)
{
    options->loaded = true;
    return Called("TAVRLDAPSearchOptionGet", std::string("options"), flags).value_or(0);
}

void TAVRLDAPSearchOptionFree(TAVRLDAPSearchOption* options)
{
    Called("TAVRLDAPSearchOptionFree", std::string(options == nullptr ? "null" : "options"));
    if (options != nullptr) {
        Fake().Closed(options, "search options");
        delete options;
    }
}

int TAVRLDAPSplitName(const char* name, char* reserved1, char* reserved2, char* bare, int size)
{
    EXPECT_EQ(nullptr, reserved1);
    EXPECT_EQ(nullptr, reserved2);
    const auto scripted = Called("TAVRLDAPSplitName", name, std::string("null, null, bare"), size);
    Put(Fake().ldap.bare, bare, static_cast<std::size_t>(size));
    return scripted.value_or(Fake().ldap.split);
}

int TAVRLDAPHostInitByBindConfigOnly(TAVRLDAPHost* host)
{
    EXPECT_EQ(nullptr, host->state) << "zero-filled before use";
    if (const auto scripted = Called("TAVRLDAPHostInitByBindConfigOnly", std::string("host"))) {
        return *scripted;
    }
    host->state = new char;
    Fake().Opened(host->state, "directory connection");
    return 0;
}

int TAVRLDAPBrowserGetDNByUserUID(TAVRLDAPHost* /*host*/, const char* bare, char* dn, int size,
                                  TAVRLDAPSearchOption* options)
{
    EXPECT_TRUE(options->loaded);
    const auto scripted = Called("TAVRLDAPBrowserGetDNByUserUID", std::string("host"), bare,
                                 std::string("dn"), size, std::string("options"));
    Put(Fake().ldap.dn, dn, static_cast<std::size_t>(size));
    return scripted.value_or(Fake().ldap.matches);
}

int TAVRLDAPBrowserUserGet(TAVRLDAPHost* /*host*/, const char* dn, TAVRUser** record, int flags1, int flags2,
                           TAVRLDAPSearchOption* /*options*/)
{
    const auto scripted = Called("TAVRLDAPBrowserUserGet", std::string("host"), dn, std::string("record"),
                                 flags1, flags2, std::string("options"));
    const int found = scripted.value_or(Fake().ldap.found);
    if (found > 0) {
        FakePlatform::User user;
        user.mail = Fake().ldap.mail;
        user.kind = 8;
        *record = NewUser(dn, user);
    }
    return found;
}

void TAVRLDAPHostFree(TAVRLDAPHost* host)
{
    Called("TAVRLDAPHostFree", std::string(host->state == nullptr ? "never opened" : "host"));
    if (host->state != nullptr) {
        Fake().Closed(host->state, "directory connection");
        delete static_cast<char*>(host->state);
        host->state = nullptr;
    }
}

int TAVRLDAPGroupDescGet(const char* name, char** description, char** second)
{
    const auto scripted =
        Called("TAVRLDAPGroupDescGet", name, std::string(second == nullptr ? "null" : "second"));
    if (scripted) {
        return *scripted;
    }
    *description = MallocCopy(std::string("directory group ") + name);
    if (second != nullptr) {
        *second = g_secondText; // nobody's to free
    }
    return 0;
}

struct TAVRWinsDomainEnumOpt {
    int start = 0;
    int limit = -1;
};

int TAVRWinsDomainEnumOptAlloc(TAVRWinsDomainEnumOpt** option)
{
    if (const auto scripted = Called("TAVRWinsDomainEnumOptAlloc")) {
        return *scripted;
    }
    *option = new TAVRWinsDomainEnumOpt;
    Fake().Opened(*option, "domain list option");
    return 0;
}

int TAVRWinsDomainEnumOptAddSearchFields(TAVRWinsDomainEnumOpt* /*option*/, const char* field)
{
    return Called("TAVRWinsDomainEnumOptAddSearchFields", field).value_or(0);
}

int TAVRWinsDomainEnumOptSetStart(TAVRWinsDomainEnumOpt* option, int start)
{
    option->start = start;
    return Called("TAVRWinsDomainEnumOptSetStart", start).value_or(0);
}

int TAVRWinsDomainEnumOptSetLimit(TAVRWinsDomainEnumOpt* option, int limit)
{
    option->limit = limit;
    return Called("TAVRWinsDomainEnumOptSetLimit", limit).value_or(0);
}

int TAVRWinsDomainEnumOptSetUGType(TAVRWinsDomainEnumOpt* /*option*/, int groups)
{
    return Called("TAVRWinsDomainEnumOptSetUGType", groups).value_or(0);
}

int TAVRWinsDomainEnumOptSetSearchSubString(TAVRWinsDomainEnumOpt* /*option*/, const char* text)
{
    return Called("TAVRWinsDomainEnumOptSetSearchSubString", text).value_or(0);
}

int TAVRWinsDomainEnumOptSetDomain(TAVRWinsDomainEnumOpt* /*option*/, const char* domain)
{
    return Called("TAVRWinsDomainEnumOptSetDomain", domain).value_or(0);
}

int TAVRWinsDomainEnumOptSetOU(TAVRWinsDomainEnumOpt* /*option*/, const char* ou)
{
    return Called("TAVRWinsDomainEnumOptSetOU", ou).value_or(0);
}

int TAVRWinsDomainCoreFullDbEnum(TAVRWinsDomainEnumOpt* option, TAVRWinsDomainRow row, void* userData)
{
    if (const auto scripted = Called("TAVRWinsDomainCoreFullDbEnum")) {
        return *scripted;
    }
    const auto callBack = [&](auto fields) { // a copy, for pointers that may be written through
        std::vector<char*> names;
        std::vector<char*> values;
        for (auto& [name, value] : fields) {
            names.push_back(name.data());
            values.push_back(value ? value->data() : nullptr);
        }
        row(static_cast<int>(fields.size()), values.data(), names.data(), userData);
    };
    return Page("TAVRWinsDomainCoreFullDbEnum", Fake().domainList, option->start, option->limit, callBack);
}

void TAVRWinsDomainEnumOptFree(TAVRWinsDomainEnumOpt* option)
{
    Called("TAVRWinsDomainEnumOptFree", std::string(option == nullptr ? "null" : "option"));
    if (option != nullptr) {
        Fake().Closed(option, "domain list option");
        delete option;
    }
}

int TAVRWinIsEnableTrustDomain(void)
{
    return Called("TAVRWinIsEnableTrustDomain").value_or(Fake().trustedDomains ? 1 : 0);
}

// --- platform/conf.h ---

const char* TavrConf::Info(const char* key, const char* fallback)
{
    Called("Info", key, fallback);
    const auto found = Fake().options.find(key);
    return found == Fake().options.end() ? fallback : found->second.c_str();
}

// --- platform/mail.h ---

int TAVRMailReadByTagAndConvertRealEx(const char* lang, const char* tag, char* subject, int size,
                                      char** content, KLIBCSzHash** hash, int flags)
{
    EXPECT_TRUE(IsZeroFilled(subject, size));
    EXPECT_EQ(nullptr, *content);
    if (const auto scripted =
            Called("TAVRMailReadByTagAndConvertRealEx", lang, tag, size, ShownMoved(hash), flags)) {
        return *scripted;
    }
    Put(Fake().mailSubject, subject, static_cast<std::size_t>(size));
    *content = Fake().mailContent ? MallocCopy(*Fake().mailContent) : nullptr;
    return 0;
}

int TAVRMailGet(TAVRMail* mail)
{
    EXPECT_TRUE(IsZeroFilled(mail->server, sizeof mail->server));
    EXPECT_EQ(nullptr, mail->rest);
    if (const auto scripted = Called("TAVRMailGet")) {
        return *scripted;
    }
    Put(Fake().mailServer, mail->server, sizeof mail->server);
    mail->rest = new char;
    Fake().Opened(mail->rest, "mail settings");
    return 0;
}

void TAVRMailFree(TAVRMail* mail)
{
    Called("TAVRMailFree");
    if (mail->rest != nullptr) {
        Fake().Closed(mail->rest, "mail settings");
        delete static_cast<char*>(mail->rest);
        mail->rest = nullptr;
    }
}

int TAVRMailSendMessageWithoutBlock(const char* tag, KLIBCSzHash** hash, const char* address, int flags)
{
    return Called("TAVRMailSendMessageWithoutBlock", tag, ShownMoved(hash), address, flags).value_or(0);
}

// --- platform/db.h ---

struct TAVRDB {
};
struct TAVRDBRow {
    std::size_t index = 0;
};
struct TAVRDBResult {
    std::deque<TAVRDBRow> fetched;
};

TAVRDB* TAVRDBConnect(const char* host, const char* user, const char* password, const char* path)
{
    static TAVRDB database;
    return Called("TAVRDBConnect", host, user, password, path) ? nullptr : &database;
}

int TAVRDBExecute(TAVRDB* /*db*/, const char* sql, TAVRDBResult** result)
{
    const auto scripted = Called("TAVRDBExecute", sql);
    if (scripted.value_or(0) == -1 && !Fake().resultOfFailedQuery) {
        return -1;
    }
    *result = new TAVRDBResult;
    Fake().Opened(*result, "query result");
    return scripted.value_or(0);
}

int64_t TAVRDBNumRows(TAVRDBResult* /*result*/)
{
    return Called("TAVRDBNumRows").value_or(static_cast<int>(Fake().databaseRows.size()));
}

int TAVRDBFetchRow(TAVRDBResult* result, TAVRDBRow** row)
{
    const auto scripted = Called("TAVRDBFetchRow");
    if (scripted || result->fetched.size() >= Fake().databaseRows.size()) {
        return scripted.value_or(-1);
    }
    result->fetched.push_back({result->fetched.size()});
    *row = &result->fetched.back();
    return 0;
}

const char* TAVRDBFetchField(TAVRDBResult* /*result*/, TAVRDBRow* row, const char* column)
{
    Called("TAVRDBFetchField", column);
    const auto& fields = Fake().databaseRows[row->index];
    const auto found = fields.find(column);
    return found == fields.end() ? nullptr : found->second.c_str();
}

void TAVRDBFreeResult(TAVRDBResult* result)
{
    Called("TAVRDBFreeResult");
    if (result != nullptr) {
        Fake().Closed(result, "query result");
        delete result;
    }
}

// --- platform/webapi.h ---

tavrdaemon::DomainSockConnection::DomainSockConnection(const char* path) : path_(path)
{
    Called("DomainSockConnection", path);
    Fake().Opened(this, "socket");
}

tavrdaemon::DomainSockConnection::~DomainSockConnection()
{
    Called("~DomainSockConnection");
    Fake().Closed(this, "socket");
}

bool tavrdaemon::DomainSockConnection::Connect()
{
    return !Called("Connect");
}

bool tavrdaemon::DomainSockConnection::Send(const std::string& text)
{
    return !Called("Send", text);
}

bool tavrdaemon::SockConnection::Recv(std::string& text)
{
    if (Called("Recv") || Fake().webApiAnswers.empty()) {
        return false;
    }
    text = Fake().webApiAnswers.front();
    Fake().webApiAnswers.pop_front();
    return true;
}

// --- platform/json.h ---

bool JsonFromFile(const std::string& path, Json::Value& value)
{
    if (Called("JsonFromFile", path.c_str())) {
        return false;
    }
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "r"), &std::fclose);
    std::string text;
    for (int c = file ? std::fgetc(file.get()) : EOF; c != EOF; c = std::fgetc(file.get())) {
        text += static_cast<char>(c);
    }
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    return reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
}

std::string JsonToString(const Json::Value& value)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

// --- libc ---

extern "C" {

void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
FILE* __real_fopen(const char* path, const char* mode);
int __real_ferror(FILE* file);
void __real_syslog(int priority, const char* format, ...);
int __real_getpwnam_r(const char* name, passwd* entry, char* buffer, std::size_t size, passwd** found);
long __real_sysconf(int name);
uid_t __real_geteuid(void);
gid_t __real_getegid(void);
int __real_setresuid(uid_t real, uid_t effective, uid_t saved);
int __real_setresgid(gid_t real, gid_t effective, gid_t saved);

[[gnu::format(printf, 2, 0)]] static void LogV(int priority, const char* format, va_list list)
{
    char* line = nullptr;
    const int length = vasprintf(&line, format, list);
    const std::string text(line, static_cast<std::size_t>(std::max(length, 0)));
    std::free(line);
    if (g_current != nullptr) {
        g_current->Logged(priority, text);
    }
}

[[gnu::format(printf, 2, 3)]] void __wrap_syslog(int priority, const char* format, ...)
{
    va_list list;
    va_start(list, format);
    LogV(priority, format, list);
    va_end(list);
    errno = EBADF; // as a log that nobody listens to may leave it
}

[[gnu::format(printf, 3, 4)]] void __wrap___syslog_chk(int priority, int /*flag*/, const char* format, ...)
{
    va_list list;
    va_start(list, format);
    LogV(priority, format, list);
    va_end(list);
    errno = EBADF;
}

void* __wrap_malloc(std::size_t size)
{
    if (g_current != nullptr && g_current->Scripted("malloc")) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_malloc(size);
}

void* __wrap_calloc(std::size_t count, std::size_t size)
{
    if (g_current != nullptr && g_current->Scripted("calloc")) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_calloc(count, size);
}

FILE* __wrap_fopen(const char* path, const char* mode)
{
    if (g_current != nullptr && g_current->Scripted(std::string("fopen ") + mode)) {
        errno = EACCES;
        return nullptr;
    }
    return __real_fopen(g_current == nullptr ? path : g_current->PlaceOf(path).c_str(), mode);
}

int __wrap_ferror(FILE* file)
{
    if (g_current != nullptr) {
        if (const auto scripted = g_current->Scripted("ferror")) {
            return *scripted;
        }
    }
    return __real_ferror(file);
}

int __wrap_getpwnam_r(const char* name, passwd* entry, char* buffer, std::size_t size, passwd** found)
{
    if (g_current == nullptr) {
        return __real_getpwnam_r(name, entry, buffer, size, found);
    }
    *found = nullptr;
    if (const auto scripted = Called("getpwnam_r", name, size)) {
        return *scripted;
    }
    if (!g_current->rootUid || std::strcmp(name, "root") != 0) {
        return 0;
    }
    *entry = {};
    entry->pw_uid = *g_current->rootUid;
    entry->pw_gid = g_current->rootGid;
    *found = entry;
    return 0;
}

long __wrap_sysconf(int name)
{
    return g_current == nullptr || name != _SC_GETPW_R_SIZE_MAX ? __real_sysconf(name)
                                                                : g_current->passwdBufferSize;
}

uid_t __wrap_geteuid(void)
{
    return g_current == nullptr ? __real_geteuid() : g_current->euid;
}

gid_t __wrap_getegid(void)
{
    return g_current == nullptr ? __real_getegid() : g_current->egid;
}

static int ChangeId(const char* call, uint32_t real, uint32_t effective, uint32_t saved, uint32_t& id)
{
    const auto scripted =
        Called(call, static_cast<int>(real), static_cast<int>(effective), static_cast<int>(saved));
    if (scripted) {
        errno = g_current->errnoOfFailure;
        return *scripted;
    }
    id = effective;
    return 0;
}

int __wrap_setresuid(uid_t real, uid_t effective, uid_t saved)
{
    return g_current == nullptr ? __real_setresuid(real, effective, saved)
                                : ChangeId("setresuid", real, effective, saved, g_current->euid);
}

int __wrap_setresgid(gid_t real, gid_t effective, gid_t saved)
{
    return g_current == nullptr ? __real_setresgid(real, effective, saved)
                                : ChangeId("setresgid", real, effective, saved, g_current->egid);
}

} // extern "C"
