"""Runs test programs: what each of their tests reaches, and whether one notices a mutant."""
import hashlib
import os
import re
import resource
import shutil
import signal
import subprocess
import tempfile
import time

from mutant import NUMBERS

MOST_SECONDS_OF_A_TEST = 20  # a slower one notices nothing that a quicker one cannot
MOST_MEMORY = 8 << 30


def list_tests(program):
    output = subprocess.run([program, "--gtest_list_tests"], check=True, capture_output=True, text=True).stdout
    tests, suite = [], ""
    for line in output.splitlines():
        name = line.split("#")[0].strip()
        if line.startswith("  "):
            tests.append(suite + name)
        elif name.endswith("."):
            suite = name
    return [one for one in tests if "DISABLED_" not in one]


def confine():
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_AS, (MOST_MEMORY, MOST_MEMORY))


def run(program, tests, seconds, variables):
    """How it ended (passed, failed, crashed, hung), the test at which it did, and how long it took."""
    folder = tempfile.mkdtemp(prefix="tm-")
    environment = {**os.environ, "TMPDIR": folder, "XDG_RUNTIME_DIR": folder, **variables}
    command = [program, "--gtest_filter=" + ":".join(tests), "--gtest_fail_fast"]
    start = time.monotonic()
    with open(os.path.join(folder, "output"), "w+b") as output:
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                                   env=environment, cwd=folder, start_new_session=True, preexec_fn=confine)
        try:
            status = process.wait(seconds)
        except subprocess.TimeoutExpired:
            status = None
        end_all_of(process)
        output.seek(0)
        text = output.read().decode(errors="replace")
    shutil.rmtree(folder, ignore_errors=True)
    return judge(status), test_at_the_end(text), time.monotonic() - start


def end_all_of(process):
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


def judge(status):
    if status is None:
        return "hung"
    return {0: "passed", 1: "failed"}.get(status, "crashed")


def test_at_the_end(text):
    """The test that failed, or the one that ran last."""
    failed = re.findall(r"\[  FAILED  \] ([\w/]+\.[\w/]+)", text)
    ran = re.findall(r"\[ RUN      \] ([\w/]+\.[\w/]+)", text)
    return failed[0] if failed else ran[-1] if ran else ""


def reach(program, test, numbers):
    """Seconds, and which of the numbers the test reaches; nothing when it does not pass by itself."""
    with tempfile.NamedTemporaryFile(prefix="tm-reached-") as file:
        file.truncate(NUMBERS)
        ended, _, seconds = run(program, [test], MOST_SECONDS_OF_A_TEST, {"TARV_MUTANTS_REACHED": file.name})
        if ended != "passed":
            return None
        content = file.read()
    return {"seconds": seconds, "reached": [one for one in numbers if content[one]]}


def short_digest(content):
    return hashlib.sha256(content).hexdigest()[:16]
