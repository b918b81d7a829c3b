#!/usr/bin/python3
"""Mutates a project as small as can be: what is made, how it is named, and what is said of it."""
import contextlib
import io
import os
import re
import shutil
import subprocess
import sys
import tempfile
import types
import unittest
from unittest import mock

HERE = os.path.dirname(os.path.realpath(__file__))
SKIPPED = 77
sys.dont_write_bytecode = True
sys.path.insert(0, HERE)
try:
    import clang.cindex  # noqa: F401
except ImportError:
    print("mutate_test: skipped without the package python3-clang-14")
    sys.exit(SKIPPED)
import candidates  # noqa: E402
import mutate  # noqa: E402
from mutant import give_names, give_numbers  # noqa: E402
from results import read_list  # noqa: E402
import survey  # noqa: E402
from tree import Tree  # noqa: E402
import verdict  # noqa: E402
from weave import LINES_AT_THE_HEAD, weave  # noqa: E402

SAMPLE = os.path.join(HERE, "sample")
RANGE = "counting/src/range.cpp"
CLAMP = f"{RANGE}: Range::Clamp: "
ROOT = os.path.dirname(os.path.dirname(HERE))


def mutants_of(path, name):
    found = candidates.find(path, name, ["-std=c++17"], {path: name})
    give_names(found)
    give_numbers(found)
    return found


def without_times(output):
    return re.sub(r"\d+ s$", "", output, flags=re.MULTILINE)


class Candidates(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)

    def mutants(self, text):
        path = os.path.join(self.folder.name, "one.cpp")
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        return mutants_of(path, "one.cpp")

    def names(self, text):
        return [one.name.removeprefix("one.cpp: ") for one in self.mutants(text)]

    def test_operators_constants_and_conditions(self):
        self.assertCountEqual(self.names("int F(int a) { if (a < 3) { return a; } return -a; }"), [
            "F: a < 3: condition -> true", "F: a < 3: condition -> false", "F: a < 3: < -> <=",
            "F: a < 3: 3 -> (3 + 1)", "F: -a: - -> nothing"])

    def test_statements_that_are_deleted(self):
        self.assertCountEqual(self.names("void G(); void F() { G(); static_cast<void>(0); return; }"),
                              ["F: G(): deleted", "F: return: deleted", "F: static_cast<void>(0): 0 -> (0 + 1)"])

    def test_arguments_that_change_places_and_null_for_a_pointer(self):
        self.assertCountEqual(
            self.names("void G(int, int, int*); void F(int a, int b, int* c) { G(a, b, c); }"),
            ["F: G(a, b, c): deleted", "F: G(a, b, c): a <-> b", "F: G(a, b, c): c -> nullptr"])

    def test_a_pointer_that_is_returned_becomes_null_unless_it_is_a_reference(self):
        self.assertCountEqual(self.names("int* F(int* a) { return a; }"), ["F: a: returned -> nullptr"])
        self.assertEqual(self.names("int* const& F(int* const& a) { return a; }"), [])

    def test_what_the_compiler_must_know_stays(self):
        self.assertEqual(self.names("static_assert(1 < 2); constexpr int F() { return 1 + 2; } enum { kA = 1 };"), [])

    def test_names_and_numbers_hang_on_no_line(self):
        text = "int F(int a) { return a + 1; }\n"
        before = {one.name: one.number for one in self.mutants(text)}
        behind = {one.name: one.number for one in self.mutants("// A comment.\n\nint E();\n" + text)}
        self.assertEqual(before, behind)
        self.assertEqual(len(before), 2)

    def test_equal_texts_of_a_function_are_counted(self):
        self.assertCountEqual(self.names("int F(int a) { a = a + a; a = a + a; return a; }"), [
            "F: a = a + a: deleted", "F: a = a + a: deleted #2", "F: a + a: + -> -", "F: a + a: + -> - #2"])

    def test_lines_stay_where_they_are(self):
        text = b"int F(int a,\n      int b) {\n  return a +\n         b;\n}\nint g = __LINE__;\n"
        mutants = self.mutants(text.decode())
        woven = weave(text, mutants, "switch.h")
        self.assertEqual(woven.count(b"\n"), text.count(b"\n") + LINES_AT_THE_HEAD)
        self.assertIn(f"tarv_mutants::IsOn({mutants[0].number}) ? (a - b)".encode(), woven)


class BrokenCopy(unittest.TestCase):
    def test_is_told_when_most_tests_of_a_program_fail_without_a_mutant(self):
        with tempfile.TemporaryDirectory() as folder:
            for name in ("bin/program", "lib/libtarv.so"):
                os.makedirs(os.path.join(folder, os.path.dirname(name)), exist_ok=True)
                shutil.copy(__file__, os.path.join(folder, name))
            kept = types.SimpleNamespace(get=lambda *_: None, put=lambda *_: None, save=lambda: None)
            with mock.patch("survey.list_tests", lambda _: ["A.Passes", "A.Fails", "A.FailsToo"]), \
                    mock.patch("survey.reach", lambda _, test, __: {} if test == "A.Passes" else None), \
                    contextlib.redirect_stderr(io.StringIO()), \
                    self.assertRaisesRegex(RuntimeError, "most tests of program fail"):
                survey.Survey(types.SimpleNamespace(build=folder), ["program"], [], kept, 1)


class Whole(unittest.TestCase):
    """One build for all of these tests."""

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        cls.root = os.path.join(cls.folder.name, "sample")
        shutil.copytree(SAMPLE, cls.root)
        verdict.SECONDS_AT_LEAST = 3
        subprocess.run(["git", "init", "--quiet", cls.root], check=True)
        cls.status, cls.output = cls.mutate()

    @classmethod
    def mutate(cls, **options):
        given = types.SimpleNamespace(modules=["counting"], sample=100, only="", list=False, jobs=2)
        given.__dict__.update(options)
        tree = Tree(cls.root, cls.folder.name, {"counting": ("counting/src",)})
        written = io.StringIO()
        with contextlib.redirect_stdout(written), contextlib.redirect_stderr(io.StringIO()) as cls.progress:
            status = mutate.main(given, tree, cls.root)
        return status, written.getvalue()

    def test_noticed_ones_are_not_named(self):
        for noticed in ("value > high_: condition -> false", "value > high_: > -> <"):
            self.assertNotIn(CLAMP + noticed, self.output)
        self.assertNotIn("Range::Length", self.output)

    def test_unnoticed_ones_are_named_with_their_reasons(self):
        self.assertIn(f"counting: not noticed: {CLAMP}Note(calls): deleted\n    Nobody asks for the count.\n",
                      self.output)
        self.assertIn(f"counting: not noticed: {CLAMP}value < low_: condition -> false\n    not explained",
                      self.output)

    def test_one_that_hangs_is_noticed(self):
        self.assertNotIn("++from: deleted", self.output)

    def test_what_the_compiler_refuses_is_left_out(self):
        self.assertNotIn("kSteps[2]", self.output)

    def test_equivalent_ones_are_outside_the_count(self):
        self.assertNotIn("< -> <=\n    Of two", self.output)
        self.assertRegex(self.output, r"counting +\d+ +\d+ +\d+\.\d % +3 ")

    def test_too_few_noticed_is_a_failure(self):
        self.assertEqual(self.status, 1)
        self.assertEqual(self.mutate(only="Length")[0], 0)

    def test_a_second_run_goes_on_from_the_first(self):
        status, output = self.mutate()
        self.assertEqual((status, without_times(output)), (self.status, without_times(self.output)))
        self.assertNotIn("tests of counting_tests reach", self.progress.getvalue())


class RealFile(unittest.TestCase):
    """A file of the library, with its mutants, whose program is told which one is on."""

    def test_a_mutant_is_switched_on_when_the_program_starts(self):
        name = "quarn/src/escaped.cpp"
        path = os.path.join(ROOT, name)
        includes = [f"-I{ROOT}", f"-I{ROOT}/quarn/include"]
        found = candidates.find(path, name, ["-std=c++17", *includes], {path: name})
        give_names(found)
        give_numbers(found)
        one = next(one for one in found if one.name.endswith("IsControl: byte == 0x7F: == -> !="))
        with open(path, "rb") as file:
            woven = weave(file.read(), [one], os.path.join(HERE, "switch.h"))
        with tempfile.TemporaryDirectory() as folder:
            self.assertEqual(self.shown(folder, woven, includes, 0), "a\\x7f")
            self.assertEqual(self.shown(folder, woven, includes, one.number), "\\x61\x7f")

    def shown(self, folder, woven, includes, number):
        program = os.path.join(folder, "program")
        if not os.path.exists(program):
            main = b'#include <iostream>\nint main() { std::cout << quarn::Escaped{"a\\x7f"}; }\n'
            source = os.path.join(folder, "woven.cpp")
            with open(source, "wb") as file:
                file.write(woven + main)
            subprocess.run(["g++", "-w", "-std=c++17", *includes, source, "-o", program], check=True)
        environment = {**os.environ, "TARV_MUTANT": str(number)}
        return subprocess.run([program], check=True, capture_output=True, text=True, env=environment).stdout


class Lists(unittest.TestCase):
    def test_every_entry_has_a_reason(self):
        for name in ("equivalent.txt", "unnoticed.txt"):
            for entry, reason in read_list(os.path.join(HERE, name)).items():
                self.assertTrue(reason, f"{name}: {entry}")


if __name__ == "__main__":
    unittest.main()
