// An entry as a directory would send it, read by libldap from a socket.
//
// The input is a DN and then attributes, each one letter of `letters` and its value, with bytes 0xFF between
// them; or, behind an "=", the bytes of the answer themselves.
#pragma once

#include "fuzz/demand.h"
#include "linux/ldap.h"

#include <ldap.h>
#include <openldap.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct AnsweredAttribute {
    char letter;
    const char* name;
};

namespace ldap_answer
{

struct FreeElement {
    void operator()(BerElement* element) const noexcept { ber_free(element, 1); }
};

// Values of one attribute that stand side by side are sent as one attribute.
inline void WriteEntry(BerElement* to, std::string_view text, const std::vector<AnsweredAttribute>& known)
{
    std::vector<std::string_view> parts;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\xFF'), text.size());
        parts.push_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    const std::string_view dn = parts.empty() ? "" : parts[0];
    ber_printf(to, "t{o{", LDAP_RES_SEARCH_ENTRY, dn.data() == nullptr ? "" : dn.data(), dn.size());
    for (size_t i = 1; i < parts.size();) {
        const char letter = parts[i].empty() ? '\0' : parts[i][0];
        const char* name = "other";
        for (const AnsweredAttribute& one : known) {
            name = one.letter == letter ? one.name : name;
        }
        ber_printf(to, "{s[", name);
        do {
            const std::string_view value = parts[i].substr(parts[i].empty() ? 0 : 1);
            ber_printf(to, "o", value.data(), value.size());
        } while (++i < parts.size() && !parts[i].empty() && parts[i][0] == letter);
        ber_printf(to, "]}");
    }
    ber_printf(to, "}}");
}

inline std::string Message(int id, std::string_view input, const std::vector<AnsweredAttribute>& known)
{
    const std::unique_ptr<BerElement, FreeElement> element(ber_alloc_t(LBER_USE_DER));
    ber_printf(element.get(), "{i", id);
    if (input.starts_with('=')) {
        input.remove_prefix(1);
        ber_printf(element.get(), "to", LDAP_RES_SEARCH_ENTRY, input.data(), input.size());
    } else {
        WriteEntry(element.get(), input, known);
    }
    Demand(ber_printf(element.get(), "}") != -1, "the answer is whole");
    berval bytes{};
    Demand(ber_flatten2(element.get(), &bytes, 0) == 0, "the answer has bytes");
    return {bytes.bv_val, bytes.bv_len};
}

} // namespace ldap_answer

// Calls take(entry), if libldap takes it for one.
template<class Take>
void WithAnswer(std::string_view input, const std::vector<AnsweredAttribute>& known, Take take)
{
    tavr::IgnoreLdapConfiguration();
    int ends[2];
    Demand(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "a socket");
    LDAP* connection = nullptr;
    Demand(ldap_init_fd(ends[0], LDAP_PROTO_TCP, "ldap://localhost", &connection) == LDAP_SUCCESS,
           "a connection");
    int id = 0;
    Demand(ldap_search_ext(connection, "", LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0, nullptr, nullptr,
                           nullptr, 0, &id) == LDAP_SUCCESS,
           "a search");
    const std::string bytes = ldap_answer::Message(id, input, known);
    Demand(send(ends[1], bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
               static_cast<ssize_t>(bytes.size()),
           "the answer is sent");
    shutdown(ends[1], SHUT_WR); // one that is cut off is not waited for
    LDAPMessage* message = nullptr;
    if (ldap_result(connection, id, LDAP_MSG_ONE, nullptr, &message) == LDAP_RES_SEARCH_ENTRY) {
        take(tavr::LdapEntry(connection, message));
    }
    ldap_msgfree(message);
    ldap_unbind_ext(connection, nullptr, nullptr);
    close(ends[1]);
}
