#!/usr/bin/env python3
"""check_blocks.py SETTINGS PAGE: compiles or runs every code block of a page, from the page's own text.

What becomes of a block is decided by its language, and by the comment before it, if there is one:

    <!-- test: illustration: why it is neither compiled nor run -->
    <!-- test: file template/names.h -->           the block is that file, which is tested elsewhere
    <!-- test: statements -->                      C++ that stands inside a function
    <!-- test: statements of void A::B(int c) -->  inside this one, which the page's preamble declares
    <!-- test: continues -->                       C++ that sees what the block before it declares
    <!-- test: c++20 -->                           C++ that needs the newer standard

Several are separated by "; ". Beside this script, pages/ has what a page needs and does not show:
NAME.h is included before its C++, NAME.sh runs before its shell lines, NAME.cmake before its CMake.
"""

import ast
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys

import markdown

HERE = pathlib.Path(__file__).resolve().parent
WARNINGS = ["-Wall", "-Wextra", "-Werror", "-Wno-unused-variable", "-Wno-unused-but-set-variable",
            "-Wno-unused-function", "-Wno-unused-parameter"]


class Checker:
    """One page, its folder to work in, and what went wrong so far."""

    def __init__(self, settings, page_path):
        self.settings = settings
        self.root = pathlib.Path(settings["root"])
        self.page = markdown.read_page(page_path, os.path.relpath(page_path, self.root))
        self.name = self.page.path.replace("/", "-").removeprefix("docs-").removesuffix(".md")
        self.folder = pathlib.Path(settings["work"]) / self.name
        self.failures = []

    def fail(self, place, text):
        self.failures.append(f"{place}: {text.rstrip()}")

    def extra(self, suffix):
        path = HERE / "pages" / (self.name + suffix)
        return path if path.exists() else None

    def check(self):
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir(parents=True)
        by_language = {}
        for block in self.page.blocks:
            self.check_commands(block.place, block.text)
            if self.is_held_elsewhere(block):
                continue
            by_language.setdefault(block.language, []).append(block)
        for number, line in self.page.prose:
            for span in re.findall(r"`(\./dev [^`]*)`", line):
                self.check_commands(f"{self.page.path}:{number}", span)
        for language, blocks in by_language.items():
            self.CHECKS.get(language, Checker.refuse)(self, blocks)

    def is_held_elsewhere(self, block):
        for mark in block.mark.split("; "):
            if mark.startswith("illustration"):
                if not re.match(r"illustration: \S.{9,}", mark):
                    self.fail(block.place, "say why it is an illustration: '<!-- test: illustration: why -->'")
                return True
            if mark.startswith("file "):
                if (self.root / mark[5:]).read_text(encoding="utf-8") != block.text:
                    self.fail(block.place, f"this differs from {mark[5:]}: make them the same")
                return True
        return False

    def check_commands(self, place, text):
        """Every command of ./dev that is named anywhere is there."""
        for command in re.findall(r"(?:^|[\s`])\./dev ([a-z][\w-]*)", text):
            if command not in self.settings["commands"]:
                self.fail(place, f"./dev has no command '{command}'; `./dev help` lists them")

    def refuse(self, blocks):
        for block in blocks:
            self.fail(block.place, "give this block a language that a test knows (cpp, c, json, sh, console, cmake, "
                      "python), or the comment '<!-- test: illustration: why -->' before it; language: "
                      f"'{block.language}'")

    # ---- C++ and C: the blocks of a page are one translation unit ----

    def check_cpp(self, blocks):
        for standard in ("c++17", "c++20"):
            chosen = [b for b in blocks if ("c++20" in b.mark.split("; ")) == (standard == "c++20")]
            if chosen:
                self.compile(chosen, unit_of_cpp(chosen, self.extra(".h")), standard, "cpp")

    def check_c(self, blocks):
        for number, block in enumerate(blocks):
            self.compile([block], f'#line {block.line} "{block.page}"\n{block.text}', "c11", f"{number}.c")

    def compile(self, blocks, text, standard, suffix):
        source = self.folder / f"{standard}.{suffix}"
        source.write_text(text, encoding="utf-8")
        command = [self.settings["c" if standard == "c11" else "cxx"], f"-std={standard}", "-fsyntax-only",
                   *WARNINGS, "-fPIC", "-DQT_NO_KEYWORDS", *self.settings["flags"], str(source)]
        self.run(blocks, command)

    # ---- data ----

    def check_json(self, blocks):
        for block in blocks:
            try:
                json.loads(block.text)
            except ValueError:
                self.check_json_lines(block)

    def check_json_lines(self, block):
        for number, line in enumerate(block.text.splitlines()):
            try:
                json.loads(line)
            except ValueError as error:
                self.fail(f"{block.page}:{block.line + number}", f"no JSON: {error}")

    def check_python(self, blocks):
        for block in blocks:
            try:
                ast.parse(block.text)
            except SyntaxError as error:
                self.fail(block.place, f"no Python: {error}")

    # ---- what is run ----

    def check_shell(self, blocks):
        """One shell for all blocks of a page, in a folder where ./dev is the repository's."""
        script = "".join(f"echo '{b.place}' > ../at\n{b.text}" for b in blocks)
        self.run_shell(blocks, script)

    def check_console(self, blocks):
        """After lines that begin with "$ " stands what they print."""
        for block in blocks:
            commands = [line[2:] for line in block.text.splitlines() if line.startswith("$ ")]
            shown = "".join(line + "\n" for line in block.text.splitlines() if not line.startswith("$ "))
            said = self.run_shell([block], "\n".join(commands) + "\n")
            if said is not None and said != shown:
                self.fail(block.place, f"it prints something else:\n{said}")

    def run_shell(self, blocks, script):
        place = self.folder / "shell"
        home = self.folder / "home"
        if not place.exists():
            place.mkdir()
            home.mkdir()
            (place / "dev").symlink_to(self.root / "dev")
            (home / "tarv").symlink_to(self.settings["prefix"])
        (self.folder / "at").write_text(blocks[0].place)
        setup = self.extra(".sh")
        if setup:
            script = f"source '{setup}'\n{script}"
        environment = {**os.environ, "HOME": str(home), "CMAKE_PREFIX_PATH": self.settings["prefix"],
                       "PATH": f"{self.settings['prefix']}/bin:{os.environ['PATH']}", "ROOT": str(self.root),
                       "CMAKE_GENERATOR": "Ninja"}
        # The compiler's flags are the reader's own affair.
        environment.pop("CXXFLAGS", None)
        done = subprocess.run(["bash", "-euo", "pipefail", "-c", script], cwd=place, env=environment,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=500, check=False)
        if done.returncode != 0:
            at = (self.folder / "at").read_text().strip()
            self.fail(at, f"ended with status {done.returncode}:\n{done.stdout}{done.stderr}")
            return None
        return done.stdout

    def check_cmake(self, blocks):
        """Each is configured as a project, against the installed library."""
        for number, block in enumerate(blocks):
            project = self.folder / f"cmake{number}"
            project.mkdir()
            before = self.extra(".cmake")
            (project / "CMakeLists.txt").write_text((before.read_text() if before else "") + block.text)
            for source in (self.root / "tests/outside/consumer").glob("*.cpp"):
                shutil.copy(source, project)
            self.run([block], ["cmake", "-S", str(project), "-B", str(project / "build"), "-G", "Ninja",
                               f"-DCMAKE_PREFIX_PATH={self.settings['prefix']}"])

    def leave_to_wire_formats_test(self, blocks):
        """wire_formats_test.cpp reads that page alone."""
        if self.name != "wire-formats":
            self.refuse(blocks)

    def run(self, blocks, command):
        done = subprocess.run(command, cwd=self.root, capture_output=True, text=True, timeout=500, check=False)
        if done.returncode != 0:
            self.fail(blocks[0].place, f"{' '.join(command)}\n{done.stdout}{done.stderr}")

    CHECKS = {"cpp": check_cpp, "c": check_c, "json": check_json, "python": check_python, "sh": check_shell,
              "console": check_console, "cmake": check_cmake, "bytes": leave_to_wire_formats_test,
              "message": leave_to_wire_formats_test}


def unit_of_cpp(blocks, preamble):
    """The includes of all blocks, the preamble, then each block in a namespace of its own."""
    lines = [line for b in blocks for line in b.text.splitlines() if line.startswith("#include")]
    if preamble:
        lines.append(f'#include "{preamble}"')
    for number, block in enumerate(blocks):
        lines += lines_of_block(block, number, continues=["continues" in b.mark.split("; ") for b in blocks])
    return "\n".join(lines) + "\n"


def lines_of_block(block, number, continues):
    text = [line if not line.startswith("#include") else "" for line in block.text.splitlines()]
    text.insert(0, f'#line {block.line} "{block.page}"')
    statements = next((m for m in block.mark.split("; ") if m.startswith("statements")), None)
    if statements:
        signature = statements.removeprefix("statements").removeprefix(" of ") or f"void Statements{number}()"
        text = [signature + " {", *text, "}"]
    if statements and "::" in signature.split("(")[0]:
        return text
    while number > 0 and continues[number]:
        number -= 1
    return [f"namespace block{number} {{", *text, "}"]


def main():
    settings = json.loads(pathlib.Path(sys.argv[1]).read_text(encoding="utf-8"))
    usage = subprocess.run([f"{settings['root']}/dev", "help"], capture_output=True, text=True, check=True)
    settings["commands"] = set(re.findall(r"^  ([a-z][\w-]*)", usage.stdout, re.MULTILINE))
    checker = Checker(settings, sys.argv[2])
    checker.check()
    for failure in checker.failures:
        print(failure, file=sys.stderr)
    print(f"{checker.page.path}: {len(checker.page.blocks)} code blocks")
    return 1 if checker.failures else 0


if __name__ == "__main__":
    sys.exit(main())
