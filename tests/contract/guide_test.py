"""guide_test.py: the commands of doc/platform.md, run as they stand, print what it shows."""
import os
import re
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

with open(os.path.join(ROOT, "doc", "platform.md")) as file:
    blocks = re.findall(r"^```(sh|output)\n(.*?)^```$", file.read(), flags=re.MULTILINE | re.DOTALL)
with tempfile.TemporaryDirectory() as home:
    commands = "".join(text for kind, text in blocks if kind == "sh")
    expected = "".join(text for kind, text in blocks if kind == "output")
    variables = dict(os.environ, HOME=home)
    variables.pop("GTEST_OUTPUT", None)   # the report is of this test alone
    done = subprocess.run(["bash", "-eu"], input=commands, cwd=ROOT, env=variables,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
if done.returncode != 0 or done.stdout != expected:
    print("exit status %d\n-- printed:\n%s-- expected:\n%s" % (done.returncode, done.stdout, expected))
    sys.exit(1)
print("%d blocks of commands print what they show" % len([kind for kind, _ in blocks if kind == "sh"]))
