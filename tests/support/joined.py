"""What a server that has joined a domain has, for tests in a view: services that are not installed and end with their
starter, SSSD among them."""
import ctypes
import os
import shutil
import signal
import socket
import subprocess
import sys
import time

BUILD = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "build")
SSSD_FOLDERS = ("db", "pipes/private", "mc", "pubconf/krb5.include.d", "secrets", "deskprofile", "gpo_cache", "keytabs")
SSSD_LOG = "/tmp/sssd.log"
START_SECONDS = 60


def die_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)


def start(words, **options):
    return subprocess.Popen(words, stdin=subprocess.DEVNULL, preexec_fn=die_with_parent, **options)


def lay_over(name):
    """What scripts/setup has unpacked into that folder of build/, over the view."""
    unused = "--exclude=./usr/share/polkit-1"  # the machine's lets no ordinary user in
    with subprocess.Popen(["tar", "-C", os.path.join(BUILD, name), unused, "-c", "."], stdout=subprocess.PIPE) as packed:
        subprocess.run(["tar", "-C", "/", "-x", "--keep-directory-symlink", "--no-same-owner"], stdin=packed.stdout, check=True)


def start_sssd(config):
    shutil.rmtree("/var/lib/sss")  # what one before has left
    for folder in SSSD_FOLDERS:
        os.makedirs("/var/lib/sss/" + folder, exist_ok=True)
    for folder in ("/var/log/sssd", "/etc/sssd"):
        os.makedirs(folder, exist_ok=True)
    if os.path.exists("/run/sssd.pid"):  # of one that was killed, whose number may not be free yet
        os.remove("/run/sssd.pid")
    descriptor = os.open("/etc/sssd/sssd.conf", os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)
    with os.fdopen(descriptor, "w") as file:
        file.write(config)
    with open(SSSD_LOG, "w") as log:
        return start(["/usr/sbin/sssd", "-i", "--logger=stderr"], stdout=log, stderr=log)


def knows(account):
    try:
        with socket.socket(socket.AF_UNIX) as passwords:
            passwords.connect("/var/lib/sss/pipes/pam")
    except OSError:
        return False
    asked = subprocess.run(["getent", "-s", "sss", "passwd", account], stdout=subprocess.DEVNULL)
    return asked.returncode == 0


def wait_for_sssd(sssd, account):
    """Until it takes passwords and knows this one."""
    end = time.monotonic() + START_SECONDS
    while not knows(account):
        if sssd.poll() is not None or time.monotonic() > end:
            with open(SSSD_LOG) as log:
                sys.exit("SSSD does not know %s:\n%s" % (account, log.read()))
        time.sleep(0.02)
