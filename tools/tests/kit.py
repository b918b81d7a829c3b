"""What the tests of tarvctl share: the binary, a world of its own for each test, terminals."""
import json
import os
import pty
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

TARVCTL, TASKS, PYTASK = sys.argv[1:4]
LIMIT = 300  # seconds; nothing here takes one, but under a sanitizer and beside other work


class Case(unittest.TestCase):
    """A runtime folder, and tasks, that are the test's own."""

    maxDiff = None

    def setUp(self):
        self.world = tempfile.mkdtemp(prefix="tarvctl-")
        self.addCleanup(shutil.rmtree, self.world)
        os.mkdir(self.path("run"), 0o700)
        os.mkdir(self.path("tmp"), 0o700)
        os.mkdir(self.path("tasks"))
        os.symlink(os.path.join(TASKS, "wordcount"), self.path("tasks/wordcount"))
        os.symlink(PYTASK, self.path("tasks/pytask"))
        self.environment = {
            **os.environ,
            "XDG_RUNTIME_DIR": self.path("run"),
            "TMPDIR": self.path("tmp"),
            "RUNTIME_MANAGER_TASK_PATH": self.path("tasks"),
            "TERM": "xterm",
        }
        for name in ("RUNTIME_MANAGER_TRACE", "TARV_LOG_MESSAGES", "NO_COLOR"):
            self.environment.pop(name, None)

    def tearDown(self):
        self.assertEqual(self.left_behind(), [], "sockets, or folders of exec:, are left behind")

    def left_behind(self):
        folder = self.path("run/runtime-manager")
        sockets = [n for n in os.listdir(folder) if n.endswith(".sock")] \
            if os.path.isdir(folder) else []
        return sockets + os.listdir(self.path("tmp"))

    def path(self, name):
        return os.path.join(self.world, name)

    def write(self, name, text, mode=0o644):
        with open(self.path(name), "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(self.path(name), mode)
        return self.path(name)

    def run_tool(self, *words, input=None, **environment):
        return subprocess.run([TARVCTL, *words], capture_output=True, text=True, input=input,
                              timeout=LIMIT, env={**self.environment, **environment}, check=False)

    def start_tool(self, *words, **environment):
        return subprocess.Popen([TARVCTL, *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                text=True, env={**self.environment, **environment})

    def expect(self, status, words, output=None, error=None, **more):
        """Runs; compares the exit status and standard output; looks for `error` in the other."""
        done = self.run_tool(*words, **more)
        self.assertEqual(done.returncode, status, done.stdout + done.stderr)
        if output is not None:
            self.assertEqual(done.stdout, output)
        if error is not None:
            self.assertIn(error, done.stderr)
        return done

    def json_of(self, *words, **more):
        return json.loads(self.expect(0, words, **more).stdout)

    def run_on_terminal(self, *words, typed=(), **environment):
        """What a terminal shows that is all three standard streams; and the exit status. `typed` has
        pairs: what to wait for, and what to type then."""
        steps, begin = list(typed), 0
        child, master = pty.fork()
        if child == 0:
            try:
                os.execve(TARVCTL, [TARVCTL, *words], {**self.environment, **environment})
            finally:
                os._exit(127)  # a copy of the tests shall not go on
        shown = b""
        while True:
            if steps and steps[0][0] in shown[begin:]:
                begin = len(shown)
                os.write(master, steps.pop(0)[1])
            if not select.select([master], [], [], LIMIT)[0]:
                os.kill(child, signal.SIGKILL)
                os.waitpid(child, 0)
                self.fail(f"waited for {steps[:1]} in vain; the terminal shows {shown}")
            try:
                block = os.read(master, 65536)
            except OSError:
                break
            if not block:
                break
            shown += block
        os.close(master)
        status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
        return shown.decode().replace("\r\n", "\n"), status


def main():
    """Runs the cases of the script that calls this."""
    unittest.main(module="__main__", argv=[sys.argv[0], *sys.argv[4:]])
