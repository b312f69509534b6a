#!/usr/bin/python3
"""A domain for tests: domain.py FOLDER [options of controller.py]

Starts controller.py, and SSSD on it, as on a server that has joined the domain CORP (corp.test). In a view: SSSD, which is not
installed, is laid over it from build/sssd. Prints "PORT <ldap> <ldaps> <process of the controller> <process of SSSD, which has
children>" when both answer. Both end with this process.
"""
import ctypes
import os
import shutil
import signal
import socket
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SSSD = os.path.join(HERE, "..", "..", "build", "sssd")
FOLDERS = ("db", "pipes/private", "mc", "pubconf", "secrets", "deskprofile", "gpo_cache", "keytabs")
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


def die_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)


def start(words, **options):
    return subprocess.Popen(words, stdin=subprocess.DEVNULL, preexec_fn=die_with_parent, **options)


def lay_over():
    with subprocess.Popen(["tar", "-C", SSSD, "-c", "."], stdout=subprocess.PIPE) as packed:
        subprocess.run(["tar", "-C", "/", "-x", "--keep-directory-symlink", "--no-same-owner"], stdin=packed.stdout, check=True)
    shutil.rmtree("/var/lib/sss")  # what one before has left
    for folder in FOLDERS:
        os.makedirs("/var/lib/sss/" + folder, exist_ok=True)
    for folder in ("/var/log/sssd", "/etc/sssd"):
        os.makedirs(folder, exist_ok=True)
    if os.path.exists("/run/sssd.pid"):  # of one that was killed, whose number may not be free yet
        os.remove("/run/sssd.pid")


def is_ready():
    try:
        with socket.socket(socket.AF_UNIX) as passwords:
            passwords.connect("/var/lib/sss/pipes/pam")
    except OSError:
        return False
    asked = subprocess.run(["getent", "-s", "sss", "passwd", r"CORP\dan"], stdout=subprocess.DEVNULL)
    return asked.returncode == 0


def main():
    folder = sys.argv[1]
    controller = start([sys.executable, os.path.join(HERE, "controller.py"), "--text-sids", "--more",
                        os.path.join(HERE, "domain.ldif"), *sys.argv[1:]],
                       stdout=subprocess.PIPE, text=True)
    lay_over()
    ports = controller.stdout.readline().split()[1:]
    descriptor = os.open("/etc/sssd/sssd.conf", os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)
    with os.fdopen(descriptor, "w") as file:
        file.write(CONFIG % (ports[0], folder))
    with open("/tmp/sssd.log", "w") as log:
        sssd = start(["/usr/sbin/sssd", "-i", "--logger=stderr"], stdout=log, stderr=log)
    while not is_ready():
        if sssd.poll() is not None:
            sys.exit("sssd ended: %d" % sssd.returncode)
        time.sleep(0.02)
    print("PORT", *ports, controller.pid, sssd.pid, flush=True)
    signal.pause()


main()
