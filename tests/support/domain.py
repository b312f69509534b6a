#!/usr/bin/python3
"""A domain for tests: domain.py FOLDER [options of controller.py]

Starts controller.py, and SSSD on it, as on a server that has joined the domain CORP (corp.test). In a view. Prints
"PORT <ldap> <ldaps> <process of the controller> <process of SSSD, which has children>" when both answer. Both end with this
process.
"""
import os
import signal
import subprocess
import sys

sys.dont_write_bytecode = True
import joined  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
CONFIG = r"""
[sssd]
services = nss, pam
domains = CORP
[nss]
entry_negative_timeout = 0
memcache_timeout = 0
[pam]
[domain/CORP]
id_provider = ldap
auth_provider = ldap
access_provider = permit
ldap_schema = ad
ldap_id_mapping = true
ldap_idmap_range_size = 4000000
ldap_idmap_default_domain = CORP
ldap_idmap_default_domain_sid = S-1-5-21-1-2-3
ldap_user_name = sAMAccountName
ldap_user_gecos = displayName
ldap_uri = ldap://127.0.0.1:%s
ldap_search_base = dc=corp,dc=test
ldap_default_bind_dn = cn=reader,dc=test
ldap_default_authtok = reader-password
ldap_id_use_start_tls = true
ldap_tls_cacert = %s/ca.pem
ldap_tls_reqcert = demand
case_sensitive = false
entry_cache_timeout = 1
use_fully_qualified_names = true
full_name_format = %%2$s\%%1$s
re_expression = (((?P<domain>[^\\]+)\\(?P<name>.+))|((?P<name>[^@\\]+)@(?P<domain>.+))|(?P<name>[^@\\]+))
"""


def main():
    os.setresgid(0, 0, 0)  # a starter who has raised the effective ids alone
    os.setresuid(0, 0, 0)
    folder = sys.argv[1]
    controller = joined.start([sys.executable, os.path.join(HERE, "controller.py"), "--text-sids", "--more",
                               os.path.join(HERE, "domain.ldif"), *sys.argv[1:]],
                              stdout=subprocess.PIPE, text=True)
    joined.lay_over("sssd")
    ports = controller.stdout.readline().split()[1:]
    sssd = joined.start_sssd(CONFIG % (ports[0], folder))
    joined.wait_for_sssd(sssd, r"CORP\dan")
    print("PORT", *ports, controller.pid, sssd.pid, flush=True)
    signal.pause()


main()
