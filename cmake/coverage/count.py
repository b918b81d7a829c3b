#!/usr/bin/env python3
"""count.py BUILD TO: counts lines and branches of a build folder, for gcovr to filter, print and judge.

gcovr could count by itself, but reads gcov's text, where a line that an object file has and does not run shows
no difference between a branch of the code and one that an exception takes. So its option to leave the latter
out leaves them in wherever a header is. gcov's JSON says it of each. The instances of a template count for one
another, as with gcovr: what one of them takes is taken.

What gcovr.cfg excludes by pattern is left out here, since gcovr asks for it only when it counts.
"""
import collections
import concurrent.futures
import configparser
import itertools
import json
import os
import re
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
NO_CODE = re.compile(r"[{}();\s]*(else|try|default:)?[{}();\s]*")
FORMAT = "0.3"  # gcovr's, of files that it adds up


def read_patterns():
    """By option of gcovr.cfg, the last of each name."""
    parser = configparser.ConfigParser(interpolation=None, strict=False)
    with open(os.path.join(ROOT, "gcovr.cfg"), encoding="utf-8") as file:
        parser.read_string("[all]\n" + file.read())
    return {name: re.compile(parser["all"][name])
            for name in ("filter", "exclude-directories", "exclude-lines-by-pattern",
                         "exclude-branches-by-pattern")}


def ask_gcov(notes):
    """What gcov says of an object file."""
    done = subprocess.run(["gcov", "--json-format", "--stdout", "--branch-probabilities", notes],
                          check=False, capture_output=True, text=True)
    if done.returncode != 0:
        raise SystemExit(f"count.py: gcov cannot read {notes}; remove the build folder and build again:\n{done.stderr}")
    return json.loads(done.stdout)


class Counts:
    """Lines by file and number; of each the counts of its branches, by function."""

    def __init__(self, patterns):
        self.patterns = patterns
        self.lines = collections.defaultdict(lambda: collections.defaultdict(dict))

    def add(self, report):
        for source in report["files"]:
            # The build names the repository's files from its root.
            name = os.path.relpath(os.path.join(ROOT, source["file"]), ROOT)
            # An object file may be older than the file's removal.
            if self.patterns["filter"].match(name) and os.path.isfile(os.path.join(ROOT, name)):
                for line in source["lines"]:
                    self.add_line(self.lines[name][line["line_number"]], line)

    def add_line(self, functions, line):
        branches = [one["count"] for one in line["branches"] if not one["throw"]]
        key = (line.get("function_name", ""), len(branches))
        count, known = functions.get(key, (0, [0] * len(branches)))
        functions[key] = (count + line["count"], [a + b for a, b in zip(known, branches)])

    def files(self):
        for name in sorted(self.lines):
            with open(os.path.join(ROOT, name), encoding="utf-8") as file:
                text = file.read().split("\n")
            lines = [self.line(number, functions, text[number - 1])
                     for number, functions in sorted(self.lines[name].items())]
            yield {"file": name, "functions": [], "lines": [one for one in lines if one]}

    def line(self, number, functions, text):
        count = sum(one for one, _ in functions.values())
        code = re.sub(r"//.*", "", text)
        has_code = NO_CODE.fullmatch(code) is None
        if self.patterns["exclude-lines-by-pattern"].match(text) or not (has_code or count):
            return None
        wanted = has_code and not self.patterns["exclude-branches-by-pattern"].match(text)
        branches = add_up(functions) if wanted else []
        return {"line_number": number, "count": count, "gcovr/noncode": False, "gcovr/excluded": False,
                "branches": [{"count": one, "fallthrough": False, "throw": False} for one in branches]}


def add_up(functions):
    """Instances of a template need not have as many branches: each adds to those at the same places."""
    rows = itertools.zip_longest(*(branches for _, branches in functions.values()), fillvalue=0)
    return [sum(row) for row in rows]


def main(build, to):
    patterns = read_patterns()
    notes = [os.path.join(folder, name) for folder, _, names in os.walk(build)
             for name in names if name.endswith(".gcno")
             and not patterns["exclude-directories"].match(folder)]
    counts = Counts(patterns)
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for report in pool.map(ask_gcov, sorted(notes)):
            counts.add(report)
    with open(to, "w", encoding="utf-8") as file:
        json.dump({"gcovr/format_version": FORMAT, "files": list(counts.files())}, file)


if __name__ == "__main__":
    main(*sys.argv[1:])
