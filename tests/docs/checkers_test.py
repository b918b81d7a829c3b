#!/usr/bin/env python3
"""Plants in a page what the checkers of pages are there to see, and asks whether they see it."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

import check_blocks
import markdown

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent


class Pages(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def failures(self, text):
        page = self.folder / "page.md"
        page.write_text(text)
        settings = {"root": str(self.folder), "work": str(self.folder / "work"), "prefix": str(self.folder),
                    "c": "cc", "cxx": "c++", "flags": [], "commands": {"test"}}
        (self.folder / "dev").touch()
        checker = check_blocks.Checker(settings, str(page))
        checker.check()
        return "\n".join(checker.failures)

    def expect(self, text, failure):
        found = self.failures(text)
        self.assertIn(failure, found) if failure else self.assertEqual(found, "")

    def test_code_that_does_not_compile(self):
        self.expect("```cpp\nint F() { return 1; }\n```\n", "")
        self.expect("```cpp\nint F() { return G(); }\n```\n", "page.md:2")
        self.expect("```c\nint F(void) { return G; }\n```\n", "page.md:2")

    def test_statements_stand_in_a_function_and_may_see_the_block_before(self):
        self.expect("```cpp\nint n = 1;\n```\n<!-- test: statements; continues -->\n```cpp\n++n;\n```\n", "")
        self.expect("```cpp\nint n = 1;\n```\n<!-- test: statements -->\n```cpp\n++n;\n```\n", "page.md:6")

    def test_a_block_without_a_language_or_a_reason(self):
        self.expect("```\nx\n```\n", "give this block a language")
        self.expect("```text\nx\n```\n", "give this block a language")
        self.expect("text\n\n    indented\n", "give this block a language")
        self.expect("- list\n\n    goes on\n", "")
        self.expect("<!-- test: illustration: it is a drawing -->\n```text\nx\n```\n", "")
        self.expect("<!-- test: illustration -->\n```text\nx\n```\n", "say why")

    def test_shell_lines_are_run(self):
        self.expect("```sh\ntrue\n```\n", "")
        self.expect("```sh\ntrue\n```\n\n```sh\nfalse | true\n```\n", "page.md:6: ended with status 1")
        self.expect("```console\n$ echo 4\n4\n```\n", "")
        self.expect("```console\n$ echo 4\n5\n```\n", "prints something else")

    def test_commands_of_dev_are_there(self):
        self.expect("`./dev test` and `./dev tset`", "no command 'tset'")
        self.expect("<!-- test: illustration: too long -->\n```sh\n./dev tset\n```\n", "no command 'tset'")

    def test_data_parses(self):
        self.expect('```json\n{"a":\n1}\n```\n', "")
        self.expect('```json\n{"a":1}\n{"b":2}\n```\n', "")
        self.expect('```json\n{"a":1}\n{"b":}\n```\n', "page.md:3: no JSON")
        self.expect("```python\ndef f(:\n```\n", "no Python")

    def test_a_block_is_the_file_that_it_names(self):
        (self.folder / "shown.h").write_text("int n;\n")
        self.expect("<!-- test: file shown.h -->\n```cpp\nint n;\n```\n", "")
        self.expect("<!-- test: file shown.h -->\n```cpp\nint m;\n```\n", "differs from shown.h")

    def test_links_and_tests_that_are_not_there(self):
        page = self.folder / "page.md"
        page.write_text("# A `b` heading, and more\n[a](#a-b-heading-and-more) [b](#c) [d](e.md)\n"
                        "`Docs.LinksAndNamedTestsAreThere` `Docs.IsNotThere` <img src=\"f.svg\">\n")
        done = subprocess.run([sys.executable, HERE / "check_pages.py", ROOT, page], capture_output=True, text=True,
                              check=False)
        said = [line.partition("page.md:")[2] for line in done.stderr.splitlines()]
        self.assertEqual(said, ["2: there is no heading #c", "2: there is no file e.md", "3: there is no file f.svg",
                                "3: there is no test Docs.IsNotThere"])

    def test_anchors_are_those_of_forges(self):
        self.assertEqual(markdown.anchor_of("C++20, and `a_b`"), "c20-and-a_b")


if __name__ == "__main__":
    unittest.main()
