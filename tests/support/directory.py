#!/usr/bin/python3
"""An LDAP directory for tests: directory.py FOLDER [--users N] [--groups N] [--large] [--other-ca] [--plain-only] [--port N]

Makes certificates, a generated population and the odd entries of directory.ldif in FOLDER, starts slapd on free ports
of 127.0.0.1, prints "PORT <ldap> <ldaps>" when it answers, and is that slapd from then on.

Users are user0001 ... with the password pw-0001 ..., group g of G is group001 ... and has every user n with n mod G == g - 1
by memberUid. --large: two people more, with 50 MB in one value. FOLDER/ca.pem is what to trust; with --other-ca the server's
certificate is of somebody else. --plain-only: it does not encrypt. --port: there instead of on a free one.
"""
import argparse
import os
import socket
import subprocess
import sys
import time

BASE = "dc=office,dc=example"
SCHEMAS = ("core", "cosine", "nis", "inetorgperson")
CONFIG = """
modulepath /usr/lib/ldap
moduleload back_mdb
moduleload memberof
pidfile {folder}/slapd.pid
{tls}
sizelimit size.soft=500 size.hard=500 size.prtotal=unlimited
database mdb
suffix "{base}"
rootdn "cn=admin,{base}"
rootpw admin-password
directory {folder}/db
maxsize 1073741824
overlay memberof
index objectClass,uid,cn,memberUid,member,uniqueMember,gidNumber,entryUUID eq
access to attrs=userPassword by anonymous auth by * none
access to * by users read by anonymous auth
"""
TLS = """TLSCACertificateFile {folder}/ca.pem
TLSCertificateFile {folder}/server.pem
TLSCertificateKeyFile {folder}/server.key"""
NEW_KEY = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes")


def run(*words):
    subprocess.run(words, check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def make_certificates(path, other_ca, host="directory.example"):
    for name in ("ca", "other"):
        run("openssl", "req", "-x509", *NEW_KEY, "-days", "2", "-subj", "/CN=%s of a test" % name,
            "-keyout", path(name + ".key"), "-out", path(name + ".pem"))
    issuer = "other" if other_ca else "ca"
    with open(path("extensions"), "w") as file:
        file.write("subjectAltName=IP:127.0.0.1,DNS:%s,DNS:ldap1.office.example,DNS:ldap2.office.example,DNS:dc1.corp.test\n" % host)
    run("openssl", "req", *NEW_KEY, "-subj", "/CN=directory of a test", "-keyout", path("server.key"),
        "-out", path("server.csr"))
    run("openssl", "x509", "-req", "-in", path("server.csr"), "-CA", path(issuer + ".pem"),
        "-CAkey", path(issuer + ".key"), "-CAcreateserial", "-days", "2", "-extfile", path("extensions"),
        "-out", path("server.pem"))


def write_population(file, users, groups):
    file.write("dn: %s\nobjectClass: dcObject\nobjectClass: organization\no: office\ndc: office\n\n" % BASE)
    for unit in ("people", "others", "groups"):
        file.write("dn: ou=%s,%s\nobjectClass: organizationalUnit\nou: %s\n\n" % (unit, BASE, unit))
    file.write("dn: cn=reader,%s\nobjectClass: applicationProcess\nobjectClass: simpleSecurityObject\ncn: reader\n"
               "userPassword: reader-password\n\n" % BASE)
    for n in range(1, users + 1):
        file.write("dn: uid=user%04d,ou=people,%s\nobjectClass: inetOrgPerson\nobjectClass: posixAccount\n"
                   "uid: user%04d\ncn: User %04d\nsn: N%d\nmail: user%04d@home.example\nuidNumber: %d\n"
                   "gidNumber: 20000\nhomeDirectory: /home/%d\nuserPassword: pw-%04d\n\n"
                   % (n, BASE, n, n, n, n, 20000 + n, n, n))
    for g in range(groups):
        file.write("dn: cn=group%03d,ou=groups,%s\nobjectClass: posixGroup\ncn: group%03d\ngidNumber: %d\n"
                   "description: Group %03d\n" % (g + 1, BASE, g + 1, 21000 + g, g + 1))
        for n in range(1, users + 1):
            if n % groups == g:
                file.write("memberUid: user%04d\n" % n)
        file.write("\n")


def write_large(file):
    """Two people with a value of 50 MB: a picture, which nobody asks for, and an address."""
    for uid, attribute in (("picture", "jpegPhoto"), ("address", "mail")):
        file.write("dn: uid=%s,ou=people,%s\nobjectClass: inetOrgPerson\nuid: %s\ncn: Large %s\nsn: L\n"
                   "userPassword: large-password\n%s: %s\n\n" % (uid, BASE, uid, uid, attribute, "x" * 50_000_000))


def free_ports(count):
    sockets = [socket.socket() for _ in range(count)]
    for one in sockets:
        one.bind(("127.0.0.1", 0))
    ports = [one.getsockname()[1] for one in sockets]
    for one in sockets:
        one.close()
    return ports


def tell_when_ready(ports):
    """In a child, since this process becomes slapd."""
    server = os.getpid()
    if os.fork() != 0:
        return
    for port in ports:
        while True:
            try:
                socket.create_connection(("127.0.0.1", port), 1).close()
                break
            except OSError:
                time.sleep(0.01)
                if os.getppid() != server:
                    os._exit(1)
    print("PORT %s" % " ".join(str(port) for port in ports), flush=True)
    os._exit(0)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("folder")
    parser.add_argument("--users", type=int, default=20)
    parser.add_argument("--groups", type=int, default=5)
    parser.add_argument("--large", action="store_true")
    parser.add_argument("--other-ca", action="store_true")
    parser.add_argument("--plain-only", action="store_true")
    parser.add_argument("--port", type=int)
    options = parser.parse_args()

    def path(name):
        return os.path.join(options.folder, name)

    os.makedirs(path("db"))
    if not options.plain_only:
        make_certificates(path, options.other_ca)
    with open(path("slapd.conf"), "w") as file:
        for schema in SCHEMAS:
            file.write("include /etc/ldap/schema/%s.schema\n" % schema)
        tls = "" if options.plain_only else TLS.format(folder=options.folder)
        file.write(CONFIG.format(folder=options.folder, base=BASE, tls=tls))
    with open(path("data.ldif"), "w") as file:
        write_population(file, options.users, options.groups)
        if options.large:
            write_large(file)
        with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "directory.ldif")) as odd:
            file.write(odd.read())
    loaded = subprocess.run(["/usr/sbin/slapadd", "-q", "-f", path("slapd.conf"), "-l", path("data.ldif")],
                            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    if loaded.returncode != 0:
        sys.exit("slapadd: " + loaded.stderr.decode())
    ports = free_ports(1 if options.plain_only else 2)
    ports[0] = options.port or ports[0]
    addresses = ["ldap://127.0.0.1:%d" % ports[0]] + ["ldaps://127.0.0.1:%d" % port for port in ports[1:]]
    tell_when_ready(ports)
    os.execv("/usr/sbin/slapd", ["slapd", "-f", path("slapd.conf"), "-h", " ".join(addresses), "-d", "0"])


if __name__ == "__main__":
    main()
