"""trace: what a record says, and the forms that it is shown in."""
import json
import os
import re
import shutil
import signal
import subprocess
import unittest

import golden
from kit import LIMIT, TARVCTL, Case, main

# Sanitizers and such take several times as much of everything.
SLOWNESS = int(os.environ.get("TARV_SLOWNESS", "1"))
CHROMIUM = shutil.which("chromium")


class Recorded(Case):
    """Records of real conversations, and one that is written out."""

    def setUp(self):
        super().setUp()
        self.environment["RUNTIME_MANAGER_TRACE"] = ""
        self.trace = self.path("trace")

    def record(self, *words, status=0):
        self.expect(status, words, RUNTIME_MANAGER_TRACE=self.trace)

    def golden_record(self):
        return self.write("golden", golden.record())


class Trace(Recorded):
    def test_shows_each_message_once_with_its_answer(self):
        self.expect(0, ["trace", self.golden_record()], golden.SHOWN)

    def test_shows_a_record_of_one_side_alone(self):
        lines = [line for line in golden.record().splitlines(True) if '"pid":20' in line]
        shown = self.expect(0, ["trace", self.write("half", "".join(lines))]).stdout
        self.assertIn('wordcount → application  id1_2 count 1.800 ms {"total": 2}', shown)
        self.assertEqual(shown.count("id1_2"), 2)
        lines = [line for line in golden.record().splitlines(True)
                 if '"pid":10' in line and "event" not in line]
        shown = self.expect(0, ["trace", self.write("half", "".join(lines))]).stdout
        self.assertIn('wordcount → process 10  id1_2 count 2.200 ms {"total": 2}', shown)

    def test_reads_lines_that_stand_out_of_order(self):
        lines = golden.record().splitlines(True)
        self.expect(0, ["trace", self.write("mixed", "".join(reversed(lines)))], golden.SHOWN)

    def test_tells_of_a_real_conversation(self):
        self.record("call", "wordcount", "count", '{"texts": ["a b"]}')
        shown = self.expect(0, ["trace", self.trace]).stdout
        for part in (r"tarvctl starts wordcount, process \d+",
                     r"tarvctl → wordcount  id\d+_\d+ vorpc.connected\(null\)",
                     r"tarvctl → wordcount  id\d+_\d+ count\(\{\"texts\": \[\"a b\"\]\}\)",
                     r"wordcount → tarvctl  \$/progress\(",
                     r"wordcount → tarvctl  id\d+_\d+ count \d+\.\d+ ms \{\"each\": ",
                     r"wordcount (was killed by signal 15|exited with status)",
                     r"wordcount +count +1 +0 +0 "):
            self.assertRegex(shown, part)
        self.assertEqual(len(re.findall(r" count\(", shown)), 1)

    def test_tells_of_a_death_and_of_what_was_never_answered(self):
        self.record("call", "wordcount", "die", status=5)
        shown = self.expect(0, ["trace", self.trace]).stdout
        self.assertRegex(shown, r"wordcount exited with status 7 after \d+")
        self.assertRegex(shown, r"never answered: id\d+_\d+ die of wordcount, sent at ")

    def test_filters(self):
        record = self.golden_record()
        def methods(*words):
            lines = self.expect(0, ["trace", record, "--json", *words]).stdout.splitlines()[:-1]
            return [(line["kind"], line.get("method")) for line in map(json.loads, lines)]
        count = [("request", "count"), ("response", "count")]
        self.assertEqual(methods("--method", "count"), count)
        self.assertEqual(methods("--errors"), [("request", "fail"), ("response", "fail"),
                                               ("end", None)])
        self.assertEqual(methods("--slower", "1.5ms"), count)
        self.assertEqual(methods("--slower", "2.5ms"), [])
        self.assertEqual(methods("--since", "6.2ms"), [("notification", "tick"), ("request", "sleep"),
                                                     ("fault", None), ("end", None)])
        self.assertEqual(methods("--task", "nobody"), [])

    def test_sums_up_for_scripts(self):
        sums = json.loads(self.expect(0, ["trace", self.golden_record(), "--totals", "--json"]).stdout)
        count = next(s for s in sums["totals"] if s["method"] == "count")
        self.assertEqual((count["count"], count["errors"], count["median_ms"]), (1, 0, 2))
        self.assertEqual([u["method"] for u in sums["unanswered"]], ["sleep"])

    def test_says_which_lines_it_left_out(self):
        record = self.write("odd", golden.record() + "nonsense\n")
        self.expect(0, ["trace", record], golden.SHOWN, "1 lines of")
        self.expect(2, ["trace", "/no/such/record"], "", "cannot read the record '/no/such/record'")

    def test_leaves_out_lines_that_only_look_like_a_record(self):
        good = golden.line(200, 10, "wordcount", "send", golden.request("id9", "late"))
        lines = [good.replace('"send"', '"sideways"'), good.replace(":200000000,", ":-5,"),
                 good.replace(":200000000,", ":0200000000,")]
        self.assertNotIn(good, lines)
        record = self.write("alike", golden.record() + "".join(lines))
        self.expect(0, ["trace", record], golden.SHOWN, "3 lines of")

    def test_shows_the_control_characters_of_peers_escaped(self):
        hostile = golden.line(0, 10, "wordcount", "send", golden.request("id\x1b1", "a\nb", {"p": "\x1b[2J"}))
        end = golden.event(1, 10, "end", reason="x\x1b[2J")
        shown = self.expect(0, ["trace", self.write("hostile", hostile + end)]).stdout
        self.assertNotIn("\x1b", shown)
        self.assertIn("id\\x1b1 a\\nb(", shown)

    def test_takes_a_number_that_no_clock_shows_for_none(self):
        end = golden.event(0, 10, "end", reason="over").replace('"time":0', '"time":1e300')
        shown = self.expect(0, ["trace", "--json", self.write("huge", end)]).stdout
        self.assertEqual(json.loads(shown.splitlines()[0])["time"], 0)

    def test_counts_the_line_that_a_killed_process_left_unfinished(self):
        whole = golden.record()
        cut = self.write("cut", whole + whole.splitlines()[-1][:-5])
        self.assertIn("1 lines of ", self.expect(0, ["trace", cut]).stderr)
        last = self.write("last", whole[:-1])
        self.assertEqual(self.expect(0, ["trace", last]).stdout,
                         self.expect(0, ["trace", self.write("whole", whole)]).stdout)

    def test_refuses_what_is_no_record(self):
        self.expect(2, ["trace", self.path("tasks")], "", "Is a directory")
        text = self.write("text", "this\nthat\n")
        for words in (["trace", text], ["trace", "--json", text],
                      ["replay", text, "--task", "wordcount"]):
            self.expect(2, words, None, "'%s' is no record: RUNTIME_MANAGER_TRACE=FILE" % text)

    def test_follows_a_record_that_grows(self):
        lines = golden.record().splitlines(True)
        record = self.write("live", "".join(lines[:2]))
        tool = self.start_tool("trace", record, "--follow")
        shown = tool.stdout.readline()
        with open(record, "a", encoding="utf-8") as live:
            live.write("".join(lines[2:]))
        while "sleep" not in shown:
            line = tool.stdout.readline()
            self.assertTrue(line)
            shown += line
        tool.send_signal(signal.SIGINT)
        self.assertIn("never answered", tool.communicate(timeout=LIMIT)[0])
        self.assertEqual(tool.returncode, 0)

    def test_broken_pipe_ends_it_quietly(self):
        record = self.write("long", golden.many(5000))
        done = subprocess.run(
            ["bash", "-c", '"$0" trace "$1" | head -1; echo "${PIPESTATUS[0]}"', TARVCTL, record],
            capture_output=True, text=True, timeout=LIMIT, env=self.environment, check=False)
        self.assertEqual(done.stdout.splitlines()[-1], "141")
        self.assertEqual(done.stderr, "")

    def test_takes_secrets_out(self):
        record = self.golden_record()
        clean = self.expect(0, ["trace", record, "--redact", "params.texts", "--redact",
                                "result.total"]).stdout
        shown = self.expect(0, ["trace", self.write("clean", clean)]).stdout
        self.assertIn('count({"texts": "[redacted]"})', shown)
        self.assertIn('{"total": "[redacted]"}', shown)
        self.assertIn("no luck", shown)
        self.assertNotIn("a b", shown)
        self.expect(2, ["trace", record, "--redact", "params..x"], "", "names with dots between")

    def test_writes_spans_for_viewers_of_performance(self):
        self.expect(0, ["trace", self.golden_record(), "--perfetto", self.path("spans")], "")
        with open(self.path("spans"), encoding="utf-8") as file:
            events = json.load(file)["traceEvents"]
        spans = [(e["ph"], e["ts"]) for e in events if e["name"] == "count"]
        self.assertEqual(spans, [("b", 3000), ("e", 5000)])
        names = {e["pid"]: e["args"]["name"] for e in events if e["ph"] == "M"}
        self.assertEqual(sorted(names.values()), ["app", "wordcount"])
        self.expect(2, ["trace", self.golden_record(), "--perfetto", "/no/such/folder/x"], "",
                    "cannot write")


class Size(Recorded):
    def test_a_million_messages_are_summed_up_in_little_time_and_memory(self):
        with open(self.trace, "w", encoding="utf-8") as file:
            for block in golden.many_blocks(500000):
                file.write(block)
        tool = self.start_tool("trace", self.trace, "--totals", "--json")
        sums = json.loads(tool.stdout.read())
        tool.stdout.close()
        tool.stderr.close()
        usage = os.wait4(tool.pid, 0)[2]
        tool.returncode = 0
        took, most = usage.ru_utime + usage.ru_stime, usage.ru_maxrss // 1024
        print(f"a million messages: {took:.1f} s of work, {most} MiB")
        self.assertEqual(sums["totals"][0]["count"], 500000)
        self.assertLess(took, 10 * SLOWNESS)
        self.assertLess(most, 200 * SLOWNESS)


@unittest.skipUnless(CHROMIUM, "chromium is not installed: apt-get install chromium")
class Page(Recorded):
    def title_of(self, page):
        done = subprocess.run(
            [CHROMIUM, "--headless", "--no-sandbox", "--disable-gpu", "--window-size=1400,900",
             "--user-data-dir=" + self.path("profile"), "--timeout=60000",
             "--virtual-time-budget=20000", "--dump-dom", f"file://{page}#selftest"],
            capture_output=True, text=True, timeout=4 * LIMIT, check=False,
            env={**self.environment, "HOME": self.path("home"), "TMPDIR": self.path("home")})
        return re.search("<title>(.*)</title>", done.stdout).group(1)

    def setUp(self):
        super().setUp()
        os.mkdir(self.path("home"))

    def test_runs_and_can_be_searched_filtered_clicked_and_zoomed(self):
        page = self.path("page.html")
        self.expect(0, ["trace", self.golden_record(), "--html", page], "")
        self.assertRegex(self.title_of(page), r"^self-test passed: 13 messages")

    def test_stays_usable_with_a_hundred_thousand_messages(self):
        page = self.path("page.html")
        record = self.write("many", golden.many(50000))
        self.expect(0, ["trace", record, "--html", page], "")
        title = self.title_of(page)
        self.assertRegex(title, r"^self-test passed: 100000 messages in \d+ ms")
        print(title)

    def test_needs_no_network(self):
        page = self.path("page.html")
        self.expect(0, ["trace", self.golden_record(), "--html", page], "")
        with open(page, encoding="utf-8") as file:
            text = file.read()
        self.assertNotIn("http:", text)
        self.assertNotIn("https:", text)
        self.assertNotIn("import ", text)

    def test_text_of_a_message_cannot_leave_its_place(self):
        page = self.path("page.html")
        record = self.write("evil", golden.line(1, 10, "app", "send", {
            "jsonrpc": "2.0", "method": "</script><script>x", "params": "<!--<script>"}))
        self.expect(0, ["trace", record, "--html", page], "")
        with open(page, encoding="utf-8") as file:
            self.assertNotIn("</script><script>x", file.read())


main()
