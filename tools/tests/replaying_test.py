"""replay and shell: conversations that are longer than a question."""
import time

import golden
from kit import Case, main


class Replay(Case):
    def record(self, *calls):
        for call in calls:
            self.run_tool("call", "wordcount", *call, RUNTIME_MANAGER_TRACE=self.path("trace"))

    def test_says_that_a_task_answers_as_it_did(self):
        self.record(["count", '{"texts": ["a b"]}'], ["fail"], ["echo", "[1]"])
        self.expect(0, ["replay", self.path("trace"), "--task", "wordcount"],
                    "3 answers compared, 0 differ\n")

    def test_shows_what_a_task_answers_otherwise(self):
        self.record(["count", '{"texts": ["a b"]}'], ["echo", "[1]"])
        done = self.expect(1, ["replay", self.path("trace"), "--task", "pytask"])
        self.assertRegex(done.stdout, r'id\d+_\d+ count\n'
                                      r'- \{"each":\[2\],"total":2\}\n'
                                      r'\+ error \{"code":-32601,"message":"no such method here"\}\n')
        self.assertTrue(done.stdout.endswith("2 answers compared, 2 differ\n"))

    def test_keeps_the_recorded_pauses_when_told(self):
        lines = [golden.line(ms, pid, "wordcount", "send", message) for ms, pid, message in (
            (0, 1, golden.request("a", "echo", "x")), (1, 2, golden.answer("a", result="x")),
            (700, 1, golden.request("b", "echo", "y")), (701, 2, golden.answer("b", result="y")))]
        record = self.write("slow", "".join(lines))
        words = ["replay", record, "--task", "wordcount"]
        begin = time.monotonic()
        self.expect(0, words + ["--rate"], "2 answers compared, 0 differ\n")
        self.assertGreater(time.monotonic() - begin, 0.65)

    def test_plays_the_application_of_one_task_of_several(self):
        lines = [golden.line(ms, pid, task, "send", message) for ms, pid, task, message in (
            (0, 1, "one", golden.request("a", "echo", "x")),
            (1, 2, "one", golden.answer("a", result="x")),
            (2, 1, "two", golden.request("b", "echo", "y")),
            (3, 3, "two", golden.answer("b", result="z")))]
        words = ["replay", self.write("two", "".join(lines)), "--task", "wordcount"]
        self.expect(2, words, "", "several tasks")
        self.expect(0, words + ["--only", "one"], "1 answers compared, 0 differ\n")
        self.expect(1, words + ["--only", "two"])

    def test_says_when_the_task_fails_it(self):
        self.record(["echo", "[1]"])
        self.write("tasks/mute", "#!/bin/sh\nexec sleep 60\n", 0o755)
        self.expect(4, ["replay", self.path("trace"), "--task", "mute", "--timeout", "300ms"])
        self.expect(3, ["replay", self.path("trace"), "--task", "nobody"])
        self.expect(2, ["replay", self.write("empty", ""), "--task", "nobody"], "",
                    "no request to replay")


class Shell(Case):
    def setUp(self):
        super().setUp()
        self.environment["XDG_DATA_HOME"] = self.path("data")

    def test_calls_what_it_reads(self):
        done = self.expect(0, ["shell", "wordcount"], input="echo [1]\nfail\nmethods\n")
        self.assertIn("[1] echo [1]\n", done.stdout)
        self.assertIn("[2] fail 'fail' of the task 'wordcount' answered with the error 4711",
                      done.stdout)
        self.assertIn("counts the words of each text", done.stdout)
        self.assertNotIn("closed", done.stdout)

    def test_has_several_calls_on_their_way(self):
        done = self.expect(0, ["shell", "wordcount"], input="sleep\necho 2\ncancel 1\n")
        self.assertIn("[2] echo 2\n", done.stdout)
        self.assertIn("[1] sleep 'sleep' of the task 'wordcount' was cancelled", done.stdout)

    def test_says_what_it_does_not_understand(self):
        self.assertIn("PARAMS is no JSON",
                      self.expect(0, ["shell", "wordcount"], input="echo {\n").stdout)

    def test_tells_notifications(self):
        done = self.expect(0, ["shell", "wordcount"], input="tick\nnotify remember\n")
        self.assertIn('ticked {"n":3}\n', done.stdout)

    def test_ends_with_its_task(self):
        self.expect(5, ["shell", "wordcount"], input="die\n")
        self.expect(3, ["shell", "nobody"], input="")

    def test_completes_and_remembers_on_a_terminal(self):
        # The description, which completion needs, must have come before the key.
        shown, status = self.run_on_terminal("shell", "wordcount", typed=[
            (b"> ", b"echo 1\r"), (b"[1] echo 1", b"cou\t"), (b"nt", b" {}\r"),
            (b"[2] count", b"\x04")])
        self.assertEqual(status, 0, shown)
        with open(self.path("data/tarvctl/history"), encoding="utf-8") as history:
            self.assertIn("count", history.read())


main()
