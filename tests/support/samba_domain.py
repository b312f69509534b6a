#!/usr/bin/python3
"""A domain with a controller for tests: samba_domain.py

Samba's controller dc1.corp.test of the domain CORP, and on the same machine a server nas.corp.test that has joined it, through
SSSD as administrators set it up (Kerberos, no passwords of its own), and through the controller's winbind. In a view, with a
network of its own: none of it is installed (joined.py), and the ports are the usual ones. Prints "READY <process of Samba>
<process of SSSD>" when both answer. They end with this process.

What is in the domain is made once and kept in build/controller, until this file or Samba changes. Passwords are
NAME-password, that of "reader" too, who reads the directory. /srv/tls/ca.pem is what to trust, /srv/tls/other.pem is not.
"""
import glob
import hashlib
import importlib
import os
import shutil
import signal
import socket
import subprocess
import sys
import time

sys.dont_write_bytecode = True
import directory  # noqa: E402
import joined  # noqa: E402

KEPT = os.path.join(joined.BUILD, "controller")
FOLDER = "/srv/dc"
CONFIG = FOLDER + "/etc/smb.conf"
TLS = "/srv/tls/"
LOG = "/tmp/samba.log"
PROVISION = ("--realm=CORP.TEST", "--domain=CORP", "--host-name=dc1", "--host-ip=127.0.0.1", "--server-role=dc",
             "--dns-backend=NONE", "--use-rfc2307", "--option=interfaces=lo", "--option=bind interfaces only=yes")
SETTINGS = """\tserver services = rpc, ldap, cldap, kdc, winbindd
\ttls certfile = {0}server.pem
\ttls keyfile = {0}server.key
\ttls cafile = {0}ca.pem
""".format(TLS)
SSSD = r"""
[sssd]
services = nss, pam
domains = corp.test
[nss]
entry_negative_timeout = 0
memcache_timeout = 0
[pam]
pam_id_timeout = 1
[domain/corp.test]
id_provider = ad
access_provider = ad
ad_domain = corp.test
ad_server = dc1.corp.test
ad_hostname = nas.corp.test
ldap_sasl_authid = nas$
krb5_realm = CORP.TEST
dyndns_update = false
ad_gpo_access_control = disabled
entry_cache_timeout = 1
use_fully_qualified_names = true
full_name_format = %3$s\%1$s
"""
KERBEROS = """
[libdefaults]
default_realm = CORP.TEST
dns_lookup_kdc = false
rdns = false
"""


def tool(*words):
    done = subprocess.run(["samba-tool", *words, "--configfile=" + CONFIG], stdin=subprocess.DEVNULL, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if done.returncode != 0:
        sys.exit("samba-tool %s: %s" % (" ".join(words[:2]), done.stdout))


def populate():
    importlib.invalidate_caches()  # Samba's modules have come since this program has started
    from samba.auth import system_session
    from samba.param import LoadParm
    from samba.samdb import SamDB

    settings = LoadParm()
    settings.load(CONFIG)
    database = SamDB(url=FOLDER + "/private/sam.ldb", session_info=system_session(), lp=settings)
    base = str(database.domain_dn())
    database.transaction_start()
    for unit in ("ou=Sales", "ou=Inner,ou=Sales", "ou=Berlin"):
        database.create_ou(unit + "," + base)

    def add(name, **more):
        database.newuser(name, name + "-password", **more)

    add("reader")
    add("dan", userou="ou=Inner,ou=Sales", givenname="Dan", surname="the Man", mailaddress="dan@corp.test")
    add("eve", userou="ou=Sales")
    for n in range(1, 25):
        add("user%02d" % n, userou="ou=Berlin", givenname="User", surname="%02d" % n)
    for group in ("Storage Admins", "Night Shift", "Inner Circle"):
        database.newgroup(group, groupou="ou=Sales", description=group.lower())
    database.add_remove_group_members("Inner Circle", ["dan", "user24"])
    database.add_remove_group_members("Night Shift", ["Inner Circle"])
    database.add_remove_group_members("Storage Admins", ["Night Shift", "user01"])
    database.transaction_commit()


def provision():
    empty = "/tmp/empty.conf"
    with open(empty, "w"):
        pass
    subprocess.run(["samba-tool", "domain", "provision", "--configfile=" + empty, "--targetdir=" + FOLDER, *PROVISION],
                   check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    with open(CONFIG) as file:
        lines = [SETTINGS if "server services" in line else line for line in file]
    with open(CONFIG, "w") as file:
        file.writelines(lines)
    tool("domain", "passwordsettings", "set", "--complexity=off", "--min-pwd-length=1", "--max-pwd-age=0")
    populate()
    tool("spn", "add", "ldap/dc1.corp.test", "DC1$")  # which a controller adds itself where it has a name server
    tool("computer", "create", "nas")
    tool("user", "setpassword", "nas$", "--newpassword=nas-password")
    tool("domain", "exportkeytab", FOLDER + "/nas.keytab", "--principal=nas$")


def kept():
    digest = hashlib.sha256(subprocess.run(["samba", "--version"], check=True, stdout=subprocess.PIPE).stdout)
    with open(__file__, "rb") as file:
        digest.update(file.read())
    return os.path.join(KEPT, digest.hexdigest()[:16] + ".tar")


def keep(archive):
    os.makedirs(KEPT, exist_ok=True)
    subprocess.run(["tar", "-C", FOLDER, "-cf", archive + ".new", "."], check=True)
    os.rename(archive + ".new", archive)
    for other in glob.glob(KEPT + "/*.tar"):
        if other != archive:
            os.remove(other)


def answers(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def start_samba():
    with open(LOG, "w") as log:
        samba = joined.start(["samba", "-i", "-M", "single", "--configfile=" + CONFIG], stdout=log, stderr=log)
    end = time.monotonic() + joined.START_SECONDS
    while not (answers(389) and answers(636) and answers(88)):
        if samba.poll() is not None or time.monotonic() > end:
            with open(LOG) as log:
                sys.exit("Samba did not start:\n" + log.read())
        time.sleep(0.02)
    return samba


def main():
    for name in ("samba", "sssd"):
        joined.lay_over(name)
    with open("/etc/hosts", "a") as file:
        file.write("\n127.0.0.1 dc1.corp.test dc1\n")
    with open("/etc/krb5.conf", "w") as file:
        file.write(KERBEROS)
    # Where pam_winbind.so looks for accounts.
    subprocess.run(["sed", "-i", "s/^passwd:.*/& winbind/", "/etc/nsswitch.conf"], check=True)
    os.makedirs("/run/samba", exist_ok=True)
    os.makedirs(FOLDER)
    archive = kept()
    if os.path.exists(archive):
        subprocess.run(["tar", "-C", FOLDER, "-xf", archive], check=True)
    else:
        provision()
        keep(archive)
    os.makedirs(TLS)
    directory.make_certificates(lambda name: TLS + name, False, "dc1.corp.test")
    samba = start_samba()
    shutil.copy(FOLDER + "/nas.keytab", "/etc/krb5.keytab")
    sssd = joined.start_sssd(SSSD)
    joined.wait_for_sssd(sssd, r"CORP\dan")
    print("READY", samba.pid, sssd.pid, flush=True)
    signal.pause()


main()
