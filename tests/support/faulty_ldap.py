#!/usr/bin/python3
"""An LDAP server that misbehaves: faulty_ldap.py FAULT...

Serves each fault on a port of its own of 127.0.0.1 and prints "PORT" and the ports, in their order. It lets everybody in
(unless the fault is about that) and speaks no TLS.

silent        takes connections and says nothing
silent-later  answers a bind, and nothing after it
drip          answers a byte a second
drop          cuts the connection at the first search
half          cuts it in the middle of an entry
rubbish       answers with what is no LDAP
huge          an entry of 100 MB, of which it sends as much as is taken
endless       entries without end
references    references to other servers without end
referral      says to a search that another server should be asked: the last port, which notes that somebody came
busy          says to a bind that it is busy
no-starttls   knows no StartTLS
false-starttls  says yes to StartTLS and then goes on in the open
silent-starttls  says yes to StartTLS and nothing after it
"""
import os
import socket
import sys
import threading
import time

sys.dont_write_bytecode = True
from ber import ber  # noqa: E402


def message(number, operation):
    return ber(0x30, ber(0x02, bytes([number])), operation)


def result(tag, code, *more):
    return ber(tag, ber(0x0A, bytes([code])), ber(0x04), ber(0x04), *more)


def entry(number):
    def attribute(name, value):
        return ber(0x30, ber(0x04, name), ber(0x31, ber(0x04, value)))
    return ber(0x64, ber(0x04, b"uid=u%d,dc=x" % number),
               ber(0x30, attribute(b"uid", b"u%d" % number), attribute(b"entryUUID", b"id-%d" % number)))


class Client:
    def __init__(self, connection):
        self.connection = connection
        self.waiting = b""

    def take(self, size):
        while len(self.waiting) < size:
            more = self.connection.recv(65536)
            if not more:
                raise ConnectionError
            self.waiting += more
        taken, self.waiting = self.waiting[:size], self.waiting[size:]
        return taken

    def request(self):
        """Number and kind of the next one."""
        size = self.take(2)[1]
        if size & 0x80:
            size = int.from_bytes(self.take(size & 0x7F), "big")
        body = self.take(size)
        return body[2], body[3]


def serve(client, fault, other_port):
    send = client.connection.sendall
    if fault == "drip":
        def send(data):
            for one in data:
                client.connection.sendall(bytes([one]))
                time.sleep(1)
    if fault == "silent":
        time.sleep(3600)
    while True:
        number, kind = client.request()
        if fault == "rubbish":
            send(b"HTTP/1.0 400 Bad Request\r\n\r\n")
        elif kind == 0x60 and fault == "busy":
            send(message(number, result(0x61, 51)))
        elif kind == 0x60:
            send(message(number, result(0x61, 0)))
        elif kind == 0x77:
            send(message(number, result(0x78, 2 if fault == "no-starttls" else 0)))
            if fault == "silent-starttls":
                time.sleep(3600)
        elif kind == 0x63 and fault == "silent-later":
            time.sleep(3600)
        elif kind == 0x63 and fault == "drop":
            return
        elif kind == 0x63 and fault == "half":
            send(message(number, entry(1))[:30])
            return
        elif kind == 0x63 and fault == "huge":
            send(b"\x30\x84\x06\x40\x00\x00" + ber(0x02, bytes([number])) + b"\x64\x84\x06\x3f\x00\x00")
            for _ in range(1000):
                send(b"\x04" * 100000)
            open(os.environ["TAVR_FAULTS_TOLD"] + "/huge", "w").close()
        elif kind == 0x63 and fault in ("endless", "references"):
            one = entry(1) if fault == "endless" else ber(0x73, ber(0x04, b"ldap://127.0.0.1:%d/dc=x" % other_port))
            while True:
                send(message(number, one) * 100)
        elif kind == 0x63 and fault == "referral":
            refer = ber(0xA3, ber(0x04, b"ldap://127.0.0.1:%d/dc=x" % other_port))
            send(message(number, result(0x65, 10, refer)))
        elif kind == 0x63:
            send(message(number, entry(1)) + message(number, result(0x65, 0)))
        else:
            return


def accept(listener, fault, other_port):
    def handle(connection):
        try:
            serve(Client(connection), fault, other_port)
        except (OSError, IndexError):  # it went away, or encrypts
            pass
        connection.close()
    while True:
        threading.Thread(target=handle, args=(listener.accept()[0],), daemon=True).start()


def note(listener):
    while True:
        listener.accept()[0].close()
        open(os.environ["TAVR_FAULTS_TOLD"] + "/referred", "w").close()


def main():
    faults = sys.argv[1:]
    listeners = [socket.create_server(("127.0.0.1", 0)) for _ in range(len(faults) + 1)]
    ports = [listener.getsockname()[1] for listener in listeners]
    for listener, fault in zip(listeners, faults):
        threading.Thread(target=accept, args=(listener, fault, ports[-1]), daemon=True).start()
    print("PORT " + " ".join(map(str, ports)), flush=True)
    note(listeners[-1])


main()
