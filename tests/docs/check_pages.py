#!/usr/bin/env python3
"""check_pages.py ROOT PAGE...: every link of the pages leads somewhere, every test that they name is there, and
docs/index.md leads to each page of its folder.

A link to a file is relative to its page; one with a # wants a heading of that name. A test is named in
backticks, as `Suite.Test`, the way ctest lists it.
"""

import os
import pathlib
import re
import sys

import markdown

TEST_MACRO = re.compile(r"^(?:TEST|TEST_F|TEST_P|TYPED_TEST|TYPED_TEST_P)\((\w+),\s*(\w+)\)", re.MULTILINE)
CTEST_NAME = re.compile(r"add_test\(\s*NAME ([\w.+]+)")
TEST_SPAN = re.compile(r"`([A-Z]\w+\.[A-Z]\w+)`")
# Names of this form that are no tests: a file's.
NOT_TESTS = re.compile(r"\.(md|txt|cmake|json|h)$|^CMakeLists\.")


def tests_of(root):
    """The names of all tests, read from the sources: nothing needs to be built."""
    names = set()
    for folder, below, files in os.walk(root):
        below[:] = [name for name in below if name not in ("build", ".git")]
        for file in files:
            path = pathlib.Path(folder, file)
            if file.endswith(".cpp"):
                text = path.read_text(encoding="utf-8")
                names |= {f"{suite}.{test}" for suite, test in TEST_MACRO.findall(text)}
            elif file == "CMakeLists.txt":
                names |= set(CTEST_NAME.findall(path.read_text(encoding="utf-8")))
    return names


def broken_links(page, path, anchors_of):
    for number, target in page.links():
        if re.match(r"[a-z]+:", target):
            continue
        file, _, anchor = target.partition("#")
        found = (path.parent / file).resolve() if file else path
        if not found.exists():
            yield f"{page.path}:{number}: there is no file {target}"
        elif anchor and found.suffix == ".md" and anchor not in anchors_of(found):
            yield f"{page.path}:{number}: there is no heading {target}"


def missing_tests(page, tests):
    for number, line in page.prose:
        for name in TEST_SPAN.findall(line):
            if name not in tests and not NOT_TESTS.search(name):
                yield f"{page.path}:{number}: there is no test {name}"


def pages_that_nothing_leads_to(root, paths):
    """docs/index.md is where readers begin: it links every page beside it."""
    index = root / "docs/index.md"
    linked = {(index.parent / target.partition("#")[0]).resolve()
              for _, target in markdown.read_page(index, "docs/index.md").links()}
    for path in paths:
        if path.parent == index.parent and path != index and path not in linked:
            yield f"docs/index.md: it does not link {path.name}"


def main():
    root = pathlib.Path(sys.argv[1]).resolve()
    paths = [pathlib.Path(path).resolve() for path in sys.argv[2:]]
    tests = tests_of(root)
    failures = []
    for path in paths:
        page = markdown.read_page(path, os.path.relpath(path, root))
        failures += broken_links(page, path, lambda other: markdown.read_page(other, str(other)).anchors())
        failures += missing_tests(page, tests)
    failures += pages_that_nothing_leads_to(root, paths)
    for failure in failures:
        print(failure, file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
