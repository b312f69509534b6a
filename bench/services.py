#!/usr/bin/python3
"""The services at rest and at their start, with sockets handed over as systemd does it: from the start to the first answer
beside lighttpd alone with a file, in turn; then, with nobody asking, what all of them hold (PSS) and the processor time
that they take."""
import os
import shutil
import socket
import statistics
import subprocess
import sys
import time

HANDED = os.path.join(os.path.dirname(os.path.realpath(__file__)), "handed")
PORT = 8099
ROUNDS = 15
IDLE_SECONDS = 10
TICK = os.sysconf("SC_CLK_TCK")
missed = False


def run(*command):
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)


def start(command, handed):
    """`handed` is a listening socket or none."""
    if handed:
        command = (HANDED, str(handed.fileno()), *command)
    return subprocess.Popen(command, env={**os.environ, "TAVR_PORT": str(PORT)}, stdout=subprocess.DEVNULL,
                            stderr=subprocess.DEVNULL, pass_fds=[handed.fileno()] if handed else [])


def listener(path):
    if os.path.exists(path):
        os.unlink(path)
    made = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    made.bind(path)
    made.listen(1024)
    shutil.chown(path, group="www-data")
    os.chmod(path, 0o660)
    return made


def status_of(path):
    try:
        with socket.create_connection(("127.0.0.1", PORT), timeout=5) as asked:
            asked.sendall(f"GET {path} HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n".encode())
            return asked.recv(64).split(b" ")[1:2]
    except OSError:
        return []


def seconds_to_answer(commands, path, status):
    begun = time.perf_counter()
    processes = [start(command, handed) for command, handed in commands]
    while status_of(path) != [status]:
        time.sleep(0.0005)
    return time.perf_counter() - begun, processes


def end(processes):
    for process in reversed(processes):
        process.terminate()
        process.wait()


def with_children(pids):
    found = []
    for pid in pids:
        children = open(f"/proc/{pid}/task/{pid}/children", encoding="ascii").read().split()
        found += [pid] + with_children([int(child) for child in children])
    return found


def pss_kib(pid):
    lines = open(f"/proc/{pid}/smaps_rollup", encoding="ascii")
    return next(int(line.split()[1]) for line in lines if line.startswith("Pss:"))


def ticks(pid):
    fields = open(f"/proc/{pid}/stat", encoding="ascii").read().rpartition(")")[2].split()
    return int(fields[11]) + int(fields[12])


def goal(text, reached):
    global missed
    missed |= not reached
    print(f"{text}{'' if reached else '   MISSED'}")


os.makedirs("/run/tavr", exist_ok=True)
run("tavrctl", "setup")
with open("/tmp/bare.conf", "w", encoding="ascii") as conf:
    conf.write(f'server.port = {PORT}\nserver.bind = "127.0.0.1"\nserver.document-root = "/tmp/bare"\n')
os.makedirs("/tmp/bare", exist_ok=True)
with open("/tmp/bare/file", "w", encoding="ascii") as file:
    file.write("a file\n")
bare = [(("lighttpd", "-D", "-f", "/tmp/bare.conf"), None)]
whole = [
    (("tavr-webapid",), listener("/run/tavrscgi-fastapi.sock")),
    (("tavr-otp-web",), listener("/run/tavr/otp-web.sock")),
    (("lighttpd", "-D", "-f", "/usr/share/tavr-otp/lighttpd.conf"), None),
]

floors, cases = [], []
for _ in range(ROUNDS):
    seconds, processes = seconds_to_answer(bare, "/file", b"200")
    end(processes)
    floors.append(seconds)
    seconds, processes = seconds_to_answer(whole, "/api/session", b"401")
    end(processes)
    cases.append(seconds)
ratio = statistics.median(case / floor for case, floor in zip(cases, floors))
goal(f"start to first answer: {1000 * statistics.median(cases):.1f} ms, lighttpd alone "
     f"{1000 * statistics.median(floors):.1f} ms, ratio {ratio:.2f} (goal 2)", ratio <= 2)

_, processes = seconds_to_answer(whole, "/api/session", b"401")
time.sleep(1)
pids = with_children([process.pid for process in processes])
held = sum(pss_kib(pid) for pid in pids)
goal(f"{len(pids)} processes hold {held / 1024:.1f} MiB (goal under 40)", held < 40 * 1024)
before = sum(ticks(pid) for pid in pids)
time.sleep(IDLE_SECONDS)
taken = sum(ticks(pid) for pid in pids) - before
goal(f"idle for {IDLE_SECONDS} s: {taken} ticks of {1000 // TICK} ms, {100 * taken / TICK / IDLE_SECONDS:.2f} % of a processor "
     "(goal 0)", taken <= 1)
end(processes)
sys.exit(missed)
