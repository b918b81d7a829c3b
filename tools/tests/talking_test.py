"""Verbs that talk to a task."""
import json
import os
import signal
import subprocess
import time

from kit import LIMIT, TARVCTL, TASKS, Case, main

HELLO = '{"texts": ["a b", "c"]}'


class Tasks(Case):
    def test_lists_what_can_be_started_and_why_the_rest_cannot(self):
        self.write("tasks/plain", "text")
        self.write("tasks/lost", "#!/no/such/interpreter\n", 0o755)
        listed = {t["name"]: t for t in self.json_of("tasks", "--json")
                  if t["folder"] == self.path("tasks")}
        self.assertEqual(sorted(listed), ["lost", "plain", "pytask", "wordcount"])
        self.assertNotIn("problem", listed["wordcount"])
        self.assertIn("chmod +x", listed["plain"]["problem"])
        self.assertIn("'/no/such/interpreter' is missing", listed["lost"]["problem"])

    def test_says_which_of_two_of_a_name_is_started(self):
        os.mkdir(self.path("more"))
        self.write("more/pytask", "#!/bin/sh\n", 0o755)
        path = self.path("tasks") + ":" + self.path("more")
        listed = [t for t in self.json_of("tasks", "--json", RUNTIME_MANAGER_TASK_PATH=path)
                  if t["name"] == "pytask"]
        self.assertNotIn("problem", listed[0])
        self.assertIn(f"'{self.path('tasks')}' comes first", listed[1]["problem"])

    def test_names_are_those_that_can_be_started(self):
        self.write("tasks/plain", "text")
        names = self.expect(0, ["tasks", "--names"]).stdout.split()
        self.assertIn("wordcount", names)
        self.assertNotIn("plain", names)


class Call(Case):
    def test_prints_the_result_and_tells_progress(self):
        done = self.expect(0, ["call", "wordcount", "count", HELLO],
                           '{"each":[2,1],"total":3}\n')
        self.assertEqual(done.stderr,
                         'progress {"done":1,"of":2}\nprogress {"done":2,"of":2}\n')

    def test_speaks_with_a_task_of_another_language(self):
        self.expect(0, ["call", "pytask", "add", "[1, 2, 39]"], "42\n")

    def test_starts_a_program_by_its_path(self):
        self.expect(0, ["call", "exec:" + os.path.join(TASKS, "wordcount"), "echo", '"x"'],
                    '"x"\n', RUNTIME_MANAGER_TASK_PATH="")

    def test_shows_and_takes_exact_kinds(self):
        for value in ('{"int64":5}', '{"int64":"9007199254740993"}', '{"bytes":"AAH/"}', '"7"',
                      '{"doubles":[0.5,2]}', '{"floats":[0.5]}', '{"map":[[{"int32":1},"x"]]}',
                      '{"map":{"int32":true}}', '[null,{"int32":7},{"double":"nan"}]',
                      '{"int32s":[1]}', '{"int64s":[1]}', '{}'):
            self.expect(0, ["call", "wordcount", "echo", value, "--typed"], value + "\n")

    def test_reads_parameters_from_standard_input_when_told(self):
        self.expect(0, ["call", "wordcount", "echo", "-"], "[1,2]\n", input="[1, 2]")

    def test_leaves_standard_input_alone_otherwise(self):
        reader, writer = os.pipe()
        os.write(writer, b"untouched")
        os.close(writer)
        subprocess.run([TARVCTL, "call", "wordcount", "echo", "1"], stdin=reader, timeout=LIMIT,
                       stdout=subprocess.DEVNULL, env=self.environment, check=True)
        self.assertEqual(os.read(reader, 100), b"untouched")
        os.close(reader)

    def test_adds_a_file_as_bytes(self):
        file = self.write("file", "12345")
        self.expect(0, ["call", "wordcount", "size", "--bytes", "file=" + file], "5\n")

    def test_shows_notifications_on_standard_error(self):
        done = self.expect(0, ["call", "wordcount", "tick"], "null\n")
        self.assertEqual(done.stderr, "".join(f'notification ticked {{"n":{n}}}\n'
                                              for n in (1, 2, 3)))

    def test_is_pretty_on_a_terminal(self):
        shown, status = self.run_on_terminal("call", "wordcount", "count", HELLO)
        self.assertEqual(status, 0)
        self.assertIn('{\n    "each": [\n        2,\n        1\n    ],\n    "total": 3\n}\n', shown)
        self.assertIn("\x1b[2mprogress\x1b[0m", shown)

    def test_is_compact_and_colourless_on_a_terminal_when_told(self):
        shown, _ = self.run_on_terminal("call", "wordcount", "count", HELLO, "--json", NO_COLOR="1")
        self.assertIn('{"each":[2,1],"total":3}\n', shown)
        self.assertNotIn("\x1b", shown)

    def test_task_that_answers_with_an_error_gives_1(self):
        done = self.expect(1, ["call", "wordcount", "fail"], "", "4711: no luck")
        self.assertIn('data "today"', done.stderr)
        self.expect(1, ["call", "pytask", "sing"], "", "no such method here")

    def test_mistakes_of_the_user_give_2(self):
        self.expect(2, ["cal", "wordcount", "count"], "", "there is no verb 'cal'")
        self.expect(2, ["call", "wordcount", "echo", "-"], "", "must be one JSON value", input="")
        self.expect(2, [], "", "subcommand is required")
        self.expect(2, ["sing"], "", "tarvctl --help lists the verbs")
        self.expect(2, ["call", "wordcount"], "", "METHOD is required")
        self.expect(2, ["call", "wordcount", "echo", "{"], "", "PARAMS is no JSON")
        self.expect(2, ["call", "wordcount", "echo", "1 2"], "", "PARAMS is no JSON")
        self.expect(2, ["call", "wordcount", "echo", "--timeout", "soon"], "", "'soon' is no time")
        self.expect(2, ["call", "wordcount", "size", "--bytes", "x"], "", "write NAME=FILE")
        self.expect(2, ["call", "wordcount", "size", "--bytes", "x=/no/file"], "", "No such file")
        self.expect(2, ["call", "wordcount", "echo", "[]", "--bytes", "x=/dev/null"], "",
                    "no JSON object")
        self.expect(2, ["call", "exec:/no/program", "echo"], "", "there is no file '/no/program'")
        self.expect(2, ["call", "wordcount", "echo", "--typed", '{"int32": 1.5}'], "",
                    '"int32" cannot hold 1.5')

    def test_task_that_cannot_be_started_gives_3(self):
        self.expect(3, ["call", "nobody", "echo"], "", "there is no such executable")

    def test_time_that_is_over_gives_4(self):
        # A loaded machine may take longer until the request is sent.
        for limit, shown in (("300ms", "300 ms"), ("3s", "3 s"), ("30s", "30 s")):
            done = self.expect(4, ["call", "wordcount", "sleep", "--timeout", limit], "")
            if "was not sent" not in done.stderr:
                break
        self.assertIn("was not answered within " + shown, done.stderr)
        self.write("tasks/mute", "#!/bin/sh\nexec sleep 60\n", 0o755)
        self.expect(4, ["call", "mute", "echo", "--timeout", "300ms"], "", "has not connected")

    def test_task_that_ends_gives_5(self):
        self.expect(5, ["call", "wordcount", "die"], "", "exited with status 7")

    def test_ctrl_c_cancels_the_request(self):
        tool = self.start_tool("call", "wordcount", "sleep", CANCELLED=self.path("cancelled"),
                               RUNTIME_MANAGER_TRACE=self.path("trace"))
        self.wait_for_sleep()
        tool.send_signal(signal.SIGINT)
        output, error = tool.communicate(timeout=LIMIT)
        self.assertEqual((tool.returncode, output, error), (130, "", "tarvctl: cancelled\n"))
        self.assertTrue(os.path.exists(self.path("cancelled")))

    def wait_for_sleep(self):
        """The record says when the request is on its way: the handshake and it, from both ends."""
        limit = time.monotonic() + LIMIT
        while time.monotonic() < limit:
            if os.path.exists(self.path("trace")):
                with open(self.path("trace"), encoding="utf-8") as record:
                    if sum('"direction":"receive"' in line for line in record) >= 3:
                        return
            time.sleep(0.02)
        self.fail("the request was never sent")

    def test_broken_pipe_ends_it_quietly(self):
        done = subprocess.run(
            ["bash", "-c", '"$0" call wordcount tick | true; echo "${PIPESTATUS[0]}"', TARVCTL],
            capture_output=True, text=True, timeout=LIMIT, env=self.environment, check=False)
        self.assertEqual(done.stdout, "141\n")
        self.assertNotIn("tarvctl:", done.stderr)


class MessageLog(Case):
    def test_tells_each_message_on_a_line(self):
        done = self.expect(0, ["call", "wordcount", "count", HELLO], TARV_LOG_MESSAGES="1")
        lines = [line for line in done.stderr.splitlines() if " → " in line]
        for line, pattern in zip(lines, (
                r"^0\.000 tarvctl → wordcount id\d+_1 vorpc.connected\(null\)$",
                r"^\d\.\d{3} wordcount → tarvctl id\d+_1 vorpc.connected \d+\.\d ms null$",
                r"^\d\.\d{3} tarvctl → wordcount id\d+_2 count\(\{\"texts\": \[\"a b\", \"c\"\]\}\)$",
                r"wordcount → tarvctl \$/progress\(", r"wordcount → tarvctl \$/progress\(",
                r"wordcount → tarvctl id\d+_2 count \d+\.\d ms \{.*\"total\": 3L\}$")):
            self.assertRegex(line, pattern)
        self.assertEqual(len(lines), 6)

    def test_says_nothing_unless_asked(self):
        for value in ("", "0"):
            done = self.expect(0, ["call", "wordcount", "echo", "1"], TARV_LOG_MESSAGES=value)
            self.assertEqual(done.stderr, "")


class Notify(Case):
    def test_ends_when_the_task_has_got_it(self):
        self.expect(0, ["notify", "wordcount", "remember"], "", REMEMBERED=self.path("remembered"))
        self.assertTrue(os.path.exists(self.path("remembered")))

    def test_says_when_there_is_no_task(self):
        self.expect(3, ["notify", "nobody", "remember"], "", "there is no such executable")


class Listen(Case):
    def setUp(self):
        super().setUp()
        self.write("tasks/teller", TELLER, 0o755)

    def test_prints_notifications_as_lines(self):
        self.expect(0, ["listen", "teller", "--count", "2"],
                    '{"method":"a","params":null}\n{"method":"b","params":null}\n')

    def test_prints_those_that_are_asked_for(self):
        self.expect(0, ["listen", "teller", "b", "--count", "1"],
                    '{"method":"b","params":null}\n')

    def test_ends_with_the_task(self):
        done = self.expect(5, ["listen", "teller", "c"], "")
        self.assertIn("exited with status 0", done.stderr)


TELLER = """#!/usr/bin/python3 -S
import base64, json, socket
def say(*pairs):
    text = b"\\x0d" + bytes([len(pairs)])
    for pair in pairs:
        for word in pair:
            text += b"\\0" if word is None else b"\\7" + bytes([len(word)]) + word.encode()
    line = json.dumps({"data": base64.b64encode(text).decode()}) + "\\n"
    connection.sendall(line.encode())
connection = socket.socket(fileno=3).accept()[0]
line = connection.makefile("rb").readline()
data = base64.b64decode(json.loads(line)["data"])
at = data.index(b"\\7\\2id\\7") + 5
request = data[at + 1:at + 1 + data[at]].decode()
say(("jsonrpc", "2.0"), ("id", request), ("result", None))
for method in "ab":
    say(("jsonrpc", "2.0"), ("method", method))
"""


class Questions(Case):
    def test_methods_are_those_of_the_description(self):
        described = self.json_of("methods", "wordcount")
        self.assertEqual([m["name"] for m in described["methods"]],
                         ["count", "die", "echo", "fail", "size", "sleep", "tick"])

    def test_methods_read_like_signatures_on_a_terminal(self):
        shown, status = self.run_on_terminal("methods", "wordcount", NO_COLOR="1")
        self.assertEqual(status, 0)
        self.assertIn("count({texts: [text], at_least: int64?}) -> {total: int64, each: [int32]}, "
                      "steps {done: int32, of: int32}\n    counts the words of each text\n", shown)

    def test_task_without_a_service_has_none(self):
        self.expect(1, ["methods", "pytask"], "", "'pytask' has no description")
        self.expect(1, ["metrics", "pytask"], "", "'pytask' has no description")

    def test_metrics_are_those_of_the_task(self):
        self.assertIn("methods", self.json_of("metrics", "wordcount"))


class Help(Case):
    def test_names_every_verb(self):
        text = self.expect(0, ["--help"]).stdout
        for verb in ("tasks", "call", "listen", "decode", "doctor"):
            self.assertIn(verb, text)
        self.assertIn("--timeout TIME", self.expect(0, ["call", "--help"]).stdout)


main()
