#!/usr/bin/python3
"""A domain controller for tests, as far as its directory is asked: controller.py FOLDER [--users N] [--groups N] [--text-sids]
[--more LDIF] [--port N]

A slapd whose entries have the attributes that a controller's have. It holds corp.test: half of user000001 ..., called
"User 000001" ..., in ou=Sales and half of them in ou=Berlin, all groups in ou=Sales, group0001
with user000001 and so on; and other.test, which it trusts, with what
controller.ldif has. Prints "PORT <ldap> <ldaps>" when it answers, and is that slapd from then on. Certificates as in
directory.py. The reader is cn=reader,dc=test with the password reader-password, that of user000001 is pw-000001. --port:
there instead of on a free one.
"""
import argparse
import base64
import os
import re
import struct
import subprocess
import sys

sys.dont_write_bytecode = True
import directory  # noqa: E402

SCHEMA = """
attributetype ( 1.3.6.1.4.1.4203.666.9.1 NAME 'sAMAccountName' EQUALITY caseIgnoreMatch
  SUBSTR caseIgnoreSubstringsMatch SYNTAX 1.3.6.1.4.1.1466.115.121.1.15 SINGLE-VALUE )
attributetype ( 1.3.6.1.4.1.4203.666.9.2 NAME 'objectSid' EQUALITY octetStringMatch
  SYNTAX 1.3.6.1.4.1.1466.115.121.1.40 SINGLE-VALUE )
attributetype ( 1.3.6.1.4.1.4203.666.9.3 NAME 'sAMAccountType' EQUALITY integerMatch
  SYNTAX 1.3.6.1.4.1.1466.115.121.1.27 SINGLE-VALUE )
attributetype ( 1.3.6.1.4.1.4203.666.9.6 NAME 'primaryGroupID' EQUALITY integerMatch
  SYNTAX 1.3.6.1.4.1.1466.115.121.1.27 SINGLE-VALUE )
attributetype ( 1.3.6.1.4.1.4203.666.9.7 NAME 'groupType' EQUALITY integerMatch
  SYNTAX 1.3.6.1.4.1.1466.115.121.1.27 SINGLE-VALUE )
objectclass ( 1.3.6.1.4.1.4203.666.9.4 NAME 'user' SUP inetOrgPerson STRUCTURAL
  MAY ( sAMAccountName $ objectSid $ sAMAccountType $ primaryGroupID ) )
objectclass ( 1.3.6.1.4.1.4203.666.9.5 NAME 'group' SUP top STRUCTURAL MUST cn
  MAY ( sAMAccountName $ objectSid $ sAMAccountType $ groupType $ description $ member ) )
"""
CONFIG = """
modulepath /usr/lib/ldap
moduleload back_mdb
pidfile {folder}/slapd.pid
TLSCACertificateFile {folder}/ca.pem
TLSCertificateFile {folder}/server.pem
TLSCertificateKeyFile {folder}/server.key
sizelimit size.soft=1000 size.hard=1000 size.pr=1000 size.prtotal=unlimited
database mdb
suffix "dc=test"
rootdn "cn=admin,dc=test"
rootpw admin-password
directory {folder}/db
maxsize 4294967296
index objectClass,sAMAccountType,sAMAccountName eq
access to attrs=userPassword by anonymous auth by * none
access to * by users read by anonymous auth
"""


def sid(number):
    """The SID of an account of the domain, as an attribute's line."""
    return "objectSid:: " + base64.b64encode(struct.pack("<BB6s5I", 1, 5, b"\0\0\0\0\0\5", 21, 1, 2, 3, number)).decode()


def unit_of(user):
    return "Berlin" if user % 2 == 0 else "Sales"


def write_population(file, users, groups):
    file.write("dn: dc=test\nobjectClass: dcObject\nobjectClass: organization\no: test\ndc: test\n\n")
    for name in ("corp", "other"):
        file.write("dn: dc=%s,dc=test\nobjectClass: dcObject\nobjectClass: organization\no: %s\ndc: %s\n\n"
                   % (name, name, name))
    for unit in ("ou=Sales", "ou=Inner,ou=Sales", "ou=Berlin"):
        file.write("dn: %s,dc=corp,dc=test\nobjectClass: organizationalUnit\nou: %s\n\n"
                   % (unit, unit.split(",")[0].split("=")[1]))
    file.write("dn: cn=reader,dc=test\nobjectClass: applicationProcess\nobjectClass: simpleSecurityObject\ncn: reader\n"
               "userPassword: reader-password\n\n")
    for n in range(1, users + 1):
        file.write("dn: cn=User %06d,ou=%s,dc=corp,dc=test\nobjectClass: user\ncn: User %06d\nsn: N%d\n"
                   "sAMAccountName: user%06d\nsAMAccountType: 805306368\ndisplayName: User %06d\n"
                   "primaryGroupID: 513\nuserPassword: pw-%06d\n%s\n\n"
                   % (n, unit_of(n), n, n, n, n, n, sid(100000 + n)))
    for g in range(1, groups + 1):
        file.write("dn: cn=group%04d,ou=Sales,dc=corp,dc=test\nobjectClass: group\ncn: group%04d\n"
                   "sAMAccountName: group%04d\nsAMAccountType: 268435456\ndescription: Group %04d\n"
                   "groupType: -2147483646\nmember: cn=User %06d,ou=%s,dc=corp,dc=test\n%s\n\n"
                   % (g, g, g, g, g, unit_of(g), sid(2000000 + g)))


def write_sids_as_text(name):
    def text(line):
        value = base64.b64decode(line.group(1))
        if len(value) < 8 + 4 * value[1]:
            return line.group(0)
        parts = struct.unpack("<%dI" % value[1], value[8:])
        return "objectSid: S-1-5-" + "-".join(str(part) for part in parts)

    with open(name) as file:
        data = re.sub(r"objectSid:: (\S+)", text, file.read())
    with open(name, "w") as file:
        file.write(data)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("folder")
    parser.add_argument("--users", type=int, default=20)
    parser.add_argument("--groups", type=int, default=5)
    parser.add_argument("--more", help="entries besides")
    parser.add_argument("--port", type=int)
    parser.add_argument("--text-sids", action="store_true", help="as SSSD searches for them: a controller takes both")
    options = parser.parse_args()

    def path(name):
        return os.path.join(options.folder, name)

    os.makedirs(path("db"))
    directory.make_certificates(path, False)
    with open(path("controller.schema"), "w") as file:
        file.write(SCHEMA)
    with open(path("slapd.conf"), "w") as file:
        for schema in directory.SCHEMAS:
            file.write("include /etc/ldap/schema/%s.schema\n" % schema)
        file.write("include %s\n" % path("controller.schema"))
        file.write(CONFIG.format(folder=options.folder))
    with open(path("data.ldif"), "w") as file:
        write_population(file, options.users, options.groups)
        with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "controller.ldif")) as odd:
            file.write(odd.read())
        if options.more:
            with open(options.more) as more:
                file.write("\n" + more.read())
    if options.text_sids:
        write_sids_as_text(path("data.ldif"))
    loaded = subprocess.run(["/usr/sbin/slapadd", "-q", "-f", path("slapd.conf"), "-l", path("data.ldif")],
                            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    if loaded.returncode != 0:
        sys.exit("slapadd: " + loaded.stderr.decode())
    ports = directory.free_ports(2)
    ports[0] = options.port or ports[0]
    directory.tell_when_ready(ports)
    os.execv("/usr/sbin/slapd", ["slapd", "-f", path("slapd.conf"), "-h",
                                 "ldap://127.0.0.1:%d ldaps://127.0.0.1:%d" % tuple(ports), "-d", "0"])


main()
