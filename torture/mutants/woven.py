"""The copy with all mutants in it: finds them, builds it, and leaves out what the compiler refuses."""
import collections
import dataclasses
import hashlib
import os
import re
import sys

import candidates
from mutant import Mutant
from weave import LINES_AT_THE_HEAD, weave

MOST_BUILDS = 12
NUMBER = re.compile(rb"tarv_mutants::IsOn\((\d+)\)")


def find_all(tree, results):
    """A module is read anew when one of its files has changed, or what reads them."""
    arguments = tree.compile_arguments()
    with open(candidates.__file__, "rb") as file:
        reader = file.read()
    found = []
    for module in tree.modules:
        content = b"".join(tree.plain[name] for name in tree.sources(module))
        digest = hashlib.sha256(reader + content).hexdigest()[:16]
        known = results.get("candidates", module)
        if not known or known["digest"] != digest:
            mutants = [dataclasses.asdict(one) for one in find_in(tree, module, arguments)]
            known = {"digest": digest, "mutants": mutants}
            results.put("candidates", module, known)
        found += [Mutant(**one) for one in known["mutants"]]
    results.save()
    return found


def find_in(tree, module, arguments):
    """Headers are read as the source files meet them."""
    found = {}
    paths = {os.path.join(tree.root, name): name for name in tree.sources(module)}
    for path, name in paths.items():
        if name in arguments:
            here = {one: other for one, other in paths.items() if one == path or one.endswith(".h")}
            for mutant in candidates.find(path, name, arguments[name], here):
                found.setdefault((mutant.path, mutant.start, mutant.end, mutant.changed, mutant.form), mutant)
    return found.values()


def key_of(mutant):
    return mutant.name + " " + hashlib.sha256(mutant.changed.encode()).hexdigest()[:12]


def put(tree, mutants):
    """Writes each file with its mutants; returns these texts."""
    of_file = collections.defaultdict(list)
    for mutant in mutants:
        of_file[mutant.path].append(mutant)
    switch = tree.write(os.path.join(os.pardir, "switch.h"), tree.switch)
    texts = {name: weave(tree.plain[name], those, switch) for name, those in of_file.items()}
    for module in tree.modules:
        for name in tree.sources(module):
            tree.write(name, texts.get(name, tree.plain[name]))
    return texts


def build(tree, mutants, results, programs, jobs):
    """The mutants that compile. What does not is remembered."""
    left = [one for one in mutants if not results.get("refused", key_of(one))]
    for attempt in range(MOST_BUILDS):
        texts = put(tree, left)
        output = tree.make(programs, jobs)
        if not output:
            results.save()
            return left
        refused = refused_numbers(texts, tree.places_of_errors(output), attempt)
        if not refused:
            raise RuntimeError(f"the copy does not build, and no mutant is to blame:\n{output[-3000:]}")
        print(f"mutate: the compiler refuses {len(refused)} mutants", file=sys.stderr, flush=True)
        for one in left:
            if one.number in refused:
                results.put("refused", key_of(one), True)
        left = [one for one in left if one.number not in refused]
    raise RuntimeError("the copy still does not build without what the compiler refused")


def refused_numbers(texts, places, attempt):
    """The last switch before the error; all of its line, once that has not helped."""
    refused = set()
    for name, line, column in places:
        if name not in texts:
            continue
        text = texts[name].split(b"\n")[line - 1 + LINES_AT_THE_HEAD]
        numbers = [(one.start(), int(one.group(1))) for one in NUMBER.finditer(text)]
        before = [number for start, number in numbers if start < column]
        if attempt > 3 or not before:
            refused.update(number for _, number in numbers)
        else:
            refused.add(before[-1])
    return refused
