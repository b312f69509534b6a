#!/usr/bin/python3
"""A mail server that keeps what it takes, on 127.0.0.1.

    smtp_sink.py DIR [--port N] [--name HOST] [--keys DIR] [--tls] [--user NAME --password TEXT] [--certificate KIND]
        [--fault NAME]...

Makes a CA of its own and a certificate of localhost and 127.0.0.1 in DIR or --keys (ca.pem is for the client), prints
"PORT N" when it is ready, and keeps each mail as DIR/NNNN.eml with its envelope in DIR/NNNN.json (the .eml is there
last). DIR/commands has one line for each command that came, without what follows it.

--name         the certificate is good for this name too
--tls          speaks TLS from the first byte; otherwise STARTTLS is offered
--user         takes mails of who has logged in with this name and --password alone; without it, everybody's
--certificate  wrong-host, other-ca or expired, instead of a good one
--fault        rcpt-550, rcpt-450, mail-550, data-554, data-451: this reply
               rcpt-bob: 550 to whoever is called bob, and to nobody else
               controls: rcpt-550 with characters in its text that no terminal should see
               no-starttls: does not offer it; no-auth: does not offer to log in
               hang-greeting, hang-data, hang-quit: never answers
               drop-data: cuts the connection once the mail has come
               slow: writes a byte every half second; flood: writes lines of one reply without end
               rubbish: writes what is no reply
               inject-reply: another reply behind that to STARTTLS, in the clear, as somebody on the way could
"""
import argparse
import asyncio
import json
import os
import ssl
import subprocess
import sys

from aiosmtpd.smtp import SMTP, AuthResult, LoginPassword

NEW_KEY = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes"]


def openssl(*words):
    subprocess.run(["openssl", *words], check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                   stderr=subprocess.PIPE)


def make_certificates(directory, kind, name):
    """Gives the paths of the server's certificate and key."""
    def path(name):
        return os.path.join(directory, name)

    def make_ca(name):
        openssl("req", "-x509", *NEW_KEY, "-days", "2", "-subj", "/CN=CA of a test, %d" % os.getpid(),
                "-keyout", path(name + ".key"), "-out", path(name + ".pem"))

    if not os.path.exists(path("ca.pem")):
        make_ca("ca")
    issuer = "ca"
    if kind == "other-ca":
        issuer = "other"
        make_ca(issuer)
    names = "DNS:elsewhere.example" if kind == "wrong-host" else "DNS:localhost,IP:127.0.0.1,DNS:" + name
    with open(path("server.ext"), "w", encoding="ascii") as extensions:
        extensions.write("subjectAltName=" + names + "\n")
    openssl("req", *NEW_KEY, "-subj", "/CN=server of a test", "-keyout", path("server.key"), "-out", path("server.csr"))
    openssl("x509", "-req", "-in", path("server.csr"), "-CA", path(issuer + ".pem"), "-CAkey", path(issuer + ".key"),
            "-CAcreateserial", "-days", "-1" if kind == "expired" else "2", "-extfile", path("server.ext"),
            "-out", path("server.pem"))
    return path("server.pem"), path("server.key")


class Keeper:
    """Decides about senders, recipients and messages, and keeps what was accepted."""

    def __init__(self, directory, faults):
        self.directory = directory
        self.faults = faults
        self.count = len([name for name in os.listdir(directory) if name.endswith(".eml")])

    async def handle_EHLO(self, server, session, envelope, hostname, replies):
        session.host_name = hostname
        return [reply for reply in replies if server.can_log_in or not reply.startswith("250-AUTH")]

    async def handle_MAIL(self, server, session, envelope, address, options):
        if "mail-550" in self.faults:
            return "550 5.7.1 not from you"
        envelope.mail_from = address
        envelope.mail_options.extend(options)
        return "250 OK"

    async def handle_RCPT(self, server, session, envelope, address, options):
        if "rcpt-bob" in self.faults and address.startswith("bob@"):
            return "550 5.1.1 not here"
        if "rcpt-550" in self.faults:
            return "550-5.1.1 there is nobody\r\n550 5.1.1 of that name"
        if "rcpt-450" in self.faults:
            return "450 4.2.0 come back later"
        if "controls" in self.faults:
            return "550 no\x1b[2J\x07\ttabs\x00 and  blanks \x7f"
        envelope.rcpt_tos.append(address)
        return "250 OK"

    async def handle_DATA(self, server, session, envelope):
        for fault, reply in (("data-554", "554 5.7.1 looks like spam"), ("data-451", "451 4.3.0 try again")):
            if fault in self.faults:
                return reply
        if "hang-data" in self.faults:
            await asyncio.Event().wait()
        if "drop-data" in self.faults:
            server.transport.abort()
            return "451 gone"
        self.count += 1
        path = os.path.join(self.directory, "%04d" % self.count)
        facts = {
            "from": envelope.mail_from, "to": envelope.rcpt_tos, "options": envelope.mail_options,
            "tls": server.transport.get_extra_info("cipher") is not None, "auth": bool(session.authenticated),
            "helo": session.host_name,
        }
        with open(path + ".json", "w", encoding="utf-8") as file:
            json.dump(facts, file)
        with open(path + ".part", "wb") as file:
            file.write(envelope.content)
        os.rename(path + ".part", path + ".eml")
        return "250 2.0.0 kept as %04d" % self.count


class Server(SMTP):
    """Speaks SMTP, or does not, as the faults have it."""

    def __init__(self, keeper, options, context, commands):
        self.faults = options.fault
        offered = None if options.tls or "no-starttls" in self.faults else context
        self.can_log_in = options.user and "no-auth" not in self.faults

        def is_right(server, session, envelope, mechanism, data):
            right = (isinstance(data, LoginPassword) and data.login == options.user.encode()
                     and data.password == options.password.encode())
            return AuthResult(success=right, handled=False)
        super().__init__(keeper, hostname="localhost", tls_context=offered, authenticator=is_right,
                         auth_required=self.can_log_in, auth_require_tls=offered is not None)

        def noted(name, method):
            async def note(argument):
                with open(commands, "a", encoding="ascii") as file:
                    file.write(name + "\n")
                await method(argument)
            return note
        self._smtp_methods = {name: noted(name, method) for name, method in self._smtp_methods.items()}

    async def push(self, status):
        line = status if isinstance(status, bytes) else status.encode("latin-1")
        if "hang-greeting" in self.faults:
            await asyncio.Event().wait()
        while "flood" in self.faults and not self.transport.is_closing():
            await self.write(b"250-" + b"x" * 500 + b"\r\n")
        if "rubbish" in self.faults:
            line = b"\x16\x03\x01 what"
        if "inject-reply" in self.faults and line.startswith(b"220 Ready to start TLS"):
            line += b"\r\n250-localhost\r\n250 AUTH PLAIN"
        if "slow" in self.faults:
            for byte in line:
                await self.write(bytes([byte]))
                await asyncio.sleep(0.5)
            line = b""
        await self.write(line + b"\r\n")

    async def write(self, text):
        self._writer.write(text)
        await self._writer.drain()

    async def smtp_QUIT(self, argument):
        if "hang-quit" in self.faults:
            await asyncio.Event().wait()
        await super().smtp_QUIT(argument)


async def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("directory")
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--name", default="localhost")
    parser.add_argument("--keys")
    parser.add_argument("--tls", action="store_true")
    parser.add_argument("--user")
    parser.add_argument("--password", default="")
    parser.add_argument("--certificate", choices=["good", "wrong-host", "other-ca", "expired"], default="good")
    parser.add_argument("--fault", action="append", default=[])
    options = parser.parse_args()
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(*make_certificates(options.keys or options.directory, options.certificate, options.name))
    os.umask(0o077)   # mails may hold codes that are good; the certificates are for everybody
    keeper = Keeper(options.directory, options.fault)
    commands = os.path.join(options.directory, "commands")
    server = await asyncio.get_running_loop().create_server(
        lambda: Server(keeper, options, context, commands), "127.0.0.1", options.port,
        ssl=context if options.tls else None)
    print("PORT", server.sockets[0].getsockname()[1], flush=True)
    await server.serve_forever()


try:
    asyncio.run(main())
except subprocess.CalledProcessError as error:
    sys.exit(error.stderr.decode())
