// LDAP (RFC 4511) through libldap: what a directory is reached with, and a connection whose every wait ends.
//
// Failure is an exception here, as in database.h: what a directory did not say is not known. Nothing that a
// server sends is believed beyond what is asked: sizes, numbers and times are bounded, referrals not
// followed.
#pragma once

#include "linux/directory_error.h"
#include "linux/kept_secret.h"

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct ldap;
struct ldapmsg;

namespace tavr
{

// Which step failed; the text says what happened.
enum class LdapStep { Settings, Connect, Encrypt, Bind, Search, Load };

class LdapError : public DirectoryError
{
public:
    LdapError(LdapStep failed, const std::string& text) : DirectoryError(text), step(failed) {}
    const LdapStep step;
};

struct LdapServer {
    std::string uri; // ldap://host[:port] or ldaps://host[:port]
    std::string host;
    int port = 0;
    bool tls = false; // from the first byte on
};

struct LdapSettings {
    std::vector<LdapServer> servers; // tried in this order
    std::string realm;               // what stands behind the "@" of accounts and groups, canonical
    bool startTls = true;            // on a server without tls; false sends passwords in the open
    std::string caFile;
    std::string bindName; // empty: anonymous
    KeptSecret bindPassword;
    std::string userBase, groupBase;
    std::string userFilter, groupFilter;
    std::string idAttribute;
    std::string userName, userDescription, userMail;
    std::string groupName, groupDescription, groupMember;
};

// From the settings ldap_* (doc/ldap.md has them all) and the secret ldap_bind_password. Empty: no directory
// is set up. Throws LdapError where one is, but not so that it could be used.
std::optional<LdapSettings> ReadLdapSettings();

// What servers are reached with, from the settings uri, starttls, ca_file and bind_dn, and the secret
// bind_password, all with this prefix. False: no server is named. Throws as above.
bool ReadLdapServers(const std::string& prefix, LdapSettings& settings);

// A text as a value in a filter, in which it stands for itself (RFC 4515 section 3).
std::string FilterValue(std::string_view text);

// One entry that a search has found; valid during the call that it is handed to.
class LdapEntry
{
public:
    LdapEntry(ldap* connection, ldapmsg* entry) : connection_(connection), entry_(entry) {}
    [[nodiscard]] std::string Dn() const;
    // At most 1,000 of them; those longer than 4 KiB are left out.
    [[nodiscard]] std::vector<std::string> Values(const std::string& attribute) const;
    // The DN and the one value of each of these attributes, read in one pass and not copied; empty where
    // there is none or several, or a longer one.
    struct Texts {
        std::string_view dn;
        std::array<std::string_view, 4> values;
    };
    [[nodiscard]] Texts OnlyValues(std::span<const std::string> attributes) const;

private:
    ldap* connection_;
    ldapmsg* entry_;
};

struct LdapSearch {
    std::string base;
    std::string filter;
    std::vector<std::string> attributes;
    bool baseOnly = false; // the entry `base` itself, which need not be there; else all below it
    int most = 0;          // more entries are not asked for; 0: all of them, page by page
    int page = 500;        // entries in one answer
    bool ahead = false;    // the server is at the next page while `pageDone` is called
};

// What ldap.conf and the environment say of certificates or referrals must not count. A connection sees to
// it; a process that makes them on several threads calls this before the first one, and ignores SIGPIPE.
void IgnoreLdapConfiguration();

class LdapConnection
{
public:
    // To the first server that can be used; the one that was, the last time, comes first. All that this
    // connection does takes no longer than `wholeTime` from now, and no message is waited for longer than
    // nine seconds.
    static constexpr std::chrono::milliseconds kRequestTime{9'000}; // so a request is answered within ten
    explicit LdapConnection(const LdapSettings& settings, std::chrono::milliseconds wholeTime = kRequestTime);
    ~LdapConnection();
    LdapConnection(const LdapConnection&) = delete;
    LdapConnection& operator=(const LdapConnection&) = delete;

    // As the settings' account. `pageDone` is called between two pages and at the end; no search is under way
    // then, unless it is one that goes ahead.
    using EachEntry = std::function<void(const LdapEntry& entry)>;
    void Search(const LdapSearch& search, const EachEntry& each, const std::function<void()>& pageDone = {});

    // Whether the password opens the entry. An empty one is never sent: to servers it means "nobody".
    bool IsPassword(const std::string& dn, std::string_view password);

    [[nodiscard]] const LdapServer& Server() const { return *server_; }

private:
    using Clock = std::chrono::steady_clock;
    struct Unbind {
        void operator()(ldap* connection) const noexcept;
    };
    struct FreeMessage {
        void operator()(ldapmsg* message) const noexcept;
    };
    using Message = std::unique_ptr<ldapmsg, FreeMessage>;

    void Open(const LdapServer& server);
    void Encrypt();
    void BindAsService();
    int Bind(const std::string& dn, std::string_view password, std::string& said);
    Message Next(int id, LdapStep step);
    int AskPage(const LdapSearch& search, const std::string& cookie);
    std::string TakePage(int id, const LdapSearch& search, const EachEntry& each, int64_t& count);

    LdapSettings settings_;
    const Clock::time_point end_;
    Clock::time_point stepEnd_;                     // of what is under way; never later than end_
    std::optional<Clock::time_point> handshakeEnd_; // during one
    const LdapServer* server_ = nullptr;
    std::unique_ptr<ldap, Unbind> ldap_;
    bool isService_ = false; // who the server takes us for
};

} // namespace tavr
