// Questions to a directory with libldap alone: what ours are measured beside.
#pragma once

#include "bench/service.h"
#include "tests/support/directory.h"

#include <ldap.h>

#include <memory>
#include <string>
#include <vector>

namespace bench
{

struct Unbind {
    void operator()(LDAP* connection) const noexcept { ldap_unbind_ext(connection, nullptr, nullptr); }
};
using Connection = std::unique_ptr<LDAP, Unbind>;

inline void Succeed(int code, const char* what)
{
    bench::Demand(code == LDAP_SUCCESS, what);
}

inline void Bind(LDAP* connection, const char* dn, std::string password)
{
    berval secret{password.size(), password.data()};
    Succeed(ldap_sasl_bind_s(connection, dn, LDAP_SASL_SIMPLE, &secret, nullptr, nullptr, nullptr), "bind");
}

// Encrypted, and as the reader.
inline Connection Open(const std::string& uri, const std::string& caFile, const char* reader)
{
    LDAP* made = nullptr;
    Succeed(ldap_initialize(&made, uri.c_str()), "initialize");
    Connection connection(made);
    const int version = LDAP_VERSION3;
    const int demand = LDAP_OPT_X_TLS_HARD;
    const int client = 0;
    ldap_set_option(made, LDAP_OPT_PROTOCOL_VERSION, &version);
    ldap_set_option(made, LDAP_OPT_X_TLS_CACERTFILE, caFile.c_str());
    ldap_set_option(made, LDAP_OPT_X_TLS_REQUIRE_CERT, &demand);
    ldap_set_option(made, LDAP_OPT_X_TLS_NEWCTX, &client);
    Succeed(ldap_start_tls_s(made, nullptr, nullptr), "StartTLS");
    Bind(made, reader, kReaderPassword);
    return connection;
}

// Entries of a search, paged when `page` is given; the values are taken out as a record needs them.
inline int Search(LDAP* connection, const char* base, const char* filter, std::vector<std::string> names,
                  int page = 0)
{
    std::vector<char*> attributes;
    for (std::string& name : names) {
        attributes.push_back(name.data());
    }
    attributes.push_back(nullptr);
    int count = 0;
    berval cookie{0, nullptr};
    do {
        LDAPControl* control = nullptr;
        if (page > 0) {
            Succeed(ldap_create_page_control(connection, page, cookie.bv_len > 0 ? &cookie : nullptr, 0,
                                             &control),
                    "page");
        }
        LDAPControl* controls[] = {control, nullptr};
        LDAPMessage* found = nullptr;
        Succeed(ldap_search_ext_s(connection, base, LDAP_SCOPE_SUBTREE, filter, attributes.data(), 0,
                                  controls, nullptr, nullptr, 0, &found),
                "search");
        if (control != nullptr) {
            ldap_control_free(control);
        }
        for (LDAPMessage* entry = ldap_first_entry(connection, found); entry != nullptr;
             entry = ldap_next_entry(connection, entry)) {
            ldap_memfree(ldap_get_dn(connection, entry));
            for (const std::string& name : names) {
                ldap_value_free_len(ldap_get_values_len(connection, entry, name.c_str()));
            }
            ++count;
        }
        LDAPControl** answered = nullptr;
        LDAPMessage* last = found;
        for (LDAPMessage* one = found; one != nullptr; one = ldap_next_message(connection, one)) {
            last = one;
        }
        ldap_parse_result(connection, last, nullptr, nullptr, nullptr, nullptr, &answered, 0);
        ber_memfree(cookie.bv_val);
        cookie = {0, nullptr};
        ber_int_t estimate = 0;
        LDAPControl* next =
            answered != nullptr ? ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, answered, nullptr) : nullptr;
        if (next != nullptr) {
            ldap_parse_pageresponse_control(connection, next, &estimate, &cookie);
        }
        ldap_controls_free(answered);
        ldap_msgfree(found);
    } while (cookie.bv_len > 0);
    ber_memfree(cookie.bv_val);
    return count;
}

} // namespace bench
