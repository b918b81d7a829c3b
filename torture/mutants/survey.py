"""Which test reaches which mutant: only those tests can notice it."""
import concurrent.futures
import hashlib
import os
import sys

from tree import read
from trial import list_tests, reach


class Survey:
    """Each test runs once by itself, and notes what it reaches, also in processes that it starts."""

    def __init__(self, tree, programs, mutants, results, jobs):
        self.programs = [os.path.join(tree.build, "bin", one) for one in programs]
        self.library = read(os.path.join(tree.build, "lib", "libtarv.so"))
        self.numbers = [one.number for one in mutants]
        self.results = results
        self.tests = {}  # by program and test: seconds, and the numbers reached
        self.digests = {}
        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            for program in self.programs:
                self.run_all(program, pool)
        results.save()

    def run_all(self, program, pool):
        name = os.path.basename(program)
        digest = hashlib.sha256(read(program) + self.library).hexdigest()[:16]
        self.digests[name] = digest
        known = self.results.get("survey", name)
        if not known or known["digest"] != digest:
            tests = list_tests(program)
            print(f"mutate: what {len(tests)} tests of {name} reach", file=sys.stderr, flush=True)
            found = pool.map(lambda test: reach(program, test, self.numbers), tests)
            known = {"digest": digest, "tests": {test: one for test, one in zip(tests, found) if one}}
            left_out = sorted(set(tests) - set(known["tests"]))
            if left_out:
                print(f"mutate: slow, or fail unchanged: {' '.join(left_out)}", file=sys.stderr, flush=True)
            if 2 * len(left_out) > len(tests):
                raise RuntimeError(f"most tests of {name} fail although no mutant is on: the copy is at fault")
            self.results.put("survey", name, known)
        for test, one in known["tests"].items():
            self.tests[(program, test)] = (one["seconds"], set(one["reached"]))

    def who_can_notice(self, number):
        """By program, in the table's order, the tests that reach the mutant, and the seconds they take."""
        found = []
        for program in self.programs:
            those = {test: seconds for (owner, test), (seconds, reached) in self.tests.items()
                     if owner == program and number in reached}
            if those:
                found.append((program, those))
        return found
