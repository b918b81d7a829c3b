"""What is made of the definition of the commands: completion, man pages, help."""
import gzip
import os
import re
import shutil
import subprocess

from kit import LIMIT, TARVCTL, Case, main

COMPLETE = """
PATH=$(dirname "$0"):$PATH
source <("$0" completion)
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
_tarvctl
printf '%s\\n' "${COMPREPLY[@]}"
"""


class Completion(Case):
    def complete(self, *words):
        done = subprocess.run(["bash", "-c", COMPLETE, TARVCTL, "tarvctl", *words], text=True,
                              capture_output=True, timeout=LIMIT, env=self.environment, check=False)
        self.assertEqual(done.stderr, "")
        return done.stdout.split()

    def test_offers_verbs(self):
        self.assertEqual(self.complete("in"), ["intents", "invoke"])
        self.assertIn("call", self.complete(""))

    def test_offers_the_options_of_a_verb(self):
        self.assertEqual(self.complete("call", "--t"), ["--timeout", "--typed"])
        self.assertEqual(self.complete("tasks", "--n"), ["--names"])

    def test_offers_tasks_where_one_is_wanted(self):
        self.assertEqual(self.complete("call", "wordc"), ["wordcount"])
        self.assertEqual(self.complete("call", "--timeout", "3", "wordc"), ["wordcount"])
        self.assertEqual(self.complete("call", "--typed", "wordc"), ["wordcount"])
        self.assertEqual(self.complete("call", "wordcount", "wordc"), [])

    def test_offers_files_where_one_is_wanted(self):
        record = self.write("record", "")
        self.assertEqual(self.complete("trace", record[:-2]), [record])
        self.assertEqual(self.complete("trace", "x", "--html", record[:-2]), [record])

    def test_offers_the_options_that_need_no_verb(self):
        self.assertEqual(self.complete("--"), ["--help", "--version"])

    def test_offers_nothing_after_an_option_that_wants_a_value_of_its_own(self):
        self.assertEqual(self.complete("call", "--timeout", "w"), [])


class Manual(Case):
    def verbs(self):
        text = self.expect(0, ["--help"]).stdout
        return re.findall(r"^  ([a-z]+) ", text.split("Subcommands:")[1], re.MULTILINE)

    def test_has_a_page_for_each_verb_with_all_its_options(self):
        overview = self.expect(0, ["man"]).stdout
        self.assertEqual(len(self.verbs()), 17)
        for verb in self.verbs():
            page = self.expect(0, ["man", verb]).stdout.replace("\\-", "-")
            help_text = self.expect(0, [verb, "--help"]).stdout
            for option in re.findall(r"--[a-z]+", help_text):
                self.assertIn(option, page, verb)
            self.assertIn(".SH \"EXIT STATUS\"", page)
            self.assertIn(f"tarvctl\\-{verb}", overview)
        self.assertIn("\\-\\-version", overview)

    def test_is_installed_whole(self):
        folder = os.environ.get("TARVCTL_GENERATED", "")
        if not os.path.isdir(folder):
            self.skipTest("a build with sanitizers makes none")
        for verb in self.verbs():
            with gzip.open(os.path.join(folder, "man", f"tarvctl-{verb}.1.gz"), "rt") as page:
                self.assertEqual(page.read(), self.expect(0, ["man", verb]).stdout)
        with open(os.path.join(folder, "tarvctl.bash"), encoding="utf-8") as completion:
            self.assertEqual(completion.read(), self.expect(0, ["completion"]).stdout)

    def test_is_what_man_takes_without_a_warning(self):
        if not shutil.which("groff"):
            self.skipTest("groff is not installed: apt-get install groff")
        for verb in self.verbs():
            done = subprocess.run(["groff", "-man", "-ww", "-Tutf8", "-z"], capture_output=True,
                                  input=self.expect(0, ["man", verb]).stdout, text=True,
                                  timeout=LIMIT, check=False)
            self.assertEqual(done.stderr, "", verb)

    def test_says_that_there_is_no_such_verb(self):
        self.expect(2, ["man", "sing"], "", "there is no verb 'sing'")


main()
