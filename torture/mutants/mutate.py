#!/usr/bin/python3
"""Makes small faults in the library, one at a time, and says which of them no test notices.

usage: mutate.py [MODULE...] [--sample N] [--list] [--only TEXT]

The interpreter is the system's own: the compiler's library is installed for it.
"""
import argparse
import concurrent.futures
import os
import sys
import time

from mutant import digest, give_names, give_numbers
from results import Results, read_list
from survey import Survey
from tree import MODULES, Tree
from verdict import Verdicts
import woven

HERE = os.path.dirname(os.path.realpath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
LEAST_NOTICED = 95  # percent
SEED = "tarv"


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("modules", nargs="*", metavar="MODULE", help="one of " + ", ".join(MODULES))
    parser.add_argument("--sample", type=int, default=75, help="mutants of each module (default 75)")
    parser.add_argument("--only", default="", help="of these only what has TEXT in its name")
    parser.add_argument("--list", action="store_true", help="say what would be made, and make nothing")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    given = parser.parse_args()
    for module in given.modules:
        if module not in MODULES:
            parser.error(f"there is no module '{module}'; there are {', '.join(MODULES)}")
    given.modules = given.modules or list(MODULES)
    return given


def pick(mutants, count):
    """The same ones on every machine; a change elsewhere in the module moves few of them."""
    return sorted(mutants, key=lambda one: digest(SEED + one.name))[:count]


def read_programs(path):
    """By module, the test programs that can notice, the quick ones first."""
    programs = {}
    with open(path, encoding="utf-8") as file:
        for line in file:
            words = line.split("#")[0].split()
            if words:
                programs[words[0].rstrip(":")] = words[1:]
    return programs


def say(text):
    print(text, file=sys.stderr, flush=True)


class Run:
    def __init__(self, given, tree, lists):
        self.given = given
        self.tree = tree
        self.programs = read_programs(os.path.join(lists, "programs.txt"))
        self.equivalent = read_list(os.path.join(lists, "equivalent.txt"))
        self.explained = read_list(os.path.join(lists, "unnoticed.txt"))
        self.results = Results(os.path.join(tree.folder, "results.json"))

    def prepare(self):
        """All modules' mutants are woven, whichever are asked for, so that one build does for all."""
        say("mutate: reading the sources")
        self.tree.refresh()
        self.tree.configure()
        self.mutants = woven.find_all(self.tree, self.results)
        give_names(self.mutants)
        give_numbers(self.mutants)
        if self.given.list:
            return
        wanted = {program for module in self.given.modules for program in self.programs[module]}
        say(f"mutate: {len(self.mutants)} possible mutants; building {len(wanted)} test programs")
        self.mutants = woven.build(self.tree, self.mutants, self.results, sorted(wanted), self.given.jobs)

    def chosen(self, module):
        names = set(self.tree.sources(module))
        picked = pick([one for one in self.mutants if one.path in names], self.given.sample)
        return [one for one in picked if self.given.only in one.name]

    def try_module(self, module):
        start = time.monotonic()
        chosen = self.chosen(module)
        counted = [one for one in chosen if one.name not in self.equivalent]
        survey = Survey(self.tree, self.programs[module], self.mutants, self.results, self.given.jobs)
        verdicts = Verdicts(self.tree, survey, self.results)
        with concurrent.futures.ThreadPoolExecutor(self.given.jobs) as pool:
            noticed = list(pool.map(verdicts.is_noticed, counted))
        self.results.save()
        unnoticed = [one.name for one, was in zip(counted, noticed) if not was]
        self.report(module, unnoticed)
        return Row(module, len(counted), len(chosen) - len(counted), len(unnoticed), time.monotonic() - start)

    def report(self, module, unnoticed):
        for name in unnoticed:
            print(f"{module}: not noticed: {name}")
            reason = self.explained.get(name)
            print(f"    {reason}" if reason else "    not explained in torture/mutants/unnoticed.txt")
        sys.stdout.flush()


class Row:
    def __init__(self, module, count, equivalent, unnoticed, seconds):
        self.module = module
        self.count = count
        self.equivalent = equivalent
        self.unnoticed = unnoticed
        self.seconds = seconds

    def percent(self):
        return 100 * (self.count - self.unnoticed) / self.count if self.count else 100.0

    def line(self):
        return (f"{self.module:10} {self.count:7} {self.count - self.unnoticed:7} {self.percent():8.1f} % "
                f"{self.equivalent:10} {self.seconds:8.0f} s")


def main(given, tree, lists=HERE):
    run = Run(given, tree, lists)
    run.prepare()
    if given.list:
        for module in given.modules:
            print("\n".join(one.name for one in run.chosen(module)))
        return 0
    rows = [run.try_module(module) for module in given.modules]
    rows.append(Row("all", sum(one.count for one in rows), sum(one.equivalent for one in rows),
                    sum(one.unnoticed for one in rows), sum(one.seconds for one in rows)))
    print("module     mutants noticed            equivalent     time")
    print("\n".join(one.line() for one in rows))
    return 0 if all(one.percent() >= LEAST_NOTICED for one in rows) else 1


if __name__ == "__main__":
    folder = os.path.join(ROOT, "build", "mutants")
    os.makedirs(folder, exist_ok=True)
    sys.exit(main(arguments(), Tree(ROOT, folder)))
