#!/usr/bin/python3
"""The services at rest and at their start, with sockets handed over as systemd does it: from the start of all of them at
once to the first answer beside lighttpd alone with a file, in turn; then, with nobody asking, what all of them hold (PSS)
and the processor time that they take."""
import grp
import os
import pwd
import shutil
import socket
import statistics
import subprocess
import sys
import time

FIRST_ANSWER = os.path.join(os.path.dirname(os.path.realpath(__file__)), "first_answer")
PORT = 8099
ROUNDS = 25
IDLE_SECONDS = 10
TICK = os.sysconf("SC_CLK_TCK")
missed = False


def run(*command):
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)


def listener(path):
    if os.path.exists(path):
        os.unlink(path)
    made = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    made.bind(path)
    made.listen(1024)
    shutil.chown(path, group="www-data")
    os.chmod(path, 0o660)
    made.set_inheritable(True)
    return made


class Started:
    """`commands`, with the seconds from their start to the first answer; they end with the block."""

    def __init__(self, path, status, commands):
        words = [word for command in commands for word in ("--", *command)]
        self.helper = subprocess.Popen((FIRST_ANSWER, str(PORT), path, status, *words), close_fds=False,
                                       env={**os.environ, "TAVR_PORT": str(PORT)}, text=True, stdin=subprocess.PIPE,
                                       stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        microseconds, *self.pids = [int(word) for word in self.helper.stdout.readline().split()]
        if microseconds < 0:
            sys.exit(f"{commands} do not answer {path} with {status}")
        self.seconds = microseconds / 1e6

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.helper.communicate()


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
www = f"ids={pwd.getpwnam('www-data').pw_uid}:{grp.getgrnam('www-data').gr_gid}"   # as a service starts a web server
sockets = [listener(path) for path in ("/run/tavrscgi-fastapi.sock", "/run/tavr/otp-web.sock")]
bare = ("/file", "200", [(www, "lighttpd", "-D", "-f", "/tmp/bare.conf")])
whole = ("/api/session", "401", [
    (f"fd={sockets[0].fileno()}", "tavr-webapid"),
    (f"fd={sockets[1].fileno()}", "tavr-otp-web"),
    (www, "lighttpd", "-D", "-f", "/usr/share/tavr-otp/lighttpd.conf"),
])

floors, cases = [], []
for _ in range(ROUNDS):
    with Started(*bare) as started:
        floors.append(started.seconds)
    with Started(*whole) as started:
        cases.append(started.seconds)
ratio = statistics.median(case / floor for case, floor in zip(cases, floors))
goal(f"start to first answer: {1000 * statistics.median(cases):.1f} ms, lighttpd alone "
     f"{1000 * statistics.median(floors):.1f} ms, ratio {ratio:.2f} (goal 2)", ratio <= 2)

with Started(*whole) as started:
    time.sleep(1)
    pids = with_children(started.pids)
    held = sum(pss_kib(pid) for pid in pids)
    goal(f"{len(pids)} processes hold {held / 1024:.1f} MiB (goal under 40)", held < 40 * 1024)
    before = sum(ticks(pid) for pid in pids)
    time.sleep(IDLE_SECONDS)
    taken = sum(ticks(pid) for pid in pids) - before
goal(f"idle for {IDLE_SECONDS} s: {taken} ticks of {1000 // TICK} ms, {100 * taken / TICK / IDLE_SECONDS:.2f} % of a processor "
     "(goal 0)", taken <= 1)
sys.exit(missed)
