#!/usr/bin/env python3
"""tidy.py [--alone] DATABASE FOLDER CHECKS: clang-tidy over the files that standard input names, with
CHECKS added to those of .clang-tidy. What it works with is in FOLDER. Prints what clang-tidy finds, and
fails if that is anything.

Most of its time goes to the headers that the files include. So files that DATABASE compiles by one
command are joined, and the headers read once for all of them. A joined file is a main
file to clang-tidy, so each check looks at all of it. A file in which it finds anything is looked at once
more, alone, and what it finds then counts: it may be no more than two constants of one name. With --alone,
each file is looked at so.
"""

import concurrent.futures
import json
import os
import pathlib
import re
import subprocess
import sys

# More files in one unit save little, and leave a processor idle when the other units are done.
MOST_FILES = 12
OUTPUT_AND_INPUT = re.compile(r" -o \S+ -c \S+")
BEGIN = '#line 1 "'
FINDING = re.compile(r"(/[^:]+):\d+:\d+: (?:warning|error):")
HAS_PROGRAM = re.compile(r"^(?:int main|extern \"C\" int LLVMFuzzerTestOneInput)\(", re.MULTILINE)
CHATTER = re.compile(r"\d+ warnings? (?:and \d+ errors? )?(?:generated|treated)|\d+ errors? generated"
                     r"|Suppressed |Use -header-filter|Error while processing|Found compiler error|$")


def read(path):
    return pathlib.Path(path).read_text(encoding="utf-8")


def find_commands(database, files):
    """One entry of the compilation database for each file: some are compiled for several targets, and for
    those of projects of their own, which are in no entry, clang-tidy takes the command of a similar file."""
    entries = {entry["file"]: entry for entry in reversed(json.loads(read(database)))}
    return {file: entries.get(file) for file in files}


def group(commands):
    """The files that go into one unit each."""
    groups = {}
    for file, entry in commands.items():
        if entry is None or HAS_PROGRAM.search(read(file)):
            yield [file]
        else:
            command = OUTPUT_AND_INPUT.sub("", entry["command"])
            groups.setdefault((command, entry["directory"]), []).append(file)
    for files in groups.values():
        count = -(-len(files) // MOST_FILES)
        yield from (files[start::count] for start in range(count))


def join(files, path):
    text = "".join(f'{BEGIN}{file}"\n{read(file)}\n' for file in files)
    pathlib.Path(path).write_text(text, encoding="utf-8")


def entry_of_joined(files, path, entry):
    # Headers beside a file are found by their names alone.
    beside = "".join(f" -iquote {folder}" for folder in sorted({os.path.dirname(file) for file in files}))
    command = OUTPUT_AND_INPUT.sub("", entry["command"])
    return {"directory": entry["directory"], "file": path, "command": f"{command}{beside} -c {path}"}


def make_units(folder, commands, joined):
    """What clang-tidy shall read, each with the files that are in it; writes the database of all."""
    units, entries = [], [entry for entry in commands.values() if entry]
    for files in group(commands) if joined else [[file] for file in commands]:
        if len(files) == 1:
            units.append((files[0], files))
            continue
        path = str(folder / f"{len(units)}.cpp")
        join(files, path)
        entries.append(entry_of_joined(files, path, commands[files[0]]))
        units.append((path, files))
    (folder / "compile_commands.json").write_text(json.dumps(entries, indent=1), encoding="utf-8")
    return units


def name_origin(text):
    """A line about a joined file, with the place that it is about in the file that was joined."""
    place = re.match(r"(/\S+/\d+\.cpp):(\d+):", text)
    if not place:
        return text
    lines = read(place[1]).split("\n")
    number = int(place[2])
    begin = max((line for line in range(number) if lines[line].startswith(BEGIN)), default=None)
    if begin is None:
        return text
    return f"{lines[begin][len(BEGIN):-1]}:{number - begin - 1}:{text[place.end():]}"


def run(path, folder, checks):
    """What clang-tidy says of the file, a line each."""
    done = subprocess.run(["clang-tidy", "-p", str(folder), "--quiet", f"--checks={checks}", path],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    found = [name_origin(line) for line in done.stdout.splitlines() if not CHATTER.match(line)]
    if done.returncode and not found:
        found = [f"{path}: clang-tidy ends with {done.returncode}: {done.stdout}"]
    return found


def look_at(path, files, folder, checks):
    """What is found in the unit. A file with a finding leaves it, and what is found there alone counts."""
    found = run(path, folder, checks)
    if len(files) == 1 or not found:
        return found
    places = {match[1] for match in map(FINDING.match, found) if match}
    leave = places.intersection(files) or set(files)
    stay = [file for file in files if file not in leave]
    found = [line for file in sorted(leave) for line in run(file, folder, checks)]
    if stay:
        join(stay, path)
        found += look_at(path, stay, folder, checks)
    return found


def main():
    arguments = sys.argv[1:]
    joined = arguments[0] != "--alone"
    database, folder, checks = arguments[not joined:]
    folder = pathlib.Path(folder).resolve()
    folder.mkdir(parents=True, exist_ok=True)
    units = make_units(folder, find_commands(database, sys.stdin.read().split()), joined)
    # The largest first, so that the last ones are short.
    units.sort(key=lambda unit: -len(unit[1]))
    failed = False
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for lines in pool.map(lambda unit: look_at(*unit, folder, checks), units):
            failed = failed or bool(lines)
            for line in lines:
                print(line, flush=True)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
