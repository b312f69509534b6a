#include "linux/domain_client.h"

#include "linux/apart.h"
#include "linux/directory_error.h"
#include "linux/kept_secret.h"
#include "linux/loaded_library.h"
#include "linux/names.h"
#include "linux/pam.h"
#include "linux/paths.h"

#include <grp.h>
#include <nss.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>

namespace tavr
{

namespace
{

constexpr size_t kFirstBuffer = 4096;
constexpr size_t kMostBuffer = 16 << 20; // a group with all its members
constexpr long kMostGroups = 5000;
constexpr unsigned kSidMilliseconds = 8000;

// --- The modules, in the process apart ---------------------------------------------------------------------

// Why a module did not answer, in a few words.
class NoAnswer : public std::runtime_error
{
public:
    explicit NoAnswer(const std::string& text) : std::runtime_error(text) {}
};

std::string ModuleFile(DomainClient client)
{
    return client == DomainClient::Sssd ? "libnss_sss.so.2" : "libnss_winbind.so.2";
}

// Calls an NSS function with a buffer that is large enough. False: there is no such entry.
template<class Call>
bool Ask(Call call)
{
    for (std::vector<char> buffer(kFirstBuffer);; buffer.resize(buffer.size() * 4)) {
        int code = 0;
        switch (call(buffer, &code)) {
        case NSS_STATUS_SUCCESS:
            return true;
        case NSS_STATUS_NOTFOUND:
            return false;
        case NSS_STATUS_TRYAGAIN:
            if (code == ERANGE && buffer.size() < kMostBuffer) {
                continue;
            }
            [[fallthrough]];
        default:
            throw NoAnswer("it does not answer");
        }
    }
}

// An NSS module, as the C library calls it.
class Nss
{
public:
    explicit Nss(DomainClient client)
        : module_(ModuleFile(client).c_str()),
          prefix_(client == DomainClient::Sssd ? "_nss_sss_" : "_nss_winbind_")
    {
    }

    bool Account(const std::string& name, const std::function<void(const passwd&)>& take) const
    {
        nss_status (*find)(const char*, passwd*, char*, size_t, int*) = nullptr;
        module_.Find(find, (prefix_ + "getpwnam_r").c_str());
        passwd entry{};
        return Ask([&](std::vector<char>& buffer, int* code) {
            const nss_status status = find(name.c_str(), &entry, buffer.data(), buffer.size(), code);
            if (status == NSS_STATUS_SUCCESS) {
                take(entry);
            }
            return status;
        });
    }

    bool Group(const std::string& name, const std::function<void(const group&)>& take) const
    {
        nss_status (*find)(const char*, group*, char*, size_t, int*) = nullptr;
        module_.Find(find, (prefix_ + "getgrnam_r").c_str());
        group entry{};
        return Ask([&](std::vector<char>& buffer, int* code) {
            const nss_status status = find(name.c_str(), &entry, buffer.data(), buffer.size(), code);
            if (status == NSS_STATUS_SUCCESS) {
                take(entry);
            }
            return status;
        });
    }

    // Without the primary one, as the module gives them.
    [[nodiscard]] std::vector<gid_t> GroupsOf(const std::string& name, gid_t primary) const
    {
        nss_status (*find)(const char*, gid_t, long*, long*, gid_t**, long, int*) = nullptr;
        module_.Find(find, (prefix_ + "initgroups_dyn").c_str());
        long count = 0;
        long room = 64;
        auto* list = static_cast<gid_t*>(std::calloc(static_cast<size_t>(room), sizeof(gid_t)));
        int code = 0;
        const nss_status status = find(name.c_str(), primary, &count, &room, &list, -1, &code);
        const std::unique_ptr<gid_t, void (*)(void*)> owner(list, std::free);
        if (status == NSS_STATUS_NOTFOUND) {
            return {};
        }
        if (status != NSS_STATUS_SUCCESS) {
            throw NoAnswer("it does not tell groups");
        }
        if (count > kMostGroups) {
            throw NoAnswer("an account is in more groups than can be taken");
        }
        return {list, list + count};
    }

private:
    const LoadedLibrary module_;
    const std::string prefix_;
};

// SIDs by the numbers that the client's NSS module gives. Declared here, since the headers of both libraries
// come with development packages that nothing else needs.
class Sids
{
public:
    enum class Of { Account, Group };

    static std::string ByNumber(DomainClient client, Of of, uint32_t number)
    {
        return client == DomainClient::Sssd ? BySssd(of, number) : ByWinbind(of, number);
    }

private:
    static std::string BySssd(Of of, uint32_t number)
    {
        int (*find)(uint32_t, unsigned, char**, int*) = nullptr;
        static const LoadedLibrary library("libsss_nss_idmap.so.0");
        library.Find(find, of == Of::Account ? "sss_nss_getsidbyuid_timeout" : "sss_nss_getsidbygid_timeout");
        char* text = nullptr;
        int type = 0;
        const int code = find(number, kSidMilliseconds, &text, &type);
        const std::unique_ptr<char, void (*)(void*)> owner(text, std::free);
        if (code != 0 && code != ENOENT) {
            throw NoAnswer("it does not tell SIDs");
        }
        return code == 0 && text != nullptr ? text : "";
    }

    static std::string ByWinbind(Of of, uint32_t number)
    {
        struct Sid {
            uint8_t revision, count, authority[6];
            uint32_t parts[15];
        };
        constexpr int kDone = 0;
        constexpr int kNoSuchDomain = 7; // a number of nobody's
        int (*find)(uint32_t, Sid*) = nullptr;
        int (*print)(const Sid*, char*, int) = nullptr;
        static const LoadedLibrary library("libwbclient.so.0");
        library.Find(find, of == Of::Account ? "wbcUidToSid" : "wbcGidToSid");
        library.Find(print, "wbcSidToStringBuf");
        Sid sid{};
        const int code = find(number, &sid);
        if (code == kNoSuchDomain) {
            return "";
        }
        char text[256] = {};
        if (code != kDone || print(&sid, text, sizeof text) >= static_cast<int>(sizeof text)) {
            throw NoAnswer("it does not tell SIDs");
        }
        return text;
    }
};

// --- From one process to the other -------------------------------------------------------------------------

constexpr char kAnswered[] = "answered";

std::string Joined(const std::vector<std::string>& texts)
{
    std::string joined;
    for (const std::string& text : texts) {
        joined += text;
        joined += '\0';
    }
    return joined;
}

std::vector<std::string> Split(std::string_view joined)
{
    std::vector<std::string> texts;
    while (!joined.empty()) {
        const size_t end = std::min(joined.find('\0'), joined.size());
        texts.emplace_back(joined.substr(0, end));
        joined.remove_prefix(std::min(end + 1, joined.size()));
    }
    return texts;
}

std::string Text(const char* text)
{
    return text != nullptr ? text : "";
}

// As the client takes it.
std::string ClientName(const DomainSettings& settings, const std::string& canonical)
{
    const size_t backslash = canonical.find('\\');
    const std::string domain = canonical.substr(0, backslash);
    const std::string user = canonical.substr(backslash + 1);
    if (settings.separator != '@') {
        return domain + settings.separator + user;
    }
    for (const DomainName& known : settings.names) {
        if (known.name == domain) {
            return user + '@' + known.realm;
        }
    }
    throw DirectoryError("the domain " + domain + " is not known");
}

std::vector<std::string> AccountOf(DomainClient client, const std::string& name)
{
    std::vector<std::string> found;
    uint32_t number = 0;
    const Nss nss(client);
    if (nss.Account(name, [&](const passwd& entry) {
            number = entry.pw_uid;
            found = {Text(entry.pw_name), "", Text(entry.pw_gecos)};
        })) {
        found[1] = Sids::ByNumber(client, Sids::Of::Account, number);
    }
    return found;
}

std::vector<std::string> GroupOf(DomainClient client, const std::string& name)
{
    std::vector<std::string> found;
    uint32_t number = 0;
    const Nss nss(client);
    if (nss.Group(name, [&](const group& entry) {
            number = entry.gr_gid;
            found = {Text(entry.gr_name), "", ""};
        })) {
        found[1] = Sids::ByNumber(client, Sids::Of::Group, number);
    }
    return found;
}

std::vector<std::string> GroupsOf(DomainClient client, const std::string& name)
{
    const Nss nss(client);
    gid_t primary = 0;
    if (!nss.Account(name, [&](const passwd& entry) { primary = entry.pw_gid; })) {
        throw NoAnswer("it does not know " + name + " any more");
    }
    std::vector<gid_t> numbers = nss.GroupsOf(name, primary);
    numbers.push_back(primary);
    std::sort(numbers.begin(), numbers.end());
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
    std::vector<std::string> sids;
    for (const gid_t number : numbers) {
        std::string sid = Sids::ByNumber(client, Sids::Of::Group, number);
        if (!sid.empty()) { // else a group of the machine, or one that is none in the domain
            sids.push_back(std::move(sid));
        }
    }
    return sids;
}

bool IsPassword(DomainClient client, const std::string& name, const std::string& password)
{
    const std::string folder = std::string(kPamDir) + (client == DomainClient::Sssd ? "/sssd" : "/winbind");
    return IsPamPassword(folder, name, password);
}

std::optional<ClientEntry> EntryOf(const std::vector<std::string>& texts)
{
    return texts.size() == 3 ? std::optional(ClientEntry{texts[0], texts[1], texts[2]}) : std::nullopt;
}

} // namespace

template<class Ask>
std::vector<std::string> DomainClientCalls::Question(const char* what, Ask ask) const
{
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(end_ - std::chrono::steady_clock::now());
    const auto answer = RunApart(left, [&] {
        try {
            std::vector<std::string> texts = ask();
            texts.insert(texts.begin(), kAnswered);
            return Joined(texts);
        } catch (const NoAnswer& reason) {
            return Joined({reason.what()});
        } catch (const LibraryError& reason) {
            return Joined({reason.what()});
        } catch (const PamError& reason) {
            return Joined({reason.what()});
        }
    });
    const std::string client = settings_.client == DomainClient::Sssd ? "SSSD" : "winbind";
    if (!answer) {
        throw DirectoryError(client + " was asked for " + what + " and did not answer");
    }
    std::vector<std::string> texts = Split(*answer);
    if (texts.empty() || texts.front() != kAnswered) {
        throw DirectoryError(client + " was asked for " + what + ": " +
                             (texts.empty() || !IsPlainText(texts.front()) ? "no answer" : texts.front()));
    }
    texts.erase(texts.begin());
    return texts;
}

std::optional<ClientEntry> DomainClientCalls::FindAccount(const std::string& name) const
{
    const std::string asked = ClientName(settings_, name);
    return EntryOf(Question("an account", [&] { return AccountOf(settings_.client, asked); }));
}

std::optional<ClientEntry> DomainClientCalls::FindGroup(const std::string& name) const
{
    const std::string asked = ClientName(settings_, name);
    return EntryOf(Question("a group", [&] { return GroupOf(settings_.client, asked); }));
}

std::vector<std::string> DomainClientCalls::GroupSids(const std::string& name) const
{
    const std::string asked = ClientName(settings_, name);
    return Question("groups", [&] { return GroupsOf(settings_.client, asked); });
}

std::optional<ClientEntry> DomainClientCalls::CheckPassword(const std::string& name,
                                                            std::string_view password) const
{
    const std::string asked = ClientName(settings_, name);
    const KeptSecret phrase{std::string(password)};
    return EntryOf(Question("a password", [&] {
        std::vector<std::string> found = AccountOf(settings_.client, asked);
        return IsPassword(settings_.client, asked, phrase.text) ? found : std::vector<std::string>();
    }));
}

} // namespace tavr
