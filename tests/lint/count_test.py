#!/usr/bin/env python3
"""What cmake/coverage/count.py makes of gcov's counts."""
import os
import re
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
sys.path.insert(0, os.path.join(ROOT, "cmake", "coverage"))
import count  # noqa: E402

SOURCE = """int f() {
  if (a) {
  }
  static int b = g();
  CW_ASSERT(a);
}
"""
PATTERNS = {"filter": re.compile("src/.*"), "exclude-lines-by-pattern": re.compile(r".*CW_ASSERT\("),
            "exclude-branches-by-pattern": re.compile(r".*\bstatic\b")}


def line(number, function, executed, *branches, throw=()):
    found = [{"count": one, "throw": False} for one in branches] + [{"count": one, "throw": True} for one in throw]
    return {"line_number": number, "function_name": function, "count": executed, "branches": found}


class Coverage(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        os.mkdir(os.path.join(folder.name, "src"))
        with open(os.path.join(folder.name, "src", "f.cpp"), "w", encoding="utf-8") as file:
            file.write(SOURCE)
        self.addCleanup(setattr, count, "ROOT", count.ROOT)
        count.ROOT = folder.name

    def counted(self, *lines, file="src/f.cpp"):
        """By line, how often it ran, and what its branches come to."""
        counts = count.Counts(PATTERNS)
        for one in lines:
            counts.add({"files": [{"file": file, "lines": [one]}]})
        return {one["line_number"]: (one["count"], [branch["count"] for branch in one["branches"]])
                for source in counts.files() for one in source["lines"]}

    def test_leaves_out_what_an_exception_takes_also_where_a_line_did_not_run(self):
        self.assertEqual(self.counted(line(2, "f", 3, 1, 2, throw=[0]), line(2, "f", 0, 0, 0, throw=[0])),
                         {2: (3, [1, 2])})

    def test_adds_up_the_instances_of_a_template(self):
        self.assertEqual(self.counted(line(2, "f<int>", 1, 1, 0), line(2, "f<char>", 2, 0, 2, 0)),
                         {2: (3, [1, 2, 0])})

    def test_keeps_a_branch_that_nobody_takes(self):
        self.assertEqual(self.counted(line(2, "f", 3, 3, 0)), {2: (3, [3, 0])})

    def test_leaves_out_what_the_patterns_name_and_braces(self):
        self.assertEqual(self.counted(line(3, "f", 0, 0), line(4, "f", 1, 0), line(5, "f", 1, 0), line(6, "f", 2, 0)),
                         {4: (1, []), 6: (2, [])})

    def test_takes_the_librarys_files_alone_that_are_there(self):
        self.assertEqual(self.counted(line(2, "f", 1), file="/usr/include/vector"), {})
        self.assertEqual(self.counted(line(2, "f", 1), file="src/removed.cpp"), {})

    def test_says_which_object_file_gcov_cannot_read(self):
        path = os.path.join(count.ROOT, "cut_short.gcno")
        with open(path, "wb") as file:
            file.write(b"oncg")
        with self.assertRaisesRegex(SystemExit, "gcov cannot read .*cut_short.gcno; remove the build folder and build again"):
            count.ask_gcov(path)

    def test_reads_its_patterns_from_gcovrs_configuration(self):
        count.ROOT = ROOT
        patterns = count.read_patterns()
        self.assertTrue(patterns["filter"].match("cw/src/a.cpp"))
        self.assertTrue(patterns["exclude-lines-by-pattern"].match("  CW_ASSERT(a);"))
        self.assertTrue(patterns["exclude-branches-by-pattern"].match("  } catch (const A&) {"))


if __name__ == "__main__":
    unittest.main()
