"""faults_test.py PROGRAM PLATFORM: whether the contract tests catch a fault in every function of platform/*.h.

PROGRAM is our platform with the contract tests and the faults, PLATFORM the shared library of our platform."""
import os
import re
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
NO_DOMAIN = "the maker says that no domain is joined"
program, platform = sys.argv[1:]
failures = []


def lines(*command, **variables):
    done = subprocess.run(command, env=dict(os.environ, **variables), check=True, stdout=subprocess.PIPE, text=True)
    return done.stdout.splitlines()


def fail(text):
    failures.append(text)
    print("FAILED: " + text, flush=True)


def check_names(declared, planted):
    """Headers, faults and library name the same functions."""
    for name in sorted(set(declared) - set(planted)):
        fail("no fault is planted in " + name)
    for name in sorted(set(planted) - set(declared)):
        fail("no header declares " + name)
    exported = {re.sub(r"\[abi:\w+\]|\(.*", "", line.split(" ", 2)[2])
                for line in lines("nm", "--demangle", "--dynamic", "--defined-only", platform) if " T " in line}
    for name in sorted(set(declared) - exported):
        fail("the platform's library does not have " + name)
    for name in sorted(name for name in exported - set(declared) if not name.startswith("tavr::")):
        fail("the platform's library has %s, and no header declares it" % name)


def run(fault, cases):
    variables = dict(os.environ, CONTRACT_FAULT=fault, GTEST_FAIL_FAST="1", GTEST_FILTER=cases)
    variables.pop("GTEST_OUTPUT", None)
    return subprocess.run([program], env=variables, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          errors="replace", timeout=300)


def caught_by(done):
    """The case that noticed it: the first that failed, or the last that began before the program was killed."""
    named = re.findall(r"\[  FAILED  \] (\w+\.\w+)", done.stdout) or re.findall(r"\[ RUN      \] (\w+\.\w+)", done.stdout)[-1:]
    return named[0] + (" (killed)" if done.returncode < 0 else "") if named else "nothing"


declared = {}
for line in lines(os.path.join(ROOT, "scripts", "new-platform"), "--list"):
    header, name, _ = line.split("\t")
    declared[name] = header
planted = lines(program, CONTRACT_FAULT="list")
check_names(declared, planted)

sound = run("", "*")
if sound.returncode != 0:
    fail("without a fault: " + sound.stdout[-3000:])
for name in planted:
    start = time.monotonic()
    done = run(name, declared.get(name, "").removesuffix(".h").capitalize() + "*")
    if done.returncode == 0 and "Domain" in name and NO_DOMAIN in done.stdout:
        print("%-56s not tried: %s" % (name, NO_DOMAIN), flush=True)
    elif done.returncode == 0:
        fail("not caught: " + name)
    else:
        print("%-56s %s (%.1f s)" % (name, caught_by(done), time.monotonic() - start), flush=True)
print("%d functions, %d faults, %d complaints" % (len(declared), len(planted), len(failures)))
sys.exit(1 if failures else 0)
