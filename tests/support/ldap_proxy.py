#!/usr/bin/python3
"""A proxy that stands in front of a directory (directory.py) and misbehaves: ldap_proxy.py FOLDER PORT CASE...

Serves each case on a port of its own of 127.0.0.1, prints "PORT" and the ports, in their order, and from then on a line for
what happens: "REACHED n" when case n has begun to misbehave, "ALL-TAKEN n" when somebody has taken all of 100 MB, "FOLLOWED"
when somebody has gone where a referral points. FOLDER is the directory's, with its certificates, and PORT speaks plain LDAP.

A case is FAULT:WHERE, and with a third word "ldaps" it is encrypted from the first byte on. Up to WHERE all is as it should
be, StartTLS too. WHERE is connect, starttls, handshake, bind (the reading account's), search (for the person), groups (any
later search) or password (the person's bind). FAULT is

none        nothing ever goes wrong
refuse      nobody listens
hang        says nothing more
drip        answers a byte a second
drop        cuts the connection in the middle of the answer
huge        an answer of 100 MB
busy        says that it is busy
referral    says that another server should be asked
references  references to another server without end
other-ca    shows a certificate that somebody else has issued
strip       does not know StartTLS
false       says yes to StartTLS and goes on in the open
"""
import os
import socket
import ssl
import sys
import threading
import time

sys.dont_write_bytecode = True
from ber import ber  # noqa: E402

RESULT_OF = {0x60: 0x61, 0x63: 0x65, 0x77: 0x78}
told = threading.Lock()


def tell(text):
    with told:
        print(text, flush=True)


def result(number, operation, code, *more):
    return ber(0x30, ber(0x02, number),
               ber(RESULT_OF[operation], ber(0x0A, bytes([code])), ber(0x04), ber(0x04), *more))


def read_exactly(connection, size):
    data = b""
    while len(data) < size:
        more = connection.recv(size - len(data))
        if not more:
            raise ConnectionError
        data += more
    return data


class Message:
    """One LDAP message, as it came."""
    def __init__(self, connection):
        head = read_exactly(connection, 2)
        size = head[1]
        if size & 0x80:
            head += read_exactly(connection, size & 0x7F)
            size = int.from_bytes(head[2:], "big")
        body = read_exactly(connection, size)
        self.data = head + body
        self.number = body[2:2 + body[1]]
        self.operation = body[2 + body[1]]


def drip(connection, data):
    for one in data:
        connection.sendall(bytes([one]))
        time.sleep(1)


def wait_for_end(connection):
    connection.settimeout(3600)
    try:
        while connection.recv(65536):
            pass
    except OSError:
        pass


class Session:
    def __init__(self, connection, proxy, index, case):
        self.connection = connection
        self.proxy = proxy
        self.index = index
        self.fault, self.where, *options = case.split(":")
        self.encrypted_at_once = "ldaps" in options
        self.directory = socket.create_connection(("127.0.0.1", proxy.port))
        self.binds = 0
        self.searches = 0

    def reached(self):
        tell("REACHED %d" % self.index)

    def encrypt(self):
        if self.where == "handshake":
            self.reached()
            if self.fault == "hang":
                wait_for_end(self.connection)
                raise ConnectionError
            if self.fault == "drop":
                self.connection.recv(1)
                raise ConnectionError
        if self.fault == "drip" and self.where == "handshake":
            self.drip_handshake()
            raise ConnectionError
        context = self.proxy.other if self.fault == "other-ca" else self.proxy.right
        if self.fault == "other-ca":
            self.reached()
        self.connection = context.wrap_socket(self.connection, server_side=True)

    def drip_handshake(self):
        incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        tls = self.proxy.right.wrap_bio(incoming, outgoing, server_side=True)
        while True:
            try:
                tls.do_handshake()
                return
            except ssl.SSLWantReadError:
                drip(self.connection, outgoing.read())
                incoming.write(self.connection.recv(65536))

    def stage(self, operation):
        if operation == 0x60:
            self.binds += 1
            return "bind" if self.binds == 1 else "password"
        if operation == 0x63:
            self.searches += 1
            return "search" if self.searches == 1 else "groups"
        return "starttls" if operation == 0x77 else "other"

    def answer_of_directory(self, message):
        self.directory.sendall(message.data)
        answer = b""
        while True:
            part = Message(self.directory)
            answer += part.data
            if part.operation == RESULT_OF[message.operation]:
                return answer

    def misbehave(self, message):
        self.reached()
        send = self.connection.sendall
        refer = ber(0xA3, ber(0x04, b"ldap://127.0.0.1:%d/dc=x" % self.proxy.other_port))
        if self.fault == "hang":
            wait_for_end(self.connection)
        elif self.fault == "drip":
            drip(self.connection, result(message.number, 0x77, 0) if message.operation == 0x77
                 else self.answer_of_directory(message))
        elif self.fault == "drop":
            answer = result(message.number, 0x77, 0) if message.operation == 0x77 else self.answer_of_directory(message)
            send(answer[:len(answer) // 2])
        elif self.fault == "huge":
            size = (100 << 20).to_bytes(4, "big")
            send(b"\x30\x84" + size + ber(0x02, message.number) + bytes([RESULT_OF[message.operation]]) + b"\x84" + size)
            for _ in range(100):
                send(b"\x04" * (1 << 20))
            tell("ALL-TAKEN %d" % self.index)
        elif self.fault == "busy":
            send(result(message.number, message.operation, 51))
            wait_for_end(self.connection)
        elif self.fault == "referral":
            send(result(message.number, message.operation, 10, refer))
            wait_for_end(self.connection)
        elif self.fault == "references":
            reference = ber(0x30, ber(0x02, message.number),
                            ber(0x73, ber(0x04, b"ldap://127.0.0.1:%d/dc=x" % self.proxy.other_port)))
            while True:
                send(reference * 100)
        raise ConnectionError

    def start_tls(self, message):
        if self.fault == "strip":
            self.reached()
            self.connection.sendall(result(message.number, 0x77, 2))
            return
        self.connection.sendall(result(message.number, 0x77, 0))
        if self.fault == "false":
            self.reached()
            return
        self.encrypt()

    def serve(self):
        if self.where == "connect" and self.fault != "none":
            self.reached()
            if self.fault == "hang":
                wait_for_end(self.connection)
            return
        if self.encrypted_at_once:
            self.encrypt()
        while True:
            message = Message(self.connection)
            if message.operation not in RESULT_OF:
                return
            if self.stage(message.operation) == self.where and self.fault not in ("none", "other-ca", "strip", "false"):
                self.misbehave(message)
            elif message.operation == 0x77:
                self.start_tls(message)
            else:
                self.connection.sendall(self.answer_of_directory(message))


class Proxy:
    def __init__(self, folder, port, cases):
        self.port = port
        self.right = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self.right.load_cert_chain(os.path.join(folder, "server.pem"), os.path.join(folder, "server.key"))
        self.other = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self.other.load_cert_chain(os.path.join(folder, "other.pem"), os.path.join(folder, "other.key"))
        self.cases = cases

    def run(self):
        other = socket.create_server(("127.0.0.1", 0))
        self.other_port = other.getsockname()[1]
        ports = []
        for index, case in enumerate(self.cases):
            if case.startswith("refuse"):
                self.closed = socket.socket()   # kept, and nobody listens
                self.closed.bind(("127.0.0.1", 0))
                ports.append(self.closed.getsockname()[1])
                continue
            listener = socket.create_server(("127.0.0.1", 0))
            ports.append(listener.getsockname()[1])
            threading.Thread(target=self.accept, args=(listener, index, case), daemon=True).start()
        tell("PORT " + " ".join(map(str, ports)))
        while True:
            other.accept()[0].close()
            tell("FOLLOWED")

    def accept(self, listener, index, case):
        while True:
            threading.Thread(target=self.handle, args=(listener.accept()[0], index, case), daemon=True).start()

    def handle(self, connection, index, case):
        session = Session(connection, self, index, case)
        try:
            session.serve()
        except (OSError, IndexError, KeyError):   # somebody went away
            pass
        session.directory.close()
        session.connection.close()


Proxy(sys.argv[1], int(sys.argv[2]), sys.argv[3:]).run()
