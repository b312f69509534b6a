"""hand_over.py PATH COMMAND [ARG]...: listens on the Unix socket PATH and starts COMMAND with that socket handed over, as
systemd does; once more each time that it ends. Ends itself by SIGTERM to this process, taking COMMAND along."""
import os
import signal
import socket
import sys

path, *command = sys.argv[1:]
listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
listener.bind(path)
listener.listen(1024)
child = 0


def end(*_):
    if child:
        os.kill(child, signal.SIGTERM)
        os.waitpid(child, 0)
    os._exit(0)


signal.signal(signal.SIGTERM, end)
while True:
    child = os.fork()
    if child == 0:
        signal.signal(signal.SIGTERM, signal.SIG_DFL)
        os.dup2(listener.fileno(), 3)
        os.set_inheritable(3, True)   # which dup2() leaves as it is where both are 3
        os.environ.update(LISTEN_FDS="1", LISTEN_PID=str(os.getpid()))
        os.execvp(command[0], command)
    os.waitpid(child, 0)
