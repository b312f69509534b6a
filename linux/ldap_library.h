// libldap, loaded with the first call of one of its functions: Ldap().ldap_search_ext(...). It brings a dozen
// libraries along, half of what a service's start would take, and is for those who have a directory.
#pragma once

#include <ldap.h>
#include <openldap.h>

namespace tavr
{

// clang-format off
#define TAVR_LDAP_FUNCTIONS(EACH) \
    EACH(ber_free) EACH(ber_memfree) EACH(ber_sockbuf_add_io) EACH(ber_sockbuf_ctrl) \
    EACH(ldap_abandon_ext) EACH(ldap_bv2escaped_filter_value) EACH(ldap_control_find) \
    EACH(ldap_control_free) EACH(ldap_controls_free) EACH(ldap_create_page_control) EACH(ldap_dnfree) \
    EACH(ldap_err2string) EACH(ldap_get_attribute_ber) EACH(ldap_get_dn) EACH(ldap_get_dn_ber) \
    EACH(ldap_get_option) EACH(ldap_get_values_len) EACH(ldap_init_fd) EACH(ldap_install_tls) \
    EACH(ldap_memfree) EACH(ldap_msgfree) EACH(ldap_msgtype) EACH(ldap_parse_pageresponse_control) \
    EACH(ldap_parse_result) EACH(ldap_result) EACH(ldap_sasl_bind) EACH(ldap_search_ext) \
    EACH(ldap_set_option) EACH(ldap_start_tls) EACH(ldap_str2dn) EACH(ldap_unbind_ext) \
    EACH(ldap_value_free_len)
// clang-format on

struct LdapFunctions {
#define TAVR_DECLARE(name) decltype(&::name) name = nullptr; // NOLINT(bugprone-macro-parentheses)
    TAVR_LDAP_FUNCTIONS(TAVR_DECLARE)
#undef TAVR_DECLARE
};

// Throws LdapError where the library cannot be used.
const LdapFunctions& Ldap();

} // namespace tavr
